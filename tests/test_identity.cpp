// Identity and property functions, the constructed driver state and the order
// of the fields that cross the boundary with the runtime.
#include "ls_xbc_cpu_direct.h"
#include "service.h"
#include "xbc_protocol.h"

#include <gtest/gtest.h>

#include <climits>
#include <memory>
#include <ostream>
#include <vector>

inline void PrintTo(const QString &s, std::ostream *os)
{
    *os << '"' << s.toStdString() << '"' << (s.isNull() ? " (null)" : "");
}

namespace {

const QList<QString> kBitNames = {"P_bit", "M_bit", "L_bit", "K_bit", "F_bit", "TX", "CX"};
const QList<QString> kWordNames = {"P_W", "M_W", "L_W", "K_W", "F_W", "D_W",
                                   "S_W", "T_W", "C_W", "N_W", "Z_W"};
const QList<QString> kAllNames = {"P_W",   "M_W",   "L_W",   "K_W",   "F_W", "D_W",
                                  "S_W",   "T_W",   "C_W",   "N_W",   "Z_W", "P_bit",
                                  "M_bit", "L_bit", "K_bit", "F_bit", "TX",  "CX"};

std::vector<unsigned char> statusBlock(64 * 1024);

// A clean run: the lists, send list and data areas empty, the numbers of a
// typical property string.
void cleanRun(const char *properties = "1#0#0#3#64")
{
    int status = -1;
    ASSERT_EQ(intf_initProperty(statusBlock.data(), 0, nullptr, &status, properties, nullptr), 1);
}

VARIABLE someVariable()
{
    VARIABLE v;
    v.requestTag = 4;
    v.stationNo = 1;
    v.regName = "D_W";
    v.address = 100;
    v.count = 2;
    return v;
}

// --- tables and strings ---------------------------------------------------

TEST(ProtocolStrings, Values)
{
    EXPECT_EQ(PROCOTOL_DEFALT_COM_PAR, QString("115200,8,NONE,1"));
    EXPECT_EQ(PROCOTOL_NAME, QString("ls_xbc_cpu_direct"));
    EXPECT_EQ(PROCOTOL_VERSION, QString("2.0.0.0"));
    EXPECT_EQ(PROCOTOL_PAR_HMI_SET_MODE, QString("0_0"));
    // A private-network IPv4 address, a comma, the port 8000.
    QStringList ip = PROCOTOL_DEFALT_IP_PAR.split(',');
    ASSERT_EQ(ip.size(), 2);
    EXPECT_EQ(ip[1], QString("8000"));
    QStringList octets = ip[0].split('.');
    ASSERT_EQ(octets.size(), 4);
    int o[4];
    for (int i = 0; i < 4; ++i) {
        bool ok = false;
        o[i] = octets[i].toInt(&ok);
        EXPECT_TRUE(ok && o[i] >= 0 && o[i] <= 255) << octets[i].toStdString();
    }
    EXPECT_TRUE(o[0] == 10 || (o[0] == 172 && o[1] >= 16 && o[1] <= 31) ||
                (o[0] == 192 && o[1] == 168))
        << ip[0].toStdString();
}

TEST(RegisterTables, NamesLettersAndFallbackRow)
{
    for (int i = 0; i < REG_COUNT; ++i)
        EXPECT_EQ(REG_LIST[i], kAllNames[i]) << i;
    const char *letters = "hijknaobcpshijknlm";
    for (int i = 0; i < REG_COUNT; ++i)
        EXPECT_EQ(ADDRESS_RW_COMMAND[i], QString(QChar(letters[i]))) << i;
    const QString fallback[6] = {"DDDD", "0", "2047", "1", "RW", "1"};
    for (int c = 0; c < 6; ++c)
        EXPECT_EQ(ADDRESS_RANGE_PRO[REG_FALLBACK_ROW][c], fallback[c]) << c;
}

// --- identity functions ---------------------------------------------------

TEST(Identity, ProtocolTypeVersionPropertyPage)
{
    int type = 77;
    intf_getProtocolType(type);
    EXPECT_EQ(type, 0);
    EXPECT_EQ(intf_getVersion(), QString("2.0.0.0"));
    QString page = "old";
    intf_getDriverPropertyPage(page);
    EXPECT_EQ(page, QString("0_0"));
}

TEST(Identity, DriverParameterText)
{
    QString text;
    intf_getDriverParameter(text);
    const QString expected = "0,115200,8,NONE,1,0,1," + PROCOTOL_DEFALT_IP_PAR +
                             ",ls_xbc_cpu_direct,P_W,M_W,L_W,K_W,F_W,D_W,S_W,T_W,C_W,N_W,Z_W,"
                             "P_bit,M_bit,L_bit,K_bit,F_bit,TX,CX";
    EXPECT_EQ(text, expected);
    QStringList items = text.split(',');
    ASSERT_EQ(items.size(), 28);
    EXPECT_EQ(items[0], QString("0"));
    EXPECT_EQ(items[5], QString("0"));
    EXPECT_EQ(items[6], QString("1"));
    EXPECT_EQ(items[8], QString("8000"));
    EXPECT_EQ(items[9], QString("ls_xbc_cpu_direct"));
    EXPECT_EQ(items.mid(10), QStringList(kAllNames));

    QString again = "previous content is replaced";
    intf_getDriverParameter(again);
    EXPECT_EQ(again, text);
}

TEST(Identity, RegListByType)
{
    struct Case {
        int type;
        int result;
        QList<QString> names;
    };
    const Case cases[] = {
        {0, 1, kBitNames},        {1, 1, kWordNames},       {2, 0, kWordNames},
        {5, 0, kWordNames},       {-1, 0, kWordNames},      {-5, 0, kWordNames},
        {INT_MIN, 0, kWordNames}, {INT_MAX, 0, kWordNames},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.type);
        QList<QString> names = {"kept"};
        EXPECT_EQ(intf_getRegListByType(c.type, names), c.result);
        EXPECT_EQ(names, QList<QString>{"kept"} + c.names);
    }
}

