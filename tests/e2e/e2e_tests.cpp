// The driver end to end: loaded by the runtime stand-in, talking to the
// simulator over TCP loopback and over a pseudo-terminal.
// The driver header first: Qt's keyword macros (slots) must not reach it.
#include "run_until.h"
#include "xbc_sim.h"

#include <gtest/gtest.h>

#include <algorithm>

using namespace xbchost;
using xbcsim::Simulator;

namespace {

enum class Wire { Tcp, Pty };

struct Rig {
    Simulator sim;
    Host host;
    QStringList output;
};

// Loads the driver and points the link at a fresh simulator.
void setUpRig(Rig &rig, Wire wire, const QString &props = QStringLiteral("1#0#0#3#64"))
{
    QString error;
    ASSERT_TRUE(loadDriver(rig.host.api, QStringLiteral(XBC_DRIVER_PATH), &error))
        << error.toStdString();
    QList<QString> bits;
    rig.host.api.getRegListByType(0, bits);
    rig.host.bitRegisters = bits;
    rig.host.config.properties = props;
    rig.host.config.replyTimeoutMs = 150;
    rig.host.config.pollIntervalMs = 5;
    rig.host.config.print = [&rig](const QString &t) { rig.output << t; };
    rig.host.config.warn = [&rig](const QString &t) { rig.output << t; };
    if (wire == Wire::Tcp) {
        const int port = xbcsim::startTcp(rig.sim, 0, &error);
        ASSERT_GT(port, 0) << error.toStdString();
        rig.host.link.config.kind = LinkConfig::Tcp;
        rig.host.link.config.host = QStringLiteral("127.0.0.1");
        rig.host.link.config.port = quint16(port);
    } else {
        const QString path = xbcsim::startPty(rig.sim, &error);
        ASSERT_FALSE(path.isEmpty()) << error.toStdString();
        rig.host.link.config.kind = LinkConfig::Serial;
        rig.host.link.config.device = path;
    }
}

void watch(Rig &rig, const QString &text)
{
    WatchItem item;
    const QString error = parseWatch(rig.host, text, item);
    ASSERT_TRUE(error.isEmpty()) << error.toStdString();
    addWatch(rig.host, item);
}

bool runUntil(Rig &rig, const std::function<bool()> &done, int maxMs)
{
    return xbctest::runUntil(rig.host, done, maxMs);
}

bool firstCycleDone(Rig &rig)
{
    return runUntil(
        rig,
        [&rig]() {
            return rig.host.stats.pollCycles > 0 ||
                   rig.host.stats.pollReads >= 2 * rig.host.readBlocks;
        },
        5000);
}

// A value in the simulator seen through a register's own notation.
int simValue(Simulator &sim, const QString &reg, int address)
{
    const int area = xbcsim::areaFromRegister(reg);
    if (reg == QLatin1String("TX") || reg == QLatin1String("CX") ||
        reg.endsWith(QLatin1String("_bit")))
        return xbcsim::readBit(sim, area, address) ? 1 : 0;
    return xbcsim::readWord(sim, area, address);
}

struct Watched {
    QString reg;
    int address;
    int count;
};

bool shownMatchesSim(Rig &rig, const QList<Watched> &items, QString *diff = nullptr)
{
    for (const Watched &w : items) {
        const QVector<int> shown = shownValues(rig.host, w.reg, w.address, w.count);
        for (int i = 0; i < w.count; ++i) {
            const int expected = simValue(rig.sim, w.reg, w.address + i);
            if (shown[i] != expected) {
                if (diff)
                    *diff = QStringLiteral("%1 %2: shown %3, PLC %4")
                                .arg(w.reg)
                                .arg(w.address + i)
                                .arg(shown[i])
                                .arg(expected);
                return false;
            }
        }
    }
    return true;
}

bool notified(const Rig &rig, const QString &reg, int address, int from = 0)
{
    for (int i = qMax(from, 0); i < rig.host.notes.size(); ++i) {
        const Notification &n = rig.host.notes[i];
        if (n.id == rig.host.props.driverId && n.stationNo == 1 && n.name == reg &&
            n.address == address)
            return true;
    }
    return false;
}

// Queues one write of consecutive values; returns its tag.
int queueValues(Rig &rig, const QString &reg, int address, const QVector<int> &values)
{
    QByteArray data;
    for (int v : values) {
        data.append(char(v & 0xFF));
        if (!isBitRegister(rig.host, reg))
            data.append(char(v >> 8));
    }
    return queueWrite(rig.host, reg, address, values.size(), data);
}

bool allSettled(Rig &rig, const QList<int> &tags)
{
    for (int tag : tags)
        if (!rig.host.writes[tag].settled())
            return false;
    return true;
}

class EndToEnd : public ::testing::TestWithParam<Wire> {};

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
    Rig rig;
    setUpRig(rig, GetParam());
    ASSERT_FALSE(HasFatalFailure());
    QList<Watched> items;
    for (const Case &c : cases) {
        const QString reg = QLatin1String(c.reg);
        const int area = xbcsim::areaFromRegister(reg);
        if (c.value == 1 && (reg.endsWith(QLatin1String("_bit")) || reg.endsWith(QLatin1Char('X'))))
            xbcsim::writeBit(rig.sim, area, c.address, true);
        else
            xbcsim::writeWord(rig.sim, area, c.address, quint16(c.value));
        watch(rig, QString::fromLatin1(c.watch));
        items.append({reg, c.address, 1});
    }
    // A run of words and a run of contacts with distinct values.
    for (int i = 0; i < 10; ++i)
        xbcsim::writeWord(rig.sim, xbcsim::AREA_D, 100 + i, quint16(0x0101 * (i + 1)));
    xbcsim::writeBit(rig.sim, xbcsim::AREA_TX, 31, true);
    xbcsim::writeBit(rig.sim, xbcsim::AREA_TX, 33, true);
    watch(rig, QStringLiteral("D_W:100:10"));
    watch(rig, QStringLiteral("TX:30:4"));
    items.append({QStringLiteral("D_W"), 100, 10});
    items.append({QStringLiteral("TX"), 30, 4});
    startRun(rig.host);

