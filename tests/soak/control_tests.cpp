// xbc-plc-sim as its users meet it: the control channel the soak relies on,
// its options and their refusals, its trace, and the line time it keeps over
// TCP and the pseudo-terminal. Scan time and torn requests: sim_tests.
#include "sim_process.h"
#include "wait.h"
#include "xbc_sim.h"

#include <QElapsedTimer>
#include <QRegularExpression>
#include <QTcpSocket>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

using namespace xbcsim;

namespace {

const QByteArray READ_D100("\x02raC800000270\x03"); // reply: 9 characters

// The whole answer, or its start when want ends with '*'.
void expectAnswer(Simulator &sim, const QByteArray &command, const QString &want)
{
    const QString got = controlCommand(sim, QString::fromLatin1(command));
    EXPECT_TRUE(got == want || (want.endsWith('*') && got.startsWith(want.chopped(1))))
        << command.constData() << " -> " << got.toStdString();
}

// The exit code, a newline, then what it wrote to its standard output and error.
QString runSim(const QStringList &args, const QByteArray &input)
{
    QProcess p;
    p.start(QStringLiteral(XBC_SIM_PATH), args);
    p.waitForStarted();
    p.write(input);
    p.closeWriteChannel(); // with --control, the end of input stops it
    if (!p.waitForFinished(10000))
        p.kill();
    return QString::number(p.exitCode()) + '\n' + p.readAllStandardOutput() +
           p.readAllStandardError();
}

// A usage error: exit code 2, the reason, the pointer to --help.
QString refused(const char *says)
{
    return "^2\nxbc-plc-sim: .*" + QRegularExpression::escape(QLatin1String(says)) +
           ".*\nTry 'xbc-plc-sim --help'.\n$";
}

// One request and its whole reply on fd, in ms; -1 when it failed.
double exchangeMs(int fd)
{
    QElapsedTimer timer;
    timer.start();
    char reply[64];
    ssize_t got = ::write(fd, READ_D100.constData(), 14) == 14 ? 0 : -1;
    for (pollfd p{fd, POLLIN, 0}; got >= 0 && got < 9;) {
        const ssize_t n = ::poll(&p, 1, 2000) == 1 ? ::read(fd, reply, sizeof reply) : -1;
        got = n > 0 ? got + n : -1;
    }
    return got < 0 ? -1 : timer.nsecsElapsed() / 1e6;
}

int connectTo(const xbctest::SimProcess &sim)
{
    if (sim.pty)
        return ::open(qPrintable(sim.ptyPath), O_RDWR | O_NOCTTY);
    QTcpSocket socket;
    socket.connectToHost(QStringLiteral("127.0.0.1"), sim.port);
    return socket.waitForConnected(3000) ? ::dup(int(socket.socketDescriptor())) : -1;
}

} // namespace

TEST(SimControl, AnswersEveryCommandWithOneLine)
{
    Simulator sim;
    for (const char *preset : {"D_W:1=7", "D_W:32767=9", "M_bit:3.5=1", "TX:8=1"})
        ASSERT_TRUE(applyPreset(sim.memory, QLatin1String(preset)).isEmpty()) << preset;
    QTemporaryDir dir;
    const QByteArray file = dir.filePath(QStringLiteral("memory.bin")).toLocal8Bit();
    const struct {
        QByteArray command;
        const char *answer;
    } table[] = {
        {"read D_W 0 3", "ok 0 7 0"},
        {"read M_bit 3.4 3", "ok 0 1 0"},
        {"read D_W 32767 2", "error *"}, // past the end of the area
        {"save " + file, "ok"},
        {"write D_W 1 0", "error unknown command 'write D_W 1 0'*"},
        {"load /nonexistent/memory.bin", "error *"},
        {"", "error empty line*"},
    };
    for (const auto &e : table)
        expectAnswer(sim, e.command, QLatin1String(e.answer));
    Simulator restarted;
    expectAnswer(restarted, "load " + file, "ok");
    expectAnswer(restarted, "  read   D_W 32767 1 ", "ok 9");
}

