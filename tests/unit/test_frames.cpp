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
    EXPECT_EQ(std::vector<int>({f.frameLen, f.replyLen, f.dataPos, f.wordCount, f.reserved,
                                f.var.address, f.var.count}),
              std::vector<int>({int(e.bytes.size()), e.replyLen, e.dataPos, e.wordCount, 0,
                                e.varAddress, e.varCount}));
}

TEST_F(FrameTest, ReadAndWriteFrames)
{
    const Expected rmwRead{frame("ri000000045F"), 13, 2, 2, 14, 4};
    struct Case {
        const char *what;
        bool write;
        VARIABLE v;
        std::vector<Expected> frames;
    } cases[] = {
        // clang-format off
        {"read words", false, var(1, "D_W", 100, 10), {{frame("raC800001473"), 45, 2, 10, 100, 10}}},
        {"read contacts: word 2, the record keeps 35", false, var(1, "TX", 35, 2), {{frame("rl0400000466"), 13, 2, 2, 35, 2}}},
        {"read counter contacts", false, var(1, "CX", 0, 2), {{frame("rm0000000463"), 13, 2, 2, 0, 2}}},
        {"read a bit's word", false, var(1, "M_bit", 37, 1), {{frame("ri0400000261"), 9, 2, 1, 37, 1}}},
        {"read the last D word", false, var(1, "D_W", 32767, 1), {{frame("raFEFF0002AC"), 9, 2, 1, 32767, 1}}},
        {"read the last L word", false, var(1, "L_W", 11263, 1), {{frame("rjFE57000295"), 9, 2, 1, 11263, 1}}},
        {"two words", true, var(1, "D_W", 10, 2, {0x34, 0x12, 0x78, 0x56}), {{frame("wa140000043412785605"), 5, 0, 0, 10, 2}}},
        {"one word keeps the word form", true, var(1, "D_W", 5, 1, {0x01, 0x00}), {{frame("wa0A00000201002C"), 5, 0, 0, 5, 1}}},
        {"set one bit", true, var(1, "M_bit", 37, 1, {1}), {{frame("oi0400002000BE"), 5, 0, 0, 37, 1}}},
        {"any non-zero byte sets", true, var(1, "M_bit", 37, 1, {7}), {{frame("oi0400002000BE"), 5, 0, 0, 37, 1}}},
        {"clear one bit", true, var(1, "M_bit", 37, 1, {0}), {{frame("ni040000DFFF11"), 5, 0, 0, 37, 1}}},
        {"set a contact", true, var(1, "TX", 35, 1, {1}), {{frame("ol0400000800C7"), 5, 0, 0, 35, 1}}},
        {"clear a contact", true, var(1, "TX", 35, 1, {0}), {{frame("nl040000F7FF07"), 5, 0, 0, 35, 1}}},
        {"set a counter contact", true, var(1, "CX", 0, 1, {1}), {{frame("om0000000100BD"), 5, 0, 0, 0, 1}}},
        {"bits 14 to 17: read and write of two words", true, var(1, "M_bit", 14, 4, {1, 0, 1, 1}),
         {rmwRead, {frame("wi0000000400000000E4"), 5, 0, 0, 14, 4}}},
        {"bits 0 to 15: one word", true, var(1, "M_bit", 0, 16, std::vector<unsigned char>(16, 1)),
         {{frame("ri000000025D"), 9, 2, 1, 0, 16}, {frame("wi00000002000022"), 5, 0, 0, 0, 16}}},
        {"contacts one frame each", true, var(1, "TX", 10, 3, {1, 0, 1}),
         {{frame("ol0000000004BF"), 5, 0, 0, 10, 1}, {frame("nl000000FFF703"), 5, 0, 0, 11, 1},
          {frame("ol0000000010BC"), 5, 0, 0, 12, 1}}},
        // clang-format on
    };
    for (Case &c : cases) {
        SCOPED_TRACE(c.what);
        driver.sendList.clear();
        c.v.requestTag = 5;
        EXPECT_EQ(c.write ? writeFrames(c.v) : readFrames(c.v), c.write ? int(c.frames.size()) : 1);
        ASSERT_EQ(driver.sendList.size(), int(c.frames.size()));
        for (size_t i = 0; i < c.frames.size(); ++i) {
            const FRAME_PRO &f = driver.sendList[int(i)];
            expectFrame(f, c.frames[i]);
            EXPECT_EQ(f.var.regName, c.v.regName); // the bit request, not its word form
            EXPECT_EQ(f.var.requestTag, 5);
            // each contact frame carries its own contact's value
            EXPECT_EQ(f.var.data[0], c.v.data[f.var.count == 1 ? f.var.address - c.v.address : 0]);
        }
    }
    for (const char *reg : {"Q_W", "", "Q_bit", "TX_W"}) { // no area letter
        driver.sendList.clear();
        EXPECT_EQ(readFrames(var(1, reg, 0, 1)) + writeFrames(var(1, reg, 0, 1, {1})) +
                      writeFrames(var(1, reg, 0, 3, {1, 1, 1})) + driver.sendList.size(),
                  0)
            << reg;
    }
}

