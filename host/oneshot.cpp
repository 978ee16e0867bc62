// The one-shot commands: read once, write and wait for the outcome, and the
// plan of a poll cycle. Each says what it could not do and why.
#include "xbc_host.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <climits>
#include <cstdio>

namespace xbchost {

namespace {

void out(const QString &text)
{
    std::fprintf(stdout, "%s\n", text.toLocal8Bit().constData());
    std::fflush(stdout);
}

void err(const QString &text)
{
    std::fprintf(stderr, "xbc-host: %s\n", text.toLocal8Bit().constData());
}

QString seconds(int ms)
{
    return QString::number(ms / 1000.0, 'g', 4);
}

// Why nothing (or not everything) came back: the link first, then the PLC.
QString whyNoAnswer(const Host &host)
{
    if (host.link.connects == 0)
        return QStringLiteral("the link never came up (%1)").arg(host.lastLinkProblem);
    if (linkState(host) != LinkState::Connected)
        return QStringLiteral("the link is %1 (%2)")
            .arg(linkStateText(linkState(host)), host.lastLinkProblem);
    if (!host.lastProblem.isEmpty())
        return QStringLiteral("the PLC did not answer: %1").arg(host.lastProblem.mid(3));
    return QStringLiteral("the PLC did not answer");
}

struct ReadValue {
    QString where; // "D_W:5"
    ValueView view;
};

QList<ReadValue> readValues(Host &host, const QList<WatchItem> &items)
{
    QList<ReadValue> values;
    for (const WatchItem &w : items)
        for (int i = 0; i < w.count; ++i)
            values.append(
                {QStringLiteral("%1:%2").arg(w.regName, addressText(w.regName, w.address + i)),
                 valueView(host, w.regName, w.address + i)});
    return values;
}

void printJson(const Host &host, const QList<ReadValue> &values, const QString &error)
{
    QJsonArray array;
    for (const ReadValue &v : values)
        array.append(QJsonObject{
            {QStringLiteral("address"), v.where},
            {QStringLiteral("value"), v.view.known ? QJsonValue(v.view.value) : QJsonValue()},
            {QStringLiteral("known"), v.view.known},
            {QStringLiteral("stale"), v.view.stale},
            {QStringLiteral("ageMs"), double(v.view.ageMs)}});
    QJsonObject doc{{QStringLiteral("link"), linkStateText(linkState(host))},
                    {QStringLiteral("plc"), plcStateText(host)},
                    {QStringLiteral("values"), array}};
    if (!error.isEmpty())
        doc.insert(QStringLiteral("error"), error);
    out(QString::fromUtf8(QJsonDocument(doc).toJson(QJsonDocument::Compact)));
}

// Runs the loop until done() or the time limit; false when time ran out.
bool runUntil(Host &host, int timeoutMs, const std::function<bool()> &done)
{
    runFor(host, INT_MAX, timeoutMs, done);
    return done();
}

} // namespace

int readOnce(Host &host, const QList<WatchItem> &items, const OneShotOptions &options)
{
    for (const WatchItem &w : items)
        addWatch(host, w);
    startRun(host);
    const bool polled = runUntil(host, options.timeoutMs, [&host]() {
        return host.readBlocks > 0 && host.stats.pollReads >= host.readBlocks;
    });
    const QList<ReadValue> values = readValues(host, items);
    int unknown = 0;
    for (const ReadValue &v : values)
        unknown += v.view.known ? 0 : 1;
    QString error;
    if (!polled)
        error = QStringLiteral("no complete poll within %1 s: %2")
                    .arg(seconds(options.timeoutMs), whyNoAnswer(host));
    else if (unknown > 0)
        error = QStringLiteral("%1 of %2 values unknown: %3")
                    .arg(unknown)
                    .arg(values.size())
                    .arg(whyNoAnswer(host));
    if (options.json) {
        printJson(host, values, error);
    } else {
        for (const ReadValue &v : values)
            out(QStringLiteral("%1 = %2").arg(v.where, valueViewText(v.view)));
    }
    if (!error.isEmpty())
        err(error);
    return error.isEmpty() ? ONE_SHOT_OK : ONE_SHOT_FAILED;
}

int writeAndWait(Host &host, const QList<WriteItem> &items, const OneShotOptions &options)
{
    startRun(host);
    QList<int> tags;
    for (const WriteItem &w : items)
        tags.append(queueWriteItem(host, w));
    runUntil(host, options.timeoutMs, [&host]() { return host.openWrites.isEmpty(); });
    QStringList failed;
    for (int tag : tags) {
        const WriteRecord &w = host.writes[tag];
        if (!w.done)
            failed << QStringLiteral("%1: no outcome within %2 s: %3")
                          .arg(w.text, seconds(options.timeoutMs), whyNoAnswer(host));
        else if (!writeLanded(w))
            failed << QStringLiteral("%1: %2").arg(
                w.text, w.failReason.isEmpty() ? QStringLiteral("the driver sent no frame for it")
                                               : w.failReason);
    }
    if (failed.isEmpty())
        return ONE_SHOT_OK;
    err(QStringLiteral("%1 of %2 writes did not land:").arg(failed.size()).arg(tags.size()));
    for (const QString &f : failed)
        std::fprintf(stderr, "  %s\n", f.toLocal8Bit().constData());
    return ONE_SHOT_FAILED;
}

int printPlan(Host &host, const QString &properties, const QString &line)
{
    SerialLine serial;
    const QString lineError = parseSerialLine(line, serial);
    if (!lineError.isEmpty()) {
        err(lineError);
        return ONE_SHOT_FAILED;
    }
    CyclePlan plan;
    QString error = planCycle(host, properties, plan);
    if (!error.isEmpty()) {
        err(error);
        return ONE_SHOT_FAILED;
    }
    out(QStringLiteral("read blocks (maxPacketLen %1): %2")
            .arg(plan.maxPacketLen)
            .arg(plan.blocks.size()));
    for (const QString &b : plan.blocks)
        out(QStringLiteral("  %1").arg(b));
    out(QStringLiteral("frames of one poll cycle: %1").arg(plan.frames.size()));
    for (const PlannedFrame &f : plan.frames)
        out(QStringLiteral("  %1: request %2 bytes, reply %3 bytes")
                .arg(f.what)
                .arg(f.request.size())
                .arg(f.replyLen));
    const qint64 bytes = plan.requestBytes + plan.replyBytes;
    out(QStringLiteral("per cycle: %1 bytes on the line (requests %2, replies %3); "
                       "line time %4 ms at %5 (%6 bits a character)")
            .arg(bytes)
            .arg(plan.requestBytes)
            .arg(plan.replyBytes)
            .arg(lineTimeMs(bytes, serial), 0, 'f', 2)
            .arg(line)
            .arg(bitsPerCharacter(serial)));
    out(QStringLiteral("maxPacketLen  blocks  frames  bytes  line time (ms)"));
    for (int len : PLANNED_PACKET_LENGTHS) {
        CyclePlan other;
        error = planCycle(host, withMaxPacketLen(properties, len), other);
        if (!error.isEmpty()) {
            err(error);
            return ONE_SHOT_FAILED;
        }
        const qint64 otherBytes = other.requestBytes + other.replyBytes;
        out(QStringLiteral("%1  %2  %3  %4  %5%6")
                .arg(len, 12)
                .arg(other.blocks.size(), 6)
                .arg(other.frames.size(), 6)
                .arg(otherBytes, 5)
                .arg(lineTimeMs(otherBytes, serial), 14, 'f', 2)
                .arg(len == plan.maxPacketLen ? QStringLiteral("  (this setting)") : QString()));
    }
    return ONE_SHOT_OK;
}

} // namespace xbchost
