// Limits: buffers written only within their promised size, long blocks in
// frames the byte count can describe, and defined results for odd input.
#include "test_support.h"

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
        EXPECT_EQ(plc.pump(20), std::vector<int>(c.wordsPerFrame.size(), 1));
        std::vector<int> sizes;
        for (const std::string &r : plc.received)
            sizes.push_back(int(r.size() - 14) / 4);
        EXPECT_EQ(sizes, c.wordsPerFrame);
        for (int a = 0; a < 512; ++a)
            ASSERT_EQ(plc.word(AREA_D, a), 0x8000 | a) << a;
        EXPECT_FALSE(Plc::busy());
    }
}

TEST_F(Limits, LongBlocksAreReadInFramesOfAtMost127Words)
{
    for (int a = 0; a < 300; ++a)
        plc.set(AREA_D, 1000 + a, quint16(0x4000 + 3 * a));
    watch("D_W 1000 300");
    ASSERT_EQ(driver.readList.size(), 1);
    std::vector<int> counts;
    for (int i = 0; i < 3; ++i) {
        FRAME_PRO f;
        ASSERT_TRUE(nextFrame(f));
        counts.push_back(f.wordCount);
        EXPECT_EQ(f.replyLen, 4 * f.wordCount + 5);
        ASSERT_EQ(deliver(xbcsim::answerFrame(plc.mem, QByteArray::fromStdString(bytesOf(f)))), 1);
    }
    EXPECT_EQ(counts, (std::vector<int>{127, 127, 46}));
    for (int a = 0; a < 300; ++a)
        ASSERT_EQ(word16(1, "D_W", 1000 + a), 0x4000 + 3 * a) << a;
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

} // namespace
