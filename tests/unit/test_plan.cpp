// Polling plan: the merge rule, read blocks, monitor flags, write grouping,
// recipe blocks and condition reads.
#include "test_support.h"

using namespace xbc_test;

namespace {

using PlanTest = DriverTest;

TEST_F(PlanTest, MergeRule)
{
    struct Case {
        const char *blockAndNext; // two runs
        int allowance, result;
    } cases[] = {
        // clang-format off
        {"D_W 100 5, D_W 105 1", 0, 0}, {"D_W 100 5, D_W 106 1", 0, 1}, {"D_W 100 5, D_W 106 1", 1, 0},
        {"D_W 100 5, D_W 103 9", 0, 0}, {"D_W 100 5, D_W 98 1", 0, 0},  {"D_W 100 5, D_W 169 1", 64, 0},
        {"D_W 100 5, D_W 170 1", 64, 1}, {"D_W 100 5, D_W 105 1", -1, 1}, {"D_W 100 5, 2:D_W 100 1", 64, 1},
        {"D_W 100 5, M_W 100 1", 64, 1}, {"M_W 0 5, M_bit 0 1", 64, 1},  {"TX 5 1, TX 6 1", 64, 1},
        {"TX 5 1, TX 5 1", 64, 0},       {"CX 5 1, CX 5 3", 64, 0},      {"T_W 5 1, T_W 6 1", 64, 0},
        // clang-format on
    };
    for (const Case &c : cases) {
        const QList<KEY_ADDRESS> k = runs(c.blockAndNext);
        auto run = [](const KEY_ADDRESS &key) {
            return MergeRun{key.stationNo, key.regName, key.address, key.count,
                            tableRegister(key.regName) && tableRegister(key.regName)->contact};
        };
        EXPECT_EQ(mergeRule(run(k[0]), run(k[1]), c.allowance), c.result)
            << c.blockAndNext << " allowance " << c.allowance;
    }
}

TEST_F(PlanTest, AddrMergeBuildsReadBlocks)
{
    struct Case {
        int maxLen;
        const char *keys, *blocks;
    } cases[] = {
        // clang-format off
        {64, "D_W 100 2, D_W 102 3, D_W 110 1", "D_W 100 11"},  {8, "D_W 100 2, D_W 102 3, D_W 110 1", "D_W 100 5, D_W 110 1"},
        {64, "M_bit 35 20, M_W 1 1", "M_W 1 3"}, {64, "M_bit 15 2", "M_W 0 2"}, {64, "D_W 100 10, D_W 102 2", "D_W 100 10"},
        {64, "TX 5 1, TX 6 1, TX 5 1", "TX 5 1, TX 6 1"}, {64, "2:D_W 0 1, D_W 0 1", "D_W 0 1, 2:D_W 0 1"},
        {64, "D_W 0 100", "D_W 0 100"}, {64, "D_W 0 60, D_W 60 10", "D_W 0 60, D_W 60 10"},
        {64, "D_W 0 1, D_W 63 1", "D_W 0 64"}, {64, "D_W 0 1, D_W 64 1", "D_W 0 1, D_W 64 1"}, // a span of maxPacketLen
        {0, "D_W 0 1, D_W 1 1", "D_W 0 1, D_W 1 1"},
        {8, "D_W 100 1, M_W 50 1, D_W 5 1, M_W 0 1", "M_W 0 1, M_W 50 1, D_W 5 1, D_W 100 1"},
        {64, "CX 3 1, TX 3 1, D_W 0 1, M_bit 0 16", "M_W 0 1, D_W 0 1, TX 3 1, CX 3 1"},
        // clang-format on
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(testing::Message() << c.keys << " max " << c.maxLen);
        driver.maxPacketLen = c.maxLen;
        QList<KEY_ADDRESS> keys = runs(c.keys);
        const int n = intf_addrMerge(&keys);
        EXPECT_EQ(n, driver.readList.size());
        EXPECT_EQ(runsOf(driver.readList), c.blocks);
        EXPECT_EQ(runsOf(keys), c.keys); // the runtime's list is only read
        for (const VARIABLE &v : driver.readList)
            EXPECT_EQ(v.requestTag, 4);
    }
}

TEST_F(PlanTest, MonitorFlagsForBothViewsOfOneRecord)
{
    watch("M_W 10 1, M_bit 165 1, TX 7 3, D_W 0 0");
    ASSERT_EQ(driver.dataAreas.size(), 4); // one shared M record, three TX records
    const _DATA_ *m = findArea(1, "M", 10);
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(m->valueMonitor, 1u);
    EXPECT_EQ(m->bitMonitor, 1u << 5);
    for (int a = 7; a <= 9; ++a)
        EXPECT_EQ(findArea(1, "TX", a)->valueMonitor, 1u) << a;
    EXPECT_EQ(findArea(1, "D", 0), nullptr);
    for (int i = 0; i < driver.dataAreas.size(); ++i) // the lookup index agrees
        EXPECT_EQ(recordOf(1, driver.dataAreas[i].name, driver.dataAreas[i].address), i);

    // A new list clears the flags of records no longer watched, keeps values.
    const int mi = recordOf(1, "M", 10);
    driver.dataAreas[mi].value[0] = 0x5A;
    driver.dataAreas[mi].pendingBitWrites = 4;
    watch("TX 8 1");
    const _DATA_ &r = driver.dataAreas[mi];
    EXPECT_EQ(r.valueMonitor | r.bitMonitor | r.pendingBitWrites, 0u);
    EXPECT_EQ(r.value[0], 0x5A);
    EXPECT_EQ(findArea(1, "TX", 7)->valueMonitor, 0u);
    EXPECT_EQ(findArea(1, "TX", 8)->valueMonitor, 1u);

    // An empty list stops polling and clears every flag.
    QList<KEY_ADDRESS> none;
    EXPECT_EQ(intf_addrMerge(&none), 0);
    EXPECT_TRUE(driver.readList.isEmpty());
    for (const _DATA_ &d : driver.dataAreas)
        EXPECT_EQ(d.valueMonitor | d.bitMonitor | d.pendingBitWrites, 0u);
}

TEST_F(PlanTest, SetRcpAddressBuildsBlocks)
{
    struct Case {
        const char *vars; // station field carries the driver id
        int accepted;
        const char *sorted, *blocks;
        std::vector<int> blockBuffers, starts;
    } cases[] = {
        // clang-format off
        {"3:D_W 20 1, 3:D_W 10 2, 3:D_W 12 1, 4:D_W 11 1", 3,
         "D_W 10 2, D_W 12 1, D_W 20 1", "D_W 10 3, D_W 20 1", {1, 0}, {0, 2}},
        {"3:D_W 0 40, 3:D_W 40 40", 2, "D_W 0 40, D_W 40 40", "D_W 0 40, D_W 40 40", {0, 1}, {0, 1}},
        {"3:D_W 0 4, 3:D_W 5 1", 2, "D_W 0 4, D_W 5 1", "D_W 0 4, D_W 5 1", {0, 1}, {0, 1}},
        {"3:M_bit 3 5, 3:M_bit 8 2", 2, "M_bit 3 5, M_bit 8 2", "M_bit 3 7", {0}, {0}},
        {"3:TX 6 1, 3:TX 5 1", 2, "TX 5 1, TX 6 1", "TX 5 1, TX 6 1", {1, 0}, {0, 1}},
        {"4:D_W 0 1", 0, "", "", {}, {}},
        // clang-format on
    };
    auto toVars = [](const char *text) {
        QVector<_RCP_VAR_PRO> out;
        int buffer = 0;
        for (const KEY_ADDRESS &k : runs(text))
            out.append({k.stationNo, 1, k.regName, k.address, k.count, buffer++, 77});
        return out;
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.vars);
        QVector<_RCP_VAR_PRO> before = toVars("3:D_W 500 1"); // must not survive
        intf_setRcpAddress(&before);
        QVector<_RCP_VAR_PRO> vars = toVars(c.vars);
        EXPECT_EQ(intf_setRcpAddress(&vars), c.accepted);
        EXPECT_EQ(runsOf(driver.rcpVarList), c.sorted);
        EXPECT_EQ(runsOf(driver.rcpBlockList), c.blocks);
        std::vector<int> buffers;
        for (const _RCP_VAR_PRO &b : driver.rcpBlockList) {
            buffers.push_back(b.bufferIndex);
            EXPECT_EQ(b.driverId | b.spareValue, 0);
        }
        EXPECT_EQ(buffers, c.blockBuffers);
        EXPECT_EQ(std::vector<int>(driver.blockStartList.begin(), driver.blockStartList.end()),
                  c.starts);
    }
}