TEST(Identity, RegDiscription)
{
    struct Case {
        QString name;
        QList<QString> items; // empty: unknown name
    };
    const Case cases[] = {
        {"P_W", {"DDDD", "0", "2047", "1", "1"}},
        {"L_W", {"DDDDD", "0", "11263", "1", "1"}},
        {"K_W", {"DDDD", "0", "2559", "1", "1"}},
        {"D_W", {"DDDDD", "0", "32767", "1", "1"}},
        {"S_W", {"DDD", "0", "127", "1", "1"}},
        {"N_W", {"DDDDD", "0", "21503", "1", "1"}},
        {"Z_W", {"DDDD", "0", "127", "1", "1"}},
        {"M_bit", {"DDDD.DD", "0.0", "2047.15", "0", "1"}},
        {"L_bit", {"DDDDD.DD", "0.0", "11263.15", "0", "1"}},
        {"K_bit", {"DDDD.DD", "0.0", "4095.15", "0", "1"}},
        {"TX", {"DDDD", "0", "2047", "0", "1"}},
        {"CX", {"DDDD", "0", "2047", "0", "1"}},
        {"d_w", {}},
        {"D_w", {}},
        {"tx", {}},
        {"D_W ", {}},
        {"", {}},
        {QString(), {}},
        {"Q_W", {}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name.toStdString());
        QList<QString> items = {"kept"};
        EXPECT_EQ(intf_getRegDiscription(c.name, items), 0);
        EXPECT_EQ(items, QList<QString>{"kept"} + c.items);
    }
    // Every register gives five items: its first three columns and two codes.
    for (int i = 0; i < REG_COUNT; ++i) {
        QList<QString> items;
        intf_getRegDiscription(REG_LIST[i], items);
        ASSERT_EQ(items.size(), 5) << i;
        for (int c = 0; c < 3; ++c)
            EXPECT_EQ(items[c], ADDRESS_RANGE_PRO[i][c]) << i;
    }
}

TEST(Identity, PropertyPageAndCallbackAreStored)
{
    intf_SetDriverPropertyPage(QString("page text"));
    EXPECT_EQ(driver.propertyPage, QString("page text"));

    auto cb = [](int, int, const QString &, int) {};
    AddrValueChangeCallBack fn = cb;
    intf_setAddrValueChangeCallBack(fn);
    EXPECT_EQ(driver.addrValueChangeCallBack, fn);
    intf_setAddrValueChangeCallBack(nullptr);
    EXPECT_EQ(driver.addrValueChangeCallBack, nullptr);
}

// --- intf_initProperty ----------------------------------------------------

