// The driver end to end: loaded by the runtime stand-in, talking to the
// simulator over TCP loopback and over a pseudo-terminal. Faults, link drops
// and recipes over these links are the soak's (tests/soak).
// The driver header first: Qt's keyword macros (slots) must not reach it.
#include "host_helpers.h"
#include "xbc_sim.h"

#include <gtest/gtest.h>

using namespace xbchost;
using xbctest::runUntil;

namespace {

enum class Wire { Tcp, Pty };
// Words one request carries at most.
constexpr int MAX_WORDS_PER_FRAME = 127;
enum { REPLY_TIMEOUT_MS = 150, POLL_INTERVAL_MS = 5, CONVERGE_MS = 5000, WRITES_MS = 10000 };

struct Watched {
    QString reg;
    int address;
    int count;
};

// The driver, loaded by the host and pointed at a fresh simulator.
class EndToEnd : public ::testing::TestWithParam<Wire> {
  protected:
    void SetUp() override
    {
        QString error;
        ASSERT_TRUE(loadDriver(host.api, QStringLiteral(XBC_DRIVER_PATH), &error))
            << error.toStdString();
        QList<QString> bits;
        host.api.getRegListByType(0, bits);
        host.bitRegisters = bits;
        host.config.properties = QStringLiteral("1#0#0#3#200"); // requests up to the frame limit
        host.config.replyTimeoutMs = REPLY_TIMEOUT_MS;
        host.config.pollIntervalMs = POLL_INTERVAL_MS;
        host.config.print = [](const QString &) {};
        host.config.warn = [](const QString &) {};
        if (GetParam() == Wire::Tcp) {
            const int port = xbcsim::startTcp(sim, 0, &error);
            ASSERT_GT(port, 0) << error.toStdString();
            host.link.config.kind = LinkConfig::Tcp;
            host.link.config.host = QStringLiteral("127.0.0.1");
            host.link.config.port = quint16(port);
        } else {
            const QString path = xbcsim::startPty(sim, &error);
            ASSERT_FALSE(path.isEmpty()) << error.toStdString();
            host.link.config.kind = LinkConfig::Serial;
            host.link.config.device = path;
        }
    }

    void watch(const QString &text)
    {
        WatchItem item;
        const QString error = parseWatch(host, text, item);
        ASSERT_TRUE(error.isEmpty()) << error.toStdString();
        addWatch(host, item);
    }

    bool firstCycleDone()
    {
        return runUntil(
            host,
            [this]() {
                return host.stats.pollCycles > 0 || host.stats.pollReads >= 2 * host.readBlocks;
            },
            CONVERGE_MS);
    }

    // A value in the simulator seen through a register's own notation.
    int simValue(const QString &reg, int address)
    {
        const int area = xbcsim::areaFromRegister(reg);
        if (isBitRegister(host, reg))
            return xbcsim::readBit(sim, area, address) ? 1 : 0;
        return xbcsim::readWord(sim, area, address);
    }

    // The first shown value that is not the simulator's; empty when none.
    QString shownDiff(const QList<Watched> &items)
    {
        for (const Watched &w : items) {
            const QVector<int> shown = shownValues(host, w.reg, w.address, w.count);
            for (int i = 0; i < w.count; ++i)
                if (shown[i] != simValue(w.reg, w.address + i))
                    return QStringLiteral("%1 %2: shown %3, PLC %4")
                        .arg(w.reg)
                        .arg(w.address + i)
                        .arg(shown[i])
                        .arg(simValue(w.reg, w.address + i));
        }
        return QString();
    }

    void expectShownConverges(const QList<Watched> &items)
    {
        runUntil(
            host, [&]() { return shownDiff(items).isEmpty(); }, CONVERGE_MS);
        EXPECT_EQ(shownDiff(items).toStdString(), "");
    }

    bool notified(const QString &reg, int address)
    {
        for (const Notification &n : host.notes)
            if (n.id == host.props.driverId && n.stationNo == 1 && n.name == reg &&
                n.address == address)
                return true;
        return false;
    }

    xbcsim::Simulator sim;
    Host host;
};

} // namespace

