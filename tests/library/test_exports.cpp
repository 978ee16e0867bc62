// The shared library as a runtime sees it: loaded with dlopen, every exported
// name resolved by its plain name, the identity answers through those
// pointers, and a dynamic symbol table holding our exports and nothing else.
#include "ls_xbc_cpu_direct.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <set>
#include <sstream>
#include <string>

namespace {

const char *const kLibrary = XBC_LIBRARY_PATH;

#define XBC_EXPORT_NAME(name) "intf_" #name,
const std::set<std::string> kExports = {XBC_EXPORTED_OBJECT,
                                        XBC_FOR_EACH_EXPORTED_FUNCTION(XBC_EXPORT_NAME)};
#undef XBC_EXPORT_NAME

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
    // Not unloaded: Qt and the driver's static objects stay until exit, as
    // they do in a runtime.
    static void SetUpTestSuite()
    {
        handle = dlopen(kLibrary, RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(handle, nullptr) << dlerror();
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

TEST_F(LoadedLibrary, EveryExportResolvesByPlainNameAndNothingElse)
{
    for (const std::string &name : kExports)
        EXPECT_NE(dlsym(handle, name.c_str()), nullptr) << name;
    for (const char *hidden : {"getIndexFromRegName", "a2i", "computate_check", "handShakeFrame",
                               "REG_LIST", "notifyHost"})
        EXPECT_EQ(dlsym(handle, hidden), nullptr) << hidden << " is visible";
}

TEST_F(LoadedLibrary, IdentityThroughResolvedPointers)
{
    const QList<QString> kBitNames = {"P_bit", "M_bit", "L_bit", "K_bit", "F_bit", "TX", "CX"};
    const QList<QString> kWordNames = {"P_W", "M_W", "L_W", "K_W", "F_W", "D_W",
                                       "S_W", "T_W", "C_W", "N_W", "Z_W"};
    int type = 12345;
    resolve<decltype(&intf_getProtocolType)>("intf_getProtocolType")(type);
    EXPECT_EQ(type, 0);
    EXPECT_EQ(resolve<decltype(&intf_getVersion)>("intf_getVersion")(), QString("2.0.0.0"));
    QString page = "old";
    resolve<decltype(&intf_getDriverPropertyPage)>("intf_getDriverPropertyPage")(page);
    EXPECT_EQ(page, QString("0_0"));
    QString text;
    resolve<decltype(&intf_getDriverParameter)>("intf_getDriverParameter")(text);
    EXPECT_EQ(text, "0,115200,8,NONE,1,0,1," + PROCOTOL_DEFALT_IP_PAR +
                        ",ls_xbc_cpu_direct,P_W,M_W,L_W,K_W,F_W,D_W,S_W,T_W,C_W,N_W,Z_W,"
                        "P_bit,M_bit,L_bit,K_bit,F_bit,TX,CX");

    auto regList = resolve<decltype(&intf_getRegListByType)>("intf_getRegListByType");
    for (int t : {0, 1, 2, -1, INT_MIN}) {
        QList<QString> names = {"kept"};
        EXPECT_EQ(regList(t, names), (t == 0 || t == 1) ? 1 : 0) << t;
        EXPECT_EQ(names, QList<QString>{"kept"} + (t == 0 ? kBitNames : kWordNames)) << t;
    }

    // Format, lowest, highest, then 1 for word and 0 for bit registers, 1.
    struct Case {
        QString name;
        QList<QString> items; // empty: unknown name
    } cases[] = {
        {"P_W", {"DDDD", "0", "2047", "1", "1"}},
        {"K_W", {"DDDD", "0", "2559", "1", "1"}},
        {"D_W", {"DDDDD", "0", "32767", "1", "1"}},
        {"S_W", {"DDD", "0", "127", "1", "1"}},
        {"N_W", {"DDDDD", "0", "21503", "1", "1"}},
        {"M_bit", {"DDDD.DD", "0.0", "2047.15", "0", "1"}},
        {"L_bit", {"DDDDD.DD", "0.0", "11263.15", "0", "1"}},
        {"K_bit", {"DDDD.DD", "0.0", "4095.15", "0", "1"}},
        {"CX", {"DDDD", "0", "2047", "0", "1"}},
        {"d_w", {}},
        {"D_W ", {}},
        {"", {}},
        {"Q_W", {}},
    };
    auto describe = resolve<decltype(&intf_getRegDiscription)>("intf_getRegDiscription");
    for (const Case &c : cases) {
        QList<QString> items = {"kept"};
        EXPECT_EQ(describe(c.name, items), 0);
        EXPECT_EQ(items, QList<QString>{"kept"} + c.items) << c.name.toStdString();
    }

    auto *drv = resolve<Protocol *>("driver");
    EXPECT_EQ(drv->regNameList, kWordNames + kBitNames);
    resolve<decltype(&intf_SetDriverPropertyPage)>("intf_SetDriverPropertyPage")("page text");
    EXPECT_EQ(drv->propertyPage, QString("page text"));
    AddrValueChangeCallBack cb = [](int, int, const QString &, int) {};
    resolve<decltype(&intf_setAddrValueChangeCallBack)>("intf_setAddrValueChangeCallBack")(cb);
    EXPECT_EQ(drv->addrValueChangeCallBack, cb);
}

TEST(DynamicSymbolTable, ExportsExactlyTheInterface)
{
    const std::string cmd = std::string("nm -D --defined-only '") + kLibrary + "' 2>/dev/null";
    FILE *pipe = popen(cmd.c_str(), "r");
    ASSERT_NE(pipe, nullptr);
    std::set<std::string> ours;
    std::string foreign;
    char line[4096];
    while (fgets(line, sizeof line, pipe)) {
        std::istringstream fields(line);
        std::vector<std::string> f;
        for (std::string s; fields >> s;)
            f.push_back(s);
        if (f.size() < 2)
            continue;
        const std::string type = f[f.size() - 2];
        const std::string name = f.back().substr(0, f.back().find('@')); // no version suffix
        if (kExports.count(name)) {
            ours.insert(name);
            if (name == "driver")
                EXPECT_TRUE(type == "B" || type == "D") << "driver has type " << type;
            else
                EXPECT_EQ(type, "T") << name;
        } else if (!kLinkerSymbols.count(name)) {
            foreign += "\n  " + type + " " + name;
        }
    }
    ASSERT_EQ(pclose(pipe), 0) << "nm -D --defined-only failed on " << kLibrary;
    EXPECT_EQ(ours, kExports);
    EXPECT_TRUE(foreign.empty()) << "symbols beyond the interface:" << foreign;
}

} // namespace
