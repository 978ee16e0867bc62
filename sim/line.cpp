// Line pacing: how long characters take on a serial line with given settings.
#include "xbc_sim.h"

#include <ctime>

namespace xbcsim {

namespace {

enum { START_BITS = 1, NS_PER_SECOND = 1000000000, MIN_DATA_BITS = 5, MAX_DATA_BITS = 8 };

const char *const PARITY_NAMES[] = {"NONE", "EVEN", "ODD", "MARK", "SPACE"};

// Stop bits in halves, from their text; 0 when it is none of 1, 1.5, 2.
int stopHalfBitsOf(const QString &text)
{
    if (text == QLatin1String("1"))
        return 2;
    if (text == QLatin1String("1.5"))
        return 3;
    if (text == QLatin1String("2"))
        return 4;
    return 0;
}

} // namespace

QString parseLineSettings(const QString &text, LineSettings &out)
{
    const QStringList f = text.split(QLatin1Char(','));
    const QString usage = QStringLiteral("--line '%1': expected BAUD,DATABITS,PARITY,STOPBITS such "
                                         "as 115200,8,NONE,1 (data bits 5 to 8; parity NONE, "
                                         "EVEN, ODD, MARK or SPACE; stop bits 1, 1.5 or 2)")
                              .arg(text);
    if (f.size() != 4)
        return usage;
    LineSettings line = out;
    bool okBaud = false, okBits = false;
    line.baud = f[0].trimmed().toInt(&okBaud);
    line.dataBits = f[1].trimmed().toInt(&okBits);
    line.stopHalfBits = stopHalfBitsOf(f[3].trimmed());
    const QString parity = f[2].trimmed().toUpper();
    line.parityBits = parity == QLatin1String(PARITY_NAMES[0]) ? 0 : 1;
    bool knownParity = false;
    for (const char *name : PARITY_NAMES)
        knownParity = knownParity || parity == QLatin1String(name);
    if (!okBaud || line.baud <= 0 || !okBits || line.dataBits < MIN_DATA_BITS ||
        line.dataBits > MAX_DATA_BITS || !knownParity || line.stopHalfBits == 0)
        return usage;
    out = line;
    return QString();
}

qint64 lineTimeNs(const LineSettings &line, int characters)
{
    if (line.baud <= 0 || characters <= 0)
        return 0;
    const qint64 halfBits =
        qint64(characters) *
        (2 * (START_BITS + line.dataBits + line.parityBits) + line.stopHalfBits);
    // Rounded up: a reply never leaves before its time.
    return (halfBits * NS_PER_SECOND + 2 * qint64(line.baud) - 1) / (2 * qint64(line.baud));
}

bool paced(const LineSettings &line)
{
    return line.baud > 0 || line.scanMs > 0;
}

qint64 monotonicNs()
{
    timespec t{};
    ::clock_gettime(CLOCK_MONOTONIC, &t);
    return qint64(t.tv_sec) * NS_PER_SECOND + t.tv_nsec;
}

} // namespace xbcsim
