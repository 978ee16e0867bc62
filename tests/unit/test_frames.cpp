// Request frames byte for byte, the reply check and the character helpers.
#include "test_support.h"

using namespace xbc_test;

namespace {

using FrameTest = DriverTest;

struct Expected {
    std::string bytes;
    int replyLen, dataPos, wordCount, varAddress, varCount;
};

void expectFrame(const FRAME_PRO &f, const Expected &e)
{
    EXPECT_EQ(bytesOf(f), e.bytes);
    EXPECT_EQ(f.frameLen, int(e.bytes.size()));
    EXPECT_EQ(std::vector<int>({f.replyLen, f.dataPos, f.wordCount, f.reserved}),
              std::vector<int>({e.replyLen, e.dataPos, e.wordCount, 0}));
    EXPECT_EQ(f.var.address, e.varAddress);
    EXPECT_EQ(f.var.count, e.varCount);
}

TEST_F(FrameTest, ReadFrames)
{
    struct Case {
        const char *reg;
        int address, count;
        Expected e;
    } cases[] = {
        // clang-format off
        {"D_W", 100, 10, {frame("raC800001473"), 45, 2, 10, 100, 10}},
        {"TX", 35, 2, {frame("rl0400000466"), 13, 2, 2, 35, 2}}, // word 2, the record keeps 35
        {"CX", 0, 2, {frame("rm0000000463"), 13, 2, 2, 0, 2}},
        {"M_bit", 37, 1, {frame("ri0400000261"), 9, 2, 1, 37, 1}},
        {"D_W", 32767, 1, {frame("raFEFF0002AC"), 9, 2, 1, 32767, 1}},
        {"L_W", 11263, 1, {frame("rjFE57000295"), 9, 2, 1, 11263, 1}},
        // clang-format on
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(testing::Message() << c.reg << " " << c.address);
        driver.sendList.clear();
        EXPECT_EQ(readFrames(var(1, c.reg, c.address, c.count, {}, 6)), 1);
        ASSERT_EQ(driver.sendList.size(), 1);
        expectFrame(driver.sendList[0], c.e);
        EXPECT_EQ(driver.sendList[0].var.regName, QString(c.reg));
        EXPECT_EQ(driver.sendList[0].var.requestTag, 6);
    }
}

TEST_F(FrameTest, WriteFrames)
{
    const Expected rmwRead{frame("ri000000045F"), 13, 2, 2, 14, 4};
    struct Case {
        const char *what;
        VARIABLE v;
        std::vector<Expected> frames;
    } cases[] = {
        // clang-format off
        {"two words", var(1, "D_W", 10, 2, {0x34, 0x12, 0x78, 0x56}),
         {{frame("wa140000043412785605"), 5, 0, 0, 10, 2}}},
        {"one word keeps the word form", var(1, "D_W", 5, 1, {0x01, 0x00}),
         {{frame("wa0A00000201002C"), 5, 0, 0, 5, 1}}},
        {"set one bit", var(1, "M_bit", 37, 1, {1}), {{frame("oi0400002000BE"), 5, 0, 0, 37, 1}}},
        {"any non-zero byte sets", var(1, "M_bit", 37, 1, {7}), {{frame("oi0400002000BE"), 5, 0, 0, 37, 1}}},
        {"clear one bit", var(1, "M_bit", 37, 1, {0}), {{frame("ni040000DFFF11"), 5, 0, 0, 37, 1}}},
        {"set a contact", var(1, "TX", 35, 1, {1}), {{frame("ol0400000800C7"), 5, 0, 0, 35, 1}}},
        {"clear a contact", var(1, "TX", 35, 1, {0}), {{frame("nl040000F7FF07"), 5, 0, 0, 35, 1}}},
        {"set a counter contact", var(1, "CX", 0, 1, {1}), {{frame("om0000000100BD"), 5, 0, 0, 0, 1}}},
        {"bits 14 to 17: read and write of two words", var(1, "M_bit", 14, 4, {1, 0, 1, 1}),
         {rmwRead, {frame("wi0000000400000000E4"), 5, 0, 0, 14, 4}}},
        {"bits 0 to 15: one word", var(1, "M_bit", 0, 16, std::vector<unsigned char>(16, 1)),
         {{frame("ri000000025D"), 9, 2, 1, 0, 16}, {frame("wi00000002000022"), 5, 0, 0, 0, 16}}},
        {"contacts one frame each", var(1, "TX", 10, 3, {1, 0, 1}),
         {{frame("ol0000000004BF"), 5, 0, 0, 10, 1}, {frame("nl000000FFF703"), 5, 0, 0, 11, 1},
          {frame("ol0000000010BC"), 5, 0, 0, 12, 1}}},
        // clang-format on
    };
    for (Case &c : cases) {
        SCOPED_TRACE(c.what);
        driver.sendList.clear();
        c.v.requestTag = 5;
        EXPECT_EQ(writeFrames(c.v), int(c.frames.size()));
        ASSERT_EQ(driver.sendList.size(), int(c.frames.size()));
        for (size_t i = 0; i < c.frames.size(); ++i) {
            SCOPED_TRACE(i);
            const FRAME_PRO &f = driver.sendList[int(i)];
            expectFrame(f, c.frames[i]);
            EXPECT_EQ(f.var.regName, c.v.regName); // the bit request, not its word form
            EXPECT_EQ(f.var.requestTag, 5);
            // each contact frame carries its own contact's value
            EXPECT_EQ(f.var.data[0], c.v.data[f.var.count == 1 ? f.var.address - c.v.address : 0]);
        }
    }
}

TEST_F(FrameTest, RegistersWithoutAreaLetterAreRefused)
{
    for (const char *reg : {"Q_W", "", "Q_bit", "TX_W"}) {
        SCOPED_TRACE(reg);
        driver.sendList.clear();
        EXPECT_EQ(readFrames(var(1, reg, 0, 1)), 0);
        for (int count : {1, 3}) {
            VARIABLE w = var(1, reg, 0, count, {1, 1, 1, 1, 1, 1});
            EXPECT_EQ(writeFrames(w), 0);
        }
        EXPECT_TRUE(driver.sendList.isEmpty());
    }
}

TEST_F(FrameTest, CheckReceivedData)
{
    struct Case {
        const char *what;
        bool headIsWrite;
        QByteArray bytes;
        int result;
    } cases[] = {
        // clang-format off
        {"good read reply", false, QByteArray("\x06" "r3412" "3C\x04"), 1},
        {"good write reply", true, QByteArray("\x06" "A41\x04"), 2},
        {"four bytes sum nothing", true, QByteArray("\x06" "00\x04"), 2},
        {"lower-case checksum", false, QByteArray("\x06" "r3412" "3c\x04"), 0},
        {"wrong checksum", false, QByteArray("\x06" "r3412" "3D\x04"), 0},
        {"NAK first", true, QByteArray("\x15" "A41\x04"), 0},
        {"no EOT", true, QByteArray("\x06" "A41\x03"), 0},
        {"three bytes", true, QByteArray("\x06" "0\x04"), 0},
        {"empty", true, QByteArray(), 0},
        // clang-format on
    };
    ASSERT_EQ(readReply({0x1234}), cases[0].bytes); // the reply builder agrees
    auto check = [](const QByteArray &b) {
        return check_rcv_data(reinterpret_cast<const unsigned char *>(b.constData()),
                              driver.sendList.isEmpty() ? nullptr : &driver.sendList.first(),
                              b.size());
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        driver.sendList.clear();
        VARIABLE v = var(1, "D_W", 5, 1, {1, 0});
        c.headIsWrite ? writeFrames(v) : readFrames(v);
        EXPECT_EQ(check(c.bytes), c.result);
    }

    // Every reply to the handshake is bad, however well framed.
    driver.sendList.clear();
    driver.sendList.append(handShakeFrame());
    driverPrivate.inFlight = nullptr;
    ASSERT_EQ(driver.sendList.size(), 1);
    expectFrame(driver.sendList[0], {"", 0, 0, 0, 0, 0});
    EXPECT_EQ(check(QByteArray("\x06"
                               "A41\x04")),
              0);
}

TEST_F(FrameTest, DescriptionTextAndNothingInFlight)
{
    QByteArray r = readReply(std::vector<quint16>(10, 0));
    QString text = "stale";
    EXPECT_EQ(intf_dealRcvFrame(r, text), 0);
    EXPECT_TRUE(text.isEmpty());

    readFrames(var(1, "D_W", 100, 10));
    ASSERT_EQ(r.size(), 45);
    EXPECT_EQ(intf_dealRcvFrame(r, text), 1);
    EXPECT_EQ(text, QString("1#D_W100(10)(45)"));
}

TEST_F(FrameTest, CharacterHelpers)
{
    struct Hex {
        QByteArray bytes;
        int pos, value;
    } hex[] = {{"3C", 0, 0x3C}, {"3c", 0, 0x3C}, {"x3", 1, 0x30}, {":?", 0, 0xAF}, {"12", 5, 0}};
    for (const Hex &h : hex)
        EXPECT_EQ(asc2hex(h.bytes, h.pos), h.value) << h.bytes.toStdString() << "@" << h.pos;
    const unsigned char b[] = {0xFF, 0xFF, 0x02};
    EXPECT_EQ(computate_check(b, 0), 0);
    EXPECT_EQ(computate_check(b, 3), 0x0200);
}

} // namespace
