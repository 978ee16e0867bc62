// The whole loop as a runtime drives it: exported calls only, against the
// simulator's memory answering every request frame.
#include "test_support.h"

using namespace xbc_test;

namespace {

using CycleTest = DriverTest;

TEST_F(CycleTest, PolledValuesArriveAndNotify)
{
    watch("D_W 100 3, M_W 10 1, M_bit 163 1, M_bit 165 1, TX 35 2");
    ASSERT_EQ(runsOf(driver.readList), "M_W 10 1, D_W 100 3, TX 35 2");
    plc.set(AREA_D, 100, 0x1234);
    plc.set(AREA_D, 102, 0xBEEF);
    plc.set(AREA_M, 10, 0x0028);
    plc.set(AREA_TX, 2, 0x0018); // contacts 35 and 36
    EXPECT_EQ(plc.pump(3), (std::vector<int>{RECEIVE_DONE, RECEIVE_DONE, RECEIVE_DONE}));
    EXPECT_EQ(plc.commands(), "rrr");
    // clang-format off
    EXPECT_EQ(notes, (std::vector<Note>{{3, 1, "M_bit", 163}, {3, 1, "M_bit", 165}, {3, 1, "M_W", 10},
                                        {3, 1, "D_W", 100}, {3, 1, "D_W", 102},
                                        {3, 1, "TX", 35}, {3, 1, "TX", 36}}));
    // clang-format on
    EXPECT_EQ(getData(1, "D_W", 100, 3, 2),
              (std::vector<unsigned char>{0x34, 0x12, 0, 0, 0xEF, 0xBE}));
    EXPECT_EQ(getData(1, "M_bit", 163, 3, 1), (std::vector<unsigned char>{1, 0, 1}));
    EXPECT_EQ(getData(1, "TX", 35, 2, 1), (std::vector<unsigned char>{1, 1}));

    notes.clear();
    EXPECT_EQ(plc.pump(3), (std::vector<int>{RECEIVE_DONE, RECEIVE_DONE, RECEIVE_DONE}));
    EXPECT_TRUE(notes.empty()) << "unchanged values were reported";

    // Contact bits come from the low byte of the word; the high byte holds
    // contacts 43 and 44 and must not leak into 35 and 36.
    plc.set(AREA_M, 10, 0x0020);
    plc.set(AREA_TX, 2, 0x1810);
    EXPECT_EQ(plc.pump(3), (std::vector<int>{RECEIVE_DONE, RECEIVE_DONE, RECEIVE_DONE}));
    EXPECT_EQ(notes,
              (std::vector<Note>{{3, 1, "M_bit", 163}, {3, 1, "M_W", 10}, {3, 1, "TX", 35}}));
    EXPECT_EQ(getData(1, "TX", 35, 2, 1), (std::vector<unsigned char>{0, 1}));
}

// The station keys the image but never goes on the wire: the same register
// and address on two stations are two blocks, two records and two writes.
TEST_F(CycleTest, TwoStationsSideBySideNeverMix)
{
    watch("D_W 5 1, 2:D_W 5 1, M_bit 3 1, 2:M_bit 3 1");
    ASSERT_EQ(runsOf(driver.readList), "M_W 0 1, D_W 5 1, 2:M_W 0 1, 2:D_W 5 1");
    std::vector<std::string> frames;
    for (int i = 0; i < 4; ++i) {
        FRAME_PRO f;
        ASSERT_TRUE(nextFrame(f));
        frames.push_back(bytesOf(f));
        ASSERT_EQ(deliver(readReply({quint16(f.var.stationNo == 1 ? 0x0008 : 0x1200)})),
                  RECEIVE_DONE);
    }
    EXPECT_EQ(frames[0], frames[2]);
    EXPECT_EQ(frames[1], frames[3]);
    EXPECT_EQ(notes, (std::vector<Note>{{3, 1, "M_bit", 3}, {3, 1, "D_W", 5}, {3, 2, "D_W", 5}}));
    EXPECT_EQ(std::vector<int>({word16(1, "D_W", 5), word16(2, "D_W", 5), bit(1, "M_bit", 3),
                                bit(2, "M_bit", 3)}),
              std::vector<int>({8, 0x1200, 1, 0}));

    notes.clear();
    setData(2, "D_W", 5, words({7}), 1);
    setData(1, "M_bit", 3, {0}, 1);
    EXPECT_EQ(notes, (std::vector<Note>{{3, 2, "D_W", 5}, {3, 1, "M_bit", 3}}));
    EXPECT_EQ(word16(1, "D_W", 5), 8);
    notes.clear();
    plc.linkDown = true; // station 2's write fails; only its word is taken back
    EXPECT_EQ(plc.pump(3), (std::vector<int>{RECEIVE_RETRY, RECEIVE_RETRY, RECEIVE_ABANDONED}));
    EXPECT_EQ(notes, (std::vector<Note>{{3, 2, "D_W", 5}}));
    EXPECT_EQ(std::vector<int>({word16(2, "D_W", 5), bit(1, "M_bit", 3)}),
              std::vector<int>({0x1200, 0}));
    plc.linkDown = false;
    EXPECT_EQ(plc.exchange(), RECEIVE_DONE); // station 1's bit write lands
    EXPECT_EQ(plc.commands(), "n");
    EXPECT_FALSE(findArea(1, "M", 0)->writePending);
    EXPECT_EQ(findArea(2, "M", 0)->value[1], 0x12);
}

TEST_F(CycleTest, ContactsAcrossAWordEdge)
{
    watch("CX 14 4");
    plc.set(AREA_CX, 0, 0x4000); // contact 14
    plc.set(AREA_CX, 1, 0x0002); // contact 17
    EXPECT_EQ(plc.pump(1), (std::vector<int>{RECEIVE_DONE}));
    EXPECT_EQ(getData(1, "CX", 14, 4, 1), (std::vector<unsigned char>{1, 0, 0, 1}));
    EXPECT_EQ(notes, (std::vector<Note>{{3, 1, "CX", 14}, {3, 1, "CX", 17}}));
}

// Each write reaches the controller and settles; failed, it is shown at once,
// then taken back with a notification of every value it showed.
TEST_F(CycleTest, WritesLandOrFallBackWithNotifications)
{
    struct Word {
        int area, word;
        quint16 value;
    };
    struct Case {
        const char *what, *reg;
        int start, count, bytesPer;
        std::vector<unsigned char> data;
        std::vector<Word> before, after;
        std::string commands;
        const char *watched;
        std::vector<Note> shown, takenBack;
    } cases[] = {
        // clang-format off
        {"words", "D_W", 5, 2, 2, words({0xBEEF, 0x0102}), {}, {{AREA_D, 5, 0xBEEF}, {AREA_D, 6, 0x0102}}, "w",
         "D_W 5 1", {{3, 1, "D_W", 5}}, {{3, 1, "D_W", 5}}},
        {"set one bit", "M_bit", 37, 1, 1, {1}, {{AREA_M, 2, 0x8001}}, {{AREA_M, 2, 0x8021}}, "o",
         "M_bit 37 1", {{3, 1, "M_bit", 37}}, {{3, 1, "M_bit", 37}}},
        {"clear one bit", "M_bit", 37, 1, 1, {0}, {{AREA_M, 2, 0xFFFF}}, {{AREA_M, 2, 0xFFDF}}, "n", "", {}, {}},
        {"bits over a word edge", "M_bit", 14, 4, 1, {1, 0, 1, 1}, {{AREA_M, 0, 0x80F0}, {AREA_M, 1, 0xFFF0}},
         {{AREA_M, 0, 0x40F0}, {AREA_M, 1, 0xFFF3}}, "rw", "M_bit 14 4",
         {{3, 1, "M_bit", 14}, {3, 1, "M_bit", 16}, {3, 1, "M_bit", 17}},
         {{3, 1, "M_bit", 14}, {3, 1, "M_bit", 15}, {3, 1, "M_bit", 16}, {3, 1, "M_bit", 17}}},
        {"a word equal to the image: a failure is told all the same", "D_W", 5, 1, 2, words({0}), {},
         {{AREA_D, 5, 0}}, "w", "D_W 5 1", {}, {{3, 1, "D_W", 5}}},
        {"one contact", "TX", 3, 1, 1, {1}, {}, {{AREA_TX, 0, 0x0008}}, "o", "", {{3, 1, "TX", 3}}, {{3, 1, "TX", 3}}},
        {"contacts one frame each", "TX", 10, 3, 1, {1, 0, 1}, {{AREA_TX, 0, 0x0800}}, {{AREA_TX, 0, 0x1400}}, "ono",
         "", {{3, 1, "TX", 10}, {3, 1, "TX", 12}}, {{3, 1, "TX", 10}, {3, 1, "TX", 11}, {3, 1, "TX", 12}}},
        // clang-format on
    };
    for (const Case &c : cases) {
        for (bool fails : {false, true}) {
            if (fails && c.takenBack.empty())
                continue;
            SCOPED_TRACE(std::string(c.what) + (fails ? ", failing" : ""));
            reset("3#0#0#3#64");
            watch(fails ? c.watched : ""); // polling would come between the writes
            for (const Word &w : c.before)
                plc.set(w.area, w.word, w.value);
            setData(1, c.reg, c.start, c.data, c.count, 5);
            if (!fails) {
                EXPECT_EQ(plc.pump(10), std::vector<int>(c.commands.size(), RECEIVE_DONE));
                EXPECT_EQ(plc.commands(), c.commands);
                for (const Word &w : c.after)
                    EXPECT_EQ(plc.word(w.area, w.word), w.value) << w.area << " " << w.word;
            } else {
                EXPECT_EQ(notes, c.shown); // shown at once
                notes.clear();
                plc.linkDown = true;
                EXPECT_EQ(plc.pump(3),
                          (std::vector<int>{RECEIVE_RETRY, RECEIVE_RETRY, RECEIVE_ABANDONED}));
                EXPECT_EQ(notes, c.takenBack); // and taken back
                EXPECT_TRUE(driver.sendList.isEmpty());
                EXPECT_EQ(driver.commError, 1);
            }
            EXPECT_TRUE(driver.writeList.isEmpty());
            for (const _DATA_ &d : driver.dataAreas)
                EXPECT_FALSE(d.writePending) << d.name.toStdString() << d.address;
            // A failed write falls back to the image, which nothing has filled.
            const std::vector<unsigned char> shown =
                fails ? std::vector<unsigned char>(c.data.size()) : c.data;
            EXPECT_EQ(getData(1, c.reg, c.start, c.count, c.bytesPer), shown);
        }
    }
}

TEST_F(CycleTest, RecipeDownloadAndUploadRoundTrip)
{
    recipeVars("D_W 10 2, D_W 12 1, D_W 40 1, M_bit 3 5"); // buffer words 0-1, 2, 3, 4-8
    for (int i = 0; i < 4; ++i)
        putRecipeWord(i, quint16(0x1201 * (i + 1)));
    for (int i = 4; i < 9; ++i)
        putRecipeWord(i, 0x0001); // every bit on: the low byte says so
    plc.set(AREA_M, 0, 0x0F07);
    status[STATUS_RECIPE_WRITE] = 1;
    EXPECT_EQ(plc.pump(10),
              (std::vector<int>{RECEIVE_DONE, RECEIVE_DONE, RECEIVE_DONE, RECEIVE_DONE}));
    EXPECT_EQ(plc.commands(), "wwrw");
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(plc.word(AREA_D, 10 + i), 0x1201 * (i + 1));
    EXPECT_EQ(plc.word(AREA_D, 40), 0x4804);
    EXPECT_EQ(plc.word(AREA_M, 0), 0x0FFF) << "bits 3 to 7 set, the others kept";
    EXPECT_EQ(status[STATUS_RECIPE_WRITE], 0);

    recipeVars("D_W 10 2, D_W 12 1, D_W 40 1");
    std::fill(recipe.begin(), recipe.end(), 0);
    const quint16 changed[] = {0xA1B2, 0xC3D4, 0xE5F6, 0x0718};
    for (int i = 0; i < 4; ++i)
        plc.set(AREA_D, i < 3 ? 10 + i : 40, changed[i]);
    notes.clear();
    status[STATUS_RECIPE_READ] = 1;
    EXPECT_EQ(plc.pump(10), (std::vector<int>{RECEIVE_DONE, RECEIVE_DONE}));
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(recipeWord(i), changed[i]) << i;
    EXPECT_EQ(notes,
              (std::vector<Note>{
                  {0, -1, "RWI", 0}, {0, -1, "RWI", 1}, {0, -1, "RWI", 2}, {0, -1, "RWI", 3}}));
    EXPECT_EQ(status[STATUS_RECIPE_READ], 0);
    EXPECT_EQ(word16(1, "D_W", 40), 0x0718); // the image gets the words too
}

// A bit register's recipe variable takes one buffer word per bit both ways:
// what a download wrote comes back from an upload as 0 or 1 per word.
TEST_F(CycleTest, BitRecipesRoundTripOneWordPerBit)
{
    struct Case {
        const char *vars;
        std::vector<quint16> words;
        int area, firstBit;
    } cases[] = {
        {"L_bit 16 5", {0, 1, 0, 0x0101, 1}, xbcsim::AREA_L, 16}, // read-modify-write
        {"M_bit 30 4", {1, 0, 1, 1}, AREA_M, 30},                 // over a word edge
        {"L_bit 20 1", {1}, xbcsim::AREA_L, 20},                  // one bit frame
        {"TX 5 3", {1, 0, 7}, AREA_TX, 5},                        // one frame per contact
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.vars);
        reset("3#0#0#3#64");
        recipeVars(c.vars);
        for (size_t i = 0; i < c.words.size(); ++i)
            putRecipeWord(int(i), c.words[i]);
        status[STATUS_RECIPE_WRITE] = 1;
        plc.pump(20);
        EXPECT_EQ(status[STATUS_RECIPE_WRITE], 0);
        for (size_t i = 0; i < c.words.size(); ++i)
            EXPECT_EQ(plc.bit(c.area, c.firstBit + int(i)), (c.words[i] & 0xFF) != 0) << i;

        std::fill(recipe.begin(), recipe.end(), 0xEE);
        status[STATUS_RECIPE_READ] = 1;
        plc.pump(20);
        EXPECT_EQ(status[STATUS_RECIPE_READ], 0);
        for (size_t i = 0; i < c.words.size(); ++i)
            EXPECT_EQ(recipeWord(int(i)), (c.words[i] & 0xFF) != 0 ? 1 : 0) << i;
        EXPECT_EQ(recipeWord(int(c.words.size())), 0xEEEE) << "written past the variable";
    }
}

