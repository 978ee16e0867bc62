// The one driver state object, and the frame every exported call runs in.
#include "service.h"

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

void notifyHostTableName(int id, int stationNo, const QString *name, int address)
{
    driverPrivate.pendingNotes.push_back(PendingNote{id, stationNo, name, QString(), address});
}

DriverCall::DriverCall()
{
    driverPrivate.stateMutex.lock();
}

// The runtime's callback may call back into the driver (intf_getData), so the
// notifications of a call are delivered only after the lock is released.
// Without a callback there is nobody to tell; the values stay readable.
DriverCall::~DriverCall()
{
    if (driverPrivate.pendingNotes.empty()) {
        driverPrivate.stateMutex.unlock();
        return;
    }
    std::vector<PendingNote> notes;
    notes.swap(driverPrivate.pendingNotes);
    const AddrValueChangeCallBack callBack = driver.addrValueChangeCallBack;
    driverPrivate.stateMutex.unlock();
    for (const PendingNote &note : notes) {
        if (callBack != nullptr)
            callBack(note.id, note.stationNo, note.name(), note.address);
    }
    // The buffer goes back for the next call, so a busy reply allocates
    // nothing once one like it has been seen.
    notes.clear();
    const std::lock_guard<std::mutex> relock(driverPrivate.stateMutex);
    if (driverPrivate.pendingNotes.empty() &&
        driverPrivate.pendingNotes.capacity() < notes.capacity())
        driverPrivate.pendingNotes.swap(notes);
}