TEST_F(PlanTest, ConditionReadPieces)
{
    struct Case {
        const char *key;
        int dataKind;
        const char *queued;
    } cases[] = {
        // clang-format off
        {"D_W 100 10", 0, "D_W 100 10"}, {"D_W 0 150", 0, "D_W 0 64, D_W 64 64, D_W 128 22"},
        {"TX 10 2", -1, "TX 10 32"}, {"M_bit 35 20", -1, "M_W 2 2"}, // bits as the words holding them
        {"M_bit 3 600", -1, "M_W 0 33, M_W 32 6"},
        // clang-format on
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.key);
        driver.conditionReadList.clear();
        EXPECT_EQ(intf_addConditionRead(runs(c.key, c.dataKind)[0], 7), 1);
        EXPECT_EQ(runsOf(driver.conditionReadList), c.queued);
        for (const VARIABLE &v : driver.conditionReadList)
            EXPECT_EQ(v.requestTag, 7);
        ASSERT_FALSE(driver.conditionReadList.isEmpty());
        EXPECT_TRUE(sameRequest(driver.lastConditionRead, driver.conditionReadList.last()));
    }
}

TEST_F(PlanTest, ConditionReadDuplicatesAndBound)
{
    // The head may be in flight: an equal request is appended behind it...
    intf_addConditionRead(key(1, "D_W", 100, 10), 7);
    intf_addConditionRead(key(1, "D_W", 100, 10), 8);
    ASSERT_EQ(driver.conditionReadList.size(), 2);
    // ...but one at index 1 or later is overwritten, the newest found from the end.
    intf_addConditionRead(key(1, "D_W", 0, 4), 1);
    intf_addConditionRead(key(1, "D_W", 0, 5), 1); // differs in count only
    intf_addConditionRead(key(1, "D_W", 100, 10), 9);
    EXPECT_EQ(runsOf(driver.conditionReadList), "D_W 100 10, D_W 100 10, D_W 0 4, D_W 0 5");
    EXPECT_EQ(driver.conditionReadList[0].requestTag, 7);
    EXPECT_EQ(driver.conditionReadList[1].requestTag, 9);
    EXPECT_EQ(driver.lastConditionRead.requestTag, 9);
}

} // namespace
