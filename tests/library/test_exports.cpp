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
const QStringList kLinkerSymbols =
    QString("_init _fini _edata _end __bss_start __bss_start__ __bss_end__ _bss_end__ __end__ "
            "__data_start data_start _DYNAMIC _GLOBAL_OFFSET_TABLE_ __dso_handle _IO_stdin_used "
            "__TMC_END__")
        .split(' ');

// Not unloaded: Qt and the driver's static objects stay until exit, as they
// do in a runtime.
void *library()
{
    static void *handle = dlopen(kLibrary, RTLD_NOW | RTLD_LOCAL);
    return handle;
}
template <typename T> T resolve(const char *name)
{
    void *p = library() ? dlsym(library(), name) : nullptr;
    EXPECT_NE(p, nullptr) << name << ": " << dlerror();
    return reinterpret_cast<T>(p);
}
#define RESOLVE(name) resolve<decltype(&intf_##name)>("intf_" #name)

TEST(LoadedLibrary, EveryExportResolvesByPlainNameAndNothingElse)
{
    ASSERT_NE(library(), nullptr) << dlerror();
    for (const std::string &name : kExports)
        EXPECT_NE(dlsym(library(), name.c_str()), nullptr) << name;
    for (const char *hidden : {"getIndexFromRegName", "a2i", "computate_check", "handShakeFrame",
                               "REG_LIST", "notifyHost"})
        EXPECT_EQ(dlsym(library(), hidden), nullptr) << hidden << " is visible";
}

TEST(LoadedLibrary, IdentityThroughResolvedPointers)
{
    const QList<QString> bitNames = {"P_bit", "M_bit", "L_bit", "K_bit", "F_bit", "TX", "CX"};
    const QList<QString> wordNames = {"P_W", "M_W", "L_W", "K_W", "F_W", "D_W",
                                      "S_W", "T_W", "C_W", "N_W", "Z_W"};
    int type = 12345;
    RESOLVE(getProtocolType)(type);
    EXPECT_EQ(type, 0);
    EXPECT_EQ(RESOLVE(getVersion)(), QString("2.0.0.0"));
    QString page = "old", text;
    RESOLVE(getDriverPropertyPage)(page);
    EXPECT_EQ(page, QString("0_0"));
    RESOLVE(getDriverParameter)(text);
    EXPECT_EQ(text, "0,115200,8,NONE,1,0,1," + PROCOTOL_DEFALT_IP_PAR + ",ls_xbc_cpu_direct," +
                        QStringList(wordNames + bitNames).join(','));
    for (int t : {0, 1, 2, -1, INT_MIN}) {
        QList<QString> names = {"kept"};
        EXPECT_EQ(RESOLVE(getRegListByType)(t, names), (t == 0 || t == 1) ? 1 : 0) << t;
        EXPECT_EQ(names, QList<QString>{"kept"} + (t == 0 ? bitNames : wordNames)) << t;
    }
    // Format, lowest, highest, then 1 for word and 0 for bit registers, 1.
    const std::pair<QString, QList<QString>> cases[] = {
        {"K_W", {"DDDD", "0", "2559", "1", "1"}},
        {"S_W", {"DDD", "0", "127", "1", "1"}},
        {"L_bit", {"DDDDD.DD", "0.0", "11263.15", "0", "1"}},
        {"CX", {"DDDD", "0", "2047", "0", "1"}},
        {"d_w", {}},
        {"D_W ", {}},
        {"", {}}};
    for (const auto &c : cases) {
        QList<QString> items = {"kept"};
        EXPECT_EQ(RESOLVE(getRegDiscription)(c.first, items), 0);
        EXPECT_EQ(items, QList<QString>{"kept"} + c.second) << c.first.toStdString();
    }
    auto *drv = resolve<Protocol *>("driver");
    ASSERT_NE(drv, nullptr);
    EXPECT_EQ(drv->regNameList, wordNames + bitNames);
    RESOLVE(SetDriverPropertyPage)("page text");
    EXPECT_EQ(drv->propertyPage, QString("page text"));
    AddrValueChangeCallBack cb = [](int, int, const QString &, int) {};
    RESOLVE(setAddrValueChangeCallBack)(cb);
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
        std::string type, name;
        for (std::string s; fields >> s;) {
            type.swap(name);
            name = s;
        }
        name = name.substr(0, name.find('@')); // no version suffix
        if (type.empty())
            continue;
        if (kExports.count(name)) {
            ours.insert(name);
            EXPECT_TRUE(name == "driver" ? (type == "B" || type == "D") : type == "T")
                << name << " has type " << type;
        } else if (!kLinkerSymbols.contains(QString::fromStdString(name))) {
            foreign += "\n  " + type + " " + name;
        }
    }
    ASSERT_EQ(pclose(pipe), 0) << "nm -D --defined-only failed on " << kLibrary;
    EXPECT_EQ(ours, kExports);
    EXPECT_TRUE(foreign.empty()) << "symbols beyond the interface:" << foreign;
}

} // namespace
