// Change notifications, the runtime's reads and writes of values, and the
// settling of write results.
#include "test_support.h"

using namespace xbc_test;

namespace {

using ValuesTest = DriverTest;

TEST_F(ValuesTest, ChangeNotificationsForEachUnitWidth)
{
    enum Width { Word, Byte, Dword, Contact };
    struct Case {
        const char *what;
        Width width;
        const char *area;
        int address;
        quint32 valueMonitor, bitMonitor;
        int oldValue, newValue, skipBits; // -1: value unknown (null pointer)
        std::vector<Note> notes;
    } cases[] = {
        // clang-format off
        {"watched bits that changed", Word, "M", 10, 1, 0x9, 0x1, 0x8, 0,
         {{3, 1, "M_bit", 160}, {3, 1, "M_bit", 163}, {3, 1, "M_W", 10}}},
        {"values unknown", Word, "M", 10, 1, 0x9, -1, -1, 0,
         {{3, 1, "M_bit", 160}, {3, 1, "M_bit", 163}, {3, 1, "M_W", 10}}},
        {"bits skipped", Word, "M", 10, 1, 0x9, 0x1, 0x8, 1, {{3, 1, "M_W", 10}}},
        {"no flags", Word, "M", 10, 0, 0, 0x1, 0x8, 0, {}},
        {"second half at word 0", Word, "M", 0, 4, 0, 0, 1, 0, {}},
        {"every word role", Word, "M", 1, 7, 0x8000, 0, 0x8000, 0,
         {{3, 1, "M_bit", 31}, {3, 1, "M_W", 1}, {3, 1, "M_D", 1}, {3, 1, "M_D", 0}}},
        {"every byte role", Byte, "B", 4, 0x7F, 0x80, 0, 0x80, 0,
         {{3, 1, "B_bit", 39}, {3, 1, "B_B", 4}, {3, 1, "B_W", 4}, {3, 1, "B_W", 3},
          {3, 1, "B_D", 4}, {3, 1, "B_D", 3}, {3, 1, "B_D", 2}, {3, 1, "B_D", 1}}},
        {"double word unit", Dword, "X", 2, 1, 0x80000000u, 0, int(0x80000000u), 0,
         {{3, 1, "X_bit", 95}, {3, 1, "X", 2}}},
        {"watched contact", Contact, "TX", 6, 1, 0, 0, 1, 0, {{3, 1, "TX", 6}}},
        // clang-format on
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        reset("3#0#0#3#64");
        const int i = recordOf(1, c.area, c.address);
        driver.dataAreas[i].valueMonitor = c.valueMonitor;
        driver.dataAreas[i].bitMonitor = c.bitMonitor;
        int oldValue = c.oldValue, newValue = c.newValue;
        unsigned char oldByte = static_cast<unsigned char>(oldValue);
        unsigned char newByte = static_cast<unsigned char>(newValue);
        int *oldP = c.oldValue == -1 ? nullptr : &oldValue;
        int *newP = c.newValue == -1 ? nullptr : &newValue;
        if (c.width == Word)
            _wordDataChange(oldP, newP, i, c.skipBits);
        else if (c.width == Byte)
            _byteDataChange(&oldByte, &newByte, i, c.skipBits);
        else if (c.width == Dword)
            _dwordDataChange(oldP, newP, i, c.skipBits);
        else
            _bitDataChange(i);
        deliverPendingNotes();
        EXPECT_EQ(notes, c.notes);
    }
}

TEST_F(ValuesTest, NoCallbackMeansNoNotification)
{
    watch("D_W 5 1, M_bit 165 1");
    intf_setAddrValueChangeCallBack(nullptr);
    EXPECT_EQ(setData(1, "D_W", 5, words({7}), 1), 1);
    EXPECT_EQ(setData(1, "TX", 3, {1}, 1), 1); // contacts notify without flags
    EXPECT_EQ(setData(1, "M_bit", 165, {1}, 1), 1);
    _wordDataChange(nullptr, nullptr, recordOf(1, "M", 10), 0);
    deliverPendingNotes();
    EXPECT_TRUE(notes.empty());
    EXPECT_EQ(word16(1, "D_W", 5), 7);
}

TEST_F(ValuesTest, GetDataRows)
{
    auto put = [](const char *name, int address, std::vector<unsigned char> value) {
        const int i = recordOf(1, name, address);
        std::copy(value.begin(), value.end(), driver.dataAreas[i].value);
    };
    put("D", 5, {0x34, 0x12});
    put("M", 10, {0x60, 0x01}); // bits 5, 6 and 8
    put("TX", 3, {1});
    put("Q_W", 2, {1}); // unknown names: one record per address under the whole name
    const int i = recordOf(1, "D", 6);
    driver.dataAreas[i].writtenValue[0] = 7;
    driver.dataAreas[i].writePending = true;

    struct Case {
        const char *reg;
        int start, count, bytesPer;
        std::vector<unsigned char> out;
    } cases[] = {
        {"D_W", 5, 1, 2, {0x34, 0x12}},  {"D_W", 5, 2, 2, {0x34, 0x12, 7, 0}},
        {"M_W", 10, 1, 2, {0x60, 0x01}}, {"M_bit", 164, 4, 1, {0, 1, 1, 0}},
        {"M_bit", 168, 1, 1, {1}},       {"TX", 3, 2, 1, {1, 0}},
        {"Q_W", 2, 1, 1, {1}},
    };
    for (const Case &c : cases)
        EXPECT_EQ(getData(1, c.reg, c.start, c.count, c.bytesPer), c.out) << c.reg << c.start;

    const int before = driver.dataAreas.size();
    unsigned char out[4] = {0xEE, 0xEE, 0xEE, 0xEE};
    EXPECT_EQ(intf_getData(1, "D_W", 700, 0, out), 1);
    EXPECT_EQ(out[0], 0xEE);
    EXPECT_EQ(driver.dataAreas.size(), before);
    EXPECT_EQ(getData(1, "D_W", 900, 1, 2), (std::vector<unsigned char>{0, 0}));
    EXPECT_EQ(driver.dataAreas.size(), before + 1);
}

TEST_F(ValuesTest, DuplicateWritesReplaceTheNewestQueuedEqualRequest)
{
    watch("D_W 5 1");
    driver.writeList = {var(1, "D_W", 5, 1, {1}, 1), var(1, "D_W", 5, 1, {2}, 2),
                        var(1, "D_W", 6, 1, {3}, 3), var(1, "D_W", 5, 1, {5}, 5)};
    setData(1, "D_W", 5, words({4}), 1, 4);
    EXPECT_EQ(notes, (std::vector<Note>{{3, 1, "D_W", 5}}));
    EXPECT_EQ(word16(1, "D_W", 5), 4);           // shown at once
    EXPECT_EQ(findArea(1, "D", 5)->value[0], 0); // the image waits for the answer
    // The head is possibly in flight and never touched; of the others the
    // newest equal request takes the new data.
    std::vector<int> tags;
    for (const VARIABLE &v : driver.writeList)
        tags.push_back(v.requestTag);
    EXPECT_EQ(tags, (std::vector<int>{1, 2, 3, 4}));
    EXPECT_EQ(driver.writeList[3].data[0], 4);

    driver.writeList = {var(1, "D_W", 5, 1, {1}, 1)};
    notes.clear();
    setData(1, "D_W", 5, words({4}), 1, 4); // only the head is equal: appended
    EXPECT_TRUE(notes.empty()) << "the shown value did not change";
    setData(1, "D_W", 5, words({5}), 2, 5); // count differs: appended
    EXPECT_EQ(runsOf(driver.writeList), "D_W 5 1, D_W 5 1, D_W 5 2");
}

TEST_F(ValuesTest, LocalWriteOnlyQueuesNothing)
{
    reset("3#1#0#3#64");
    watch("D_W 5 1");
    setData(1, "D_W", 5, words({7}), 1);
    EXPECT_TRUE(driver.writeList.isEmpty());
    EXPECT_EQ(word16(1, "D_W", 5), 7);
    EXPECT_EQ(notes, (std::vector<Note>{{3, 1, "D_W", 5}}));
}

TEST_F(ValuesTest, SharedWordAndBitRecords)
{
    watch("M_W 10 1, M_bit 165 1");
    setData(1, "M_W", 10, words({0x0020}), 1);
    EXPECT_EQ(notes, (std::vector<Note>{{3, 1, "M_bit", 165}, {3, 1, "M_W", 10}}));
    EXPECT_EQ(getData(1, "M_bit", 165, 1, 1), std::vector<unsigned char>{1});

    notes.clear();
    setData(1, "M_bit", 166, {1}, 1); // unwatched bit: only the word changes
    EXPECT_EQ(notes, (std::vector<Note>{{3, 1, "M_W", 10}}));
    EXPECT_EQ(word16(1, "M_W", 10), 0x0060);
}

TEST_F(ValuesTest, BitWritesCountOutstandingRequests)
{
    watch("M_bit 165 1");
    const int i = recordOf(1, "M", 10);
    driver.dataAreas[i].value[1] = 0xAB;
    plc.set(AREA_M, 10, 0xAB00);
    setData(1, "M_bit", 165, {1}, 1);
    EXPECT_EQ(driver.dataAreas[i].writtenValue[0], 0x20);
    EXPECT_EQ(driver.dataAreas[i].writtenValue[1], 0xAB); // the rest starts from the image
    EXPECT_EQ(driver.dataAreas[i].pendingBitWrites, 1u << 10);
    setData(1, "M_bit", 165, {0}, 1); // queued behind the first, which may be on the line
    EXPECT_EQ(driver.dataAreas[i].pendingBitWrites, 3u << 10);
    EXPECT_EQ(driver.dataAreas[i].writtenValue[0], 0x00);

    notes.clear();
    EXPECT_EQ(plc.exchange(), RECEIVE_DONE); // the first lands; the second is still to come
    EXPECT_TRUE(driver.dataAreas[i].writePending);
    EXPECT_EQ(driver.dataAreas[i].pendingBitWrites, 1u << 10);
    EXPECT_TRUE(notes.empty());
    EXPECT_EQ(plc.exchange(), RECEIVE_DONE);
    const _DATA_ &d = driver.dataAreas[i];
    EXPECT_FALSE(d.writePending);
    EXPECT_EQ(d.pendingBitWrites, 0u);
    EXPECT_EQ(d.value[0] | (d.value[1] << 8), 0xAB00);
    EXPECT_EQ(notes, (std::vector<Note>{{3, 1, "M_bit", 165}}));
}

// Writes to the bits of one word, interleaved with word writes, overwrites of
// queued requests and failures: once no request is left, every bit shows what
// the controller holds, and a failed write is taken back with a notification.
TEST_F(ValuesTest, BitWritesNeverStayShownAfterTheyFailed)
{
    struct Case {
        const char *what;
        std::vector<std::string> steps;
        int notedAfterLastFailure; // a watched bit, or -1
        int lastBit165 = -1;       // what the controller keeps at M_bit 165, or -1
    } cases[] = {
        // clang-format off
        {"overwrite after the first result", {"b165=1", "w5", "b165=0", "ack", "b165=1", "acks", "b166=1", "fail"}, 166},
        {"overwrite before any result", {"b165=1", "w5", "b165=0", "b165=1", "acks", "b166=1", "fail"}, 166},
        {"overwrite behind a head of its own", {"b165=1", "w5", "b165=0", "ack", "ack", "b165=1", "acks", "b166=1", "fail"}, 166},
        {"first write failed", {"b165=1", "w5", "b165=0", "fail", "b165=1", "acks", "b166=1", "fail"}, 166},
        {"word write to the same word between", {"b165=1", "m10=1024", "b165=0", "ack", "b165=1", "acks", "b166=1", "fail"}, 166},
        {"bit write fails behind a landed word write", {"m10=1024", "b165=1", "ack", "fail"}, 165},
        {"word write fails ahead of a bit write", {"m10=1024", "b165=1", "fail", "acks"}, -1},
        {"two bits, both fail", {"b165=1", "b166=1", "fail", "fail"}, 166},
        {"failure in the middle", {"b165=1", "b166=1", "b165=0", "ack", "fail", "acks"}, -1},
        {"several bits at once", {"b164..167=1", "b165=0", "fail", "acks"}, -1},
        {"overwrite behind a word write to its word", {"w5", "b165=1", "m10=1056", "b165=0", "acks"}, -1, 0},
        {"word write behind a bit write's overwrite", {"w5", "m10=1024", "b165=1", "m10=1056", "b165=0", "acks"}, -1, 0},
        // clang-format on
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        reset("3#0#0#1#64"); // one try: a lost reply fails its write at once
        watch("M_bit 160 16");
        size_t lastFailure = 0;
        for (const std::string &step : c.steps) {
            plc.linkDown = step == "fail";
            if (step == "ack" || step == "fail") {
                if (step == "fail")
                    lastFailure = notes.size();
                EXPECT_EQ(plc.exchange(), step == "ack" ? RECEIVE_DONE : RECEIVE_ABANDONED) << step;
            } else if (step == "acks") {
                for (int n = 0; n < 20 && !driver.writeList.isEmpty(); ++n)
                    EXPECT_EQ(plc.exchange(), RECEIVE_DONE);
            } else if (step == "w5") {
                setData(1, "D_W", 5, words({5}), 1);
            } else if (step == "m10=1024" || step == "m10=1056") {
                setData(1, "M_W", 10, words({quint16(std::stoi(step.substr(4)))}), 1);
            } else if (step == "b164..167=1") {
                setData(1, "M_bit", 164, {1, 1, 1, 1}, 4);
            } else {
                const int address = std::stoi(step.substr(1, 3));
                setData(1, "M_bit", address, {static_cast<unsigned char>(step.back() - '0')}, 1);
            }
        }
        plc.linkDown = false;
        ASSERT_TRUE(driver.writeList.isEmpty());
        if (c.notedAfterLastFailure >= 0) {
            EXPECT_TRUE(noted("M_bit", c.notedAfterLastFailure, lastFailure));
        }
        if (c.lastBit165 >= 0) {
            EXPECT_EQ(plc.bit(AREA_M, 165), c.lastBit165) << "the last write lost";
        }
        for (int round = 0; round < 2; ++round) { // before and after polling again
            SCOPED_TRACE(round == 0 ? "at once" : "after polling");
            for (int a = 160; a < 176; ++a)
                EXPECT_EQ(bit(1, "M_bit", a), plc.bit(AREA_M, a)) << "M_bit " << a;
            EXPECT_EQ(word16(1, "M_W", 10), plc.word(AREA_M, 10));
            for (const _DATA_ &d : driver.dataAreas)
                EXPECT_FALSE(d.writePending) << d.name.toStdString() << " " << d.address;
            plc.drain();
        }
    }
}

// A bit byte other than 0 or 1 sets the bit, on the screen as on the wire.
TEST_F(ValuesTest, AnyNonZeroBitByteSets)
{
    struct Case {
        const char *reg;
        int address;
        std::vector<unsigned char> data;
        int area, wireBit;
    } cases[] = {
        {"M_bit", 165, {5}, AREA_M, 165},          // single-bit frame
        {"M_bit", 160, {0, 0x80, 0}, AREA_M, 161}, // read-modify-write
        {"TX", 3, {7}, AREA_TX, 3},
        {"CX", 9, {0, 2}, AREA_CX, 10}, // one frame per contact
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(testing::Message() << c.reg << " " << c.address);
        reset("3#0#0#3#64");
        const int count = int(c.data.size());
        setData(1, c.reg, c.address, c.data, count);
        std::vector<unsigned char> shown(c.data.size());
        for (size_t k = 0; k < shown.size(); ++k)
            shown[k] = c.data[k] != 0;
        EXPECT_EQ(getData(1, c.reg, c.address, count, 1), shown);
        plc.drain();
        EXPECT_EQ(plc.bit(c.area, c.wireBit), 1);
        EXPECT_EQ(getData(1, c.reg, c.address, count, 1), shown);
    }
}

TEST_F(ValuesTest, ReplyWhileAWriteIsOutstanding)
{
    struct Case {
        const char *what, *block, *reg, *area;
        int address;
        std::vector<unsigned char> written;
        quint16 polled;
        bool stillPending;
        std::vector<unsigned char> shown;
    } cases[] = {
        // clang-format off
        {"word changed by the controller", "D_W 5 1", "D_W", "D", 5, words({7}), 9, false, {9, 0}},
        {"word unchanged", "D_W 5 1", "D_W", "D", 5, words({7}), 0, true, {7, 0}},
        {"other bit of the word changed", "M_W 10 1", "M_bit", "M", 165, {1}, 0x0001, true, {1}},
        // clang-format on
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        reset("3#0#0#3#64");
        watch(c.block);
        setData(1, c.reg, c.address, c.written, 1);
        ASSERT_EQ(driver.writeList.size(), 1);
        const KEY_ADDRESS k = runs(c.block)[0];
        driver.sendList.clear();
        ASSERT_EQ(readFrames(var(1, k.regName, k.address, 1)), 1);
        driver.sendState = SEND_POLLING_READ;
        EXPECT_EQ(deliver(readReply({c.polled})), RECEIVE_DONE);
        const _DATA_ *d = findArea(1, c.area, k.address);
        ASSERT_NE(d, nullptr);
        EXPECT_EQ(d->writePending, c.stillPending);
        EXPECT_EQ(d->value[0], c.polled & 0xFF);
        EXPECT_EQ(getData(1, c.reg, c.address, 1, int(c.shown.size())), c.shown);
    }
}

} // namespace