TEST_F(CycleTest, BitRecipeUploadLandsInItsWord)
{
    recipeVars("M_bit 35 1");
    plc.set(AREA_M, 2, 0x0008);
    status[STATUS_RECIPE_READ] = 1;
    EXPECT_EQ(plc.pump(10), (std::vector<int>{RECEIVE_DONE}));
    EXPECT_EQ(word16(1, "M_W", 2), 0x0008);
    EXPECT_EQ(getData(1, "M_bit", 35, 1, 1), std::vector<unsigned char>{1});
    EXPECT_EQ(findArea(1, "M", 35), nullptr);
}

TEST_F(CycleTest, BitConditionReadNotifiesWatchedBits)
{
    watch("M_bit 36 1");
    plc.set(AREA_M, 2, 0x0010); // bit 36
    intf_addConditionRead(key(1, "M_bit", 35, 20, -1), 8);
    EXPECT_EQ(plc.pump(1), (std::vector<int>{RECEIVE_DONE}));
    EXPECT_EQ(plc.received, std::vector<std::string>{frame("ri0400000463")}); // M_W 2, two words
    EXPECT_EQ(notes, (std::vector<Note>{{3, 1, "M_bit", 36}, {-1, -1, "-1", 0}}));
    EXPECT_EQ(getData(1, "M_bit", 36, 1, 1), std::vector<unsigned char>{1});
}