TEST_P(EndToEnd, PolledValuesOfEveryRegisterArrive)
{
    struct Case {
        const char *watch; // as on the command line
        const char *reg;
        int address; // numeric address
        int value;   // preset in the simulator
    };
    const Case cases[] = {
        {"P_W:5", "P_W", 5, 0x1111},
        {"M_W:2047", "M_W", 2047, 0x2222},
        {"L_W:11263", "L_W", 11263, 0x3333},
        {"K_W:2559", "K_W", 2559, 0x4444},
        {"F_W:17", "F_W", 17, 0x5555},
        {"D_W:32767", "D_W", 32767, 0x6666},
        {"S_W:127", "S_W", 127, 0x7777},
        {"T_W:300", "T_W", 300, 0x8888},
        {"C_W:2047", "C_W", 2047, 0x9999},
        {"N_W:21503", "N_W", 21503, 0xAAAA},
        {"Z_W:0", "Z_W", 0, 0xBBBB},
        {"P_bit:10.4", "P_bit", 164, 1},
        {"M_bit:35.3", "M_bit", 563, 1},
        {"L_bit:11263.15", "L_bit", 11263 * 16 + 15, 1},
        {"K_bit:4095.15", "K_bit", 4095 * 16 + 15, 1},
        {"F_bit:1.0", "F_bit", 16, 1},
        {"TX:7", "TX", 7, 1},
        {"CX:2047", "CX", 2047, 1},
    };
    QList<Watched> items;
    for (const Case &c : cases) {
        const QString reg = QLatin1String(c.reg);
        const int area = xbcsim::areaFromRegister(reg);
        if (isBitRegister(host, reg))
            xbcsim::writeBit(sim, area, c.address, true);
        else
            xbcsim::writeWord(sim, area, c.address, quint16(c.value));
        watch(QString::fromLatin1(c.watch));
        items.append({reg, c.address, 1});
    }
    // A run of words and a run of contacts with distinct values.
    for (int i = 0; i < 10; ++i)
        xbcsim::writeWord(sim, xbcsim::AREA_D, 100 + i, quint16(0x0101 * (i + 1)));
    xbcsim::writeBit(sim, xbcsim::AREA_TX, 31, true);
    xbcsim::writeBit(sim, xbcsim::AREA_TX, 33, true);
    watch(QStringLiteral("D_W:100:10"));
    watch(QStringLiteral("TX:30:4"));
    items.append({QStringLiteral("D_W"), 100, 10});
    items.append({QStringLiteral("TX"), 30, 4});
    startRun(host);

    expectShownConverges(items);
    for (const Case &c : cases)
        EXPECT_TRUE(notified(QLatin1String(c.reg), c.address)) << c.watch;
    EXPECT_TRUE(notified(QStringLiteral("D_W"), 109));
    EXPECT_TRUE(notified(QStringLiteral("TX"), 33));
    EXPECT_FALSE(notified(QStringLiteral("TX"), 32)); // still 0: nothing changed
    EXPECT_EQ(host.stats.retries, 0);
    EXPECT_EQ(host.stats.abandoned, 0);
}

