// Two copies of the driver in one process, both loaded with RTLD_GLOBAL as a
// runtime with two links (or a second driver exporting the same names) loads
// them: each copy must work on its own `driver`, constructed by itself, and
// build its own frames.
#include "ls_xbc_cpu_direct.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <memory>
#include <string>
#include <vector>

namespace {

struct Copy {
    void *handle = nullptr;
    Protocol *state = nullptr;
    decltype(&intf_setAddrValueChangeCallBack) setCallBack = nullptr;
    decltype(&intf_initProperty) initProperty = nullptr;
    decltype(&intf_addrMerge) addrMerge = nullptr;
    decltype(&intf_getSendFrame) getSendFrame = nullptr;
    decltype(&intf_setData) setData = nullptr;
};

template <typename T> T symbolOf(void *handle, const char *name)
{
    return reinterpret_cast<T>(dlsym(handle, name));
}

Copy loadCopy(const QString &path)
{
    Copy copy;
    copy.handle = dlopen(QFile::encodeName(path).constData(), RTLD_NOW | RTLD_GLOBAL);
    if (copy.handle == nullptr) {
        ADD_FAILURE() << dlerror();
        return copy;
    }
    copy.state = symbolOf<Protocol *>(copy.handle, "driver");
    copy.setCallBack =
        symbolOf<decltype(copy.setCallBack)>(copy.handle, "intf_setAddrValueChangeCallBack");
    copy.initProperty = symbolOf<decltype(copy.initProperty)>(copy.handle, "intf_initProperty");
    copy.addrMerge = symbolOf<decltype(copy.addrMerge)>(copy.handle, "intf_addrMerge");
    copy.getSendFrame = symbolOf<decltype(copy.getSendFrame)>(copy.handle, "intf_getSendFrame");
    copy.setData = symbolOf<decltype(copy.setData)>(copy.handle, "intf_setData");
    return copy;
}

KEY_ADDRESS watchKey(const char *regName, int address, int count)
{
    KEY_ADDRESS key;
    key.stationNo = 1;
    key.regName = QString::fromLatin1(regName);
    key.address = address;
    key.count = count;
    return key;
}

QByteArray nextFrame(const Copy &copy)
{
    auto frame = std::make_unique<FRAME_PRO>();
    if (copy.getSendFrame(frame.get()) == 0 || frame->frameLen <= 0)
        return QByteArray();
    return QByteArray(reinterpret_cast<const char *>(frame->frame), frame->frameLen);
}

int notesOfA = 0;
int notesOfB = 0;

TEST(TwoCopies, EachCopyKeepsItsOwnStateAndFrames)
{
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QString pathA = dir.filePath(QStringLiteral("libdriver_link_a.so"));
    const QString pathB = dir.filePath(QStringLiteral("libdriver_link_b.so"));
    ASSERT_TRUE(QFile::copy(QStringLiteral(XBC_LIBRARY_PATH), pathA));
    ASSERT_TRUE(QFile::copy(QStringLiteral(XBC_LIBRARY_PATH), pathB));

    // Not unloaded: a runtime keeps its drivers until exit.
    const Copy a = loadCopy(pathA);
    const Copy b = loadCopy(pathB);
    ASSERT_TRUE(a.state && a.initProperty && a.addrMerge && a.getSendFrame && a.setData);
    ASSERT_TRUE(b.state && b.initProperty && b.addrMerge && b.getSendFrame && b.setData);
    ASSERT_NE(a.state, b.state);
    ASSERT_NE(reinterpret_cast<void *>(a.getSendFrame), reinterpret_cast<void *>(b.getSendFrame));

    // Each copy constructed its own object: exactly the 18 register names once.
    EXPECT_EQ(a.state->regNameList.size(), REG_COUNT);
    EXPECT_EQ(b.state->regNameList.size(), REG_COUNT);

    a.setCallBack([](int, int, const QString &, int) { ++notesOfA; });
    b.setCallBack([](int, int, const QString &, int) { ++notesOfB; });
    std::vector<unsigned char> statusA(64 * 1024), statusB(64 * 1024);
    std::vector<unsigned char> recipeA(64 * 1024), recipeB(64 * 1024);
    int runStatus = 0;
    QMutex lockA, lockB;
    a.initProperty(statusA.data(), 0, recipeA.data(), &runStatus, "7#0#0#3#64", &lockA);
    b.initProperty(statusB.data(), 0, recipeB.data(), &runStatus, "9#0#0#5#32", &lockB);
    EXPECT_EQ(a.state->driverId, 7);
    EXPECT_EQ(a.state->retryTimes, 3);
    EXPECT_EQ(a.state->maxPacketLen, 64);
    EXPECT_EQ(b.state->driverId, 9);
    EXPECT_EQ(b.state->retryTimes, 5);
    EXPECT_EQ(b.state->maxPacketLen, 32);

    QList<KEY_ADDRESS> keysA = {watchKey("D_W", 100, 10)};
    QList<KEY_ADDRESS> keysB = {watchKey("M_W", 5, 2), watchKey("TX", 40, 1)};
    EXPECT_EQ(a.addrMerge(&keysA), 1);
    EXPECT_EQ(b.addrMerge(&keysB), 2);
    EXPECT_EQ(a.state->readList.size(), 1);
    EXPECT_EQ(b.state->readList.size(), 2);

    // Read frames: STX 'r', the area letter, the byte address as two pairs
    // (low byte first), "00", the byte count.
    EXPECT_EQ(nextFrame(a).mid(1, 10), QByteArray("raC8000014"));
    EXPECT_EQ(nextFrame(b).mid(1, 10), QByteArray("ri0A000004"));

    // A write through one copy queues on that copy alone.
    unsigned char word[2] = {0x34, 0x12};
    a.setData(1, QStringLiteral("D_W"), 101, 1, word, 1000);
    EXPECT_EQ(a.state->writeList.size(), 1);
    EXPECT_TRUE(b.state->writeList.isEmpty());
    EXPECT_EQ(a.state->sendState, 4);
    EXPECT_EQ(b.state->sendState, 4);
}

} // namespace