TEST_F(CycleTest, BadRepliesAreRetriedThenAbandoned)
{
    const QByteArray bad("\x06"
                         "r0000"
                         "41\x04"); // checksum should be 32
    struct Case {
        const char *what;
        QByteArray first;
    } cases[] = {
        {"wrong checksum", bad},
        {"NAK", QByteArray("\x15"
                           "r0000"
                           "32\x04")},
        {"empty", QByteArray()},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        reset("3#0#0#3#64");
        watch("D_W 0 1, D_W 500 1");
        std::vector<int> codes;
        FRAME_PRO f;
        for (int i = 0; i < 3 && nextFrame(f); ++i)
            codes.push_back(deliver(i == 0 ? c.first : bad));
        EXPECT_EQ(codes, (std::vector<int>{RECEIVE_RETRY, RECEIVE_RETRY, RECEIVE_ABANDONED}));
        EXPECT_EQ(driver.commError, 1);
        EXPECT_TRUE(driver.sendList.isEmpty());
        ASSERT_TRUE(nextFrame(f)); // the abandoned block went to the back
        EXPECT_EQ(f.var.address, 500);
        EXPECT_EQ(deliver(readReply({0})), RECEIVE_DONE);
        EXPECT_EQ(driver.commError, 0);
    }

    // A good reply starts the count again; one or no retry abandons at once.
    struct Run {
        const char *properties;
        std::vector<bool> good;
        std::vector<int> codes;
    } runs[] = {
        {"3#0#0#3#64",
         {false, true, false, false, false},
         {RECEIVE_RETRY, RECEIVE_DONE, RECEIVE_RETRY, RECEIVE_RETRY, RECEIVE_ABANDONED}},
        {"3#0#0#1#64", {false}, {RECEIVE_ABANDONED}},
        {"3#0#0#0#64", {false}, {RECEIVE_ABANDONED}},
    };
    for (const Run &r : runs) {
        SCOPED_TRACE(r.properties);
        reset(r.properties);
        watch("D_W 0 1");
        std::vector<int> codes;
        for (bool good : r.good) {
            FRAME_PRO f;
            ASSERT_TRUE(nextFrame(f));
            codes.push_back(deliver(good ? readReply({0}) : bad));
        }
        EXPECT_EQ(codes, r.codes);
    }
}

} // namespace
