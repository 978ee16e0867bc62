// Shared harness of the unit, loop and robustness tests: a freshly reset
// driver, a recording value-change callback, reply builders, and the
// simulator's memory answering request frames the way the controller does.
#ifndef XBC_TEST_SUPPORT_H
#define XBC_TEST_SUPPORT_H

#include "frame_text.h"
#include "ls_xbc_cpu_direct.h"
#include "service.h"
#include "xbc_protocol.h"
#include "xbc_sim.h"

#include <QStringList>

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

namespace xbc_test {

using xbcsim::AREA_CX;
using xbcsim::AREA_D;
using xbcsim::AREA_M;
using xbcsim::AREA_TX;

// Notifications queued by internal calls a test makes outside an exported
// call, delivered the way an exported call delivers them when it ends.
inline void deliverPendingNotes()
{
    DriverCall deliverOnExit;
}

// One value-change notification: (id, station, name, address).
using Note = std::tuple<int, int, std::string, int>;
inline std::vector<Note> notes;
inline QMutex *hostLock = nullptr;
inline bool lockHeldDuringCallback = false;

inline void recordNote(int id, int station, const QString &name, int address)
{
    // No lock of the driver's or the runtime's may be held while the runtime
    // runs; the driver's own is a standard mutex, so try it from another thread.
    std::thread([] {
        if (driverPrivate.stateMutex.try_lock())
            driverPrivate.stateMutex.unlock();
        else
            lockHeldDuringCallback = true;
    }).join();
    for (QMutex *m : {&driver.dataMutex, hostLock}) {
        if (m && m->tryLock())
            m->unlock();
        else if (m)
            lockHeldDuringCallback = true;
    }
    notes.emplace_back(id, station, name.toStdString(), address);
}
inline bool noted(const std::string &name, int address, size_t from = 0)
{
    for (size_t i = from; i < notes.size(); ++i)
        if (std::get<2>(notes[i]) == name && std::get<3>(notes[i]) == address)
            return true;
    return false;
}

// The frames of a request as the schedule builds them, appended to sendList.
inline int readFrames(const VARIABLE &v)
{
    driverPrivate.inFlight = tableRegister(v.regName);
    return driverPrivate.inFlight ? getReadFrame(*driverPrivate.inFlight, v, driver.sendList) : 0;
}
inline int writeFrames(const VARIABLE &v)
{
    driverPrivate.inFlight = tableRegister(v.regName);
    return driverPrivate.inFlight ? getWriteFrame(*driverPrivate.inFlight, v, driver.sendList) : 0;
}
// Index of the record (station, area, address), created when absent.
inline int recordOf(int station, const QString &area, int address)
{
    return recordIndex(areaRecords(station, area), address);
}

inline KEY_ADDRESS key(int station, const QString &reg, int address, int count, int dataKind = 0)
{
    KEY_ADDRESS k;
    k.stationNo = station;
    k.regName = reg;
    k.address = address;
    k.count = count;
    k.dataKind = dataKind;
    return k;
}
inline VARIABLE var(int station, const QString &reg, int address, int count,
                    std::vector<unsigned char> data = {}, int tag = 0)
{
    VARIABLE v;
    v.requestTag = tag;
    v.stationNo = station;
    v.regName = reg;
    v.address = address;
    v.count = count;
    std::copy_n(data.begin(), qMin<size_t>(data.size(), DATA_BYTES), v.data);
    return v;
}

// Runs written as "D_W 100 2, 2:M_W 0 1": register, first unit, count; the
// station is 1 unless given before a colon.
inline QList<KEY_ADDRESS> runs(const char *text, int dataKind = 0)
{
    QList<KEY_ADDRESS> out;
    for (const QString &item : QString(text).split(", ", Qt::SkipEmptyParts)) {
        const QStringList f = item.split(' ');
        const QStringList reg = f[0].split(':');
        out.append(key(reg.size() > 1 ? reg[0].toInt() : 1, reg.last(), f[1].toInt(), f[2].toInt(),
                       dataKind));
    }
    return out;
}
template <class List> std::string runsOf(const List &list)
{
    std::string out;
    for (const auto &v : list) {
        out += out.empty() ? "" : ", ";
        out += v.stationNo != 1 ? std::to_string(v.stationNo) + ":" : "";
        out += v.regName.toStdString() + " " + std::to_string(v.address) + " " +
               std::to_string(v.count);
    }
    return out;
}

// A request frame: STX, body (command up to and including the checksum), ETX.
inline std::string frame(const std::string &body)
{
    return "\x02" + body + "\x03";
}
inline std::string bytesOf(const FRAME_PRO &f)
{
    return std::string(reinterpret_cast<const char *>(f.frame), size_t(qMax(0, f.frameLen)));
}
// A reply: ACK, one character, the data, the checksum pair of both, EOT.
// Built here by hand so that a wrong sum on either side shows.
inline QByteArray reply(const std::string &charAndData)
{
    unsigned sum = 0;
    for (unsigned char c : charAndData)
        sum += c;
    const char *hex = "0123456789ABCDEF";
    return QByteArray::fromStdString("\x06" + charAndData + hex[(sum >> 4) & 15] + hex[sum & 15] +
                                     "\x04");
}
inline QByteArray readReply(const std::vector<quint16> &words)
{
    QByteArray body = "r";
    for (quint16 w : words)
        body += xbcsim::hex16(w);
    return reply(body.toStdString());
}

inline int deliver(const QByteArray &r)
{
    QByteArray copy = r;
    QString text;
    return intf_dealRcvFrame(copy, text);
}
inline bool nextFrame(FRAME_PRO &f)
{
    return intf_getSendFrame(&f) == 1;
}

inline std::vector<unsigned char> words(std::initializer_list<quint16> ws)
{
    std::vector<unsigned char> out;
    for (quint16 w : ws)
        out.insert(out.end(), {static_cast<unsigned char>(w), static_cast<unsigned char>(w >> 8)});
    return out;
}
inline int setData(int station, const char *reg, int start, std::vector<unsigned char> data,
                   int count, int tag = 0)
{
    data.resize(qMax<size_t>(data.size(), 4096));
    return intf_setData(station, reg, start, count, data.data(), tag);
}
// The values shown to the runtime; bytes past them must stay untouched.
inline std::vector<unsigned char> getData(int station, const char *reg, int start, int count,
                                          int bytesPerValue)
{
    const size_t n = size_t(qMax(0, count * bytesPerValue));
    std::vector<unsigned char> out(n + 8, 0xEE);
    intf_getData(station, reg, start, count, out.data());
    EXPECT_EQ(std::vector<unsigned char>(out.begin() + long(n), out.end()),
              std::vector<unsigned char>(8, 0xEE))
        << "written past " << count << " values of " << reg;
    out.resize(n);
    return out;
}
inline int word16(int station, const char *reg, int address)
{
    std::vector<unsigned char> b = getData(station, reg, address, 1, 2);
    return b[0] | (b[1] << 8);
}
inline int bit(int station, const char *reg, int address)
{
    return getData(station, reg, address, 1, 1)[0];
}
inline const _DATA_ *findArea(int station, const char *name, int address)
{
    for (const _DATA_ &d : driver.dataAreas)
        if (d.stationNo == station && d.name == QLatin1String(name) && d.address == address)
            return &d;
    return nullptr;
}

// The controller: the simulator's memory behind a link that can lose or spoil
// replies. Unless the link is faulty, a request it refuses fails the test.
struct Plc {
    xbcsim::Memory mem = xbcsim::makeMemory();
    xbcsim::FaultState faults;
    std::vector<std::string> received;
    bool linkDown = false; // frames do not arrive, nothing comes back
    int lostPercent = 0;   // the same, for a share of the frames
    std::mt19937 lossDraw{7};

