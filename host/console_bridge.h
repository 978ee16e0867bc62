// The console's bridge between the HTTP server's threads and the host's
// thread. Server threads never touch the host or the driver: they queue work
// the host's thread runs between two exchanges and wait for its answer.
// The other way, the host's thread publishes events into a feed the page's
// event streams read from.
#ifndef XBC_HOST_CONSOLE_BRIDGE_H
#define XBC_HOST_CONSOLE_BRIDGE_H

#include <QJsonObject>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

namespace xbchost {

enum {
    FEED_EVENTS_KEPT = 2000, // a page further behind starts over from a snapshot
    MAX_EVENT_STREAMS = 4,   // leaves server threads for the page's requests
    HOST_ANSWER_TIMEOUT_MS = 3000,
    HOST_ANSWER_SLICE_MS = 100, // how soon a waiting server thread notices a stop
    STREAM_IDLE_MS = 1000,      // an idle stream still writes, so a gone page is noticed
};

struct HostJob;

struct ConsoleBridge {
    // Host thread to server threads.
    std::mutex feedMutex;
    std::condition_variable feedChanged;
    std::deque<std::string> events; // encoded for an event stream
    quint64 firstSeq = 0;           // sequence number of events.front()
    int streams = 0;
    // Server threads to host thread.
    std::mutex jobsMutex;
    std::deque<std::shared_ptr<HostJob>> jobs;
    std::atomic<bool> stopping{false};
};

QByteArray compactJson(const QJsonObject &object);
std::string encodeEvent(const char *name, const QJsonObject &data);

// Host thread: appends an event for every open and future stream.
void publish(ConsoleBridge &bridge, const char *name, const QJsonObject &data);
// The sequence number the next published event gets.
quint64 feedEnd(ConsoleBridge &bridge);

// Server thread: hands work to the host's thread and waits for its answer.
// False when the host did not come round in time (its loop is not running)
// or the console is stopping.
bool callHost(ConsoleBridge &bridge, std::function<QJsonObject()> work, QJsonObject &answer);
// Host thread, between two exchanges: runs the queued work.
void runHostJobs(ConsoleBridge &bridge);

// A page's place in the feed.
struct StreamCursor {
    quint64 next = 0;
    bool needSnapshot = true;
};
// Counts an open stream; false when MAX_EVENT_STREAMS are open already.
bool openStream(ConsoleBridge &bridge);
void closeStream(ConsoleBridge &bridge);
// Waits up to STREAM_IDLE_MS for events after the cursor and returns them
// encoded (empty when none came). Sets needSnapshot when the page fell
// further behind than the feed keeps; false once the console stops.
bool takeEvents(ConsoleBridge &bridge, StreamCursor &cursor, std::string &out);

// Wakes every waiting server thread and refuses further work.
void stopBridge(ConsoleBridge &bridge);

} // namespace xbchost

#endif