    QString diff;
    EXPECT_TRUE(runUntil(
        rig, [&]() { return shownMatchesSim(rig, items); }, 5000));
    EXPECT_TRUE(shownMatchesSim(rig, items, &diff)) << diff.toStdString();
    for (const Case &c : cases)
        EXPECT_TRUE(notified(rig, QLatin1String(c.reg), c.address)) << c.watch;
    EXPECT_TRUE(notified(rig, QStringLiteral("D_W"), 109));
    EXPECT_TRUE(notified(rig, QStringLiteral("TX"), 33));
    EXPECT_FALSE(notified(rig, QStringLiteral("TX"), 32)); // still 0: nothing changed
    EXPECT_EQ(rig.host.stats.retries, 0);
    EXPECT_EQ(rig.host.stats.abandoned, 0);
}

TEST_P(EndToEnd, WritesReachThePlcAndReadBack)
{
    struct Case {
        const char *reg;
        int address;         // numeric address
        QVector<int> values; // consecutive values
    };
    QVector<int> longRun;
    for (int i = 0; i < 150; ++i)
        longRun.append(i * 3 + 1);
    const Case cases[] = {
        {"D_W", 200, {0xBEEF}},
        {"D_W", 300, {1, 2, 3}},
        {"D_W", 1000, longRun}, // more than one request's worth
        {"L_W", 11263, {0x1234}},
        {"M_bit", 40 * 16 + 5, {1}},           // set one bit
        {"M_bit", 41 * 16 + 2, {0}},           // clear one bit
        {"M_bit", 42 * 16 + 14, {1, 0, 1, 1}}, // bits across two words
        {"M_bit", 44 * 16 + 0, {0, 1, 0, 1, 0, 1, 0, 1, 1, 1, 1, 1, 0, 0, 0, 0}}, // a whole word
        {"K_bit", 4095 * 16 + 15, {1}},
        {"TX", 9, {1}},
        {"TX", 20, {1, 1, 0, 1}}, // one frame per contact
        {"CX", 3, {1}},
    };
    Rig rig;
    setUpRig(rig, GetParam());
    ASSERT_FALSE(HasFatalFailure());
    // Neighbouring bits that the bit writes must leave alone.
    xbcsim::writeWord(rig.sim, xbcsim::AREA_M, 40, 0x0101);
    xbcsim::writeWord(rig.sim, xbcsim::AREA_M, 41, 0xFFFF);
    xbcsim::writeWord(rig.sim, xbcsim::AREA_M, 42, 0x2AAA);
    xbcsim::writeWord(rig.sim, xbcsim::AREA_M, 43, 0xA556);
    xbcsim::writeWord(rig.sim, xbcsim::AREA_M, 44, 0xFFFF);
    xbcsim::writeWord(rig.sim, xbcsim::AREA_TX, 0, 0x0101);
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
            key.dataKind = isBitRegister(rig.host, reg) ? -1 : 0;
            rig.host.keys.append(key);
        }
    }
    items.append({QStringLiteral("M_W"), 40, 5});
    watch(rig, QStringLiteral("M_W:40:5"));
    startRun(rig.host);
    ASSERT_TRUE(firstCycleDone(rig));

    QList<int> tags;
    for (const Case &c : cases)
        tags.append(queueValues(rig, QLatin1String(c.reg), c.address, c.values));
    // The host calls a write done from its frames alone: by then the PLC holds
    // all of it, however many frames the driver cut it into.
    QVector<bool> seenDone(tags.size(), false);
    const auto settledWritesHeld = [&]() {
        for (int i = 0; i < tags.size(); ++i) {
            if (seenDone[i] || !rig.host.writes[tags[i]].settled())
                continue;
            seenDone[i] = true;
            const Case &c = cases[i];
            for (int k = 0; k < c.values.size(); ++k)
                EXPECT_EQ(simValue(rig.sim, QLatin1String(c.reg), c.address + k), c.values[k])
                    << c.reg << " " << c.address + k << ": done before it landed";
        }
        return allSettled(rig, tags);
    };
    ASSERT_TRUE(runUntil(rig, settledWritesHeld, 10000));
    for (int i = 0; i < tags.size(); ++i) {
        const WriteRecord &w = rig.host.writes[tags[i]];
        EXPECT_GT(w.acked, 0) << cases[i].reg << " " << cases[i].address;
        EXPECT_EQ(w.failed, 0) << cases[i].reg << " " << cases[i].address;
    }

    // Every value was checked as its write settled; the bit writes left the
    // rest of their words alone.
    EXPECT_EQ(xbcsim::readWord(rig.sim, xbcsim::AREA_M, 40), 0x0121);
    EXPECT_EQ(xbcsim::readWord(rig.sim, xbcsim::AREA_M, 41), 0xFFFB);
    EXPECT_EQ(xbcsim::readWord(rig.sim, xbcsim::AREA_M, 42), 0x6AAA);
    EXPECT_EQ(xbcsim::readWord(rig.sim, xbcsim::AREA_M, 43), 0xA557);
    EXPECT_EQ(xbcsim::readWord(rig.sim, xbcsim::AREA_M, 44), 0x0FAA);
    EXPECT_EQ(xbcsim::readWord(rig.sim, xbcsim::AREA_TX, 0), 0x0301);
    EXPECT_EQ(xbcsim::readWord(rig.sim, xbcsim::AREA_D, 1150), 0); // just past the long run

    // Read back through polling: the driver shows what the PLC holds.
    QString diff;
    runUntil(
        rig, [&]() { return shownMatchesSim(rig, items); }, 3000);
    EXPECT_TRUE(shownMatchesSim(rig, items, &diff)) << diff.toStdString();
}