TEST(SimTrace, StampsEveryLineAndMarksFaultsThatStillCountAfterFaultsOff)
{
    Simulator sim;
    sim.trace = true;
    QStringList trace;
    sim.traceSink = [&trace](const QString &line) { trace << line; };
    QTcpSocket client;
    client.connectToHost(QStringLiteral("127.0.0.1"), quint16(startTcp(sim, 0, nullptr)));
    for (const char *faults : {"faults corrupt=100", "faults drop=100", "faults off"}) {
        expectAnswer(sim, faults, "ok");
        client.write(READ_D100);
        const int lines = trace.size();
        ASSERT_TRUE(xbctest::waitUntil([&]() { return trace.size() >= lines + 2; }, 3000));
    }
    expectAnswer(sim, "stats", "ok requests 3 naks 0 dropped 1 corrupted 1 *");
    const QString stamp = QStringLiteral("^\\d\\d:\\d\\d:\\d\\d\\.\\d\\d\\d ");
    const QStringList patterns = {"sim: client 127.0.0.1:\\d+ connected$",
                                  "sim <- #1 <STX>raC800000270<ETX>$",
                                  "sim -> #1 <ACK>r[0-9A-F]{6}<EOT> \\[fault corrupt\\]$",
                                  "sim <- #2 ",
                                  "sim -> #2 no reply \\[fault drop\\]$",
                                  "sim <- #3 ",
                                  "sim -> #3 <ACK>r000032<EOT>$"};
    ASSERT_EQ(trace.size(), patterns.size()) << trace.join(QLatin1Char('\n')).toStdString();
    for (int i = 0; i < trace.size(); ++i)
        EXPECT_TRUE(trace[i].contains(QRegularExpression(stamp + patterns[i])))
            << trace[i].toStdString();
}

TEST(SimProgram, RefusesWhatItCannotDoAndAnswersEachControlLineOnce)
{
    const struct {
        QStringList args;
        QByteArray input;
        QString says; // regular expression
    } table[] = {
        {{"--set", "D_W:1=70000"}, "", refused("70000 is too big (a word takes 0 to 65535)")},
        {{"--counter", "M_bit:3.4"}, "", refused("a counter is a word")},
        {{"--blink", "D_W:5"}, "", refused("a blinking value is a bit")},
        {{"--line", "9600,9,NONE,1"}, "", refused("expected BAUD,DATABITS,PARITY,STOPBITS")},
        {{"--scan-ms", "-1"}, "", refused("--scan-ms '-1': expected 0 to 60000 ms")},
        {{"--bogus"}, "", refused("Unknown option 'bogus'.")},
        {{"extra"}, "", refused("unexpected argument 'extra'")},
        {{"--help"}, "", "^0\n(.|\n)*  --line <PARAMS>  (.|\n)*  --scan-ms <MS> "},
        {{"--control"},
         "\n" + QByteArray(100000, 'x') + "\nstats\n",
         "^0\ntcp \\S+\nerror empty line[^\n]*\nerror line too long[^\n]*\nok requests 0 "},
    };
    for (const auto &c : table) {
        const QString ran = runSim(c.args, c.input);
        EXPECT_TRUE(ran.contains(QRegularExpression(c.says))) << ran.left(500).toStdString();
    }
}

TEST(SimProgram, KeepsTheLineTimeOverTcpAndThePseudoTerminal)
{
    const struct {
        bool pty;
        QStringList args;
        double ms; // 14 request and 9 reply characters on the line, and the scan
    } table[] = {
        {false, {"--line", "9600,8,NONE,1"}, 23 * 10 / 9.6},
        {true, {"--line", "9600,7,EVEN,2"}, 23 * 11 / 9.6},
        {false, {}, 0},
    };
    for (const auto &c : table) {
        xbctest::SimProcess sim;
        sim.program = QStringLiteral(XBC_SIM_PATH);
        sim.args = c.args;
        sim.pty = c.pty;
        QString error;
        ASSERT_TRUE(xbctest::startSim(sim, &error)) << error.toStdString();
        const int fd = connectTo(sim);
        double fastest = 1e9; // of a few: a busy machine only ever adds
        for (int i = 0; i < 5 && fd >= 0; ++i)
            fastest = std::min(fastest, exchangeMs(fd));
        EXPECT_GE(fastest, c.ms) << qPrintable(c.args.join(' '));
        EXPECT_LE(fastest, c.ms * 1.02 + 1) << qPrintable(c.args.join(' '));
        ::close(fd);
        xbctest::stopSim(sim);
    }
}
