// The driver's own bookkeeping beside the state the runtime knows: the lookup
// index over the data areas, the run cache, the lock that serialises the
// runtime's threads and the notifications waiting for it to be released.
// Private to the library: nothing here crosses the boundary with the runtime.
#ifndef XBC_DRIVER_PRIVATE_H
#define XBC_DRIVER_PRIVATE_H

#include "ls_xbc_cpu_direct.h"
#include "registers.h"

#include <QHash>

#include <mutex>
#include <vector>

// Key of one data area record, for the run cache beside dataAreas.
struct DataAreaKey {
    int stationNo;
    QString name;
    int address;
    bool operator==(const DataAreaKey &o) const
    {
        return stationNo == o.stationNo && address == o.address && name == o.name;
    }
};
// Qt 6 hashes to size_t, Qt 5 to uint.
#if QT_VERSION_MAJOR >= 6
using HashValue = size_t;
#else
using HashValue = uint;
#endif
inline HashValue qHash(const DataAreaKey &k, HashValue seed = 0)
{
    return qHash(k.name, seed) ^ (HashValue(uint(k.stationNo)) * 0x9E3779B1u) ^
           (HashValue(uint(k.address)) * 0x85EBCA77u);
}

// Lookup index beside dataAreas: (station, area, address) -> record index, in
// one flat open-addressed table so that a lookup costs about one cache miss
// however many records there are. Area names are numbered once.
struct DataAreaIndex {
    struct Slot {
        qint32 stationNo;
        qint32 area;
        qint32 address;
        qint32 record; // -1: empty
    };
    std::vector<Slot> table;
    int used = 0;    // slots taken
    int records = 0; // entries of dataAreas the index covers
    QHash<QString, int> areaNumbers;
};

// One value-change notification waiting to be delivered once the driver has
// released its own lock. A name of the register model's tables is held by
// pointer (they live as long as the library): a busy reply queues thousands
// of notifications, and copying even a shared string costs each of them two
// atomic operations, about half the time of such a reply.
struct PendingNote {
    int id;
    int stationNo;
    const QString *tableName;
    QString ownName;
    int address;
    const QString &name() const
    {
        return tableName != nullptr ? *tableName : ownName;
    }
};

// Runs of records that replies fill, kept at most: a runtime that reads
// everywhere only costs the cache its content.
constexpr int MAX_CACHED_RUNS = 4096;

struct DriverPrivate {
    // Lookup index beside dataAreas. Emptied with the list.
    DataAreaIndex dataAreaIndex;
    // Record indices of the runs that replies fill, by the run's first key, so
    // that a reply looks its records up once. Emptied with the list.
    QHash<DataAreaKey, QVector<int>> dataAreaRuns;
    // Serialises the runtime's threads on the request lists and data areas. A
    // standard mutex, so that thread checkers see what it orders.
    std::mutex stateMutex;
    // Notifications gathered during one call, delivered after stateMutex is released.
    std::vector<PendingNote> pendingNotes;
    // The register of the request whose frames are on sendList, resolved once
    // when they are built and used by the reply's description and decoding;
    // null for the handshake.
    const Register *inFlight = nullptr;
};

// The one instance, beside `driver`; hidden, so every loaded copy of the
// library has its own.
extern DriverPrivate driverPrivate;

#endif