TEST_F(FrameTest, CheckReceivedData)
{
    // ^ ACK, ! NAK, $ EOT, # ETX
    struct Case {
        const char *what;
        bool headIsWrite;
        QByteArray bytes;
        int result;
    } cases[] = {
        // clang-format off
        {"good read reply", false, "^r34123C$", REPLY_READ_DATA}, {"good write reply", true, "^A41$", REPLY_WRITE_ACK},
        {"four bytes sum nothing", true, "^00$", REPLY_WRITE_ACK}, {"lower-case checksum", false, "^r34123c$", REPLY_BAD},
        {"wrong checksum", false, "^r34123D$", REPLY_BAD},        {"NAK first", true, "!A41$", REPLY_BAD},
        {"no EOT", true, "^A41#", REPLY_BAD},                      {"three bytes", true, "^0$", REPLY_BAD},
        {"empty", true, "", REPLY_BAD},
        // clang-format on
    };
    for (Case &c : cases)
        c.bytes.replace('^', '\x06').replace('!', '\x15').replace('$', '\x04').replace('#', '\x03');
    ASSERT_EQ(readReply({0x1234}), cases[0].bytes); // the reply builder agrees
    auto check = [](const QByteArray &b) {
        return check_rcv_data(reinterpret_cast<const unsigned char *>(b.constData()),
                              driver.sendList.isEmpty() ? nullptr : &driver.sendList.first(),
                              b.size());
    };
    for (const Case &c : cases) {
        driver.sendList.clear();
        VARIABLE v = var(1, "D_W", 5, 1, {1, 0});
        c.headIsWrite ? writeFrames(v) : readFrames(v);
        EXPECT_EQ(check(c.bytes), c.result) << c.what;
    }
    // Every reply to the handshake is bad, however well framed.
    driver.sendList = {handShakeFrame()};
    expectFrame(driver.sendList[0], {"", 0, 0, 0, 0, 0});
    EXPECT_EQ(check(cases[1].bytes), REPLY_BAD);
}

TEST_F(FrameTest, DescriptionTextAndNothingInFlight)
{
    QByteArray r = readReply(std::vector<quint16>(10, 0));
    QString text = "stale";
    EXPECT_EQ(intf_dealRcvFrame(r, text), RECEIVE_NO_FRAME);
    EXPECT_TRUE(text.isEmpty());
    readFrames(var(1, "D_W", 100, 10));
    EXPECT_EQ(intf_dealRcvFrame(r, text), RECEIVE_DONE);
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
    EXPECT_EQ(replyWord("xx3412CDAB", 2, 1), 0xABCD);
    EXPECT_EQ(replyBit("xx3412", 2, 12), 1); // bit 4 of the second byte
}

} // namespace
