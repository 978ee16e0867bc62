// Setting the driver up: the property string, what a new run clears and keeps,
// address checks and multi-copy.
#include "test_support.h"

#include <climits>

using namespace xbc_test;

namespace {

using SetupTest = DriverTest;

TEST_F(SetupTest, PropertyStrings)
{
    const int U = -99; // the number stays as it was (7)
    struct Case {
        const char *text;
        int id, localWriteOnly, spare, retry, maxLen;
    } cases[] = {
        // clang-format off
        {"1##2#3#64#9", 1, 0, 2, 3, 64},       {"1#2#3#4#5", 1, 2, 3, 4, 5},
        {"3#0#0#5", U, U, U, U, U},            {"", U, U, U, U, U},
        {"####", 0, 0, 0, 0, 0},               {"-1#x#0#3#10", -1, 0, 0, 3, 10},
        {"0x10#1#1#1#1", 0, 1, 1, 1, 1},       {"99999999999#1#1#1#1", 0, 1, 1, 1, 1},
        {"5#1#0#2#127#6#7#8", 5, 1, 0, 2, 127}, {"2#0#0#3#-4", 2, 0, 0, 3, -4},
        // clang-format on
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.text);
        reset("7#7#7#7#7");
        int st = 42;
        EXPECT_EQ(intf_initProperty(status.data(), 0, recipe.data(), &st, c.text, &lock), 1);
        EXPECT_EQ(st, 0);
        auto want = [](int v) { return v == -99 ? 7 : v; };
        EXPECT_EQ(
            std::vector<int>({driver.driverId, driver.localWriteOnly, driver.spareParam,
                              driver.retryTimes, driver.maxPacketLen, driver.maxPacketWords,
                              driver.maxPacketBits, driver.initDone}),
            std::vector<int>({want(c.id), want(c.localWriteOnly), want(c.spare), want(c.retry),
                              want(c.maxLen), want(c.maxLen), 8 * want(c.maxLen), 1}));
    }
}

// A new run empties every list and counter of the old one, whatever state it
// was left in, and keeps the recipe blocks, the property page and the callback.
TEST_F(SetupTest, NewRunResetsEveryFieldOfTheOldRun)
{
    recipeVars("D_W 10 1");
    intf_SetDriverPropertyPage(QString("kept page"));
    watch("D_W 0 1, M_bit 3 1");
    setData(1, "D_W", 5, words({7}), 1);
    intf_addConditionRead(key(1, "D_W", 9, 1), 2);
    FRAME_PRO f;
    ASSERT_TRUE(nextFrame(f));
    ASSERT_EQ(deliver(QByteArray()), RECEIVE_RETRY);
    for (int *field :
         {&driver.sendState, &driver.burstCount, &driver.handShakeRequest, &driver.failCount,
          &driver.commError, &driver.maxPacketWords, &driver.maxPacketBits, &driver.initDone})
        *field = 77;

    std::vector<unsigned char> status2(65536);
    unsigned char buffer[16] = {};
    QMutex lock2;
    int st = 9;
    EXPECT_EQ(intf_initProperty(status2.data(), 0x1234, buffer, &st, "3#0#0#5#20", &lock2), 1);
    EXPECT_EQ(std::vector<const void *>({driver.hmiStatusBlock, driver.rcpBuffer, driver.hmiMutex}),
              std::vector<const void *>({status2.data(), buffer, &lock2}));
    EXPECT_EQ(std::vector<int>(
                  {driver.hmiParam, st, driver.readList.size(), driver.writeList.size(),
                   driver.conditionReadList.size(), driver.sendList.size(), driver.dataAreas.size(),
                   driverPrivate.dataAreaIndex.records, driver.sendState, driver.burstCount,
                   driver.handShakeRequest, driver.failCount, driver.commError,
                   driver.maxPacketWords, driver.maxPacketBits, driver.initDone}),
              std::vector<int>({0x1234, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 20, 160, 1}));
    EXPECT_EQ(runsOf(driver.rcpBlockList), "D_W 10 1");
    EXPECT_EQ(driver.propertyPage, QString("kept page"));
    EXPECT_EQ(intf_getSendFrame(&f), 0);
    notes.clear();
    setData(1, "TX", 3, {1}, 1); // the callback is kept
    EXPECT_EQ(notes, std::vector<Note>{Note(3, 1, "TX", 3)});
    reset("3#0#0#3#64"); // no pointers to this frame left behind
}

const int KEEP = INT_MIN + 7; // the address is left as the caller preset it

