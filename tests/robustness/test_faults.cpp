// Faults on the replies and a link that drops mid-request: afterwards the
// driver recovers by itself, every write either reaches the PLC or is reported
// through the callback, and the shown values converge to the PLC's memory.
#include "test_support.h"

using namespace xbc_test;

namespace {

struct Written {
    std::string reg;
    int address, value;
};

// Writes consecutive values as one request and logs each element.
void write(std::vector<Written> &log, const char *reg, int start, const std::vector<int> &values)
{
    const bool isWord = std::string(reg) == "D_W";
    std::vector<unsigned char> data;
    for (size_t i = 0; i < values.size(); ++i) {
        data.push_back(static_cast<unsigned char>(values[i]));
        if (isWord)
            data.push_back(static_cast<unsigned char>(values[i] >> 8));
        log.push_back({reg, start + int(i), values[i]});
    }
    setData(1, reg, start, data, int(values.size()));
}

// Each logged write landed or was reported after `notesFrom`, and the driver
// shows what the PLC holds. Returns how many landed.
int expectSettled(const Plc &plc, const std::vector<Written> &log, size_t notesFrom)
{
    int landed = 0;
    for (const Written &w : log) {
        SCOPED_TRACE(w.reg + " " + std::to_string(w.address));
        const bool isWord = w.reg == "D_W";
        const int inPlc = isWord ? plc.word(AREA_D, w.address)
                                 : plc.bit(w.reg == "TX" ? AREA_TX : AREA_M, w.address);
        if (inPlc == w.value)
            ++landed;
        else
            EXPECT_TRUE(noted(w.reg, w.address, notesFrom)) << "a lost write was not reported";
        EXPECT_EQ(isWord ? word16(1, "D_W", w.address) : bit(1, w.reg.c_str(), w.address), inPlc);
    }
    EXPECT_TRUE(driver.writeList.isEmpty());
    return landed;
}

// Reply faults by the simulator's own settings, and requests lost on the way
// to it; a field left out is no fault.
struct FaultCase {
    const char *name = "";
    xbcsim::FaultConfig faults{};
    int lostRequestPercent = 0;
};

const FaultCase FAULT_CASES[] = {
    {.name = "none", .faults = {.seed = 1}},
    {.name = "dropped", .faults = {.dropPercent = 40, .seed = 2}},
    {.name = "corrupted", .faults = {.corruptPercent = 40, .seed = 3}},
    {.name = "truncated", .faults = {.truncatePercent = 40, .seed = 4}},
    {.name = "doubled", .faults = {.doublePercent = 50, .seed = 5}},
    {.name = "requests_lost", .faults = {.seed = 6}, .lostRequestPercent = 45},
    {.name = "mixed",
     .faults = {.dropPercent = 15,
                .corruptPercent = 15,
                .truncatePercent = 15,
                .doublePercent = 15,
                .seed = 7},
     .lostRequestPercent = 15},
};

using FaultRecovery = DriverTest;

TEST_F(FaultRecovery, WritesLandOrAreReportedAndValuesConverge)
{
    for (const FaultCase &c : FAULT_CASES) {
        SCOPED_TRACE(c.name);
        reset("1#0#0#3#16");
        watch("D_W 0 64, M_bit 0 64, TX 0 32");
        for (int a = 50; a < 64; ++a)
            plc.set(AREA_D, a, quint16(0x100 + a)); // only the PLC knows these
        plc.drain(1);

        xbcsim::resetFaults(plc.faults, c.faults);
        plc.lostPercent = c.lostRequestPercent;
        std::vector<Written> log;
        for (int a = 0; a < 30; ++a)
            write(log, "D_W", a, {1000 + a});
        write(log, "D_W", 30, {7, 8, 9, 10, 11, 12, 13, 14, 15, 16}); // one request, ten words
        write(log, "M_bit", 3, {1});
        write(log, "M_bit", 17, {1});
        write(log, "M_bit", 40, {1, 0, 1, 1, 0, 1}); // read, then write back
        write(log, "TX", 0, {1, 1, 0, 1, 1});        // one frame per contact
        const size_t afterWrites = notes.size();

        for (int i = 0; i < 3000 && (Plc::busy() || i < 200); ++i)
            plc.exchange();
        EXPECT_FALSE(Plc::busy()) << "writes still queued after the bounded run";
        xbcsim::resetFaults(plc.faults, xbcsim::FaultConfig{});
        plc.lostPercent = 0;
        plc.drain(2);

        EXPECT_GT(expectSettled(plc, log, afterWrites), int(log.size()) / 2);
        for (int a = 0; a < 64; ++a)
            ASSERT_EQ(word16(1, "D_W", a), plc.word(AREA_D, a)) << "D_W " << a;
        for (int b = 0; b < 64; ++b)
            ASSERT_EQ(bit(1, "M_bit", b), plc.bit(AREA_M, b)) << "M_bit " << b;
        for (int b = 0; b < 32; ++b)
            ASSERT_EQ(bit(1, "TX", b), plc.bit(AREA_TX, b)) << "TX " << b;
    }
}

// The link goes down after the first frame of a request of several frames and
// stays down for `silentReplies` replies: two are retried, three abandon it.
struct LinkDropCase {
    const char *reg;
    int start;
    std::vector<int> values;
    int silentReplies;
    bool lands;
};

using LinkDrop = DriverTest;

TEST_F(LinkDrop, MultiFrameWriteFinishesOrIsReported)
{
    for (const LinkDropCase &c :
         {LinkDropCase{"M_bit", 14, {1, 1, 1, 1}, 2, true},
          LinkDropCase{"M_bit", 14, {1, 1, 1, 1}, 3, false},
          LinkDropCase{"TX", 4, {1, 1, 1}, 2, true}, LinkDropCase{"TX", 4, {1, 1, 1}, 3, false}}) {
        SCOPED_TRACE(std::string(c.reg) + " silent " + std::to_string(c.silentReplies));
        reset("1#0#0#3#16");
        watch("M_bit 0 64, TX 0 32");
        plc.drain(1);
        std::vector<Written> log;
        write(log, c.reg, c.start, c.values);
        const size_t afterWrite = notes.size();

        ASSERT_EQ(plc.exchange(), RECEIVE_DONE); // the first frame is answered
        plc.linkDown = true;
        std::vector<int> codes;
        for (int i = 0; i < c.silentReplies; ++i)
            codes.push_back(plc.exchange());
        EXPECT_EQ(codes.back(), c.silentReplies >= 3 ? RECEIVE_ABANDONED : RECEIVE_RETRY);
        plc.linkDown = false;
        plc.drain(2);
        EXPECT_EQ(expectSettled(plc, log, afterWrite) == int(log.size()), c.lands);
    }
}

} // namespace
