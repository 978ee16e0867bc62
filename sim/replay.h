// Replay of a capture: xbc-plc-sim --replay FILE answers as the recorded PLC
// did. Each request gets the reply that was recorded for the same request
// bytes; a request recorded several times gets its replies in recorded
// order, and past the last one the last is repeated. NAKs, corrupted and
// truncated replies go out as recorded, a recorded timeout is silence, and a
// doubled reply is sent doubled. A request the capture never saw is answered
// from a memory image built from the recorded read replies and writes (with
// --replay-strict it gets silence and a report line).
//
// Reads the captures of xbc-host --capture and xbc-tap (exported PDUs with
// their direction) and Wireshark captures of the TCP traffic (pcap or
// pcapng over Ethernet, Linux cooked, raw IP or loopback), whose payload is
// put together per direction; the PLC's side is port 8000, or else the side
// the first request went to.
#ifndef XBC_REPLAY_H
#define XBC_REPLAY_H

#include "xbc_sim.h"

#include <QCommandLineOption>
#include <QHash>

class QCommandLineParser;

namespace xbcsim {

// The replies recorded for one request, in order; an empty one is silence.
struct RecordedReplies {
    QList<QByteArray> replies;
    int next = 0;    // the one the next request gets
    int pastEnd = 0; // requests served after the last one (the last repeated)
};

struct Replay {
    QString path;
    bool strict = false;
    QHash<QByteArray, RecordedReplies> byRequest;
    QList<QByteArray> recordedOrder; // distinct requests in order of first appearance
    int exchanges = 0;               // recorded request/reply pairs
    int lateBytes = 0;               // reply bytes after a recorded timeout: not replayed
    int answeredAsRecorded = 0;
    int answeredFromImage = 0;
    int leftSilent = 0;            // unseen requests under --replay-strict
    QHash<QByteArray, int> unseen; // requests the capture never saw, with their count
    QList<QByteArray> unseenOrder;
};

// Reads the capture and fills the memory image. Empty error text on success.
QString loadReplay(Replay &replay, const QString &path, Memory &image);
// The bytes to send for one request (empty: nothing). What is replayed also
// goes into the image (read values, acknowledged writes), so a request the
// capture never saw finds the memory as the replay has shown it so far.
QByteArray replayAnswer(Replay &replay, Memory &image, const QByteArray &frame);
// What was replayed and what was not, a few lines.
QStringList replayReport(const Replay &replay);

// The program's side: --replay FILE and --replay-strict.
QList<QCommandLineOption> replayOptions();
// Loads the capture named on the command line, if any, into the simulator and
// makes it answer from it. Empty error text on success (or without --replay).
QString startReplay(const QCommandLineParser &parser, Simulator &sim, Replay &replay);

} // namespace xbcsim

#endif
