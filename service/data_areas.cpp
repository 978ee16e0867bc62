// The local image of PLC memory: records found by key, and monitor flags.
#include "service.h"

RegisterView registerViewFor(const QString &regName, int dataBits, int unitBits)
{
    const bool bitName = isBitRegName(regName);
    if ((dataBits == 1 || dataBits == 8) && !bitName)
        return {MAP_PER_BIT, regName};
    const QString area = areaPrefix(regName);
    switch (dataBits) {
    case 16:
        return {unitBits == 8 ? MAP_WORD_OF_BYTES : MAP_WORD, area};
    case 32:
        if (unitBits == 16)
            return {MAP_DWORD_OF_WORDS, area};
        return {unitBits == 8 ? MAP_DWORD_OF_BYTES : MAP_DWORD, area};
    case 1:
    case 8:
        if (unitBits == 16)
            return {MAP_BIT_IN_WORD, area};
        return {unitBits == 8 ? MAP_BIT_IN_BYTE : MAP_NONE, area};
    default:
        return {MAP_NONE, area};
    }
}

RegisterView registerViewOf(const QString &regName)
{
    return registerViewFor(regName, regDataBits(regName), regUnitBits(regName));
}

const unsigned char *shownBytes(const _DATA_ &record)
{
    return record.writePending ? record.writtenValue : record.value;
}

static quint32 slotHash(int stationNo, int area, int address)
{
    quint32 h = quint32(stationNo) * 0x9E3779B1u ^ quint32(area) * 0x85EBCA77u ^
                quint32(address) * 0xC2B2AE3Du;
    h ^= h >> 16;
    h *= 0x7FEB352Du;
    h ^= h >> 15;
    return h;
}

// The slot of the key, or the empty slot where it belongs.
static DataAreaIndex::Slot &slotFor(DataAreaIndex &index, int stationNo, int area, int address)
{
    const size_t mask = index.table.size() - 1;
    size_t i = slotHash(stationNo, area, address) & mask;
    for (;;) {
        DataAreaIndex::Slot &slot = index.table[i];
        if (slot.record < 0 ||
            (slot.stationNo == stationNo && slot.area == area && slot.address == address))
            return slot;
        i = (i + 1) & mask;
    }
}

static void growIndex(DataAreaIndex &index)
{
    std::vector<DataAreaIndex::Slot> old;
    old.swap(index.table);
    index.table.assign(old.empty() ? 1024 : 2 * old.size(), DataAreaIndex::Slot{0, 0, 0, -1});
    for (const DataAreaIndex::Slot &slot : old) {
        if (slot.record >= 0)
            slotFor(index, slot.stationNo, slot.area, slot.address) = slot;
    }
}

static int areaNumberOfName(DataAreaIndex &index, const QString &name);

static int areaNumberOf(DataAreaIndex &index, const QString &name)
{
    // The units of one key share their area string: no hashing for those.
    if (index.lastAreaNumber >= 0 && name.constData() == index.lastArea.constData() &&
        name.size() == index.lastArea.size())
        return index.lastAreaNumber;
    index.lastArea = name;
    index.lastAreaNumber = areaNumberOfName(index, name);
    return index.lastAreaNumber;
}

static int areaNumberOfName(DataAreaIndex &index, const QString &name)
{
    const auto found = index.areaNumbers.constFind(name);
    if (found != index.areaNumbers.constEnd())
        return found.value();
    const int number = index.areaNumbers.size();
    index.areaNumbers.insert(name, number);
    return number;
}

static void clearIndex()
{
    driverPrivate.dataAreaIndex = DataAreaIndex();
    driverPrivate.dataAreaRuns.clear();
}

static int appendRecord(int stationNo, const QString &name, int address, QList<_DATA_> &list)
{
    _DATA_ record;
    record.stationNo = stationNo;
    record.name = name;
    record.address = address;
    list.append(record);
    return list.size() - 1;
}

// Slot of the key in the index, taken for `record` when the key is new.
static DataAreaIndex::Slot &indexKey(int stationNo, const QString &name, int address, int record)
{
    DataAreaIndex &index = driverPrivate.dataAreaIndex;
    if (2 * (index.used + 1) > int(index.table.size()))
        growIndex(index);
    const int area = areaNumberOf(index, name);
    DataAreaIndex::Slot &slot = slotFor(index, stationNo, area, address);
    if (slot.record < 0) {
        slot = DataAreaIndex::Slot{stationNo, area, address, record};
        ++index.used;
    }
    return slot;
}

