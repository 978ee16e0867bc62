// The console page's model: what the page shows and the changes it asks for,
// built from the host on the host's thread only (between two exchanges).
#ifndef XBC_HOST_CONSOLE_MODEL_H
#define XBC_HOST_CONSOLE_MODEL_H

#include "console_bridge.h"
#include "xbc_host.h"

#include <QElapsedTimer>
#include <QHash>
#include <QJsonObject>
#include <QList>
#include <QStringList>

namespace xbchost {

enum {
    STREAM_RETRY_MS = 1000, // the browser's pause before it reconnects a stream
};

struct ConsoleWrite {
    int tag = 0;
    QString text;
    WriteItem item;
};

struct RateSample {
    qint64 atMs = 0;
    int frames = 0;
    int cycles = 0;
    qint64 cycleNs = 0;
};

// What the page was last told of a value row.
struct RowFreshness {
    bool known = false;
    bool stale = false;
    qint64 lastGoodStep = -1; // time of the last good reply, in steps of the model's clock
};

struct ConsoleModel {
    ConsoleModel(Host &h, ConsoleBridge &b) : host(h), bridge(b)
    {
    }

    Host &host;
    ConsoleBridge &bridge;
    QStringList frameLines;
    QStringList unsentFrameLines;
    QList<ConsoleWrite> pendingWrites;
    QList<QJsonObject> recentWrites;
    QHash<QString, RowFreshness> freshness; // by value row
    QElapsedTimer clock;
    qint64 lastStatusMs = 0;
    qint64 lastFramesMs = 0;
    RateSample lastSample;
    double framesPerSecond = 0;
    double cycleMs = -1; // -1: no cycle completed in the last period
};

// {"ok": false, "message": message}
QJsonObject refusal(const QString &message);

// Everything a page needs to start, with the feed position it is current to.
QJsonObject snapshotJson(ConsoleModel &m);
QJsonObject addWatchFromPage(ConsoleModel &m, const QString &text);
QJsonObject removeWatchFromPage(ConsoleModel &m, const QString &text);
QJsonObject writeFromPage(ConsoleModel &m, const QString &target, const QString &values);

// The host's observers.
void keepFrameLine(ConsoleModel &m, const QString &line);
void publishChange(ConsoleModel &m, const Notification &note);
// Runs between two exchanges of the loop, with no frame in flight.
void serveHostSide(ConsoleModel &m);

} // namespace xbchost

#endif
