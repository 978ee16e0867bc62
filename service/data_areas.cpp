// The local image of PLC memory: records found by key, and monitor flags.
#include "service.h"

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

static int areaNumberOf(DataAreaIndex &index, const QString &name)
{
    const auto found = index.areaNumbers.constFind(name);
    if (found != index.areaNumbers.constEnd())
        return found.value();
    const int number = index.areaNumbers.size();
    index.areaNumbers.insert(name, number);
    return number;
}

// Area numbers outlive the index: a number handed out stays the area's.
static void clearIndex()
{
    QHash<QString, int> numbers;
    numbers.swap(driverPrivate.dataAreaIndex.areaNumbers);
    driverPrivate.dataAreaIndex = DataAreaIndex();
    driverPrivate.dataAreaIndex.areaNumbers.swap(numbers);
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
static DataAreaIndex::Slot &indexKey(int stationNo, int area, int address, int record)
{
    DataAreaIndex &index = driverPrivate.dataAreaIndex;
    if (2 * (index.used + 1) > int(index.table.size()))
        growIndex(index);
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
        indexKey(r.stationNo, areaNumberOf(driverPrivate.dataAreaIndex, r.name), r.address, i);
    }
    driverPrivate.dataAreaIndex.records = driver.dataAreas.size();
}

AreaRecords areaRecords(int stationNo, const QString &name)
{
    return AreaRecords{stationNo, name, areaNumberOf(driverPrivate.dataAreaIndex, name)};
}

int recordIndex(const AreaRecords &area, int address)
{
    rebuildIndexIfStale();
    const int next = driver.dataAreas.size();
    const DataAreaIndex::Slot &slot = indexKey(area.stationNo, area.number, address, next);
    if (slot.record == next) {
        appendRecord(area.stationNo, area.name, address, driver.dataAreas);
        driverPrivate.dataAreaIndex.records = driver.dataAreas.size();
    }
    return slot.record;
}

_DATA_ &recordAt(const AreaRecords &area, int address, int *index)
{
    const int i = recordIndex(area, address);
    if (index != nullptr)
        *index = i;
    return driver.dataAreas[i];
}

// A new run numbers its areas afresh: no lookup of the old run is under way.
void clearDataAreas()
{
    driver.dataAreas.clear();
    driverPrivate.dataAreaIndex = DataAreaIndex();
    driverPrivate.dataAreaRuns.clear();
}

QVector<int> dataAreaRun(int stationNo, const QString &name, int first, int count)
{
    rebuildIndexIfStale();
    const DataAreaKey key{stationNo, name, first};
    QVector<int> run = driverPrivate.dataAreaRuns.value(key);
    if (run.size() >= count)
        return run;
    const AreaRecords area = areaRecords(stationNo, name);
    for (int k = run.size(); k < count; ++k)
        run.append(recordIndex(area, addrAt(first, k)));
    if (driverPrivate.dataAreaRuns.size() >= MAX_CACHED_RUNS)
        driverPrivate.dataAreaRuns.clear();
    driverPrivate.dataAreaRuns.insert(key, run);
    return run;
}

int _setBitValue(int value, int bit, int on)
{
    const quint32 mask = bit >= 0 && bit <= 31 ? 1u << bit : 0u;
    return int(on ? quint32(value) | mask : quint32(value) & ~mask);
}

int monitorFlagsFor(const Register &reg, int stationNo, int start, int count)
{
    const AreaRecords area = areaRecords(stationNo, reg.area);
    walkRecords(reg, start, count, [&](const RecordSlot &slot) {
        if (!slot.hasRecord())
            return;
        const int index = recordIndex(area, slot.address);
        _DATA_ &r = driver.dataAreas[index];
        if (slot.bytes == 0)
            r.bitMonitor = quint32(_setBitValue(int(r.bitMonitor), slot.part, 1));
        else
            r.valueMonitor = quint32(_setBitValue(int(r.valueMonitor), slot.flag, 1));
    });
    return 0;
}