static void rebuildIndexIfStale()
{
    // Every path that empties dataAreas empties the index too; this only
    // guards against a list changed behind our back.
    if (driverPrivate.dataAreaIndex.records == driver.dataAreas.size())
        return;
    clearIndex();
    for (int i = 0; i < driver.dataAreas.size(); ++i) {
        const _DATA_ &r = driver.dataAreas.at(i);
        indexKey(r.stationNo, r.name, r.address, i);
    }
    driverPrivate.dataAreaIndex.records = driver.dataAreas.size();
}

static int indexedRecord(int stationNo, const QString &name, int address)
{
    rebuildIndexIfStale();
    const int next = driver.dataAreas.size();
    const DataAreaIndex::Slot &slot = indexKey(stationNo, name, address, next);
    if (slot.record == next) {
        appendRecord(stationNo, name, address, driver.dataAreas);
        driverPrivate.dataAreaIndex.records = driver.dataAreas.size();
    }
    return slot.record;
}

int getIndexOfDataArea(int stationNo, QString name, int address, QList<_DATA_> &list)
{
    if (&list == &driver.dataAreas)
        return indexedRecord(stationNo, name, address);
    for (int i = 0; i < list.size(); ++i) {
        const _DATA_ &r = list.at(i);
        if (r.stationNo == stationNo && r.name == name && r.address == address)
            return i;
    }
    return appendRecord(stationNo, name, address, list);
}

void clearDataAreas()
{
    driver.dataAreas.clear();
    clearIndex();
}

QVector<int> dataAreaRun(int stationNo, const QString &name, int first, int count)
{
    rebuildIndexIfStale();
    const DataAreaKey key{stationNo, name, first};
    QVector<int> run = driverPrivate.dataAreaRuns.value(key);
    if (run.size() >= count)
        return run;
    for (int k = run.size(); k < count; ++k)
        run.append(getIndexOfDataArea(stationNo, name, addrAt(first, k), driver.dataAreas));
    // Runs come from the read plan; a runtime that reads everywhere only
    // costs the cache its content.
    if (driverPrivate.dataAreaRuns.size() >= 4096)
        driverPrivate.dataAreaRuns.clear();
    driverPrivate.dataAreaRuns.insert(key, run);
    return run;
}

int _setBitValue(int value, int bit, int on)
{
    const quint32 mask = bit >= 0 && bit <= 31 ? 1u << bit : 0u;
    return int(on ? quint32(value) | mask : quint32(value) & ~mask);
}

static void markValue(int stationNo, const QString &area, int address, int flag)
{
    const int index = getIndexOfDataArea(stationNo, area, address, driver.dataAreas);
    _DATA_ &r = driver.dataAreas[index];
    r.valueMonitor = quint32(_setBitValue(int(r.valueMonitor), flag, 1));
}

static void markBit(int stationNo, const QString &area, int bitAddress, int unitBits)
{
    if (bitAddress < 0)
        return;
    const int index = getIndexOfDataArea(stationNo, area, bitAddress / unitBits, driver.dataAreas);
    _DATA_ &r = driver.dataAreas[index];
    r.bitMonitor = quint32(_setBitValue(int(r.bitMonitor), bitAddress % unitBits, 1));
}

int monitorFlagsFor(const RegisterView &view, int stationNo, int start, int count)
{
    const bool doubleWord = view.kind == MAP_DWORD_OF_WORDS || view.kind == MAP_DWORD_OF_BYTES ||
                            view.kind == MAP_DWORD;
    const int values = qMin(doubleWord ? count / 2 : count, int(MAX_VALUES_PER_CALL));
    for (int i = 0; i < values; ++i) {
        switch (view.kind) {
        case MAP_WORD:
        case MAP_DWORD:
        case MAP_PER_BIT:
            markValue(stationNo, view.area, addrAt(start, i), 0);
            break;
        case MAP_WORD_OF_BYTES:
        case MAP_DWORD_OF_WORDS:
            markValue(stationNo, view.area, addrAt(start, 2 * i), 1);
            markValue(stationNo, view.area, addrAt(start, 2 * i + 1), 2);
            break;
        case MAP_DWORD_OF_BYTES:
            for (int k = 0; k < 4; ++k)
                markValue(stationNo, view.area, addrAt(start, 4 * i + k), 3 + k);
            break;
        case MAP_BIT_IN_WORD:
            markBit(stationNo, view.area, addrAt(start, i), 16);
            break;
        case MAP_BIT_IN_BYTE:
            markBit(stationNo, view.area, addrAt(start, i), 8);
            break;
        case MAP_NONE:
            return 0;
        }
    }
    return 0;
}

int _setDataAreaMonitorFlag(int stationNo, QString regName, int start, int count)
{
    return monitorFlagsFor(registerViewOf(regName), stationNo, start, count);
}
