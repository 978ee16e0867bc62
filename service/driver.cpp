// The one driver state object, and the frame every exported call runs in.
#include "service.h"

Protocol driver;

Protocol::Protocol()
{
    curVar.regName = QLatin1String("");
    for (const QString &name : REG_LIST)
        regNameList.append(name);
}

Protocol::~Protocol() = default;

void notifyHost(int id, int stationNo, const QString &name, int address)
{
    driver.pendingNotes.push_back(PendingNote{id, stationNo, name, address});
}

static void deliver(const std::vector<PendingNote> &notes, AddrValueChangeCallBack callBack)
{
    // Without a callback there is nobody to tell; the values stay readable.
    if (callBack == nullptr)
        return;
    for (const PendingNote &note : notes)
        callBack(note.id, note.stationNo, note.name, note.address);
}

void deliverPendingNotes()
{
    std::vector<PendingNote> notes;
    notes.swap(driver.pendingNotes);
    deliver(notes, driver.addrValueChangeCallBack);
}

DriverCall::DriverCall()
{
    driver.stateMutex.lock();
}

// The runtime's callback may call back into the driver (intf_getData), so it
// runs only after the lock is released.
DriverCall::~DriverCall()
{
    std::vector<PendingNote> notes;
    notes.swap(driver.pendingNotes);
    const AddrValueChangeCallBack callBack = driver.addrValueChangeCallBack;
    driver.stateMutex.unlock();
    deliver(notes, callBack);
}