TEST_P(EndToEnd, WritesReachThePlcAndReadBack)
{
    struct Case {
        const char *reg;
        int address;         // numeric address
        QVector<int> values; // consecutive values
        int frames;          // write frames it takes
    };
    const auto run = [](int n) {
        QVector<int> v;
        for (int i = 0; i < n; ++i)
            v.append(i * 3 + 1);
        return v;
    };
    const Case cases[] = {
        {"D_W", 200, {0xBEEF}, 1},
        {"D_W", 300, {1, 2, 3}, 1},
        {"D_W", 1000, run(MAX_WORDS_PER_FRAME), 1},
        {"D_W", 1200, run(MAX_WORDS_PER_FRAME + 1), 2},
        {"L_W", 11263, {0x1234}, 1},
        {"M_bit", 40 * 16 + 5, {1}, 1},           // set one bit
        {"M_bit", 41 * 16 + 2, {0}, 1},           // clear one bit
        {"M_bit", 42 * 16 + 14, {1, 0, 1, 1}, 1}, // bits across two words: read, write
        {"M_bit", 44 * 16 + 0, {0, 1, 0, 1, 0, 1, 0, 1, 1, 1, 1, 1, 0, 0, 0, 0}, 1}, // a word
        {"K_bit", 4095 * 16 + 15, {1}, 1},
        {"TX", 9, {1}, 1},
        {"TX", 20, {1, 1, 0, 1}, 4}, // one frame per contact
        {"CX", 3, {1}, 1},
    };
    // Neighbouring bits that the bit writes must leave alone.
    const struct {
        int area, word, before, after;
    } words[] = {
        {xbcsim::AREA_M, 40, 0x0101, 0x0121},
        {xbcsim::AREA_M, 41, 0xFFFF, 0xFFFB},
        {xbcsim::AREA_M, 42, 0x2AAA, 0x6AAA},
        {xbcsim::AREA_M, 43, 0xA556, 0xA557},
        {xbcsim::AREA_M, 44, 0xFFFF, 0x0FAA},
        {xbcsim::AREA_TX, 0, 0x0101, 0x0301},
        {xbcsim::AREA_D, 1200 + MAX_WORDS_PER_FRAME + 1, 0x0000, 0x0000}, // past the long run
    };
    for (const auto &w : words)
        xbcsim::writeWord(sim, w.area, w.word, quint16(w.before));
    QList<Watched> items;
    for (const Case &c : cases) {
        const QString reg = QLatin1String(c.reg);
        items.append({reg, c.address, int(c.values.size())});
        // Watched in keys of at most 50 units: one read request holds 127 words.
        for (int from = 0; from < c.values.size(); from += 50) {
            KEY_ADDRESS key;
            key.stationNo = 1;
            key.regName = reg;
            key.address = c.address + from;
            key.count = qMin(50, c.values.size() - from);
            key.dataKind = isBitRegister(host, reg) ? -1 : 0;
            host.keys.append(key);
        }
    }
    items.append({QStringLiteral("M_W"), 40, 5});
    watch(QStringLiteral("M_W:40:5"));
    startRun(host);
    ASSERT_TRUE(firstCycleDone());

    QList<int> tags;
    for (const Case &c : cases)
        tags.append(xbctest::queueValues(host, QLatin1String(c.reg), c.address, c.values));
    // The host calls a write done from its frames alone: by then the PLC holds
    // all of it, however many frames the driver cut it into.
    QVector<bool> seenDone(tags.size(), false);
    const auto settledWritesHeld = [&]() {
        bool all = true;
        for (int i = 0; i < tags.size(); ++i) {
            all = all && host.writes[tags[i]].done;
            if (seenDone[i] || !host.writes[tags[i]].done)
                continue;
            seenDone[i] = true;
            const Case &c = cases[i];
            for (int k = 0; k < c.values.size(); ++k)
                EXPECT_EQ(simValue(QLatin1String(c.reg), c.address + k), c.values[k])
                    << c.reg << " " << c.address + k << ": done before it landed";
        }
        return all;
    };
    ASSERT_TRUE(runUntil(host, settledWritesHeld, WRITES_MS));
    for (int i = 0; i < tags.size(); ++i) {
        const WriteRecord &w = host.writes[tags[i]];
        EXPECT_EQ(w.acked, cases[i].frames) << cases[i].reg << " " << cases[i].address;
        EXPECT_EQ(w.failed, 0) << cases[i].reg << " " << cases[i].address;
    }
    for (const auto &w : words)
        EXPECT_EQ(xbcsim::readWord(sim, w.area, w.word), w.after) << w.area << " " << w.word;
    // Read back through polling: the driver shows what the PLC holds.
    expectShownConverges(items);
}

TEST_P(EndToEnd, ConditionReadsEndOnceEvenWhenTheyFail)
{
    enum { WORDS = 450 }; // three requests of at most 200 words
    for (int i = 0; i < WORDS; ++i)
        xbcsim::writeWord(sim, xbcsim::AREA_D, 700 + i, quint16(0x5000 + i));
    watch(QStringLiteral("D_W:0"));
    startRun(host);
    ASSERT_TRUE(firstCycleDone());

    // Completion is reported once, after the last piece.
    queueConditionRead(host, QStringLiteral("D_W"), 700, WORDS);
    ASSERT_TRUE(runUntil(
        host, [&]() { return host.conditionsDone >= 1; }, CONVERGE_MS));
    runFor(host, 20, 200);
    EXPECT_EQ(host.conditionsDone, 1);
    EXPECT_EQ(host.conditionsFailed, 0);
    const QVector<int> shown = shownValues(host, QStringLiteral("D_W"), 700, WORDS);
    for (int i = 0; i < WORDS; ++i)
        EXPECT_EQ(shown[i], 0x5000 + i) << i;

    // A read the PLC stops answering at its first piece ends too, as failed.
    xbcsim::FaultConfig silent;
    ASSERT_TRUE(xbcsim::parseFaultSpec(QStringLiteral("drop=100"), silent).isEmpty());
    xbcsim::setFaults(sim, silent);
    queueConditionRead(host, QStringLiteral("D_W"), 700, WORDS);
    EXPECT_TRUE(runUntil(
        host, [&]() { return host.conditionsFailed >= 1; }, CONVERGE_MS));
    EXPECT_EQ(host.conditionsDone, 1);
}

INSTANTIATE_TEST_SUITE_P(Links, EndToEnd, ::testing::Values(Wire::Tcp, Wire::Pty),
                         [](const ::testing::TestParamInfo<Wire> &info) {
                             return std::string(info.param == Wire::Tcp ? "Tcp" : "Pty");
                         });
