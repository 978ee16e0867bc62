// The one driver state object, and the frame every exported call runs in.
#include "service.h"

#include <memory>

Protocol driver;
DriverPrivate driverPrivate;

Protocol::Protocol()
{
    curVar.regName = QLatin1String("");
    for (const QString &name : REG_LIST)
        regNameList.append(name);
}

Protocol::~Protocol() = default;

void notifyHost(int id, int stationNo, const QString &name, int address)
{
    driverPrivate.pendingNotes.push_back(PendingNote{id, stationNo, nullptr, name, address});
}

void notifyHostShared(int id, int stationNo, const QString *name, int address)
{
    driverPrivate.pendingNotes.push_back(PendingNote{id, stationNo, name, QString(), address});
}

const QString *sharedName(const QString &name)
{
    // Names come from the register table and the runtime's addresses; the cap
    // keeps a runtime that invents names without end from growing this table.
    static QHash<QString, std::shared_ptr<const QString>> names;
    const auto found = names.constFind(name);
    if (found != names.constEnd())
        return found.value().get();
    if (names.size() >= 4096)
        return nullptr;
    return names.insert(name, std::make_shared<const QString>(name)).value().get();
}

static void deliver(const std::vector<PendingNote> &notes, AddrValueChangeCallBack callBack)
{
    // Without a callback there is nobody to tell; the values stay readable.
    if (callBack == nullptr)
        return;
    for (const PendingNote &note : notes)
        callBack(note.id, note.stationNo, note.name(), note.address);
}

void deliverPendingNotes()
{
    std::vector<PendingNote> notes;
    notes.swap(driverPrivate.pendingNotes);
    deliver(notes, driver.addrValueChangeCallBack);
}

DriverCall::DriverCall()
{
    driverPrivate.stateMutex.lock();
}

// The runtime's callback may call back into the driver (intf_getData), so it
// runs only after the lock is released.
DriverCall::~DriverCall()
{
    // Both vectors keep their capacity from call to call, so a reply that
    // changes many values allocates nothing once one like it has been seen. A
    // callback that calls back into the driver nests: that call uses its own.
    thread_local int depth = 0;
    thread_local std::vector<PendingNote> spare;
    std::vector<PendingNote> notes;
    if (depth == 0)
        notes.swap(spare);
    notes.swap(driverPrivate.pendingNotes);
    const AddrValueChangeCallBack callBack = driver.addrValueChangeCallBack;
    driverPrivate.stateMutex.unlock();
    ++depth;
    deliver(notes, callBack);
    --depth;
    notes.clear();
    if (depth == 0)
        spare.swap(notes);
}