TEST(InitProperty, PropertyStrings)
{
    struct Case {
        const char *text;
        int id, localWriteOnly, spare, retry, maxLen; // -99: unchanged (7)
    };
    const int U = -99;
    const Case cases[] = {
        {"1##2#3#64#9", 1, 0, 2, 3, 64},
        {"1#2#3#4#5", 1, 2, 3, 4, 5},
        {"3#0#0#5", U, U, U, U, U}, // four parts: numbers unchanged
        {"", U, U, U, U, U},
        {"9", U, U, U, U, U},
        {"####", 0, 0, 0, 0, 0}, // five empty parts
        {"1#2#3#4#", 1, 2, 3, 4, 0},
        {"-1#x#0#3#10", -1, 0, 0, 3, 10},
        {"0x10#1#1#1#1", 0, 1, 1, 1, 1}, // decimal only
        {"99999999999#1#1#1#1", 0, 1, 1, 1, 1},
        {"5#1#0#2#127#6#7#8", 5, 1, 0, 2, 127},
        {"2#0#0#3#-4", 2, 0, 0, 3, -4}, // not validated
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.text);
        cleanRun("7#7#7#7#7");
        ASSERT_EQ(driver.maxPacketLen, 7);
        int status = 42;
        EXPECT_EQ(intf_initProperty(statusBlock.data(), 0, nullptr, &status, c.text, nullptr), 1);
        EXPECT_EQ(status, 0);
        auto want = [](int v) { return v == -99 ? 7 : v; };
        EXPECT_EQ(driver.driverId, want(c.id));
        EXPECT_EQ(driver.localWriteOnly, want(c.localWriteOnly));
        EXPECT_EQ(driver.spareParam, want(c.spare));
        EXPECT_EQ(driver.retryTimes, want(c.retry));
        EXPECT_EQ(driver.maxPacketLen, want(c.maxLen));
        EXPECT_EQ(driver.maxPacketWords, want(c.maxLen));
        EXPECT_EQ(driver.maxPacketBits, 8 * want(c.maxLen));
        EXPECT_EQ(driver.initDone, 1);
    }
}

TEST(InitProperty, StoresPointersResetsRunKeepsRecipesAndPage)
{
    cleanRun();
    VARIABLE v = someVariable();
    driver.readList.append(v);
    driver.writeList.append(v);
    driver.conditionReadList.append(v);
    _DATA_ area;
    area.stationNo = 1;
    area.name = "D";
    area.address = 100;
    driver.dataAreas.append(area);
    driver.dataAreaIndex.insert(DataAreaKey{1, "D", 100}, 0);
    FRAME_PRO f;
    f.frameLen = 14;
    driver.sendList.append(f);
    driver.sendState = 4;
    driver.burstCount = 3;
    driver.handShakeRequest = 1;
    driver.failCount = 2;
    driver.commError = 1;
    driver.initDone = 0;
    _RCP_VAR_PRO r;
    r.driverId = 1;
    r.regName = "D_W";
    driver.rcpVarList.append(r);
    driver.rcpBlockList.append(r);
    driver.blockStartList.append(0);
    intf_SetDriverPropertyPage(QString("kept page"));

    // Four parts: numbers unchanged, but everything else still happens.
    std::vector<unsigned char> status2(64 * 1024);
    unsigned char recipe[16] = {};
    QMutex lock;
    int status = 9;
    EXPECT_EQ(intf_initProperty(status2.data(), 0x1234, recipe, &status, "3#0#0#5", &lock), 1);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(driver.driverId, 1);
    EXPECT_EQ(driver.retryTimes, 3);
    EXPECT_EQ(driver.maxPacketLen, 64);
    EXPECT_EQ(driver.hmiStatusBlock, status2.data());
    EXPECT_EQ(driver.hmiParam, 0x1234);
    EXPECT_EQ(driver.rcpBuffer, recipe);
    EXPECT_EQ(driver.hmiMutex, &lock);
    EXPECT_TRUE(driver.readList.isEmpty());
    EXPECT_TRUE(driver.writeList.isEmpty());
    EXPECT_TRUE(driver.conditionReadList.isEmpty());
    EXPECT_TRUE(driver.dataAreas.isEmpty());
    EXPECT_TRUE(driver.dataAreaIndex.isEmpty());
    EXPECT_TRUE(driver.sendList.isEmpty());
    EXPECT_EQ(driver.sendState, 0);
    EXPECT_EQ(driver.burstCount, 0);
    EXPECT_EQ(driver.handShakeRequest, 0);
    EXPECT_EQ(driver.failCount, 0);
    EXPECT_EQ(driver.commError, 0);
    EXPECT_EQ(driver.initDone, 1);
    EXPECT_EQ(driver.maxPacketWords, 64);
    EXPECT_EQ(driver.maxPacketBits, 512);
    EXPECT_EQ(driver.rcpVarList.size(), 1);
    EXPECT_EQ(driver.rcpBlockList.size(), 1);
    EXPECT_EQ(driver.blockStartList, QList<int>{0});
    EXPECT_EQ(driver.propertyPage, QString("kept page"));
    EXPECT_EQ(driver.regNameList, kAllNames);

    // Leave no pointers to this stack frame behind.
    driver.rcpVarList.clear();
    driver.rcpBlockList.clear();
    driver.blockStartList.clear();
    cleanRun();
}

