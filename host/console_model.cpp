// The console page's model. Host thread only.
#include "console_model.h"

#include <QJsonArray>
#include <QTime>

#include <algorithm>

namespace xbchost {

namespace {

enum {
    FRAME_LINES_KEPT = 200, // frames the page lists
    WRITES_KEPT = 20,       // recent writes shown with their outcome
    MAX_WATCHES = 64,
    MAX_WATCH_ELEMENTS = 256, // rows of one watch; the table stays readable
    MAX_WRITE_VALUES = 64,
    STATUS_PERIOD_MS = 500,
    FRAMES_PERIOD_MS = 100,
    AGE_STEP_MS = 100, // the page counts a stale value's age on from what it was told
};

const QString TIME_FORMAT = QStringLiteral("HH:mm:ss.zzz");

// Rows are keyed by register and numeric address, as notifications name them.
QString elementKey(const QString &regName, int address)
{
    return QStringLiteral("%1:%2").arg(regName).arg(address);
}

QString watchText(const KEY_ADDRESS &key)
{
    QString text = QStringLiteral("%1:%2").arg(key.regName, addressText(key.regName, key.address));
    if (key.count > 1)
        text += QStringLiteral(":%1").arg(key.count);
    return text;
}

// Whether a row's value is known and live. A stale row carries its age,
// which the page counts on by itself until a good reply resets it.
RowFreshness rowFreshness(ConsoleModel &m, const QString &regName, int address, int *value)
{
    const ValueView v = valueView(m.host, regName, address);
    if (value)
        *value = v.value;
    const qint64 lastGoodStep = v.ageMs < 0 ? -1 : (m.clock.elapsed() - v.ageMs) / AGE_STEP_MS;
    return RowFreshness{v.known, v.stale, lastGoodStep};
}

QJsonObject freshnessJson(ConsoleModel &m, const RowFreshness &f)
{
    QJsonObject out{{QStringLiteral("known"), f.known}, {QStringLiteral("stale"), f.stale}};
    if (f.stale && f.lastGoodStep >= 0)
        out.insert(QStringLiteral("ageMs"),
                   double(m.clock.elapsed() - f.lastGoodStep * AGE_STEP_MS));
    return out;
}

QJsonArray watchesJson(ConsoleModel &m)
{
    QJsonArray watches;
    for (const KEY_ADDRESS &key : qAsConst(m.host.keys)) {
        QJsonArray elements;
        for (int i = 0; i < key.count; ++i) {
            const int address = key.address + i;
            int value = 0;
            const RowFreshness f = rowFreshness(m, key.regName, address, &value);
            m.freshness.insert(elementKey(key.regName, address), f);
            QJsonObject element = freshnessJson(m, f);
            element.insert(QStringLiteral("key"), elementKey(key.regName, address));
            element.insert(QStringLiteral("label"), addressText(key.regName, address));
            element.insert(QStringLiteral("value"), value);
            elements.append(element);
        }
        watches.append(QJsonObject{{QStringLiteral("text"), watchText(key)},
                                   {QStringLiteral("reg"), key.regName},
                                   {QStringLiteral("bit"), isBitRegister(m.host, key.regName)},
                                   {QStringLiteral("elements"), elements}});
    }
    return watches;
}

// Rows whose known/stale state or last good reply moved since the page was
// last told.
QJsonArray freshnessChanges(ConsoleModel &m)
{
    QJsonArray changes;
    for (const KEY_ADDRESS &key : qAsConst(m.host.keys)) {
        for (int i = 0; i < key.count; ++i) {
            const QString k = elementKey(key.regName, key.address + i);
            const RowFreshness now = rowFreshness(m, key.regName, key.address + i, nullptr);
            const RowFreshness before = m.freshness.value(k);
            // A fresh row's reply time moves all the time; only a stale one shows it.
            if (now.known == before.known && now.stale == before.stale &&
                (!now.stale || now.lastGoodStep == before.lastGoodStep))
                continue;
            m.freshness.insert(k, now);
            QJsonObject change = freshnessJson(m, now);
            change.insert(QStringLiteral("key"), k);
            changes.append(change);
        }
    }
    return changes;
}

void sampleRates(ConsoleModel &m)
{
    const HostStats &s = m.host.stats;
    const RateSample now{m.clock.elapsed(), s.framesSent, s.pollCycles, s.pollCycleNsTotal};
    const qint64 spanMs = now.atMs - m.lastSample.atMs;
    if (spanMs > 0)
        m.framesPerSecond = (now.frames - m.lastSample.frames) * 1000.0 / spanMs;
    const int cycles = now.cycles - m.lastSample.cycles;
    m.cycleMs = cycles > 0 ? double(now.cycleNs - m.lastSample.cycleNs) / 1e6 / cycles : -1;
    m.lastSample = now;
}

double roundTo(double value, int decimals)
{
    const double scale = decimals == 1 ? 10 : 100;
    return qRound(value * scale) / scale;
}

QJsonObject statusJson(ConsoleModel &m)
{
    const HostStats &s = m.host.stats;
    const Link &link = m.host.link;
    QJsonObject status{
        {QStringLiteral("link"), linkStateText(linkState(m.host))},
        {QStringLiteral("plc"), plcStateText(m.host)},
        {QStringLiteral("staleAfterMs"), double(staleAfterMs(m.host))},
        {QStringLiteral("target"), targetText(link.config)},
        {QStringLiteral("connects"), link.connects},
        {QStringLiteral("drops"), s.linkDrops},
        {QStringLiteral("failedAttempts"), link.failedAttempts},
        {QStringLiteral("framesPerSecond"), roundTo(m.framesPerSecond, 1)},
        {QStringLiteral("framesSent"), s.framesSent},
        {QStringLiteral("goodReplies"), s.goodReplies},
        {QStringLiteral("retries"), s.retries},
        {QStringLiteral("abandoned"), s.abandoned},
        {QStringLiteral("pollCycles"), s.pollCycles},
        {QStringLiteral("time"), QTime::currentTime().toString(QStringLiteral("HH:mm:ss"))}};
    if (m.cycleMs >= 0)
        status.insert(QStringLiteral("cycleMs"), roundTo(m.cycleMs, 2));
    const double planned = plannedCycleMs(m.host);
    if (planned > 0)
        status.insert(QStringLiteral("plannedCycleMs"), roundTo(planned, 2));
    return status;
}

void publishWatches(ConsoleModel &m)
{
    publish(m.bridge, "watches", QJsonObject{{QStringLiteral("watches"), watchesJson(m)}});
}

QJsonObject accepted(const QString &message)
{
    return QJsonObject{{QStringLiteral("ok"), true}, {QStringLiteral("message"), message}};
}

QJsonObject writeJson(int tag, const QString &text, const QString &state, const QString &message)
{
    return QJsonObject{{QStringLiteral("id"), tag},
                       {QStringLiteral("text"), text},
                       {QStringLiteral("state"), state},
                       {QStringLiteral("message"), message},
                       {QStringLiteral("time"), QTime::currentTime().toString(TIME_FORMAT)}};
}

void rememberWrite(ConsoleModel &m, const QJsonObject &write)
{
    const int id = write.value(QStringLiteral("id")).toInt();
    auto same = [id](const QJsonObject &w) { return w.value(QStringLiteral("id")).toInt() == id; };
    const auto it = std::find_if(m.recentWrites.begin(), m.recentWrites.end(), same);
    if (it != m.recentWrites.end()) {
        *it = write;
    } else {
        m.recentWrites.prepend(write);
        while (m.recentWrites.size() > WRITES_KEPT)
            m.recentWrites.removeLast();
    }
    publish(m.bridge, "write", write);
}

// What the values of a failed write show now: the PLC's last answer, or
// unknown where the PLC never answered for them.
QString fallbackText(ConsoleModel &m, const WriteItem &item)
{
    QStringList parts;
    for (int i = 0; i < item.values.size(); ++i) {
        const ValueView v = valueView(m.host, item.regName, item.address + i);
        parts << (v.known ? QString::number(v.value) : QStringLiteral("unknown"));
    }
    return parts.join(QLatin1Char(','));
}

QJsonObject outcomeJson(ConsoleModel &m, const ConsoleWrite &w, const WriteRecord &record)
{
    if (record.localOnly)
        return writeJson(
            w.tag, w.text, QStringLiteral("local"),
            QStringLiteral("kept in the driver's image only (local-write-only property)"));
    if (record.failed == 0)
        return writeJson(w.tag, w.text, QStringLiteral("landed"),
                         QStringLiteral("the PLC acknowledged the write"));
    const QString why =
        record.failReason.isEmpty() ? QString() : QStringLiteral(" (%1)").arg(record.failReason);
    return writeJson(w.tag, w.text, QStringLiteral("failed"),
                     QStringLiteral("the PLC did not confirm the write%1; the value shown is %2")
                         .arg(why, fallbackText(m, w.item)));
}

// Reports each write once the driver has settled all of its frames.
void settleWrites(ConsoleModel &m)
{
    for (int i = 0; i < m.pendingWrites.size();) {
        const ConsoleWrite &w = m.pendingWrites.at(i);
        const WriteRecord record = m.host.writes.value(w.tag);
        if (!record.done) {
            ++i;
            continue;
        }
        const QJsonObject outcome = outcomeJson(m, w, record);
        m.pendingWrites.removeAt(i);
        rememberWrite(m, outcome);
    }
}

void keepLast(QStringList &lines, const QString &line)
{
    lines.append(line);
    while (lines.size() > FRAME_LINES_KEPT)
        lines.removeFirst();
}

} // namespace

QJsonObject refusal(const QString &message)
{
    return QJsonObject{{QStringLiteral("ok"), false}, {QStringLiteral("message"), message}};
}

QJsonObject snapshotJson(ConsoleModel &m)
{
    QList<QString> bitNames;
    QList<QString> wordNames;
    m.host.api.getRegListByType(0, bitNames);
    m.host.api.getRegListByType(1, wordNames);
    QJsonObject snapshot{
        {QStringLiteral("driver"), m.host.api.getVersion()},
        {QStringLiteral("status"), statusJson(m)},
        {QStringLiteral("watches"), watchesJson(m)},
        {QStringLiteral("frames"), QJsonArray::fromStringList(m.frameLines)},
        {QStringLiteral("registers"), QJsonArray::fromStringList(bitNames + wordNames)},
        {QStringLiteral("retry"), int(STREAM_RETRY_MS)}};
    QJsonArray writes;
    for (const QJsonObject &w : qAsConst(m.recentWrites))
        writes.append(w);
    snapshot.insert(QStringLiteral("writes"), writes);
    snapshot.insert(QStringLiteral("seq"), double(feedEnd(m.bridge)));
    return snapshot;
}

QJsonObject addWatchFromPage(ConsoleModel &m, const QString &text)
{
    WatchItem item;
    const QString error = parseWatch(m.host, text, item);
    if (!error.isEmpty())
        return refusal(error);
    if (item.count > MAX_WATCH_ELEMENTS)
        return refusal(QStringLiteral("'%1': the console shows at most %2 values per watch")
                           .arg(text)
                           .arg(int(MAX_WATCH_ELEMENTS)));
    for (const KEY_ADDRESS &key : qAsConst(m.host.keys)) {
        if (key.regName == item.regName && key.address == item.address && key.count == item.count)
            return refusal(QStringLiteral("'%1' is watched already").arg(text));
    }
    if (m.host.keys.size() >= MAX_WATCHES)
        return refusal(QStringLiteral("the console takes at most %1 watches; remove one first")
                           .arg(int(MAX_WATCHES)));
    addWatch(m.host, item);
    remerge(m.host);
    publishWatches(m);
    return accepted(QStringLiteral("watching %1").arg(text));
}

QJsonObject removeWatchFromPage(ConsoleModel &m, const QString &text)
{
    for (int i = 0; i < m.host.keys.size(); ++i) {
        if (watchText(m.host.keys.at(i)) != text)
            continue;
        m.host.keys.removeAt(i);
        remerge(m.host);
        publishWatches(m);
        return accepted(QStringLiteral("no longer watching %1").arg(text));
    }
    return refusal(QStringLiteral("'%1' is not watched").arg(text));
}

QJsonObject writeFromPage(ConsoleModel &m, const QString &target, const QString &values)
{
    WriteItem item;
    const QString error = parseWrite(m.host, QStringLiteral("%1=%2").arg(target, values), item);
    if (!error.isEmpty())
        return refusal(error);
    if (item.values.size() > MAX_WRITE_VALUES)
        return refusal(QStringLiteral("the console writes at most %1 values at once")
                           .arg(int(MAX_WRITE_VALUES)));
    const int tag = queueWriteItem(m.host, item);
    const QString shown = QStringLiteral("%1 = %2").arg(target, valuesText(item.values));
    const QJsonObject write = writeJson(tag, shown, QStringLiteral("pending"),
                                        QStringLiteral("waiting for the PLC's answer"));
    m.pendingWrites.append(ConsoleWrite{tag, shown, item});
    rememberWrite(m, write);
    QJsonObject answer = write;
    answer.insert(QStringLiteral("ok"), true);
    return answer;
}

void keepFrameLine(ConsoleModel &m, const QString &line)
{
    keepLast(m.frameLines, line);
    keepLast(m.unsentFrameLines, line);
}

void publishChange(ConsoleModel &m, const Notification &note)
{
    if (note.repeated)
        return;
    const QString key = elementKey(note.name, note.address);
    m.freshness.insert(key, RowFreshness{note.known, false, m.clock.elapsed() / AGE_STEP_MS});
    publish(m.bridge, "value",
            QJsonObject{{QStringLiteral("key"), key},
                        {QStringLiteral("value"), note.value},
                        {QStringLiteral("known"), note.known},
                        {QStringLiteral("time"), note.wallTime.toString(TIME_FORMAT)}});
}

void serveHostSide(ConsoleModel &m)
{
    runHostJobs(m.bridge);
    settleWrites(m);
    const qint64 now = m.clock.elapsed();
    if (!m.unsentFrameLines.isEmpty() && now - m.lastFramesMs >= FRAMES_PERIOD_MS) {
        publish(
            m.bridge, "frames",
            QJsonObject{{QStringLiteral("lines"), QJsonArray::fromStringList(m.unsentFrameLines)}});
        m.unsentFrameLines.clear();
        m.lastFramesMs = now;
    }
    if (now - m.lastStatusMs >= STATUS_PERIOD_MS) {
        sampleRates(m);
        publish(m.bridge, "status", statusJson(m));
        const QJsonArray changes = freshnessChanges(m);
        if (!changes.isEmpty())
            publish(m.bridge, "freshness", QJsonObject{{QStringLiteral("rows"), changes}});
        m.lastStatusMs = now;
    }
}

} // namespace xbchost
