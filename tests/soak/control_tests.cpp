// The simulator's control channel, which the soak relies on to judge the
// driver: answers to good and bad commands, memory saved and loaded whole, and
// a dropped link that really drops.
#include "xbc_sim.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTimer>

#include <gtest/gtest.h>

using namespace xbcsim;

namespace {

struct Exchange {
    const char *command;
    const char *answer; // whole answer, or its start when it ends with '*'
};

void expectAnswer(Simulator &sim, const Exchange &e)
{
    const QString got = controlCommand(sim, QLatin1String(e.command));
    QString want = QLatin1String(e.answer);
    if (want.endsWith(QLatin1Char('*'))) {
        want.chop(1);
        EXPECT_TRUE(got.startsWith(want)) << e.command << " -> " << got.toStdString();
    } else {
        EXPECT_EQ(got, want) << e.command;
    }
}

bool waitFor(const std::function<bool()> &condition, int maxMs)
{
    QElapsedTimer timer;
    timer.start();
    while (!condition() && timer.elapsed() < maxMs) {
        QEventLoop loop;
        QTimer::singleShot(5, &loop, &QEventLoop::quit);
        loop.exec();
    }
    return condition();
}

} // namespace

TEST(SimControl, AnswersEveryCommandWithOneLine)
{
    Simulator sim;
    writeWord(sim, AREA_D, 1, 7);
    writeWord(sim, AREA_D, 32767, 9);
    writeBit(sim, AREA_M, 3 * 16 + 5, true);
    writeBit(sim, AREA_TX, 8, true);
    const Exchange table[] = {
        {"read D_W 0 3", "ok 0 7 0"},
        {"  read   D_W 32767 1 ", "ok 9"},
        {"read M_bit 3.4 3", "ok 0 1 0"},
        {"read TX 7 2", "ok 0 1"},
        {"read D_W 32767 2", "error *"}, // past the end of the area
        {"read D_W 0 0", "error *"},
        {"read D_W 0 4097", "error *"},
        {"read D_W x 1", "error *"},
        {"read Q_W 0 1", "error *"},
        {"read M_bit 3.16 1", "error *"},
        {"read D_W 0", "error *"},
        {"faults drop=101", "error *"},
        {"faults drop=10,seed=3", "ok"},
        {"faults off", "ok"},
        {"stats", "ok requests 0 naks 0 dropped 0 corrupted 0 truncated 0 doubled 0"},
        {"drop link", "ok"}, // no client, no pseudo-terminal: nothing to drop
        {"save", "error *"},
        {"reboot", "error unknown command 'reboot'*"},
    };
    for (const Exchange &e : table)
        expectAnswer(sim, e);
}

TEST(SimControl, FaultsOffClearsEveryFault)
{
    Simulator sim;
    expectAnswer(sim, {"faults drop=100,delay=50", "ok"});
    EXPECT_EQ(sim.faults.config.dropPercent, 100);
    expectAnswer(sim, {"faults off", "ok"});
    EXPECT_EQ(sim.faults.config.dropPercent, 0);
    EXPECT_EQ(sim.faults.config.delayMs, 0);
}

TEST(SimControl, SavedMemoryLoadsBackWholeAndShortFilesAreRefused)
{
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QString file = dir.filePath(QStringLiteral("memory.bin"));
    Simulator first;
    writeWord(first, AREA_D, 32767, 0xBEEF);
    writeWord(first, AREA_P, 0, 0x0102);
    writeBit(first, AREA_CX, 2047, true);
    expectAnswer(first, {qPrintable(QStringLiteral("save ") + file), "ok"});

    Simulator second;
    expectAnswer(second, {qPrintable(QStringLiteral("load ") + file), "ok"});
    EXPECT_EQ(readWord(second, AREA_D, 32767), 0xBEEF);
    EXPECT_EQ(readWord(second, AREA_P, 0), 0x0102);
    EXPECT_TRUE(readBit(second, AREA_CX, 2047));

    QFile shortFile(file);
    ASSERT_TRUE(shortFile.open(QIODevice::WriteOnly));
    shortFile.write("\x01\x02\x03", 3);
    shortFile.close();
    expectAnswer(second, {qPrintable(QStringLiteral("load ") + file), "error *"});
    EXPECT_EQ(readWord(second, AREA_D, 32767), 0xBEEF) << "a refused file changed the memory";
    expectAnswer(second, {"load /nonexistent/memory.bin", "error *"});
}

TEST(SimControl, DropLinkClosesTcpClientsAndRenewsThePseudoTerminal)
{
    Simulator sim;
    QString error;
    const int port = startTcp(sim, 0, &error);
    ASSERT_GT(port, 0) << error.toStdString();
    const QString oldPath = startPty(sim, &error);
    ASSERT_FALSE(oldPath.isEmpty()) << error.toStdString();

    QTcpSocket client;
    client.connectToHost(QStringLiteral("127.0.0.1"), quint16(port));
    ASSERT_TRUE(waitFor(
        [&]() {
            return client.state() == QAbstractSocket::ConnectedState && !sim.clients.isEmpty();
        },
        3000));
    const QString answer = controlCommand(sim, QStringLiteral("drop link"));
    ASSERT_TRUE(answer.startsWith(QLatin1String("ok pty /"))) << answer.toStdString();
    EXPECT_TRUE(
        waitFor([&]() { return client.state() == QAbstractSocket::UnconnectedState; }, 3000))
        << "the TCP client stayed connected";
    EXPECT_GE(sim.ptyMaster, 0);
    EXPECT_EQ(answer.mid(7), sim.ptyPath);

    // The server still takes new clients.
    QTcpSocket again;
    again.connectToHost(QStringLiteral("127.0.0.1"), quint16(port));
    EXPECT_TRUE(waitFor([&]() { return again.state() == QAbstractSocket::ConnectedState; }, 3000));
}

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
