// Limits: buffers written only within their promised size, long blocks read in
// frames the byte count can describe, and defined results for odd input.
#include "rig.h"

#include <gtest/gtest.h>

namespace {

constexpr unsigned char GUARD = 0xA5;

struct ReadSizeCase {
    const char *reg;
    int start;
    int count;
    int bytesWritten;
};

TEST(Limits, GetDataWritesExactlyTheValuesAskedFor)
{
    const ReadSizeCase cases[] = {
        {"D_W", 10, 5, 10}, {"M_bit", 33, 7, 7}, {"TX", 3, 9, 9},     {"Q_W", 1, 4, 4},
        {"D_W", 0, 0, 0},   {"D_W", 0, -4, 0},   {"M_bit", 5, -1, 0}, {"", 0, 3, 3},
    };
    Rig rig;
    for (const ReadSizeCase &c : cases) {
        SCOPED_TRACE(std::string(c.reg) + " " + std::to_string(c.count));
        unsigned char buffer[64];
        memset(buffer, GUARD, sizeof buffer);
        EXPECT_EQ(intf_getData(1, QString::fromLatin1(c.reg), c.start, c.count, buffer + 8), 1);
        for (int i = 0; i < int(sizeof buffer); ++i) {
            const bool inside = i >= 8 && i < 8 + c.bytesWritten;
            if (!inside) {
                ASSERT_EQ(buffer[i], GUARD) << "byte " << i - 8 << " written";
            }
        }
    }
}

TEST(Limits, SendFrameFillsOnlyTheRecordAndLongWritesStayWithinIt)
{
    Rig rig("1#0#0#3#0"); // no packet limit: writes are not cut by the runtime's size
    QByteArray words(2 * 512, '\x11');
    intf_setData(1, QStringLiteral("D_W"), 0, 512, reinterpret_cast<unsigned char *>(words.data()),
                 0);
    int frames = 0;
    for (;;) {
        FRAME_PRO frame;
        if (!intf_getSendFrame(&frame))
            break;
        ++frames;
        ASSERT_LE(frame.frameLen, FRAME_BYTES);
        ASSERT_LE(frame.frameLen, 4 * 127 + 14) << "byte count of one hex pair exceeded";
        const QByteArray request(reinterpret_cast<const char *>(frame.frame), frame.frameLen);
        QByteArray reply = xbcsim::answerFrame(rig.mem, request);
        ASSERT_EQ(reply.at(0), char(ACK)) << xbcsim::printable(request).toStdString();
        QString errorText;
        ASSERT_EQ(intf_dealRcvFrame(reply, errorText), 1);
    }
    EXPECT_EQ(frames, 5); // 127 + 127 + 127 + 127 + 4 words
    for (int a = 0; a < 512; ++a)
        ASSERT_EQ(xbcsim::wordAt(rig.mem, xbcsim::AREA_D, a), 0x1111) << a;
}

TEST(Limits, OversizeWritesAreRefusedWhole)
{
    Rig rig;
    QByteArray data(2048, '\x01');
    auto *bytes = reinterpret_cast<unsigned char *>(data.data());
    EXPECT_EQ(intf_setData(1, QStringLiteral("D_W"), 0, 513, bytes, 0), 1);
    EXPECT_EQ(intf_setData(1, QStringLiteral("M_bit"), 0, 1025, bytes, 0), 1);
    EXPECT_TRUE(driver.writeList.isEmpty());
    EXPECT_EQ(shownWord(1, "D_W", 0), 0);
    EXPECT_EQ(shownBit(1, "M_bit", 0), 0);
    EXPECT_EQ(noteLog().size(), 0u);
}

// A single watched key longer than one frame can carry is read as several
// frames and every word lands in its own record.
TEST(Limits, LongBlocksAreReadInFramesOfAtMost127Words)
{
    Rig rig("1#0#0#3#64");
    for (int a = 0; a < 300; ++a)
        xbcsim::setWordAt(rig.mem, xbcsim::AREA_D, 1000 + a, quint16(0x4000 + 3 * a));
    rig.watch({key(1, "D_W", 1000, 300)});
    ASSERT_EQ(driver.readList.size(), 1);
    QList<int> counts;
    for (int i = 0; i < 3; ++i) {
        FRAME_PRO frame;
        ASSERT_EQ(intf_getSendFrame(&frame), 1);
        counts << frame.wordCount;
        EXPECT_EQ(frame.replyLen, 4 * frame.wordCount + 5);
        const QByteArray request(reinterpret_cast<const char *>(frame.frame), frame.frameLen);
        QByteArray reply = xbcsim::answerFrame(rig.mem, request);
        QString errorText;
        ASSERT_EQ(intf_dealRcvFrame(reply, errorText), 1);
    }
    EXPECT_EQ(counts, (QList<int>{127, 127, 46}));
    for (int a = 0; a < 300; ++a)
        ASSERT_EQ(shownWord(1, "D_W", 1000 + a), 0x4000 + 3 * a) << a;
}

// Requests that no frame can carry leave the queues, and a write among them is
// reported failed, so that nothing behind them waits for ever.
TEST(Limits, UnsendableRequestsAreDroppedAndReported)
{
    Rig rig;
    rig.watch({key(1, "Q_W", 0, 2), key(1, "D_W", 0, 1)});
    unsigned char one[2] = {1, 0};
    intf_setData(1, QStringLiteral("Q_W"), 0, 1, one, 0); // no area letter
    intf_setData(1, QStringLiteral("D_W"), 5, 0, one, 0); // no units
    intf_setData(1, QStringLiteral("D_W"), 6, 1, one, 0);
    intf_addConditionRead(key(1, "D_W", 9, 0), 3);
    const size_t before = noteLog().size();
    rig.drain(1);
    EXPECT_TRUE(driver.writeList.isEmpty());
    EXPECT_TRUE(driver.conditionReadList.isEmpty());
    EXPECT_EQ(xbcsim::wordAt(rig.mem, xbcsim::AREA_D, 6), 1);
    EXPECT_TRUE(noteLog().has(QStringLiteral("Q_W"), 0, before)) << "failed write not reported";
    EXPECT_TRUE(noteLog().has(QStringLiteral("-1"), -1, before)) << "condition read not ended";
    EXPECT_EQ(shownBit(1, "Q_W", 0), 0);
}

struct PropertyCase {
    const char *properties;
    int retryTimes;
    int maxPacketLen;
};

// Odd property strings and packet limits give a working driver all the same.
TEST(Limits, OddPropertiesStillPollAndWrite)
{
    const PropertyCase cases[] = {
        {"", 0, 0},          {"1#0#0#3#0", 3, 0},       {"1#0#0#3#-7", 3, -7},
        {"x#y#z#w#v", 0, 0}, {"1#0#0#0#9999", 0, 9999},
    };
    for (const PropertyCase &c : cases) {
        SCOPED_TRACE(c.properties);
        {
            Rig reset("0#0#0#0#0");
        } // the numbers a short string leaves in place
        Rig rig(c.properties);
        EXPECT_EQ(driver.retryTimes, c.retryTimes);
        EXPECT_EQ(driver.maxPacketLen, c.maxPacketLen);
        xbcsim::setWordAt(rig.mem, xbcsim::AREA_D, 3, 0x1234);
        rig.watch({key(1, "D_W", 0, 4), key(1, "D_W", 200, 2), key(1, "M_bit", 20, 40, -1)});
        unsigned char bits[40];
        memset(bits, 1, sizeof bits);
        intf_setData(1, QStringLiteral("M_bit"), 20, 40, bits, 0);
        rig.drain(1);
        EXPECT_EQ(shownWord(1, "D_W", 3), 0x1234);
        for (int b = 20; b < 60; ++b)
            ASSERT_TRUE(xbcsim::bitAt(rig.mem, xbcsim::AREA_M, b)) << b;
    }
}

} // namespace
