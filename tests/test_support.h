// Shared fixture and helpers of the unit and loop tests: a freshly reset
// driver, a recording value-change callback, reply builders and a small PLC
// image that answers request frames the way the controller does.
#ifndef XBC_TEST_SUPPORT_H
#define XBC_TEST_SUPPORT_H

#include "ls_xbc_cpu_direct.h"
#include "service.h"
#include "xbc_protocol.h"

#include <QStringList>

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <tuple>
#include <vector>

namespace xbc_test {

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
        if (driver.stateMutex.try_lock())
            driver.stateMutex.unlock();
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
inline std::string hexPair(unsigned v)
{
    return {"0123456789ABCDEF"[(v >> 4) & 15], "0123456789ABCDEF"[v & 15]};
}
// A reply: ACK, one character, the data, the checksum pair of both, EOT.
inline QByteArray reply(const std::string &charAndData)
{
    unsigned sum = 0;
    for (unsigned char c : charAndData)
        sum += c;
    return QByteArray::fromStdString("\x06" + charAndData + hexPair(sum) + "\x04");
}
inline QByteArray readReply(const std::vector<quint16> &words)
{
    std::string body = "r";
    for (quint16 w : words)
        body += hexPair(w & 0xFF) + hexPair(w >> 8);
    return reply(body);
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
inline std::vector<unsigned char> getData(int station, const char *reg, int start, int count,
                                          int bytesPerValue)
{
    std::vector<unsigned char> out(size_t(qMax(0, count * bytesPerValue)) + 8, 0xEE);
    intf_getData(station, reg, start, count, out.data());
    out.resize(size_t(qMax(0, count * bytesPerValue)));
    return out;
}
inline quint16 word16(int station, const char *reg, int address)
{
    std::vector<unsigned char> b = getData(station, reg, address, 1, 2);
    return quint16(b[0] | (b[1] << 8));
}
inline const _DATA_ *findArea(int station, const char *name, int address)
{
    for (const _DATA_ &d : driver.dataAreas)
        if (d.stationNo == station && d.name == QLatin1String(name) && d.address == address)
            return &d;
    return nullptr;
}

// A small controller image: memory-area letter -> 16-bit words. TX and CX
// contact c is bit c % 16 of word c / 16 of their letters. Malformed requests
// fail the test.
class FakePlc {
  public:
    std::vector<std::string> received;
    bool answerGarbage = false;

    quint16 &at(char area, int word)
    {
        QVector<quint16> &m = mem[area];
        if (m.size() <= word)
            m.resize(word + 1);
        return m[word];
    }

    QByteArray answer(const std::string &req)
    {
        received.push_back(req);
        if (answerGarbage)
            return QByteArray("\x06rXYZ\x04");
        const int n = int(req.size());
        bool ok =
            n >= 14 && req[0] == '\x02' && req[size_t(n - 1)] == '\x03' && req.substr(7, 2) == "00";
        unsigned sum = 0;
        for (int i = 1; ok && i <= n - 4; ++i) {
            sum += static_cast<unsigned char>(req[size_t(i)]);
            ok = i < 3 || nibble(req[size_t(i)]) >= 0; // upper-case hex after the letters
        }
        ok = ok && req.substr(size_t(n - 3), 2) == hexPair(sum);
        const char cmd = ok ? req[1] : 0, area = ok ? req[2] : 0;
        const int word = ok ? (pair(req, 3) | (pair(req, 5) << 8)) / 2 : 0;
        if (cmd == 'r' && n == 14) {
            std::string body = "r";
            for (int i = 0; i < pair(req, 9) / 2; ++i)
                body += hexPair(at(area, word + i) & 0xFF) + hexPair(at(area, word + i) >> 8);
            return reply(body);
        }
        if (cmd == 'w' && n == 14 + 2 * pair(req, 9)) {
            for (int i = 0; i < pair(req, 9) / 2; ++i)
                at(area, word + i) = quint16(pair(req, 11 + 4 * i) | (pair(req, 13 + 4 * i) << 8));
            return reply("w");
        }
        if ((cmd == 'o' || cmd == 'n') && n == 16) {
            const quint16 mask = quint16(pair(req, 9) | (pair(req, 11) << 8));
            at(area, word) = cmd == 'o' ? (at(area, word) | mask) : (at(area, word) & mask);
            return reply("w");
        }
        ADD_FAILURE() << "bad request " << testing::PrintToString(req);
        return {};
    }

    // Runs the loop for at most maxFrames frames or until nothing is left to
    // send; returns the codes of intf_dealRcvFrame.
    std::vector<int> pump(int maxFrames)
    {
        std::vector<int> codes;
        FRAME_PRO f;
        while (int(codes.size()) < maxFrames && nextFrame(f))
            codes.push_back(deliver(answer(bytesOf(f))));
        return codes;
    }
    std::string commands() const
    {
        std::string out;
        for (const std::string &r : received)
            out += r.size() > 1 ? r[1] : '?';
        return out;
    }

  private:
    QHash<char, QVector<quint16>> mem;
    static int nibble(char c)
    {
        return c >= '0' && c <= '9' ? c - '0' : c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
    }
    static int pair(const std::string &s, int at)
    {
        return nibble(s[size_t(at)]) * 16 + nibble(s[size_t(at + 1)]);
    }
};

// A driver reset for each test: property string 3#0#0#3#64 (driver id 3,
// three tries, 64 words per request), recipe lists emptied, no notes.
class DriverTest : public ::testing::Test {
  protected:
    std::vector<unsigned char> status = std::vector<unsigned char>(65536, 0);
    std::vector<unsigned char> recipe = std::vector<unsigned char>(8192, 0);
    QMutex lock;

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
        driver.pendingNotes.clear();
        notes.clear();
        lockHeldDuringCallback = false;
        hostLock = &lock;
    }
    void watch(const char *text)
    {
        QList<KEY_ADDRESS> list = runs(text);
        intf_addrMerge(&list);
        notes.clear();
    }
    void putRecipeWord(int index, quint16 w)
    {
        recipe[size_t(2 * index)] = w & 0xFF;
        recipe[size_t(2 * index + 1)] = w >> 8;
    }
    quint16 recipeWord(int index) const
    {
        return quint16(recipe[size_t(2 * index)] | (recipe[size_t(2 * index + 1)] << 8));
    }
};

} // namespace xbc_test

#endif
