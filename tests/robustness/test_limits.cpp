// Limits: buffers written only within their promised size, long blocks in
// frames the byte count can describe, and defined results for odd input.
#include "test_support.h"

#include <algorithm>
#include <climits>
#include <numeric>

using namespace xbc_test;

namespace {

using Limits = DriverTest;

TEST_F(Limits, GetDataWritesExactlyTheValuesAskedFor)
{
    struct Case {
        const char *reg;
        int start, count, bytesWritten;
    } cases[] = {
        {"D_W", 10, 5, 10}, {"M_bit", 33, 7, 7}, {"TX", 3, 9, 9},     {"Q_W", 1, 4, 4},
        {"D_W", 0, 0, 0},   {"D_W", 0, -4, 0},   {"M_bit", 5, -1, 0}, {"", 0, 3, 3},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(testing::Message() << c.reg << " " << c.count);
        unsigned char buffer[64];
        memset(buffer, 0xA5, sizeof buffer);
        EXPECT_EQ(intf_getData(1, c.reg, c.start, c.count, buffer + 8), 1);
        for (int i = 0; i < int(sizeof buffer); ++i)
            ASSERT_TRUE(buffer[i] == 0xA5 || (i >= 8 && i < 8 + c.bytesWritten))
                << "byte " << i - 8 << " written";
    }
}

// Without a packet limit only the frame's byte count cuts a long write; with
// one, the write is cut into pieces first. Either way each word lands.
TEST_F(Limits, LongWritesGoOutInFramesOfAtMost127Words)
{
    struct Case {
        const char *properties;
        std::vector<int> wordsPerFrame;
    } cases[] = {{"1#0#0#3#0", {127, 127, 127, 127, 4}},
                 {"1#0#0#3#100", {100, 100, 100, 100, 100, 12}}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.properties);
        reset(c.properties);
        std::vector<unsigned char> data;
        for (int i = 0; i < 512; ++i)
            data.insert(data.end(), {static_cast<unsigned char>(i),
                                     static_cast<unsigned char>(0x80 | (i >> 8))});
        setData(1, "D_W", 0, data, 512);
        EXPECT_EQ(plc.pump(20), std::vector<int>(c.wordsPerFrame.size(), RECEIVE_DONE));
        std::vector<int> sizes;
        for (const std::string &r : plc.received)
            sizes.push_back(int(r.size() - 14) / 4);
        EXPECT_EQ(sizes, c.wordsPerFrame);
        for (int a = 0; a < 512; ++a)
            ASSERT_EQ(plc.word(AREA_D, a), 0x8000 | a) << a;
        EXPECT_FALSE(Plc::busy());
    }
}

// Long blocks are read in frames of at most 127 words, also near the end of
// the address range, where the address of each further frame wraps as the
// record addresses do (it once counted past INT_MAX).
TEST_F(Limits, LongBlocksAreReadInFramesOfAtMost127Words)
{
    struct Case {
        const char *reg;
        int address, count;
        std::vector<int> frames;
    } cases[] = {{"D_W", 1000, 300, {127, 127, 46}},
                 {"D_W", INT_MAX, 200, {127, 73}},
                 {"D_W", INT_MAX - 130, 400, {127, 127, 127, 19}},
                 {"M_bit", INT_MAX - 40, 3000, {127, 61}}};
    for (const Case &c : cases) {
        SCOPED_TRACE(std::string(c.reg) + " at " + std::to_string(c.address));
        reset("3#0#0#3#0");
        for (int a = 0; a < 300; ++a)
            plc.set(AREA_D, 1000 + a, quint16(0x4000 + 3 * a));
        QList<KEY_ADDRESS> keys{key(1, QString::fromLatin1(c.reg), c.address, c.count)};
        intf_addrMerge(&keys);
        std::vector<int> counts;
        for (size_t i = 0; i < c.frames.size(); ++i) {
            FRAME_PRO f;
            ASSERT_TRUE(nextFrame(f));
            counts.push_back(f.wordCount);
            EXPECT_EQ(f.replyLen, 4 * f.wordCount + 5);
            QByteArray answer = xbcsim::answerFrame(plc.mem, QByteArray::fromStdString(bytesOf(f)));
            if (answer.startsWith(char(NAK))) // past the simulator's memory
                answer = readReply(std::vector<quint16>(size_t(f.wordCount), 0x1234));
            ASSERT_EQ(deliver(answer), RECEIVE_DONE);
        }
        EXPECT_EQ(counts, c.frames);
        for (int a = 0; a < 300 && c.address == 1000; ++a)
            ASSERT_EQ(word16(1, "D_W", 1000 + a), 0x4000 + 3 * a) << a;
    }
}

