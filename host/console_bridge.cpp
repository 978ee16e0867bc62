// The console's bridge between the server's threads and the host's thread.
#include "console_bridge.h"

#include <QJsonDocument>

#include <chrono>

namespace xbchost {

struct HostJob {
    std::function<QJsonObject()> work;
    std::mutex mutex;
    std::condition_variable finished;
    bool done = false;
    QJsonObject answer;
};

QByteArray compactJson(const QJsonObject &object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

std::string encodeEvent(const char *name, const QJsonObject &data)
{
    std::string out = "event: ";
    out += name;
    out += "\ndata: ";
    out += compactJson(data).toStdString();
    out += "\n\n";
    return out;
}

namespace {

quint64 endLocked(const ConsoleBridge &bridge)
{
    return bridge.firstSeq + bridge.events.size();
}

} // namespace

quint64 feedEnd(ConsoleBridge &bridge)
{
    std::lock_guard<std::mutex> lock(bridge.feedMutex);
    return endLocked(bridge);
}

void publish(ConsoleBridge &bridge, const char *name, const QJsonObject &data)
{
    std::string event = encodeEvent(name, data);
    {
        std::lock_guard<std::mutex> lock(bridge.feedMutex);
        bridge.events.push_back(std::move(event));
        while (bridge.events.size() > FEED_EVENTS_KEPT) {
            bridge.events.pop_front();
            ++bridge.firstSeq;
        }
    }
    bridge.feedChanged.notify_all();
}

bool callHost(ConsoleBridge &bridge, std::function<QJsonObject()> work, QJsonObject &answer)
{
    auto job = std::make_shared<HostJob>();
    job->work = std::move(work);
    {
        std::lock_guard<std::mutex> lock(bridge.jobsMutex);
        if (bridge.stopping)
            return false;
        bridge.jobs.push_back(job);
    }
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(HOST_ANSWER_TIMEOUT_MS);
    std::unique_lock<std::mutex> lock(job->mutex);
    while (!job->done) {
        if (bridge.stopping || std::chrono::steady_clock::now() >= deadline)
            return false;
        job->finished.wait_for(lock, std::chrono::milliseconds(HOST_ANSWER_SLICE_MS));
    }
    answer = job->answer;
    return true;
}

void runHostJobs(ConsoleBridge &bridge)
{
    std::deque<std::shared_ptr<HostJob>> jobs;
    {
        std::lock_guard<std::mutex> lock(bridge.jobsMutex);
        jobs.swap(bridge.jobs);
    }
    for (const std::shared_ptr<HostJob> &job : jobs) {
        QJsonObject answer = job->work();
        std::lock_guard<std::mutex> lock(job->mutex);
        job->answer = std::move(answer);
        job->done = true;
        job->finished.notify_all();
    }
}

bool openStream(ConsoleBridge &bridge)
{
    std::lock_guard<std::mutex> lock(bridge.feedMutex);
    if (bridge.streams >= MAX_EVENT_STREAMS)
        return false;
    ++bridge.streams;
    return true;
}

void closeStream(ConsoleBridge &bridge)
{
    std::lock_guard<std::mutex> lock(bridge.feedMutex);
    --bridge.streams;
}

bool takeEvents(ConsoleBridge &bridge, StreamCursor &cursor, std::string &out)
{
    std::unique_lock<std::mutex> lock(bridge.feedMutex);
    bridge.feedChanged.wait_for(lock, std::chrono::milliseconds(STREAM_IDLE_MS), [&]() {
        return bridge.stopping || endLocked(bridge) > cursor.next;
    });
    if (bridge.stopping)
        return false;
    if (cursor.next < bridge.firstSeq) {
        cursor.needSnapshot = true;
        return true;
    }
    for (quint64 i = cursor.next - bridge.firstSeq; i < bridge.events.size(); ++i)
        out += bridge.events[i];
    cursor.next = endLocked(bridge);
    return true;
}

void stopBridge(ConsoleBridge &bridge)
{
    {
        std::lock_guard<std::mutex> lock(bridge.jobsMutex);
        bridge.stopping = true;
        bridge.jobs.clear();
    }
    {
        // Taken so that no stream misses the wake-up between its check and its wait.
        std::lock_guard<std::mutex> lock(bridge.feedMutex);
    }
    bridge.feedChanged.notify_all();
}

} // namespace xbchost
