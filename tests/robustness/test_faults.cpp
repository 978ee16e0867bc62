// Faults on the replies: after each, the driver recovers by itself, every write
// either reaches the PLC or is reported through the callback, and the shown
// values converge to the PLC's memory.
#include "rig.h"

#include <gtest/gtest.h>

namespace {

using xbcsim::AREA_D;
using xbcsim::AREA_M;
using xbcsim::AREA_TX;

struct FaultCase {
    const char *name;
    xbcsim::FaultConfig faults;
    int lostRequestPercent;
};

// One element written by the test, and how to read it back on both sides.
struct Written {
    const char *reg;
    int address;
    int value;
};

int plcValue(Rig &rig, const Written &w)
{
    if (QLatin1String(w.reg) == QLatin1String("D_W"))
        return xbcsim::wordAt(rig.mem, AREA_D, w.address);
    if (QLatin1String(w.reg) == QLatin1String("M_bit"))
        return xbcsim::bitAt(rig.mem, AREA_M, w.address);
    return xbcsim::bitAt(rig.mem, AREA_TX, w.address);
}

int shown(const Written &w)
{
    return QLatin1String(w.reg) == QLatin1String("D_W") ? shownWord(1, w.reg, w.address)
                                                        : shownBit(1, w.reg, w.address);
}

void writeWords(QList<Written> &log, int start, const QList<int> &values)
{
    QByteArray data;
    for (int i = 0; i < values.size(); ++i) {
        data.append(char(values[i] & 0xFF));
        data.append(char(values[i] >> 8));
        log.append(Written{"D_W", start + i, values[i]});
    }
    intf_setData(1, QStringLiteral("D_W"), start, values.size(),
                 reinterpret_cast<unsigned char *>(data.data()), 0);
}

void writeBits(QList<Written> &log, const char *reg, int start, const QList<int> &values)
{
    QByteArray data;
    for (int i = 0; i < values.size(); ++i) {
        data.append(char(values[i]));
        log.append(Written{reg, start + i, values[i]});
    }
    intf_setData(1, QString::fromLatin1(reg), start, values.size(),
                 reinterpret_cast<unsigned char *>(data.data()), 0);
}

class FaultRecovery : public ::testing::TestWithParam<FaultCase> {};

TEST_P(FaultRecovery, WritesLandOrAreReportedAndValuesConverge)
{
    Rig rig("1#0#0#3#16");
    rig.watch({key(1, "D_W", 0, 64), key(1, "M_bit", 0, 64, -1), key(1, "TX", 0, 32, -1)});
    for (int a = 50; a < 64; ++a)
        xbcsim::setWordAt(rig.mem, AREA_D, a, quint16(0x100 + a)); // only the PLC knows these
    rig.drain(1);

    xbcsim::FaultConfig faults = GetParam().faults;
    xbcsim::resetFaults(rig.faults, faults);
    rig.lostRequestPercent = GetParam().lostRequestPercent;
    QList<Written> log;
    for (int a = 0; a < 30; ++a)
        writeWords(log, a, {1000 + a});
    writeWords(log, 30, {7, 8, 9, 10, 11, 12, 13, 14, 15, 16}); // one request, ten words
    writeBits(log, "M_bit", 3, {1});
    writeBits(log, "M_bit", 17, {1});
    writeBits(log, "M_bit", 40, {1, 0, 1, 1, 0, 1}); // read, then write back
    writeBits(log, "TX", 0, {1, 1, 0, 1, 1});        // one frame per contact
    writeBits(log, "TX", 10, {1});
    const size_t afterWrites = noteLog().size();

    for (int i = 0; i < 3000 && (Rig::busy() || i < 200); ++i)
        rig.exchange();
    EXPECT_FALSE(Rig::busy()) << "writes still queued after the bounded run";

    xbcsim::resetFaults(rig.faults, xbcsim::FaultConfig{});
    rig.lostRequestPercent = 0;
    rig.drain(2);

    int landed = 0;
    for (const Written &w : log) {
        SCOPED_TRACE(
            QStringLiteral("%1 %2").arg(QLatin1String(w.reg)).arg(w.address).toStdString());
        if (plcValue(rig, w) == w.value) {
            ++landed;
        } else {
            EXPECT_TRUE(noteLog().has(QLatin1String(w.reg), w.address, afterWrites))
                << "a write that did not land was not reported";
        }
        EXPECT_EQ(shown(w), plcValue(rig, w));
    }
    EXPECT_GT(landed, log.size() / 2);
    for (int a = 0; a < 64; ++a)
        ASSERT_EQ(shownWord(1, "D_W", a), xbcsim::wordAt(rig.mem, AREA_D, a)) << "D_W " << a;
    for (int b = 0; b < 64; ++b)
        ASSERT_EQ(shownBit(1, "M_bit", b), int(xbcsim::bitAt(rig.mem, AREA_M, b))) << "M_bit " << b;
    for (int b = 0; b < 32; ++b)
        ASSERT_EQ(shownBit(1, "TX", b), int(xbcsim::bitAt(rig.mem, AREA_TX, b))) << "TX " << b;
}

xbcsim::FaultConfig faultsOf(int drop, int corrupt, int truncate, int twice, quint32 seed)
{
    xbcsim::FaultConfig c;
    c.dropPercent = drop;
    c.corruptPercent = corrupt;
    c.truncatePercent = truncate;
    c.doublePercent = twice;
    c.seed = seed;
    return c;
}

INSTANTIATE_TEST_SUITE_P(Faults, FaultRecovery,
                         ::testing::Values(FaultCase{"none", faultsOf(0, 0, 0, 0, 1), 0},
                                           FaultCase{"dropped", faultsOf(40, 0, 0, 0, 2), 0},
                                           FaultCase{"corrupted", faultsOf(0, 40, 0, 0, 3), 0},
                                           FaultCase{"truncated", faultsOf(0, 0, 40, 0, 4), 0},
                                           FaultCase{"doubled", faultsOf(0, 0, 0, 50, 5), 0},
                                           FaultCase{"requests_lost", faultsOf(0, 0, 0, 0, 6), 45},
                                           FaultCase{"mixed", faultsOf(15, 15, 15, 15, 7), 15}),
                         [](const ::testing::TestParamInfo<FaultCase> &info) {
                             return std::string(info.param.name);
                         });

// The link goes down after the first frame of a request of several frames and
// stays down for `silentReplies` replies.
struct LinkDropCase {
    const char *reg;
    int start;
    QList<int> values;
    int silentReplies;
    bool lands;
};

class LinkDrop : public ::testing::TestWithParam<LinkDropCase> {};

TEST_P(LinkDrop, MultiFrameWriteFinishesOrIsReported)
{
    const LinkDropCase &c = GetParam();
    Rig rig("1#0#0#3#16");
    rig.watch({key(1, "M_bit", 0, 64, -1), key(1, "TX", 0, 32, -1)});
    rig.drain(1);
    QList<Written> log;
    writeBits(log, c.reg, c.start, c.values);
    const size_t afterWrite = noteLog().size();

    ASSERT_EQ(rig.exchange(), 1); // the first frame is answered
    rig.linkDown = true;
    int last = 0;
    for (int i = 0; i < c.silentReplies; ++i)
        last = rig.exchange();
    EXPECT_EQ(last, c.silentReplies >= 3 ? 2 : 8);
    rig.linkDown = false;
    rig.drain(2);

    EXPECT_TRUE(driver.writeList.isEmpty());
    bool allLanded = true;
    for (const Written &w : log) {
        const bool landed = plcValue(rig, w) == w.value;
        allLanded = allLanded && landed;
        if (!landed) {
            EXPECT_TRUE(noteLog().has(QLatin1String(w.reg), w.address, afterWrite)) << w.address;
        }
        EXPECT_EQ(shown(w), plcValue(rig, w)) << w.address;
    }
    EXPECT_EQ(allLanded, c.lands);
}

INSTANTIATE_TEST_SUITE_P(Links, LinkDrop,
                         ::testing::Values(LinkDropCase{"M_bit", 14, {1, 1, 1, 1}, 2, true},
                                           LinkDropCase{"M_bit", 14, {1, 1, 1, 1}, 3, false},
                                           LinkDropCase{"TX", 4, {1, 1, 1}, 2, true},
                                           LinkDropCase{"TX", 4, {1, 1, 1}, 3, false}));

} // namespace
