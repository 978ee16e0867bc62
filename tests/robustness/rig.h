// The driver in one process with the simulator's memory answering its frames,
// as a runtime with a perfect link would run it, plus faults on the replies.
#ifndef ROBUSTNESS_RIG_H
#define ROBUSTNESS_RIG_H

#include "service.h"
#include "xbc_sim.h"

#include <QMutexLocker>

#include <atomic>
#include <mutex>
#include <random>
#include <vector>

struct Note {
    int id;
    int station;
    QString name;
    int address;
};

// Notifications from every thread, in arrival order.
struct NoteLog {
    std::mutex lock;
    std::vector<Note> notes;
    void add(int id, int station, const QString &name, int address)
    {
        std::lock_guard<std::mutex> hold(lock);
        notes.push_back(Note{id, station, name, address});
    }
    bool has(const QString &name, int address, size_t from = 0)
    {
        std::lock_guard<std::mutex> hold(lock);
        for (size_t i = from; i < notes.size(); ++i) {
            if (notes[i].name == name && notes[i].address == address)
                return true;
        }
        return false;
    }
    size_t size()
    {
        std::lock_guard<std::mutex> hold(lock);
        return notes.size();
    }
};

inline NoteLog &noteLog()
{
    static NoteLog log;
    return log;
}

struct Rig {
    xbcsim::Memory mem = xbcsim::makeMemory();
    xbcsim::FaultState faults;
    unsigned char status[65536] = {};
    unsigned char recipe[8192] = {};
    QMutex hostLock;
    int exchanges = 0;
    bool linkDown = false;      // frames do not reach the PLC, nothing comes back
    int lostRequestPercent = 0; // the same, for a share of the frames
    std::mt19937 lossDraw{7};

    explicit Rig(const char *properties = "1#0#0#3#64")
    {
        xbcsim::resetFaults(faults, xbcsim::FaultConfig{});
        {
            std::lock_guard<std::mutex> hold(noteLog().lock);
            noteLog().notes.clear();
        }
        intf_setAddrValueChangeCallBack([](int id, int st, const QString &name, int addr) {
            noteLog().add(id, st, name, addr);
        });
        int initStatus = 1;
        intf_initProperty(status, 0, recipe, &initStatus, properties, &hostLock);
    }

    // One exchange as a runtime that flushes stale input before it transmits:
    // a doubled reply's second copy is never seen, a dropped or late reply is
    // handed over as what arrived before the timeout (nothing). Returns the
    // code of intf_dealRcvFrame, or -1 when there was nothing to send.
    int exchange()
    {
        FRAME_PRO frame;
        if (!intf_getSendFrame(&frame))
            return -1;
        ++exchanges;
        QByteArray reply;
        const bool lost = linkDown || int(lossDraw() % 100) < lostRequestPercent;
        if (frame.frameLen > 0 && !lost) {
            const QByteArray request(reinterpret_cast<const char *>(frame.frame), frame.frameLen);
            const QList<QByteArray> chunks =
                xbcsim::applyFaults(faults, xbcsim::answerFrame(mem, request));
            if (!chunks.isEmpty() && faults.config.delayMs == 0)
                reply = chunks.first();
        }
        QString errorText;
        return intf_dealRcvFrame(reply, errorText);
    }

    static bool busy()
    {
        return !driver.writeList.isEmpty() || !driver.conditionReadList.isEmpty() ||
               !driver.sendList.isEmpty();
    }

    // Runs until no write, condition read or frame is pending, then polls every
    // block `cycles` more times. Bounded, so a driver that never settles fails
    // the test instead of hanging it.
    void drain(int cycles = 2, int bound = 20000)
    {
        int i = 0;
        for (; i < bound && busy(); ++i)
            exchange();
        const int more = cycles * (driver.readList.size() + 1);
        for (int j = 0; j < more && i < bound; ++j, ++i)
            exchange();
    }

    void watch(const QList<KEY_ADDRESS> &keys)
    {
        QList<KEY_ADDRESS> copy = keys;
        intf_addrMerge(&copy);
    }
};

inline KEY_ADDRESS key(int station, const char *reg, int address, int count, int dataKind = 0)
{
    KEY_ADDRESS k;
    k.stationNo = station;
    k.regName = QString::fromLatin1(reg);
    k.address = address;
    k.count = count;
    k.dataKind = dataKind;
    return k;
}

inline int shownWord(int station, const char *reg, int address)
{
    unsigned char out[2] = {};
    intf_getData(station, QString::fromLatin1(reg), address, 1, out);
    return out[0] | out[1] << 8;
}

inline int shownBit(int station, const char *reg, int address)
{
    unsigned char out[1] = {};
    intf_getData(station, QString::fromLatin1(reg), address, 1, out);
    return out[0];
}

#endif