// --- constructed state ----------------------------------------------------

TEST(DriverState, GlobalDriverHoldsTheRegisterNames)
{
    EXPECT_EQ(driver.regNameList, kAllNames);
}

TEST(DriverState, ConstructedValues)
{
    auto p = std::make_unique<Protocol>();
    EXPECT_EQ(p->regNameList, kAllNames);
    EXPECT_EQ(p->addrValueChangeCallBack, nullptr);
    EXPECT_EQ(p->hmiStatusBlock, nullptr);
    EXPECT_EQ(p->rcpBuffer, nullptr);
    EXPECT_EQ(p->hmiMutex, nullptr);
    for (int v : {p->driverId, p->localWriteOnly, p->spareParam, p->retryTimes, p->maxPacketLen,
                  p->hmiParam, p->sendState, p->burstCount, p->handShakeRequest, p->failCount,
                  p->maxPacketBits, p->maxPacketWords, p->commError, p->initDone, p->rcpIndex})
        EXPECT_EQ(v, 0);
    EXPECT_TRUE(p->readList.isEmpty() && p->writeList.isEmpty() && p->conditionReadList.isEmpty() &&
                p->dataAreas.isEmpty() && p->rcpVarList.isEmpty() && p->rcpBlockList.isEmpty() &&
                p->blockStartList.isEmpty() && p->curReadVars.isEmpty() && p->sendList.isEmpty());
    EXPECT_EQ(p->curVar.stationNo, 0);
    EXPECT_EQ(p->curVar.address, 0);
    EXPECT_EQ(p->curVar.count, 0);
    EXPECT_TRUE(p->curVar.regName.isEmpty());
    EXPECT_FALSE(p->curVar.regName.isNull()) << "curVar.regName is empty, not null";
    EXPECT_EQ(p->lastConditionRead.stationNo, 0);
    EXPECT_EQ(p->lastConditionRead.address, 0);
    EXPECT_EQ(p->lastConditionRead.count, 0);
    EXPECT_TRUE(p->lastConditionRead.regName.isNull());
    EXPECT_TRUE(p->propertyPage.isNull());
    EXPECT_TRUE(p->dataMutex.tryLock());
    p->dataMutex.unlock();
}

// --- field order of the records the runtime shares ------------------------

template <typename... P> bool ascending(const P *...ptrs)
{
    const char *a[] = {reinterpret_cast<const char *>(ptrs)...};
    for (size_t i = 1; i < sizeof...(P); ++i)
        if (!(a[i - 1] < a[i]))
            return false;
    return true;
}

TEST(Records, FieldOrder)
{
    auto p = std::make_unique<Protocol>();
    const Protocol &d = *p;
    EXPECT_TRUE(ascending(&d.addrValueChangeCallBack, &d.driverId, &d.localWriteOnly, &d.spareParam,
                          &d.retryTimes, &d.maxPacketLen, &d.hmiStatusBlock, &d.hmiParam,
                          &d.rcpBuffer, &d.hmiMutex, &d.readList, &d.writeList,
                          &d.conditionReadList, &d.dataAreas, &d.rcpVarList, &d.rcpBlockList,
                          &d.blockStartList, &d.lastConditionRead, &d.regNameList, &d.curVar,
                          &d.curReadVars, &d.sendState, &d.burstCount, &d.handShakeRequest,
                          &d.failCount, &d.maxPacketBits, &d.maxPacketWords, &d.commError,
                          &d.initDone, &d.sendList, &d.dataMutex, &d.rcpIndex, &d.propertyPage));
    // The driver's own additions (after propertyPage) are not pinned here.
    EXPECT_EQ(reinterpret_cast<const char *>(&d.addrValueChangeCallBack),
              reinterpret_cast<const char *>(&d));

    auto f = std::make_unique<FRAME_PRO>();
    EXPECT_TRUE(ascending(&f->frame, &f->frameLen, &f->replyLen, &f->dataPos, &f->wordCount,
                          &f->reserved, &f->var));
    EXPECT_EQ(reinterpret_cast<const char *>(&f->frameLen) -
                  reinterpret_cast<const char *>(f.get()),
              FRAME_BYTES);
    EXPECT_EQ(reinterpret_cast<const char *>(&f->reserved) -
                  reinterpret_cast<const char *>(&f->frameLen),
              4 * int(sizeof(int)));
    const VARIABLE &v = f->var;
    EXPECT_TRUE(ascending(&v.requestTag, &v.stationNo, &v.regName, &v.address, &v.count, &v.data));
    EXPECT_EQ(sizeof(v.data), size_t(DATA_BYTES));
    EXPECT_EQ(f->reserved, 0);
}

} // namespace
