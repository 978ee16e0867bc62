// Turns a change of one record into the notifications of every watched value
// built on it: its bits, the unit itself, and the wider values it is part of.
#include "service.h"

static void notifyUnitChange(int unitBits, const quint32 *oldValue, const quint32 *newValue,
                             int index, int skipBits)
{
    if (index < 0 || index >= driver.dataAreas.size())
        return;
    const _DATA_ &r = driver.dataAreas.at(index);
    AreaRegisters formed;
    const AreaRegisters *known = tableAreaRegisters(r.name);
    if (known == nullptr)
        formed = registersOfArea(r.name);
    const AreaRegisters &names = known != nullptr ? *known : formed;
    const auto send = [&](const QString &name, int address) {
        if (known != nullptr)
            notifyHostTableName(driver.driverId, r.stationNo, &name, address);
        else
            notifyHost(driver.driverId, r.stationNo, name, address);
    };
    if (!skipBits && r.bitMonitor != 0) {
        for (int b = 0; b < unitBits; ++b) {
            if (!(r.bitMonitor & (1u << b)))
                continue;
            const bool changed = oldValue == nullptr || newValue == nullptr ||
                                 ((*oldValue ^ *newValue) & (1u << b)) != 0;
            if (changed)
                send(names.bit, int(quint32(r.address) * quint32(unitBits) + quint32(b)));
        }
    }
    if (r.valueMonitor & 1u) {
        if (unitBits == 16)
            send(names.word, r.address);
        else if (unitBits == 8)
            send(names.byte, r.address);
        else
            notifyHost(driver.driverId, r.stationNo, r.name, r.address);
    }
    if (unitBits == 16 || unitBits == 8) {
        for (int k = 1; k <= 2; ++k) {
            if (qint64(r.address) - (k - 1) >= 0 && (r.valueMonitor & (1u << k)))
                send(unitBits == 16 ? names.dword : names.word, r.address - (k - 1));
        }
    }
    if (unitBits == 8) {
        for (int k = 0; k < 4; ++k) {
            if (qint64(r.address) - k >= 0 && (r.valueMonitor & (1u << (3 + k))))
                send(names.dword, r.address - k);
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