    Plc()
    {
        xbcsim::resetFaults(faults, xbcsim::FaultConfig{});
    }
    quint16 word(int area, int w) const
    {
        return xbcsim::wordAt(mem, area, w);
    }
    void set(int area, int w, quint16 v)
    {
        xbcsim::setWordAt(mem, area, w, v);
    }
    int bit(int area, int b) const
    {
        return xbcsim::bitAt(mem, area, b);
    }

    // One exchange as a runtime that flushes stale input before it transmits:
    // a doubled reply's second copy is never seen, a lost or late one arrives
    // as nothing. Returns the code of intf_dealRcvFrame, -1 when nothing to send.
    int exchange()
    {
        FRAME_PRO f;
        if (!nextFrame(f))
            return -1;
        QByteArray answer;
        if (f.frameLen > 0 && !linkDown && int(lossDraw() % 100) >= lostPercent) {
            received.push_back(bytesOf(f));
            const QByteArray request = QByteArray::fromStdString(received.back());
            const QByteArray r = xbcsim::answerFrame(mem, request);
            if (r.startsWith(char(NAK)))
                ADD_FAILURE() << "refused: " << xbctrace::printable(request).toStdString();
            const QList<QByteArray> chunks = xbcsim::applyFaults(faults, r);
            if (!chunks.isEmpty() && faults.config.delayMs == 0)
                answer = chunks.first();
        }
        return deliver(answer);
    }
    std::vector<int> pump(int maxFrames)
    {
        std::vector<int> codes;
        for (int c = 0; int(codes.size()) < maxFrames && (c = exchange()) >= 0;)
            codes.push_back(c);
        return codes;
    }
    std::string commands() const
    {
        std::string out;
        for (const std::string &r : received)
            out += r[1];
        return out;
    }
    static bool busy()
    {
        return !driver.writeList.isEmpty() || !driver.conditionReadList.isEmpty() ||
               !driver.sendList.isEmpty();
    }
    // Runs until nothing is pending, then polls every block `cycles` more
    // times; bounded, so a driver that never settles fails instead of hanging.
    void drain(int cycles = 2, int bound = 20000)
    {
        int i = 0;
        for (; i < bound && busy(); ++i)
            exchange();
        for (int j = 0; j < cycles * (driver.readList.size() + 1) && i < bound; ++j, ++i)
            exchange();
    }
};

// A driver reset for each test: property string 3#0#0#3#64 (driver id 3,
// three tries, 64 words per request), recipe lists emptied, no notes.
class DriverTest : public ::testing::Test {
  protected:
    std::vector<unsigned char> status = std::vector<unsigned char>(65536, 0);
    std::vector<unsigned char> recipe = std::vector<unsigned char>(8192, 0);
    QMutex lock;
    Plc plc;

