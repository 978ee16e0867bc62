// The shared library as a runtime sees it: loaded with dlopen, every exported
// name resolved by its plain name, and its dynamic symbol table holding our
// exports and nothing else of ours.
#include "ls_xbc_cpu_direct.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <set>
#include <string>
#include <vector>

namespace {

const char *const kLibrary = XBC_LIBRARY_PATH;

const std::vector<std::string> kExportedFunctions = {"intf_getProtocolType",
                                                     "intf_getVersion",
                                                     "intf_getDriverParameter",
                                                     "intf_getDriverPropertyPage",
                                                     "intf_SetDriverPropertyPage",
                                                     "intf_setAddrValueChangeCallBack",
                                                     "intf_getRegListByType",
                                                     "intf_getRegDiscription",
                                                     "intf_initProperty",
                                                     "intf_checkAddrValidity",
                                                     "intf_checkAddr",
                                                     "intf_multiCopy",
                                                     "intf_addrMerge",
                                                     "intf_setRcpAddress",
                                                     "intf_addConditionRead",
                                                     "intf_getSendFrame",
                                                     "intf_dealRcvFrame",
                                                     "intf_getData",
                                                     "intf_setData"};

// Symbols the linker and the C runtime put into every shared object.
const std::set<std::string> kLinkerSymbols = {"_init",
                                              "_fini",
                                              "_edata",
                                              "_end",
                                              "__bss_start",
                                              "__bss_start__",
                                              "__bss_end__",
                                              "_bss_end__",
                                              "__end__",
                                              "__data_start",
                                              "data_start",
                                              "_DYNAMIC",
                                              "_GLOBAL_OFFSET_TABLE_",
                                              "__dso_handle",
                                              "_IO_stdin_used",
                                              "__TMC_END__"};

class LoadedLibrary : public ::testing::Test {
  protected:
    static void SetUpTestSuite()
    {
        handle = dlopen(kLibrary, RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(handle, nullptr) << dlerror();
    }
    static void TearDownTestSuite()
    {
        // Not unloaded: Qt and the driver's static objects stay until exit,
        // as they do in a runtime.
    }
    template <typename T> static T resolve(const char *name)
    {
        dlerror();
        void *p = dlsym(handle, name);
        const char *err = dlerror();
        EXPECT_EQ(err, nullptr) << name << ": " << (err ? err : "");
        EXPECT_NE(p, nullptr) << name;
        return reinterpret_cast<T>(p);
    }
    static void *handle;
};
void *LoadedLibrary::handle = nullptr;

TEST_F(LoadedLibrary, EveryExportResolvesByPlainName)
{
    ASSERT_NE(handle, nullptr);
    for (const std::string &name : kExportedFunctions) {
        dlerror();
        void *p = dlsym(handle, name.c_str());
        EXPECT_NE(p, nullptr) << name << ": " << dlerror();
    }
    dlerror();
    EXPECT_NE(dlsym(handle, "driver"), nullptr) << "driver: " << dlerror();
    // Nothing mangled or internal is reachable.
    for (const char *hidden : {"getIndexFromRegName", "a2i", "addr_str2int", "computate_check",
                               "handShakeFrame", "REG_LIST"}) {
        dlerror();
        EXPECT_EQ(dlsym(handle, hidden), nullptr) << hidden << " is visible";
    }
}

TEST_F(LoadedLibrary, IdentityThroughResolvedPointers)
{
    ASSERT_NE(handle, nullptr);
    auto getVersion = resolve<decltype(&intf_getVersion)>("intf_getVersion");
    auto getType = resolve<decltype(&intf_getProtocolType)>("intf_getProtocolType");
    auto regList = resolve<decltype(&intf_getRegListByType)>("intf_getRegListByType");
    auto page = resolve<decltype(&intf_getDriverPropertyPage)>("intf_getDriverPropertyPage");
    auto param = resolve<decltype(&intf_getDriverParameter)>("intf_getDriverParameter");
    ASSERT_TRUE(getVersion && getType && regList && page && param);

    EXPECT_EQ(getVersion(), QStringLiteral("2.0.0.0"));

    int type = 12345;
    getType(type);
    EXPECT_EQ(type, 0);

    QList<QString> names;
    EXPECT_EQ(regList(0, names), 1);
    EXPECT_EQ(names, (QList<QString>{"P_bit", "M_bit", "L_bit", "K_bit", "F_bit", "TX", "CX"}));

    QString p;
    page(p);
    EXPECT_EQ(p, QStringLiteral("0_0"));

    QString text;
    param(text);
    EXPECT_EQ(text.split(',').size(), 28) << text.toStdString();
    EXPECT_TRUE(text.startsWith("0,115200,8,NONE,1,0,1,")) << text.toStdString();
}

TEST_F(LoadedLibrary, AddressCheckThroughResolvedPointer)
{
    ASSERT_NE(handle, nullptr);
    auto check = resolve<decltype(&intf_checkAddrValidity)>("intf_checkAddrValidity");
    ASSERT_TRUE(check);
    int a = -7;
    EXPECT_EQ(check(QStringLiteral("D_W"), QStringLiteral("32767"), &a, 1, 1), 0);
    EXPECT_EQ(a, 32767);
    a = -7;
    EXPECT_EQ(check(QStringLiteral("M_bit"), QStringLiteral("15.7"), &a, 1, 0), 0);
    EXPECT_EQ(a, 247);
}

TEST_F(LoadedLibrary, DriverObjectHoldsTheRegisterNames)
{
    ASSERT_NE(handle, nullptr);
    auto *drv = resolve<Protocol *>("driver");
    ASSERT_NE(drv, nullptr);
    ASSERT_EQ(drv->regNameList.size(), 18);
    for (int i = 0; i < REG_COUNT; ++i)
        EXPECT_EQ(drv->regNameList.at(i), REG_LIST[i]) << i;
    EXPECT_EQ(drv->sendState, 0);
    EXPECT_TRUE(drv->readList.isEmpty());
    EXPECT_TRUE(drv->sendList.isEmpty());
}

struct DynSymbol {
    std::string type;
    std::string name;
};

std::vector<DynSymbol> definedDynamicSymbols(bool &ok)
{
    std::vector<DynSymbol> out;
    std::string cmd = std::string("nm -D --defined-only '") + kLibrary + "' 2>/dev/null";
    FILE *pipe = popen(cmd.c_str(), "r");
    ok = pipe != nullptr;
    if (!pipe)
        return out;
    char line[4096];
    while (fgets(line, sizeof line, pipe)) {
        std::vector<std::string> fields;
        std::string field;
        for (const char *c = line; *c; ++c) {
            if (*c == ' ' || *c == '\t' || *c == '\n') {
                if (!field.empty())
                    fields.push_back(field);
                field.clear();
            } else {
                field += *c;
            }
        }
        if (!field.empty())
            fields.push_back(field);
        if (fields.size() < 2)
            continue;
        std::string name = fields.back();
        std::string type = fields[fields.size() - 2];
        std::string::size_type at = name.find('@'); // symbol version suffix
        if (at != std::string::npos)
            name.erase(at);
        out.push_back({type, name});
    }
    ok = pclose(pipe) == 0 && ok;
    return out;
}

TEST(DynamicSymbolTable, ExportsExactlyTheInterface)
{
    bool ok = false;
    std::vector<DynSymbol> symbols = definedDynamicSymbols(ok);
    ASSERT_TRUE(ok) << "nm -D --defined-only failed on " << kLibrary;
    ASSERT_FALSE(symbols.empty());

    std::set<std::string> expected(kExportedFunctions.begin(), kExportedFunctions.end());
    expected.insert("driver");

    std::set<std::string> ours;
    std::vector<std::string> foreign;
    for (const DynSymbol &s : symbols) {
        if (expected.count(s.name)) {
            ours.insert(s.name);
            if (s.name == "driver")
                EXPECT_TRUE(s.type == "B" || s.type == "D") << "driver has type " << s.type;
            else
                EXPECT_EQ(s.type, "T") << s.name;
        } else if (!kLinkerSymbols.count(s.name)) {
            foreign.push_back(s.type + " " + s.name);
        }
    }
    EXPECT_EQ(ours, expected);
    std::string list;
    for (const std::string &f : foreign)
        list += "\n  " + f;
    EXPECT_TRUE(foreign.empty()) << "symbols beyond the interface:" << list;
}

} // namespace
