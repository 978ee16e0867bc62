// Turns a change of one record into the notifications of every watched value
// built on it: its bits, the unit itself, and the wider values it is part of.
#include "service.h"

namespace {
// The names of one area's notifications, formed once and shared.
struct AreaNames {
    const QString *bit;
    const QString *word;
    const QString *byte;
    const QString *dword;
    const QString *bare;
};

// Where a record's notifications go: shared names when there are any, else
// names formed for this call.
struct RecordNotifier {
    const _DATA_ &record;
    const AreaNames *names;

    void send(const QString *AreaNames::*which, const char *suffix, int address) const
    {
        if (names != nullptr)
            notifyHostShared(driver.driverId, record.stationNo, names->*which, address);
        else
            notifyHost(driver.driverId, record.stationNo, record.name + QLatin1String(suffix),
                       address);
    }
};
} // namespace

// The pointer stays valid until the next call: callers use it at once.
static const AreaNames *areaNamesOf(const QString &area)
{
    static QHash<QString, AreaNames> cache;
    const auto found = cache.constFind(area);
    if (found != cache.constEnd())
        return &found.value();
    const AreaNames names{sharedName(area + QLatin1String("_bit")),
                          sharedName(area + QLatin1String("_W")),
                          sharedName(area + QLatin1String("_B")),
                          sharedName(area + QLatin1String("_D")), sharedName(area)};
    if (!names.bit || !names.word || !names.byte || !names.dword || !names.bare)
        return nullptr;
    return &cache.insert(area, names).value();
}

static void notifyUnitChange(int unitBits, const quint32 *oldValue, const quint32 *newValue,
                             int index, int skipBits)
{
    if (index < 0 || index >= driver.dataAreas.size())
        return;
    const _DATA_ &r = driver.dataAreas.at(index);
    const RecordNotifier out{r, areaNamesOf(r.name)};
    if (!skipBits && r.bitMonitor != 0) {
        for (int b = 0; b < unitBits; ++b) {
            if (!(r.bitMonitor & (1u << b)))
                continue;
            const bool changed = oldValue == nullptr || newValue == nullptr ||
                                 ((*oldValue ^ *newValue) & (1u << b)) != 0;
            if (changed)
                out.send(&AreaNames::bit, "_bit",
                         int(quint32(r.address) * quint32(unitBits) + quint32(b)));
        }
    }
    if (r.valueMonitor & 1u) {
        if (unitBits == 16)
            out.send(&AreaNames::word, "_W", r.address);
        else if (unitBits == 8)
            out.send(&AreaNames::byte, "_B", r.address);
        else
            out.send(&AreaNames::bare, "", r.address);
    }
    if (unitBits == 16 || unitBits == 8) {
        for (int k = 1; k <= 2; ++k) {
            if (qint64(r.address) - (k - 1) >= 0 && (r.valueMonitor & (1u << k)))
                out.send(unitBits == 16 ? &AreaNames::dword : &AreaNames::word,
                         unitBits == 16 ? "_D" : "_W", r.address - (k - 1));
        }
    }
    if (unitBits == 8) {
        for (int k = 0; k < 4; ++k) {
            if (qint64(r.address) - k >= 0 && (r.valueMonitor & (1u << (3 + k))))
                out.send(&AreaNames::dword, "_D", r.address - k);
        }
    }
}

void _bitDataChange(int index)
{
    if (index < 0 || index >= driver.dataAreas.size())
        return;
    const _DATA_ &r = driver.dataAreas.at(index);
    if (r.valueMonitor & 1u)
        notifyHost(driver.driverId, r.stationNo, r.name, r.address);
}

void _byteDataChange(unsigned char *oldValue, unsigned char *newValue, int index, int skipBits)
{
    const quint32 o = oldValue ? *oldValue : 0;
    const quint32 n = newValue ? *newValue : 0;
    notifyUnitChange(8, oldValue ? &o : nullptr, newValue ? &n : nullptr, index, skipBits);
}

void _wordDataChange(int *oldValue, int *newValue, int index, int skipBits)
{
    const quint32 o = oldValue ? quint32(*oldValue) : 0;
    const quint32 n = newValue ? quint32(*newValue) : 0;
    notifyUnitChange(16, oldValue ? &o : nullptr, newValue ? &n : nullptr, index, skipBits);
}

void _dwordDataChange(int *oldValue, int *newValue, int index, int skipBits)
{
    const quint32 o = oldValue ? quint32(*oldValue) : 0;
    const quint32 n = newValue ? quint32(*newValue) : 0;
    notifyUnitChange(32, oldValue ? &o : nullptr, newValue ? &n : nullptr, index, skipBits);
}