// What one of the limits below does to `n` units: the sizes it leaves behind.
enum Probe {
    WRITES,
    CONDITION_READS,
    READ_BLOCK,
    WRITE_FRAMES,
    WRITE_WORDS,
    WRITE_BITS,
    WHOLE_READ
};
std::vector<int> probe(Probe what, int n)
{
    std::vector<int> frames;
    QList<KEY_ADDRESS> keys{key(1, "D_W", 0, n)};
    switch (what) {
    case WRITES:
        for (int i = 0; i < n; ++i)
            setData(1, "D_W", i, words({1}), 1);
        return {driver.writeList.size(), driver.writeList.last().address};
    case CONDITION_READS:
        for (int i = 0; i < n; ++i)
            intf_addConditionRead(key(1, "D_W", i, 1), 1);
        return {driver.conditionReadList.size(), driver.conditionReadList.last().address};
    case WRITE_WORDS:
    case WRITE_BITS: { // a refused write is shown nowhere
        keys = runs(what == WRITE_BITS ? "M_bit 0 1" : "D_W 0 1");
        intf_addrMerge(&keys);
        notes.clear();
        setData(1, what == WRITE_BITS ? "M_bit" : "D_W", 0, {1, 1}, n);
        const int shown = int(std::count_if(driver.dataAreas.begin(), driver.dataAreas.end(),
                                            [](const _DATA_ &d) { return d.writePending; }));
        return {driver.writeList.size(), shown, int(notes.size())};
    }
    case WRITE_FRAMES:
        setData(1, "D_W", 0, {}, n);
        break;
    case READ_BLOCK:
    case WHOLE_READ:
        intf_addrMerge(&keys);
        break;
    }
    FRAME_PRO f;
    for (int ok = nextFrame(f); ok && frames.size() < size_t(driver.sendList.size());)
        frames.push_back(driver.sendList[int(frames.size())].var.count);
    if (what == WHOLE_READ)
        return {int(frames.size()), std::accumulate(frames.begin(), frames.end(), 0)};
    return frames;
}

// Each limit hit exactly and passed by one.
TEST_F(Limits, ExactlyAtEachLimitAndOnePast)
{
    struct Case {
        const char *what, *properties;
        Probe probe;
        int limit;
        std::vector<int> atLimit, onePast;
    } cases[] = {
        // clang-format off
        {"write queue of 513: the newest takes the last place", "3#0#0#3#64", WRITES, 513, {513, 512}, {513, 513}},
        {"condition read queue of 513", "3#0#0#3#64", CONDITION_READS, 513, {513, 512}, {513, 513}},
        {"read frame of 127 words", "3#0#0#3#0", READ_BLOCK, 127, {127}, {127, 1}},
        {"word write frame of 127 words", "3#0#0#3#0", WRITE_FRAMES, 127, {127}, {127, 1}},
        {"512 words written, 513 refused", "3#0#0#3#0", WRITE_WORDS, 512, {1, 512, 1}, {0, 0, 0}},
        {"1024 bits written, 1025 refused", "3#0#0#3#0", WRITE_BITS, 1024, {1, 64, 1}, {0, 0, 0}},
        {"write pieces of maxPacketLen words", "3#0#0#3#64", WRITE_WORDS, 64, {1, 64, 1}, {2, 65, 1}},
        {"bit write pieces of 8 x maxPacketLen bits", "3#0#0#3#2", WRITE_BITS, 16, {1, 1, 1}, {2, 2, 1}},
        {"one read request reads 32768 words", "3#0#0#3#0", WHOLE_READ, 32768, {259, 32768}, {259, 32768}},
        // clang-format on
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        reset(c.properties);
        EXPECT_EQ(probe(c.probe, c.limit), c.atLimit);
        reset(c.properties);
        EXPECT_EQ(probe(c.probe, c.limit + 1), c.onePast);
    }
    for (int n : {512, 513}) { // pieces of one word each
        reset("3#0#0#3#1");
        intf_addConditionRead(key(1, "D_W", 0, n), 1);
        EXPECT_EQ(runsOf(QList<VARIABLE>{driver.conditionReadList.last()}), "D_W 511 1") << n;
        EXPECT_EQ(driver.conditionReadList.size(), 512);
    }
}

