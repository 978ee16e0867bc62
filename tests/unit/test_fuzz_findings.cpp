// Inputs the fuzzers found to break the driver, replayed through the exported
// calls. Each case failed (crash or sanitizer report) before its fix.
#include "test_support.h"

#include <climits>

using namespace xbc_test;

namespace {

using FuzzFindings = DriverTest;

// Writes that cannot be framed, each of which once crashed: a count whose
// byte size overflowed int into a negative size that passed the 1024-byte
// check; a single-bit frame shifted by a negative address % 16; contact and
// word pieces counting addresses past INT_MAX. They are dropped as failed.
TEST_F(FuzzFindings, UnframableWritesAreDropped)
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

// A watched block longer than one frame counted the address of each further
// frame up past INT_MAX. It wraps now, as the record addresses do.
TEST_F(FuzzFindings, ReadBlocksNearTheEndOfTheAddressRangeAreCutWithoutOverflow)
{
    struct Case {
        const char *reg;
        int address;
        int count;
    } cases[] = {{"D_W", INT_MAX, 200}, {"D_W", INT_MAX - 130, 400}, {"M_bit", INT_MAX - 40, 3000}};
    for (const Case &c : cases) {
        SCOPED_TRACE(std::string(c.reg) + " at " + std::to_string(c.address));
        reset("3#0#0#3#0");
        QList<KEY_ADDRESS> keys{key(1, QString::fromLatin1(c.reg), c.address, c.count)};
        intf_addrMerge(&keys);
        for (int n = 0; n < 4; ++n) {
            FRAME_PRO frame;
            ASSERT_EQ(intf_getSendFrame(&frame), 1);
            QByteArray r = readReply(std::vector<quint16>(size_t(frame.wordCount), 0x1234));
            QString errorText;
            intf_dealRcvFrame(r, errorText);
        }
    }
}

} // namespace