TEST_P(EndToEnd, RecipeDownloadAndUploadRoundTrip)
{
    Rig rig;
    setUpRig(rig, GetParam());
    ASSERT_FALSE(HasFatalFailure());
    const int id = 1; // first number of the property string
    rig.host.recipeVars = {
        {id, 1, QStringLiteral("D_W"), 500, 4, 0, 0},
        {id, 1, QStringLiteral("D_W"), 504, 2, 4, 0}, // touches the first: one block
        {id, 1, QStringLiteral("M_W"), 10, 1, 10, 0},
        {id + 1, 1, QStringLiteral("D_W"), 600, 1, 20, 0}, // another driver's variable
    };
    auto setBufferWord = [&](int word, quint16 v) {
        rig.host.recipeBuffer[2 * word] = quint8(v & 0xFF);
        rig.host.recipeBuffer[2 * word + 1] = quint8(v >> 8);
    };
    auto bufferWord = [&](int word) {
        return int(rig.host.recipeBuffer[2 * word] | (rig.host.recipeBuffer[2 * word + 1] << 8));
    };
    for (int i = 0; i < 6; ++i)
        setBufferWord(i, quint16(0x1000 + i));
    setBufferWord(10, 0xCAFE);
    setBufferWord(20, 0x7777);
    watch(rig, QStringLiteral("D_W:0"));
    startRun(rig.host);

    requestRecipe(rig.host, true);
    ASSERT_TRUE(runUntil(
        rig, [&]() { return !recipePending(rig.host, true); }, 5000))
        << "the download request byte was never cleared";
    for (int i = 0; i < 6; ++i)
        EXPECT_EQ(xbcsim::readWord(rig.sim, xbcsim::AREA_D, 500 + i), 0x1000 + i) << i;
    EXPECT_EQ(xbcsim::readWord(rig.sim, xbcsim::AREA_M, 10), 0xCAFE);
    EXPECT_EQ(xbcsim::readWord(rig.sim, xbcsim::AREA_D, 600), 0);

    for (int i = 0; i < 6; ++i)
        xbcsim::writeWord(rig.sim, xbcsim::AREA_D, 500 + i, quint16(0x2000 + i));
    xbcsim::writeWord(rig.sim, xbcsim::AREA_M, 10, 0x0BAD);
    xbcsim::writeWord(rig.sim, xbcsim::AREA_D, 600, 0x4444);
    for (int i = 0; i < 32; ++i)
        setBufferWord(i, 0);
    requestRecipe(rig.host, false);
    ASSERT_TRUE(runUntil(
        rig, [&]() { return !recipePending(rig.host, false); }, 5000))
        << "the upload request byte was never cleared";
    for (int i = 0; i < 6; ++i)
        EXPECT_EQ(bufferWord(i), 0x2000 + i) << i;
    EXPECT_EQ(bufferWord(10), 0x0BAD);
    EXPECT_EQ(bufferWord(20), 0); // not this driver's
    QList<int> uploaded = rig.host.uploadedWords;
    std::sort(uploaded.begin(), uploaded.end());
    EXPECT_EQ(uploaded, QList<int>({0, 1, 2, 3, 4, 5, 10}));
}

