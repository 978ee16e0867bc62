// Two copies of the driver in one process, both loaded with RTLD_GLOBAL as a
// runtime with two links (or a second driver exporting the same names) loads
// them: each copy must work on its own `driver`, constructed by itself, and
// build its own frames.
#include "ls_xbc_cpu_direct.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <QFile>
#include <QTemporaryDir>

#include <memory>
#include <vector>

namespace {

struct Copy {
    Protocol *state = nullptr;
#define XBC_POINTER(name) decltype(&intf_##name) name = nullptr;
    XBC_FOR_EACH_EXPORTED_FUNCTION(XBC_POINTER)
#undef XBC_POINTER
};

// Not unloaded: a runtime keeps its drivers until exit.
Copy loadCopy(const QString &path)
{
    Copy copy;
    void *handle = dlopen(QFile::encodeName(path).constData(), RTLD_NOW | RTLD_GLOBAL);
    if (handle == nullptr) {
        ADD_FAILURE() << dlerror();
        return copy;
    }
    copy.state = reinterpret_cast<Protocol *>(dlsym(handle, XBC_EXPORTED_OBJECT));
#define XBC_RESOLVE(name)                                                                          \
    copy.name = reinterpret_cast<decltype(copy.name)>(dlsym(handle, "intf_" #name));
    XBC_FOR_EACH_EXPORTED_FUNCTION(XBC_RESOLVE)
#undef XBC_RESOLVE
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
    Copy copies[2];
    for (int i = 0; i < 2; ++i) {
        const QString path = dir.filePath(QString("libdriver_link_%1.so").arg(i));
        ASSERT_TRUE(QFile::copy(QStringLiteral(XBC_LIBRARY_PATH), path));
        copies[i] = loadCopy(path);
        ASSERT_TRUE(copies[i].state && copies[i].setData && copies[i].getSendFrame);
        // Each copy constructed its own object: exactly the 18 register names once.
        EXPECT_EQ(copies[i].state->regNameList.size(), REG_COUNT);
    }
    const Copy &a = copies[0], &b = copies[1];
    ASSERT_NE(a.state, b.state);
    ASSERT_NE(reinterpret_cast<void *>(a.getSendFrame), reinterpret_cast<void *>(b.getSendFrame));

    a.setAddrValueChangeCallBack([](int, int, const QString &, int) { ++notesOfA; });
    b.setAddrValueChangeCallBack([](int, int, const QString &, int) { ++notesOfB; });
    std::vector<unsigned char> statusA(64 * 1024), statusB(64 * 1024);
    int runStatus = 0;
    QMutex lockA, lockB;
    a.initProperty(statusA.data(), 0, nullptr, &runStatus, "7#0#0#3#64", &lockA);
    b.initProperty(statusB.data(), 0, nullptr, &runStatus, "9#0#0#5#32", &lockB);
    EXPECT_EQ(std::vector<int>({a.state->driverId, a.state->retryTimes, a.state->maxPacketLen,
                                b.state->driverId, b.state->retryTimes, b.state->maxPacketLen}),
              std::vector<int>({7, 3, 64, 9, 5, 32}));

    QList<KEY_ADDRESS> keysA = {watchKey("D_W", 100, 10)};
    QList<KEY_ADDRESS> keysB = {watchKey("M_W", 5, 2), watchKey("TX", 40, 1)};
    EXPECT_EQ(a.addrMerge(&keysA), 1);
    EXPECT_EQ(b.addrMerge(&keysB), 2);
    // Read frames: STX 'r', the area letter, the byte address as two pairs
    // (low byte first), "00", the byte count.
    EXPECT_EQ(nextFrame(a).mid(1, 10), QByteArray("raC8000014"));
    EXPECT_EQ(nextFrame(b).mid(1, 10), QByteArray("ri0A000004"));

    // A write through one copy queues and notifies on that copy alone.
    unsigned char word[2] = {0x34, 0x12};
    a.setData(1, QStringLiteral("D_W"), 101, 1, word, 1000);
    EXPECT_EQ(a.state->writeList.size(), 1);
    EXPECT_TRUE(b.state->writeList.isEmpty());
    EXPECT_EQ(notesOfA, 1);
    EXPECT_EQ(notesOfB, 0);
}

} // namespace