// Requests no frame can carry leave the queues, and a write among them is
// reported failed, so that nothing behind them waits for ever.
TEST_F(Limits, UnsendableRequestsAreDroppedAndReported)
{
    watch("Q_W 0 2, D_W 0 1");
    setData(1, "Q_W", 0, {1, 0}, 1); // no area letter
    setData(1, "D_W", 5, {1, 0}, 0); // no units
    setData(1, "D_W", 6, {1, 0}, 1);
    intf_addConditionRead(key(1, "D_W", 9, 0), 3);
    const size_t before = notes.size();
    plc.drain(1);
    EXPECT_FALSE(Plc::busy());
    EXPECT_EQ(plc.word(AREA_D, 6), 1);
    EXPECT_TRUE(noted("Q_W", 0, before)) << "failed write not reported";
    EXPECT_TRUE(noted("-1", -1, before)) << "condition read not ended";
    EXPECT_EQ(bit(1, "Q_W", 0), 0);
    EXPECT_EQ(runsOf(driver.readList), "D_W 0 1");
}

// Odd property strings and packet limits give a working driver all the same.
TEST_F(Limits, OddPropertiesStillPollAndWrite)
{
    struct Case {
        const char *properties;
        int retryTimes, maxPacketLen;
    } cases[] = {
        {"", 0, 0},
        {"1#0#0#3#-7", 3, -7},
        {"x#y#z#w#v", 0, 0},
        {"1#0#0#0#9999", 0, 9999},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.properties);
        reset("0#0#0#0#0"); // the numbers a short string leaves in place
        reset(c.properties);
        EXPECT_EQ(driver.retryTimes, c.retryTimes);
        EXPECT_EQ(driver.maxPacketLen, c.maxPacketLen);
        plc.set(AREA_D, 3, 0x1234);
        watch("D_W 0 4, D_W 200 2, M_bit 20 40");
        setData(1, "M_bit", 20, std::vector<unsigned char>(40, 1), 40);
        plc.drain(1);
        EXPECT_EQ(word16(1, "D_W", 3), 0x1234);
        for (int b = 20; b < 60; ++b)
            ASSERT_TRUE(plc.bit(AREA_M, b)) << b;
    }
}

// Writes that cannot be framed, each of which once crashed: a count whose
// byte size overflowed int into a negative size that passed the 1024-byte
// check; a single-bit frame shifted by a negative address % 16; contact and
// word pieces counting addresses past INT_MAX. They are dropped as failed.
TEST_F(Limits, UnframableWritesAreDropped)
{
    struct Case {
        const char *reg;
        int address, count;
    } cases[] = {
        {"D_W", 10, 0x60000000},   {"D_W", 10, INT_MAX},
        {"D_W", 10, -1177972487},  {"D_W", 10, INT_MIN},
        {"M_bit", 10, 0x60000000}, {"TX", 10, INT_MIN},
        {"M_bit", -8, 1},          {"TX", -11, 1},
        {"M_bit", -5, 3},          {"TX", INT_MAX, 3},
        {"CX", INT_MIN, 2},        {"D_W", INT_MAX - 10, 200},
        {"M_bit", INT_MAX, 1},     {"D_W", INT_MIN, 2},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(testing::Message() << c.reg << " at " << c.address << " count " << c.count);
        reset("3#0#0#3#64");
        std::vector<unsigned char> data(1024, 1);
        intf_setData(1, QString::fromLatin1(c.reg), c.address, c.count, data.data(), 0);
        FRAME_PRO frame;
        EXPECT_EQ(intf_getSendFrame(&frame), 0);
        EXPECT_TRUE(driver.writeList.isEmpty());
        EXPECT_EQ(word16(1, "D_W", 10), 0);
    }
}

} // namespace