TEST_P(EndToEnd, ConditionReadsComplete)
{
    Rig rig;
    setUpRig(rig, GetParam());
    ASSERT_FALSE(HasFatalFailure());
    for (int i = 0; i < 150; ++i)
        xbcsim::writeWord(rig.sim, xbcsim::AREA_D, 700 + i, quint16(0x5000 + i));
    watch(rig, QStringLiteral("D_W:0"));
    startRun(rig.host);
    ASSERT_TRUE(firstCycleDone(rig));

    // Longer than one request: completion is reported once, after the last piece.
    queueConditionRead(rig.host, QStringLiteral("D_W"), 700, 150);
    ASSERT_TRUE(runUntil(
        rig, [&]() { return rig.host.conditionsDone >= 1; }, 3000));
    runFor(rig.host, 20, 200);
    EXPECT_EQ(rig.host.conditionsDone, 1);
    EXPECT_EQ(rig.host.conditionsFailed, 0);
    const QVector<int> shown = shownValues(rig.host, QStringLiteral("D_W"), 700, 150);
    for (int i = 0; i < 150; ++i)
        EXPECT_EQ(shown[i], 0x5000 + i) << i;
}

INSTANTIATE_TEST_SUITE_P(Links, EndToEnd, ::testing::Values(Wire::Tcp, Wire::Pty),
                         [](const ::testing::TestParamInfo<Wire> &info) {
                             return std::string(info.param == Wire::Tcp ? "Tcp" : "Pty");
                         });

