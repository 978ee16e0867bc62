// Fault injection on replies. Every fault is drawn from one generator seeded
// by the configuration, so a run with the same seed and the same requests
// fails the same replies.
#include "xbc_sim.h"

namespace xbcsim {

namespace {

bool draw(FaultState &state, int percent)
{
    if (percent <= 0)
        return false;
    std::uniform_int_distribution<int> dist(0, 99);
    return dist(state.rng) < percent;
}

int drawIndex(FaultState &state, int from, int to)
{
    std::uniform_int_distribution<int> dist(from, to);
    return dist(state.rng);
}

// Changes one character between the first and the last byte to another hex
// digit: the framing stays intact, the checksum no longer matches.
QByteArray corrupt(FaultState &state, QByteArray reply)
{
    if (reply.size() < 3)
        return reply;
    static const char digits[] = "0123456789ABCDEF";
    const int pos = drawIndex(state, 1, reply.size() - 2);
    char replacement = digits[drawIndex(state, 0, 15)];
    if (replacement == reply[pos])
        replacement = replacement == '0' ? '1' : '0';
    reply[pos] = replacement;
    return reply;
}

} // namespace

void resetFaults(FaultState &state, const FaultConfig &config)
{
    state.config = config;
    state.rng.seed(config.seed);
    state.counters = FaultCounters();
}

QList<QByteArray> applyFaults(FaultState &state, const QByteArray &reply)
{
    const FaultConfig &c = state.config;
    if (draw(state, c.dropPercent)) {
        ++state.counters.dropped;
        return {};
    }
    if (draw(state, c.nakPercent)) {
        ++state.counters.nakAnswered;
        return {nakReply(reply.size() > 1 ? reply.at(1) : '?', ERR_CHECKSUM)};
    }
    QByteArray out = reply;
    if (draw(state, c.corruptPercent)) {
        ++state.counters.corrupted;
        out = corrupt(state, out);
    }
    if (draw(state, c.truncatePercent) && out.size() > 1) {
        ++state.counters.truncated;
        out.truncate(drawIndex(state, 1, out.size() - 1));
    }
    if (draw(state, c.doublePercent)) {
        ++state.counters.doubled;
        return {out, out};
    }
    return {out};
}

QString faultSpecSyntax()
{
    QStringList items;
    for (const FaultKind &kind : FAULT_KINDS)
        items << QLatin1String(kind.name) + QLatin1String("=PCT");
    items << QLatin1String(FAULT_DELAY) + QLatin1String("=MS");
    items << QLatin1String(FAULT_SEED) + QLatin1String("=N");
    return items.join(QLatin1Char(','));
}

QStringList faultCountTexts(const FaultCounters &counters)
{
    QStringList texts;
    for (const FaultKind &kind : FAULT_KINDS)
        texts << QStringLiteral("%1 %2")
                     .arg(QLatin1String(kind.countedAs))
                     .arg(counters.*kind.counter);
    return texts;
}

QStringList faultsBetween(const FaultCounters &before, const FaultCounters &after)
{
    QStringList names;
    for (const FaultKind &kind : FAULT_KINDS)
        if (after.*kind.counter != before.*kind.counter)
            names << QLatin1String(kind.name);
    return names;
}

namespace {

// Sets one NAME=VALUE of a fault spec; empty error text on success.
QString applySpecItem(const QString &item, FaultConfig &c)
{
    const QString key = item.section(QLatin1Char('='), 0, 0).trimmed();
    bool ok = false;
    const qlonglong value = item.section(QLatin1Char('='), 1).trimmed().toLongLong(&ok);
    if (!ok || value < 0)
        return QStringLiteral("fault '%1': expected NAME=NUMBER").arg(item);
    if (key == QLatin1String(FAULT_DELAY)) {
        c.delayMs = int(qMin<qlonglong>(value, MAX_FAULT_DELAY_MS));
        return QString();
    }
    if (key == QLatin1String(FAULT_SEED)) {
        c.seed = quint32(value);
        return QString();
    }
    QStringList names;
    for (const FaultKind &kind : FAULT_KINDS) {
        names << QLatin1String(kind.name);
        if (key != QLatin1String(kind.name))
            continue;
        if (value > 100)
            return QStringLiteral("fault '%1': a percentage runs from 0 to 100").arg(item);
        c.*kind.percent = int(value);
        return QString();
    }
    names << QLatin1String(FAULT_DELAY) << QLatin1String(FAULT_SEED);
    return QStringLiteral("fault '%1': unknown name (%2)")
        .arg(item, names.join(QLatin1String(", ")));
}

} // namespace

QString parseFaultSpec(const QString &text, FaultConfig &out)
{
    FaultConfig c = out;
    for (const QString &item : text.split(QLatin1Char(','), Qt::SkipEmptyParts)) {
        const QString error = applySpecItem(item, c);
        if (!error.isEmpty())
            return error;
    }
    out = c;
    return QString();
}

} // namespace xbcsim