    void SetUp() override
    {
        reset("3#0#0#3#64");
    }
    void TearDown() override
    {
        EXPECT_FALSE(lockHeldDuringCallback) << "callback ran under a driver or host lock";
        hostLock = nullptr;
    }
    void reset(const char *properties)
    {
        intf_setAddrValueChangeCallBack(&recordNote);
        int st = -1;
        intf_initProperty(status.data(), 0, recipe.data(), &st, properties, &lock);
        QVector<_RCP_VAR_PRO> none;
        intf_setRcpAddress(&none);
        driver.rcpIndex = 0;
        deliverPendingNotes();
        notes.clear();
        lockHeldDuringCallback = false;
        hostLock = &lock;
        plc = Plc();
    }
    void watch(const char *text, int dataKind = 0)
    {
        QList<KEY_ADDRESS> list = runs(text, dataKind);
        intf_addrMerge(&list);
        notes.clear();
    }
    // Recipe variables of this driver; buffer words follow one another.
    void recipeVars(const char *text)
    {
        QVector<_RCP_VAR_PRO> vars;
        int buffer = 0;
        for (const KEY_ADDRESS &k : runs(text)) {
            vars.append({3, 1, k.regName, k.address, k.count, buffer, 0});
            buffer += k.count;
        }
        ASSERT_EQ(intf_setRcpAddress(&vars), vars.size());
    }
    void putRecipeWord(int index, quint16 w)
    {
        recipe[size_t(2 * index)] = w & 0xFF;
        recipe[size_t(2 * index + 1)] = w >> 8;
    }
    int recipeWord(int index) const
    {
        return recipe[size_t(2 * index)] | (recipe[size_t(2 * index + 1)] << 8);
    }
};

} // namespace xbc_test

#endif