// ---------------------------------------------------------------------------
// Faults on the line: every write is settled one way or the other, nothing
// hangs, and the shown values end up equal to the PLC's.

struct FaultCase {
    Wire wire;
    const char *faults;
    const char *name;
};

class EndToEndFaults : public ::testing::TestWithParam<FaultCase> {};

TEST_P(EndToEndFaults, WritesSettleAndValuesConverge)
{
    const FaultCase &fc = GetParam();
    Rig rig;
    setUpRig(rig, fc.wire, QStringLiteral("1#0#0#3#64"));
    ASSERT_FALSE(HasFatalFailure());
    xbcsim::FaultConfig faults;
    ASSERT_TRUE(xbcsim::parseFaultSpec(QString::fromLatin1(fc.faults), faults).isEmpty());
    xbcsim::writeWord(rig.sim, xbcsim::AREA_M, 21, 0x8001);
    const QList<Watched> items = {
        {QStringLiteral("D_W"), 100, 8},
        {QStringLiteral("M_bit"), 20 * 16, 32},
        {QStringLiteral("TX"), 0, 8},
    };
    watch(rig, QStringLiteral("D_W:100:8"));
    watch(rig, QStringLiteral("M_bit:20.0:32"));
    watch(rig, QStringLiteral("TX:0:8"));
    startRun(rig.host);
    ASSERT_TRUE(firstCycleDone(rig));
    xbcsim::setFaults(rig.sim, faults);

    struct Write {
        QString reg;
        int address;
        QVector<int> values;
    };
    QList<Write> writes;
    for (int i = 0; i < 8; ++i)
        writes.append({QStringLiteral("D_W"), 100 + i, {0x1111 * (i + 1)}});
    for (int b = 0; b < 8; ++b)
        writes.append({QStringLiteral("M_bit"), 20 * 16 + 2 * b, {1}});
    writes.append({QStringLiteral("M_bit"), 21 * 16 + 4, {1, 1, 0, 1}});
    writes.append({QStringLiteral("M_bit"), 21 * 16 + 12, {1, 0, 1, 1}});
    for (int t = 0; t < 4; ++t)
        writes.append({QStringLiteral("TX"), 2 * t, {1}});

    QList<int> tags;
    for (const Write &w : writes)
        tags.append(queueValues(rig, w.reg, w.address, w.values));
    EXPECT_TRUE(runUntil(
        rig, [&]() { return allSettled(rig, tags); }, 25000))
        << "writes still open after 25 s";
    int failed = 0;
    for (int i = 0; i < tags.size(); ++i) {
        const WriteRecord &r = rig.host.writes[tags[i]];
        const Write &w = writes[i];
        SCOPED_TRACE(QStringLiteral("%1 %2").arg(w.reg).arg(w.address).toStdString());
        EXPECT_TRUE(r.settled());
        if (r.failed > 0) {
            ++failed;
            // A failed write is reported through the callback for what it touched.
            EXPECT_TRUE(notified(rig, w.reg, w.address, r.failNoteIndex));
        }
    }
    const xbcsim::FaultCounters injected = xbcsim::faultCountersOf(rig.sim);
    EXPECT_GT(injected.dropped + injected.corrupted + injected.truncated, 0);
    EXPECT_GT(rig.host.stats.retries, 0);

    QString diff;
    runUntil(
        rig, [&]() { return shownMatchesSim(rig, items); }, 10000);
    EXPECT_TRUE(shownMatchesSim(rig, items, &diff)) << diff.toStdString();
    RecordProperty("failed_writes", failed);
}

INSTANTIATE_TEST_SUITE_P(
    Faults, EndToEndFaults,
    ::testing::Values(FaultCase{Wire::Tcp, "drop=15,corrupt=15,seed=11", "TcpDropCorrupt"},
                      FaultCase{Wire::Pty, "drop=15,corrupt=15,seed=12", "PtyDropCorrupt"},
                      FaultCase{Wire::Tcp, "truncate=15,double=15,corrupt=10,delay=3,seed=13",
                                "TcpTruncateDouble"}),
    [](const ::testing::TestParamInfo<FaultCase> &info) { return std::string(info.param.name); });
