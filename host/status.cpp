// What the host knows of the link, the PLC and each value, judged by the loop
// itself; the CLI, the summary and the console show these and nothing else.
#include "xbc_host.h"

#include <QDateTime>

#include <cmath>

namespace xbchost {

namespace {

// Bit registers that are bits of a word (M_bit: word * 16 + bit); the
// contacts TX and CX count one by one.
bool bitOfWord(const QString &regName)
{
    return regName.endsWith(QLatin1String("_bit"));
}
enum { WORD_BITS = 16 };

qint64 nowMs(const Host &host)
{
    return host.clock.isValid() ? host.clock.elapsed() : 0;
}

// The time between two refreshes of the same value: the busy time of a
// cycle, or the pause that pads it to the cycle floor.
double cyclePeriodMs(const Host &host)
{
    double busy = host.goodCycles > 0 ? double(host.goodCycleNsTotal) / 1e6 / host.goodCycles
                                      : plannedCycleMs(host);
    return qMax(busy, double(host.config.cycleFloorMs));
}

// A record of a bit register is covered by the words of its word register.
bool covers(const Coverage &c, int station, const QString &regName, int address)
{
    if (c.stationNo != station)
        return false;
    if (c.regName == regName)
        return address >= c.first && address - c.first < c.count;
    return !c.bitRegName.isEmpty() && c.bitRegName == regName && address >= 0 &&
           address / WORD_BITS >= c.first && address / WORD_BITS - c.first < c.count;
}

qint64 lastCoveredMs(const Host &host, int station, const QString &regName, int address)
{
    qint64 last = -1;
    for (const Coverage &c : host.coverage) {
        if (covers(c, station, regName, address))
            last = qMax(last, c.lastGoodMs);
    }
    return last;
}

// "M_bit" for "M_W" when the driver has such a bit register.
QString bitRegisterOfWords(const Host &host, const QString &regName)
{
    if (!regName.endsWith(QLatin1String("_W")))
        return QString();
    const QString bits = regName.chopped(2) + QLatin1String("_bit");
    return isBitRegister(host, bits) ? bits : QString();
}

} // namespace

void noteCoverage(Host &host, int station, const QString &regName, int first, int count)
{
    const qint64 now = nowMs(host);
    for (Coverage &c : host.coverage) {
        if (c.first == first && c.count == count && c.stationNo == station &&
            c.regName == regName) {
            c.lastGoodMs = now;
            return;
        }
    }
    host.coverage.append(
        Coverage{station, regName, first, count, now, bitRegisterOfWords(host, regName)});
}

void noteGoodRead(Host &host, const FRAME_PRO &f)
{
    noteCoverage(host, f.var.stationNo, f.var.regName, f.var.address, f.wordCount);
}

bool isCovered(const Host &host, int station, const QString &regName, int address)
{
    return lastCoveredMs(host, station, regName, address) >= 0;
}

LinkState linkState(const Host &host)
{
    if (linkIsUp(host))
        return LinkState::Connected;
    const Link &link = host.link;
    if (link.connects == 0)
        return link.failedAttempts == 0 ? LinkState::Reconnecting : LinkState::Down;
    return link.failedAttempts < RECONNECT_GRACE_ATTEMPTS ? LinkState::Reconnecting
                                                          : LinkState::Down;
}

QString linkStateText(LinkState state)
{
    switch (state) {
    case LinkState::Connected:
        return QStringLiteral("connected");
    case LinkState::Reconnecting:
        return QStringLiteral("reconnecting");
    case LinkState::Down:
        break;
    }
    return QStringLiteral("down");
}

qint64 staleAfterMs(const Host &host)
{
    const double period = cyclePeriodMs(host);
    const int tries = qMax(1, host.props.retryTimes);
    const double abandonMs = double(tries) * host.config.replyTimeoutMs + period;
    return qint64(std::ceil(qMax(double(MIN_STALE_MS), qMax(STALE_CYCLES * period, abandonMs))));
}

bool plcSilent(const Host &host)
{
    return host.waitingSinceMs >= 0 && nowMs(host) - host.waitingSinceMs > staleAfterMs(host);
}

bool plcAnswering(const Host &host)
{
    return host.lastGoodReplyMs >= 0 && !plcSilent(host) && linkState(host) == LinkState::Connected;
}

QString plcStateText(const Host &host)
{
    return plcAnswering(host) ? QStringLiteral("answering") : QStringLiteral("not answering");
}

ValueView valueView(Host &host, const QString &regName, int address)
{
    ValueView view;
    const qint64 last = lastCoveredMs(host, host.config.stationNo, regName, address);
    view.value = shownValues(host, regName, address, 1).value(0);
    if (last < 0)
        return view;
    view.known = true;
    view.ageMs = nowMs(host) - last;
    view.stale = view.ageMs > staleAfterMs(host);
    return view;
}

QString valueViewText(const ValueView &view)
{
    if (!view.known)
        return QStringLiteral("unknown");
    if (!view.stale)
        return QString::number(view.value);
    return QStringLiteral("%1 (stale, %2 s old)")
        .arg(view.value)
        .arg(view.ageMs / 1000.0, 0, 'f', 1);
}

double plannedCycleMs(const Host &host)
{
    const LinkConfig &c = host.link.config;
    const QString lineText = c.kind == LinkConfig::Serial ? c.line : c.planLine;
    SerialLine line;
    if (lineText.isEmpty() || host.plannedCycleBytes <= 0 ||
        !parseSerialLine(lineText, line).isEmpty())
        return 0;
    return lineTimeMs(host.plannedCycleBytes, line);
}

double measuredCycleMs(const Host &host)
{
    const HostStats &s = host.stats;
    return s.pollCycles > 0 ? double(s.pollCycleNsTotal) / 1e6 / s.pollCycles : -1;
}

QString watchedValuesText(Host &host)
{
    int fresh = 0, stale = 0, unknown = 0;
    qint64 oldestMs = 0;
    for (const KEY_ADDRESS &key : qAsConst(host.keys)) {
        for (int i = 0; i < key.count; ++i) {
            const ValueView v = valueView(host, key.regName, key.address + i);
            fresh += v.known && !v.stale ? 1 : 0;
            stale += v.stale ? 1 : 0;
            unknown += v.known ? 0 : 1;
            if (v.stale)
                oldestMs = qMax(oldestMs, v.ageMs);
        }
    }
    QString text = QStringLiteral("values: %1 fresh, %2 stale").arg(fresh).arg(stale);
    if (stale > 0)
        text += QStringLiteral(" (oldest %1 s)").arg(oldestMs / 1000.0, 0, 'f', 1);
    return text + QStringLiteral(", %1 unknown (no good reply ever filled them)").arg(unknown);
}

QString valuesText(const QVector<int> &values)
{
    QStringList texts;
    for (int v : values)
        texts << QString::number(v);
    return texts.join(QLatin1Char(','));
}

QString addressText(const QString &regName, int address)
{
    if (bitOfWord(regName))
        return QStringLiteral("%1.%2").arg(address / WORD_BITS).arg(address % WORD_BITS);
    return QString::number(address);
}

QString recordText(const QString &regName, int address)
{
    return QStringLiteral("%1 %2").arg(regName, addressText(regName, address));
}

void remerge(Host &host)
{
    host.readBlocks = host.api.addrMerge(&host.keys);
    host.pollReadsInCycle = 0;
    host.cycleBytes = 0;
    host.plannedCycleBytes = 0;
    host.cycleTimer.invalidate();
}

QString stampedText(const QString &text)
{
    return QStringLiteral("%1 %2").arg(
        QTime::currentTime().toString(QStringLiteral("HH:mm:ss.zzz")), text);
}

QString openLog(LogFile &log, const QString &path)
{
    log.file.setFileName(path);
    if (!log.file.open(QIODevice::WriteOnly | QIODevice::Truncate | QIODevice::Text))
        return QStringLiteral("--log '%1': %2").arg(path, log.file.errorString());
    log.file.write("time,register,address,value\n");
    log.file.flush();
    return QString();
}

void logChange(LogFile &log, const Notification &note, const QString &value)
{
    const QString row = QStringLiteral("%1,%2,%3,%4\n")
                            .arg(QDateTime::currentDateTime().toString(Qt::ISODateWithMs),
                                 note.name, addressText(note.name, note.address), value);
    log.file.write(row.toUtf8());
    log.file.flush();
}

void closeLog(LogFile &log)
{
    if (log.file.isOpen())
        log.file.close();
}

} // namespace xbchost
