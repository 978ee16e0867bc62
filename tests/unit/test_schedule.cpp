// The send schedule: priorities, repeats until a frame is retired, the
// bookkeeping after each request and the recipe transfers.
#include "test_support.h"

using namespace xbc_test;

namespace {

QByteArray goodReply(const FRAME_PRO &f)
{
    return f.wordCount > 0 ? readReply(std::vector<quint16>(size_t(f.wordCount), 0)) : reply("w");
}

using ScheduleTest = DriverTest;

// Ten writes, then one polling read, then the writes again; condition reads
// count against the same burst of ten.
TEST_F(ScheduleTest, WritesConditionReadsAndPollingShareTheBurst)
{
    struct Case {
        int writes, conditionReads;
        bool polling;
        std::string order; // W write, C condition read, P polling read, - nothing sent
    } cases[] = {
        {12, 0, true, "WWWWWWWWWWPWW"}, {0, 5, true, "CCCPCCP"},  {4, 2, true, "WWWWPCCP"},
        {2, 2, true, "WWCPCP"},         {0, 5, false, "CCC-CC-"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.order);
        reset("3#0#0#3#64");
        watch(c.polling ? "D_W 0 1" : "");
        for (int i = 0; i < c.writes; ++i)
            setData(1, "D_W", 100 + i, words({quint16(i)}), 1, 11);
        for (int i = 0; i < c.conditionReads; ++i)
            intf_addConditionRead(key(1, "D_W", 200 + i, 1), 22);
        std::string order;
        std::vector<int> written;
        for (size_t k = 0; k < c.order.size(); ++k) {
            FRAME_PRO f;
            if (!nextFrame(f)) {
                order += '-';
                continue;
            }
            order += f.var.requestTag == 11 ? 'W' : f.var.requestTag == 22 ? 'C' : 'P';
            if (f.var.requestTag == 11)
                written.push_back(f.var.address);
            EXPECT_EQ(deliver(goodReply(f)), RECEIVE_DONE);
        }
        EXPECT_EQ(order, c.order);
        EXPECT_TRUE(std::is_sorted(written.begin(), written.end())) << "writes out of order";
        EXPECT_EQ(int(written.size()), c.writes);
        EXPECT_TRUE(driver.writeList.isEmpty());
    }
}

TEST_F(ScheduleTest, FrameOfferedAgainUntilRetired)
{
    watch("D_W 0 1");
    setData(1, "D_W", 5, words({7}), 1, 3);
    FRAME_PRO first, again, retry;
    ASSERT_TRUE(nextFrame(first));
    EXPECT_EQ(bytesOf(first), frame("wa0A000002070032"));
    ASSERT_TRUE(nextFrame(again)); // no reply yet: the same frame
    EXPECT_EQ(deliver(QByteArray("\x06"
                                 "w00\x04")),
              8);
    ASSERT_TRUE(nextFrame(retry));
    for (const FRAME_PRO *f : {&again, &retry}) {
        EXPECT_EQ(bytesOf(*f), bytesOf(first));
        EXPECT_EQ(std::vector<int>({f->replyLen, f->dataPos, f->wordCount, f->var.requestTag}),
                  std::vector<int>({5, 0, 0, 3}));
        EXPECT_EQ(runsOf(QList<VARIABLE>{f->var}), "D_W 5 1");
        EXPECT_EQ(memcmp(f->var.data, first.var.data, DATA_BYTES), 0);
    }
    EXPECT_EQ(deliver(reply("w")), RECEIVE_DONE);
    FRAME_PRO next;
    ASSERT_TRUE(nextFrame(next));
    EXPECT_EQ(next.frame[1], 'r');
    EXPECT_TRUE(driver.writeList.isEmpty());
}

TEST_F(ScheduleTest, BookkeepingAfterEachKindOfRequest)
{
    struct Case {
        const char *what;
        int state, commError;
        const char *writes, *conds, *last, *reads;
        const char *writesAfter, *condsAfter, *readsAfter;
        std::vector<Note> notes;
    } cases[] = {
        // clang-format off
        {"write done", 2, 0, "D_W 1 1, D_W 2 1", "D_W 5 1", "D_W 5 1", "D_W 1 1",
         "D_W 2 1", "D_W 5 1", "D_W 1 1", {}},
        {"no write left", 2, 0, "", "", "D_W 5 1", "", "", "", "", {}},
        {"last condition piece", 3, 0, "D_W 1 1", "D_W 5 1", "D_W 5 1", "D_W 1 1",
         "D_W 1 1", "", "D_W 1 1", {{-1, -1, "-1", 0}}},
        {"earlier condition piece", 3, 0, "", "D_W 5 1, D_W 6 1", "D_W 6 1", "",
         "", "D_W 6 1", "", {}},
        {"condition read failed", 3, 1, "", "D_W 5 1, D_W 6 1", "D_W 5 1", "",
         "", "", "", {{-1, -1, "-1", -1}}},
        {"earlier piece failed", 3, 1, "", "D_W 5 1, D_W 6 1", "D_W 6 1", "", "", "", "",
         {{-1, -1, "-1", -1}}},
        {"polling rotates", 4, 0, "D_W 1 1", "D_W 5 1", "D_W 5 1", "D_W 1 1, D_W 2 1, D_W 3 1",
         "D_W 1 1", "D_W 5 1", "D_W 2 1, D_W 3 1, D_W 1 1", {}},
        {"one block stays", 4, 0, "", "", "D_W 5 1", "D_W 1 1", "", "", "D_W 1 1", {}},
        {"nothing in flight", 0, 0, "D_W 1 1", "D_W 5 1", "D_W 5 1", "D_W 1 1, D_W 2 1",
         "D_W 1 1", "D_W 5 1", "D_W 1 1, D_W 2 1", {}},
        {"handshake", 1, 0, "D_W 1 1", "D_W 5 1", "D_W 5 1", "D_W 1 1, D_W 2 1",
         "D_W 1 1", "D_W 5 1", "D_W 1 1, D_W 2 1", {}},
        // clang-format on
    };
    auto requests = [](const char *text) {
        QList<VARIABLE> out;
        for (const KEY_ADDRESS &k : runs(text))
            out.append(var(k.stationNo, k.regName, k.address, k.count));
        return out;
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        driver.writeList = requests(c.writes);
        driver.conditionReadList = requests(c.conds);
        driver.readList = requests(c.reads);
        driver.lastConditionRead = requests(c.last)[0];
        driver.sendState = c.state;
        driver.commError = c.commError;
        notes.clear();
        dealListWhenFinish();
        deliverPendingNotes();
        EXPECT_EQ(runsOf(driver.writeList), c.writesAfter);
        EXPECT_EQ(runsOf(driver.conditionReadList), c.condsAfter);
        EXPECT_EQ(runsOf(driver.readList), c.readsAfter);
        EXPECT_EQ(notes, c.notes);
    }
}

TEST_F(ScheduleTest, RecipeDownloadGoesFirstBlockByBlock)
{
    recipeVars("D_W 10 2, D_W 20 1, D_W 30 1"); // buffer words 0-1, 2, 3
    for (int i = 0; i < 4; ++i)
        putRecipeWord(i, quint16(0x1111 * (i + 1)));
    watch("D_W 0 1");
    setData(1, "D_W", 5, words({7}), 1);
    status[STATUS_RECIPE_WRITE] = status[STATUS_RECIPE_READ] = 1;
    for (const char *body : {"wa1400000411112222ED", "wa28000002333330", "wa3C000002444440"}) {
        EXPECT_EQ(status[STATUS_RECIPE_WRITE], 1);
        FRAME_PRO f;
        ASSERT_TRUE(nextFrame(f));
        EXPECT_EQ(bytesOf(f), frame(body));
        EXPECT_EQ(driver.sendState, SEND_RECIPE_WRITE);
        EXPECT_EQ(deliver(reply("w")), RECEIVE_DONE);
    }
    EXPECT_EQ(status[STATUS_RECIPE_WRITE], 0);
    EXPECT_EQ(status[STATUS_RECIPE_READ], 1); // the upload comes next
    EXPECT_EQ(driver.rcpIndex, 0);
    EXPECT_EQ(driver.writeList.size(), 1); // recipe replies settle no write
    FRAME_PRO f;
    ASSERT_TRUE(nextFrame(f));
    EXPECT_EQ(bytesOf(f), frame("ra140000045C"));
    EXPECT_EQ(driver.sendState, SEND_RECIPE_READ);
}

TEST_F(ScheduleTest, FailedRecipeTransferIsAbandoned)
{
    recipeVars("D_W 10 2, D_W 20 1, D_W 30 1"); // buffer words 0-1, 2, 3
    status[STATUS_RECIPE_WRITE] = 1;
    std::vector<int> codes;
    FRAME_PRO f;
    for (int i = 0; i < 3 && nextFrame(f); ++i)
        codes.push_back(deliver(QByteArray("\x15")));
    EXPECT_EQ(codes, (std::vector<int>{RECEIVE_RETRY, RECEIVE_RETRY, RECEIVE_ABANDONED}));
    EXPECT_EQ(status[STATUS_RECIPE_WRITE], 0);
    EXPECT_EQ(driver.rcpIndex, 0);
    EXPECT_EQ(intf_getSendFrame(&f), 0);
}

TEST_F(ScheduleTest, StuckRecipeByteDoesNotBlockOtherWork)
{
    for (int offset : {int(STATUS_RECIPE_WRITE), int(STATUS_RECIPE_READ)}) {
        SCOPED_TRACE(offset);
        reset("3#0#0#3#64");
        watch("D_W 0 1");
        setData(1, "D_W", 5, words({7}), 1);
        status[size_t(offset)] = 1; // no recipe block at all
        FRAME_PRO f;
        ASSERT_TRUE(nextFrame(f));
        EXPECT_EQ(bytesOf(f), frame("wa0A000002070032"));
        EXPECT_EQ(status[size_t(offset)], 0);
        ASSERT_TRUE(lock.tryLock()) << "host lock left held";
        lock.unlock();
        EXPECT_EQ(deliver(reply("w")), RECEIVE_DONE);
        ASSERT_TRUE(nextFrame(f));
        EXPECT_EQ(f.frame[1], 'r');
    }
}

} // namespace
