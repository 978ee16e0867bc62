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

QString parseFaultSpec(const QString &text, FaultConfig &out)
{
    FaultConfig c = out;
    for (const QString &item : text.split(QLatin1Char(','), Qt::SkipEmptyParts)) {
        const QString key = item.section(QLatin1Char('='), 0, 0).trimmed();
        bool ok = false;
        const qlonglong value = item.section(QLatin1Char('='), 1).trimmed().toLongLong(&ok);
        if (!ok || value < 0)
            return QStringLiteral("fault '%1': expected NAME=NUMBER").arg(item);
        const bool percent = key != QLatin1String("delay") && key != QLatin1String("seed");
        if (percent && value > 100)
            return QStringLiteral("fault '%1': a percentage runs from 0 to 100").arg(item);
        if (key == QLatin1String("drop"))
            c.dropPercent = int(value);
        else if (key == QLatin1String("corrupt"))
            c.corruptPercent = int(value);
        else if (key == QLatin1String("truncate"))
            c.truncatePercent = int(value);
        else if (key == QLatin1String("double"))
            c.doublePercent = int(value);
        else if (key == QLatin1String("delay"))
            c.delayMs = int(qMin<qlonglong>(value, 60000));
        else if (key == QLatin1String("seed"))
            c.seed = quint32(value);
        else
            return QStringLiteral("fault '%1': unknown name (drop, corrupt, truncate, "
                                  "double, delay, seed)").arg(item);
    }
    out = c;
    return QString();
}

} // namespace xbcsim