TEST(AddressCheck, Validity)
{
    struct Case {
        const char *reg, *text;
        int preset, count, wordMode, code, address;
    } cases[] = {
        // clang-format off
        {"D_W", "32767", 55, 1, 1, 0, 32767}, {"D_W", "32767", 55, 2, 1, 2, 32767},
        {"D_W", "32768", 55, 1, 1, 2, 32768}, {"D_W", "0", 55, 32768, 1, 0, 0},
        {"D_W", "0", 55, 32769, 1, 2, 0},     {"D_W", "5", 55, 0, 1, 0, 5},
        {"D_W", "-1", 55, 1, 1, 2, -1},       {"D_W", "12A", 55, 1, 1, 4, 0},
        {"D_W", "", 55, 1, 1, 4, 0},          {"D_W", "100", 55, 1, 0, 1, KEEP},
        {"D_W", "12A", 55, 1, 0, 1, KEEP},    // kind is checked before the text
        {"M_bit", "2047.15", 55, 1, 0, 0, 32767}, {"M_bit", "2047.15", 55, 2, 0, 2, 32767},
        {"M_bit", "2048.0", 55, 1, 0, 2, 32768},  {"M_bit", "2047.16", 55, 1, 0, 4, KEEP},
        {"M_bit", "2047.15", 55, 1, 1, 1, KEEP},  {"M_bit", "15.7", 55, 1, 0, 0, 247},
        {"M_bit", "15.07", 55, 1, 0, 0, 247},     {"M_bit", "15", 55, 1, 0, 4, KEEP},
        {"M_bit", "1.2.3", 55, 1, 0, 4, KEEP},    {"M_bit", "2047.", 55, 1, 0, 4, KEEP},
        {"M_bit", ".5", 55, 1, 0, 4, KEEP},       {"K_bit", "4095.15", 55, 1, 0, 0, 65535},
        {"L_bit", "11263.15", 55, 1, 0, 0, 180223}, {"K_W", "2560", 55, 1, 1, 2, 2560},
        {"TX", "0", 55, 1, 1, 1, KEEP},       {"TX", "2047", 55, 1, 0, 0, 2047},
        {"TX", "2048", 55, 1, 0, 2, 2048},    {"TX", "1.0", 55, 1, 0, 4, 0},
        {"CX", "2046", 55, 2, 0, 0, 2046},    {"CX", "2047", 55, 2, 0, 2, 2047},
        {"S_W", "0127", 55, 1, 1, 0, 127},    {"N_W", "21504", 55, 1, 1, 2, 21504},
        // unknown names: range 0 to 0 over the preset
        {"Q_W", "5", 0, 1, 1, 3, KEEP},       {"Q_W", "5", 0, 2, 1, 2, KEEP},
        {"Q_W", "5", 1, 1, 1, 2, KEEP},       {"d_w", "5", 0, 1, 0, 3, KEEP},
        // clang-format on
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(testing::Message() << c.reg << " '" << c.text << "' preset " << c.preset
                                        << " count " << c.count << " word " << c.wordMode);
        int address = c.preset;
        EXPECT_EQ(intf_checkAddrValidity(c.reg, c.text, &address, c.count, c.wordMode), c.code);
        EXPECT_EQ(address, c.address == KEEP ? c.preset : c.address);
    }
}

TEST(AddressCheck, WithDataTypeAndAccess)
{
    struct Case {
        const char *reg, *text;
        int dataType, count, accessMode, code, address;
    } cases[] = {
        // clang-format off
        {"M_W", "10", -1, 1, 0, 1, KEEP},   {"M_W", "10", 0, 1, 2, 0, 10},
        {"M_W", "2047", 3, 2, 0, 2, 2047},  {"D_W", "100", 7, 1, 0, 0, 100},
        {"D_W", "12A", 0, 1, 0, 4, 0},      {"D_W", "12A", -1, 1, 0, 1, KEEP},
        {"M_bit", "15.7", -1, 1, 0, 0, 247}, {"M_bit", "15.7", 0, 1, 0, 1, KEEP},
        {"M_bit", "15.16", -1, 1, 0, 4, KEEP}, {"TX", "5", -1, 1, 2, 0, 5},
        {"TX", "5", 0, 1, 0, 1, KEEP},      {"CX", "2048", -1, 1, 0, 2, 2048},
        // clang-format on
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(testing::Message() << c.reg << " " << c.text << " type " << c.dataType);
        int address = 55;
        EXPECT_EQ(intf_checkAddr(c.reg, c.text, &address, c.dataType, c.count, c.accessMode),
                  c.code);
        EXPECT_EQ(address, c.address == KEEP ? 55 : c.address);
    }
}

TEST(AddressCheck, MultiCopy)
{
    struct Case {
        const char *reg;
        int start, copies, step, result;
        QVector<QString> texts;
    } cases[] = {
        // clang-format off
        {"D_W", 100, 3, 5, 1, {"100", "105", "110"}},
        {"D_W", 100, 3, -2, 1, {"100", "102", "104"}},
        {"D_W", 32760, 3, 4, 2, {"32760", "32764", "32767"}},  // clipped at the end
        {"D_W", 5, 3, 0, 1, {"5", "6", "7"}},                  // step 0 becomes 1
        {"D_W", 5, 3, -3, 1, {"5", "6", "7"}},                 // so does -3
        {"D_W", -2, 2, 1, 1, {"4294967294", "4294967295"}},
        {"M_bit", 30, 4, -1, 1, {"1.14", "1.15", "2.0", "2.1"}},
        {"M_bit", 0, 3, 16, 1, {"0.0", "1.0", "2.0"}},
        {"K_bit", 65530, 2, 16, 2, {"4095.10", "4095.15"}},
        {"CX", 2046, 3, -1, 2, {"2046", "2047", "2047"}},
        {"Q_W", 0, 3, 1, 0, {}},
        {"D_W", 0, -3, 1, 1, {}},
        // clang-format on
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(testing::Message()
                     << c.reg << " " << c.start << " x" << c.copies << " +" << c.step);
        QVector<QString> texts = {"kept"};
        QVector<int> values = {-42};
        EXPECT_EQ(intf_multiCopy(c.reg, c.start, c.copies, c.step, texts, values), c.result);
        EXPECT_EQ(texts, QVector<QString>{"kept"} + c.texts);
        // Each value is its own text read back.
        ASSERT_EQ(values.size(), texts.size());
        for (int i = 1; i < texts.size(); ++i) {
            int parsed = KEEP;
            intf_checkAddrValidity(c.reg, texts[i], &parsed, 1,
                                   registerOf(c.reg).wireBits() ? 0 : 1);
            EXPECT_EQ(values[i], c.start >= 0 ? parsed : values[i]) << i;
        }
    }
    EXPECT_EQ(addr_int2str(-17, "M_bit"), QString("-1.-1")); // truncating division
}

} // namespace
