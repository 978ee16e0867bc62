// The simulated PLC memory: one array of 16-bit words per area.
#include "xbc_sim.h"

namespace xbcsim {

namespace {

// K is sized for its bit view, which reaches word 4095 although K words stop
// at 2559 in the panel's register table. TX and CX hold 2048 contacts each.
const AreaInfo AREAS[AREA_COUNT] = {
    {"P", 'h', 2048},  {"M", 'i', 2048}, {"L", 'j', 11264}, {"K", 'k', 4096}, {"F", 'n', 2048},
    {"D", 'a', 32768}, {"S", 'o', 128},  {"T", 'b', 2048},  {"C", 'c', 2048}, {"N", 'p', 21504},
    {"Z", 's', 128},   {"TX", 'l', 128}, {"CX", 'm', 128},
};

enum { MAX_WORD_VALUE = 0xFFFF };

bool isContactArea(int area)
{
    return area == AREA_TX || area == AREA_CX;
}

} // namespace

const AreaInfo &areaInfo(int area)
{
    return AREAS[area];
}

int areaFromLetter(char letter)
{
    for (int a = 0; a < AREA_COUNT; ++a)
        if (AREAS[a].letter == letter)
            return a;
    return -1;
}

int areaFromRegister(const QString &regName)
{
    const QString prefix = regName.section(QLatin1Char('_'), 0, 0);
    for (int a = 0; a < AREA_COUNT; ++a)
        if (prefix == QLatin1String(AREAS[a].name))
            return a;
    return -1;
}

Memory makeMemory()
{
    Memory mem;
    for (int a = 0; a < AREA_COUNT; ++a)
        mem.areas[a] = QVector<quint16>(AREAS[a].words, 0);
    return mem;
}

bool inRange(const Memory &mem, int area, int word, int words)
{
    if (area < 0 || area >= AREA_COUNT || word < 0 || words < 0)
        return false;
    return qint64(word) + words <= mem.areas[area].size();
}

quint16 wordAt(const Memory &mem, int area, int word)
{
    return inRange(mem, area, word, 1) ? mem.areas[area][word] : 0;
}

void setWordAt(Memory &mem, int area, int word, quint16 value)
{
    if (inRange(mem, area, word, 1))
        mem.areas[area][word] = value;
}

bool bitAt(const Memory &mem, int area, int bitAddress)
{
    if (bitAddress < 0)
        return false;
    return (wordAt(mem, area, bitAddress / 16) >> (bitAddress % 16)) & 1;
}

void setBitAt(Memory &mem, int area, int bitAddress, bool on)
{
    if (bitAddress < 0 || !inRange(mem, area, bitAddress / 16, 1))
        return;
    const quint16 mask = quint16(1u << (bitAddress % 16));
    quint16 &w = mem.areas[area][bitAddress / 16];
    w = on ? quint16(w | mask) : quint16(w & ~mask);
}

QString parseLocation(const QString &text, Location &out)
{
    const QStringList parts = text.split(QLatin1Char(':'));
    if (parts.size() != 2)
        return QStringLiteral("'%1': expected REGISTER:ADDRESS").arg(text);
    const QString reg = parts[0];
    const int area = areaFromRegister(reg);
    if (area < 0)
        return QStringLiteral("'%1': unknown register '%2'").arg(text, reg);
    Location loc;
    loc.area = area;
    bool ok = false;
    if (isContactArea(area)) {
        loc.isBit = true;
        loc.bitAddress = parts[1].toInt(&ok);
    } else if (reg.endsWith(QLatin1String("_bit"))) {
        const QStringList wb = parts[1].split(QLatin1Char('.'));
        bool okBit = false;
        const int word = wb.value(0).toInt(&ok);
        const int bit = wb.value(1).toInt(&okBit);
        ok = ok && okBit && wb.size() == 2 && bit >= 0 && bit < 16;
        loc.isBit = true;
        loc.bitAddress = word * 16 + bit;
    } else {
        loc.word = parts[1].toInt(&ok);
    }
    if (!ok)
        return QStringLiteral("'%1': bad address '%2'").arg(text, parts[1]);
    const int word = loc.isBit ? loc.bitAddress / 16 : loc.word;
    if (word < 0 || word >= AREAS[area].words)
        return QStringLiteral("'%1': address outside the area").arg(text);
    out = loc;
    return QString();
}

void stepLive(Memory &mem, const LiveConfig &live)
{
    for (const Location &c : live.counters)
        setWordAt(mem, c.area, c.word, quint16(wordAt(mem, c.area, c.word) + 1));
    for (const Location &b : live.blinks)
        setBitAt(mem, b.area, b.bitAddress, !bitAt(mem, b.area, b.bitAddress));
}

namespace {

// One live location of the kind an option takes: a word for --counter, a bit
// for --blink; the other kind is refused with a pointer to the right option.
QString addLiveLocation(QList<Location> &list, const QString &text, const char *option,
                        bool wantBit, const char *refusal)
{
    Location loc;
    const QString error = parseLocation(text, loc);
    if (!error.isEmpty())
        return QStringLiteral("%1 %2").arg(QLatin1String(option), error);
    if (loc.isBit != wantBit)
        return QStringLiteral("%1 '%2': %3")
            .arg(QLatin1String(option), text, QLatin1String(refusal));
    list.append(loc);
    return QString();
}

} // namespace

QString addCounter(LiveConfig &live, const QString &text)
{
    return addLiveLocation(live.counters, text, "--counter", false,
                           "a counter is a word, such as D_W:0 (a bit that toggles is --blink)");
}

QString addBlink(LiveConfig &live, const QString &text)
{
    return addLiveLocation(live.blinks, text, "--blink", true,
                           "a blinking value is a bit, such as M_bit:0.0 or TX:3 (a word that "
                           "counts up is --counter)");
}

QString applyPreset(Memory &mem, const QString &text)
{
    if (!text.contains(QLatin1Char('=')))
        return QStringLiteral("--set '%1': expected REGISTER:ADDRESS=VALUE").arg(text);
    Location loc;
    const QString error = parseLocation(text.section(QLatin1Char('='), 0, 0), loc);
    if (!error.isEmpty())
        return QStringLiteral("--set %1").arg(error);
    const QString valueText = text.section(QLatin1Char('='), 1);
    bool ok = false;
    const qlonglong value = valueText.toLongLong(&ok, 0);
    const qlonglong maxValue = loc.isBit ? 1 : MAX_WORD_VALUE;
    const QString range = loc.isBit ? QStringLiteral("a bit takes 0 or 1")
                                    : QStringLiteral("a word takes 0 to %1").arg(MAX_WORD_VALUE);
    if (!ok)
        return QStringLiteral("--set '%1': '%2' is not a number (%3)").arg(text, valueText, range);
    if (value < 0 || value > maxValue)
        return QStringLiteral("--set '%1': %2 is too %3 (%4)")
            .arg(text, valueText, value < 0 ? QStringLiteral("small") : QStringLiteral("big"),
                 range);
    if (loc.isBit)
        setBitAt(mem, loc.area, loc.bitAddress, value != 0);
    else
        setWordAt(mem, loc.area, loc.word, quint16(value));
    return QString();
}

} // namespace xbcsim
