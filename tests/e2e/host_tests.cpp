// The runtime stand-in: library loading errors, argument parsing, link
// reconnection, reply diagnostics, the cycle planner, and xbc-host's commands
// as a user runs them against xbc-plc-sim.
// The driver header first: Qt's keyword macros (slots) must not reach it.
#include "sim_process.h"
#include "wait.h"
#include "xbc_host.h"

#include <QProcess>
#include <QRegularExpression>
#include <QTcpServer>

#include <gtest/gtest.h>

#include <tuple>

using namespace xbchost;
using xbctest::waitUntil;

TEST(HostLoad, NamesAMissingLibraryAndEveryMissingSymbol)
{
    DriverApi api;
    QString error;
    EXPECT_FALSE(loadDriver(api, QStringLiteral("/nonexistent/libnothing.so"), &error));
    EXPECT_TRUE(error.contains("cannot load driver library '/nonexistent/libnothing.so'"))
        << error.toStdString();
    EXPECT_FALSE(loadDriver(api, QStringLiteral(XBC_STUB_DRIVER_PATH), &error));
    for (const char *name :
         {"intf_getProtocolType", "intf_setAddrValueChangeCallBack", "intf_initProperty",
          "intf_addrMerge", "intf_dealRcvFrame", "intf_setData", "intf_checkAddrValidity",
          "intf_SetDriverPropertyPage"})
        EXPECT_TRUE(error.contains(QLatin1String(name))) << name << ": " << error.toStdString();
    // Present names are not reported.
    for (const char *present : {"intf_getSendFrame,", "intf_getData,"})
        EXPECT_FALSE(error.contains(QLatin1String(present))) << error.toStdString();
    EXPECT_FALSE(error.endsWith(QLatin1String("driver"))) << error.toStdString();
    EXPECT_EQ(api.getSendFrame, nullptr); // nothing half-usable is left behind
}

TEST(HostArgs, ParsesTcpTargetsAndSerialLines)
{
    const std::tuple<const char *, const char *, int> tcp[] = {
        // port 0: refused
        {"127.0.0.1:1234", "127.0.0.1", 1234},
        {"localhost", "localhost", 8000},
        {"[::1]:99", "::1", 99},
        {"127.0.0.1:0", "", 0},
        {"127.0.0.1:70000", "", 0},
        {":80", "", 0}};
    for (const auto &[text, host, port] : tcp) {
        LinkConfig link;
        const bool ok = parseTcpTarget(QLatin1String(text), link).isEmpty();
        EXPECT_EQ(std::make_tuple(ok ? link.host : QString(), ok ? int(link.port) : 0),
                  std::make_tuple(QString(host), port))
            << text;
    }
    using P = QSerialPort;
    const std::tuple<const char *, int, P::Parity, P::StopBits> serial[] = {
        // baud 0: refused
        {"9600,7,EVEN,2", 9600, P::EvenParity, P::TwoStop},
        {"19200,8,odd,1.5", 19200, P::OddParity, P::OneAndHalfStop},
        {"115200,9,NONE,1", 0, P::NoParity, P::OneStop},
        {"115200,8,MAYBE,1", 0, P::NoParity, P::OneStop},
        {"115200,8,NONE", 0, P::NoParity, P::OneStop},
        {"fast,8,NONE,1", 0, P::NoParity, P::OneStop}};
    for (const auto &[text, baud, parity, stop] : serial) {
        SerialLine line; // a refused text leaves it as it was
        const bool ok = parseSerialLine(QLatin1String(text), line).isEmpty();
        EXPECT_EQ(std::make_tuple(ok ? line.baud : 0, line.parity, line.stopBits),
                  std::make_tuple(baud, parity, stop))
            << text;
    }
}

TEST(HostLink, ReconnectsWithGrowingPauses)
{
    // A free loopback port with nobody listening yet.
    QTcpServer probe;
    ASSERT_TRUE(probe.listen(QHostAddress::LocalHost, 0));
    const quint16 port = probe.serverPort();
    probe.close();

    Host host;
    QStringList warnings;
    host.config.warn = [&](const QString &t) { warnings << t; };
    host.link.config.host = QStringLiteral("127.0.0.1");
    host.link.config.port = port;
    EXPECT_FALSE(ensureLink(host));
    EXPECT_EQ(host.link.backoffMs, int(BACKOFF_FIRST_MS));
    EXPECT_FALSE(ensureLink(host)); // inside the pause: no attempt
    EXPECT_EQ(host.link.failedAttempts, 1);
    waitUntil([]() { return false; }, BACKOFF_FIRST_MS + 20);
    EXPECT_FALSE(ensureLink(host));
    EXPECT_EQ(host.link.failedAttempts, 2);
    EXPECT_EQ(host.link.backoffMs, 2 * BACKOFF_FIRST_MS);

    QTcpServer server;
    ASSERT_TRUE(server.listen(QHostAddress::LocalHost, port));
    ASSERT_TRUE(waitUntil([&]() { return ensureLink(host); }, 3000));
    EXPECT_EQ(host.link.connects, 1);
    ASSERT_TRUE(waitUntil([&]() { return server.hasPendingConnections(); }, 1000));

    // The peer goes away: the drop is counted and a new connection follows.
    delete server.nextPendingConnection();
    ASSERT_TRUE(waitUntil([&]() { return !ensureLink(host); }, 2000));
    EXPECT_EQ(host.stats.linkDrops, 1);
    ASSERT_TRUE(waitUntil([&]() { return ensureLink(host); }, 3000));
    EXPECT_EQ(host.link.connects, 2);
    EXPECT_TRUE(warnings.filter(QStringLiteral("lost")).size() == 1)
        << warnings.join('\n').toStdString();
}

// The frame for D_W 0, one word; a reply with the checksum pair of its bytes.
QByteArray withSum(QByteArray body, char end)
{
    quint8 sum = 0;
    for (int i = 1; i < body.size(); ++i)
        sum = quint8(sum + quint8(body[i]));
    return body + QByteArray::number(sum, 16).toUpper().rightJustified(2, '0') + end;
}

TEST(HostDiagnostics, SaysWhyAReplyWasRefused)
{
    FRAME_PRO f;
    const QByteArray request = withSum(QByteArray("\x02ra000000") + "02", '\x03');
    memcpy(f.frame, request.constData(), request.size());
    f.frameLen = request.size();
    f.replyLen = 9;
    f.wordCount = 1;
    const QByteArray good = withSum("\x06r2A00", '\x04');
    struct Case {
        QByteArray reply;
        const char *why;
    } cases[] = {
        {"", "no reply within 500 ms"},
        {QByteArray(good).replace(6, 1, "0"), "wrong checksum: received 05, expected 45"},
        {withSum("\x06r2A", '\x04'), "reply too short: 7 bytes, expected 9"},
        {withSum("\x06r2A0000", '\x04'), "reply too long: 11 bytes, expected 9"},
        {withSum("\x15r05", '\x04'), "NAK, error code 05: address out of range"},
        {request, "the reply echoes the request (14 bytes)"},
    };
    for (const Case &c : cases) {
        const QString text = replyProblemText(f, c.reply, 500);
        EXPECT_TRUE(text.startsWith(QLatin1String(c.why))) << text.toStdString();
    }
}

TEST(HostPlan, CountsTheDriversFramesAndBytesOfOneCycle)
{
    Host host;
    QString error;
    ASSERT_TRUE(loadDriver(host.api, QStringLiteral(XBC_DRIVER_PATH), &error))
        << error.toStdString();
    host.api.getRegListByType(0, host.bitRegisters);
    struct Case {
        QStringList watches;
        int maxPacketLen, blocks, frames, requestBytes, replyBytes;
    } cases[] = {
        {{"D_W:0"}, 64, 1, 1, 14, 9},
        {{"D_W:0:300"}, 64, 1, 3, 42, 2 * (127 * 4 + 5) + 46 * 4 + 5},
        {{"D_W:0", "D_W:10", "D_W:40", "D_W:100:3"}, 64, 2, 2, 28, 186},
        {{"D_W:0", "D_W:10", "D_W:40", "D_W:100:3"}, 8, 4, 4, 56, 44},
        {{"M_bit:35.3", "TX:7", "M_bit:36.0"}, 64, 2, 2, 28, 13 + 9},
    };
    for (const Case &c : cases) {
        host.keys.clear();
        for (const QString &text : c.watches) {
            WatchItem w;
            ASSERT_EQ(parseWatch(host, text, w), QString());
            addWatch(host, w);
        }
        CyclePlan plan;
        ASSERT_EQ(planCycle(host, QStringLiteral("1#0#0#3#%1").arg(c.maxPacketLen), plan),
                  QString());
        const std::string name = c.watches.join(' ').toStdString();
        EXPECT_EQ(plan.blocks.size(), c.blocks) << name;
        EXPECT_EQ(plan.frames.size(), c.frames) << name;
        EXPECT_EQ(plan.requestBytes, c.requestBytes) << name;
        EXPECT_EQ(plan.replyBytes, c.replyBytes) << name;
    }
    SerialLine line;
    ASSERT_EQ(parseSerialLine(QStringLiteral("9600,8,EVEN,1"), line), QString());
    EXPECT_DOUBLE_EQ(lineTimeMs(214, line), 214 * 11 * 1000.0 / 9600);
}

#ifdef XBC_HOST_PROGRAM
struct HostRun {
    int exitCode = -1;
    QString out, err;
};

// xbc-plc-sim with simArgs, then xbc-host args against it (no simulator for
// "-"); `during` runs while the host does.
HostRun runWithSim(const QString &simArgs, const QString &args,
                   const std::function<void(xbctest::SimProcess &)> &during = {})
{
    xbctest::SimProcess sim;
    sim.program = QStringLiteral(XBC_SIM_PROGRAM);
    sim.args = simArgs.split(' ', Qt::SkipEmptyParts);
    QString error;
    if (simArgs != QLatin1String("-") && !xbctest::startSim(sim, &error))
        return {-1, QString(), error};
    QProcess p;
    p.start(QStringLiteral(XBC_HOST_PROGRAM),
            args.split(' ') +
                QStringList{"--tcp", QStringLiteral("127.0.0.1:%1").arg(sim.port ? sim.port : 1)});
    if (during && p.waitForStarted())
        during(sim);
    p.waitForFinished(20000);
    xbctest::stopSim(sim);
    return {p.exitCode(), QString::fromLocal8Bit(p.readAllStandardOutput()),
            QString::fromLocal8Bit(p.readAllStandardError())};
}

// Regular expressions in which "." matches line ends as well.
bool matches(const QString &text, const QString &pattern)
{
    return text.contains(
        QRegularExpression(pattern, QRegularExpression::DotMatchesEverythingOption));
}

TEST(HostProgram, OneShotCommandsAndTheLoopSayWhatHappened)
{
    struct Case {
        QString sim, args;
        int exitCode;
        QString out, err; // regular expressions
    } cases[] = {
        {"", "read D_W:5:2 M_bit:35.3", 0, "^D_W:5 = 42\nD_W:6 = 0\nM_bit:35.3 = 0\n$", ""},
        {"", "read D_W:5 --json", 0, "\"known\":true.*\"value\":42", ""},
        {"--faults drop=100", "read D_W:5 --timeout 3", 1, "^D_W:5 = unknown\n$",
         "retry 1 of 3, read D_W 5 \\(1 words\\): no reply within 500 ms.*plc: not answering.* 1 "
         "of 1 values unknown: the PLC did not answer"},
        {"--faults corrupt=100", "read D_W:5 --props 1#0#0#1#64", 1, "unknown",
         "abandoned read D_W 5 \\(1 words\\) after 1 try: wrong checksum: received"},
        {"--faults truncate=100", "read D_W:5 --props 1#0#0#0#64", 1, "unknown",
         "after 1 try: reply too short: [0-8] bytes, expected 9"},
        {"-", "read D_W:0 --timeout 0.5", 1, "unknown",
         "\\d{3} link: cannot connect.*no complete poll within 0.5 s: the link never came up"},
        {"", "write D_W:6=777 M_bit:35.4=1", 0,
         "\\d{3} write D_W:6 = 777 landed\n.*write M_bit:35.4 = 1 landed", ""},
        {"--faults drop=100", "write D_W:6=777", 1, "^$",
         "1 of 1 writes did not land:\n  D_W:6 = 777: abandoned write D_W 6 \\(1 values\\) after "
         "3"},
        {"", "--write D_W:9=5 --duration 0.3", 0, "D_W:9 = 5 landed.*writes landed 1", ""},
        {"", "--watch M_bit:35.3 --write M_bit:35.3=1 --write M_bit:35.4=1 --duration 0.5", 0,
         "^(?!.*M_bit 35.3 = .*M_bit 35.3 = ).*M_bit 35.3 = 1\n", ""},
        {"--faults drop=100", "--write D_W:5=7 --watch D_W:5 --duration 0.2", 1,
         "D_W 5 = 7 .*D_W 5 = unknown.*writes failed 1", "write D_W:5 = 7 failed"},
        {"", "--bogus", 2, "", "Unknown option 'bogus'.\nTry 'xbc-host --help'."},
        {"", "read D_W:0 --props a#b#c#d#e", 2, "", "five whole numbers"},
    };
    for (const Case &c : cases) {
        const HostRun run =
            runWithSim(c.sim.isEmpty() ? QStringLiteral("--set D_W:5=42") : c.sim, c.args);
        const std::string name = (c.args + " / " + c.sim).toStdString();
        EXPECT_EQ(run.exitCode, c.exitCode) << name << "\n" << run.err.toStdString();
        EXPECT_TRUE(matches(run.out, c.out)) << name << "\n" << run.out.toStdString();
        EXPECT_TRUE(matches(run.err, c.err)) << name << "\n" << run.err.toStdString();
    }
}

TEST(HostProgram, ADroppedLinkIsToldAndCounted)
{
    const HostRun run =
        runWithSim("", "--watch D_W:0 --duration 1.5", [](xbctest::SimProcess &sim) {
            xbctest::waitUntil([]() { return false; }, 500);
            xbctest::simCommand(sim, QStringLiteral("drop link"), nullptr, nullptr);
        });
    EXPECT_TRUE(matches(run.err, "\\d{3} link: 127.0.0.1:\\d+ lost; reconnecting\n"
                                 ".*\\d{3} link: reconnected to 127.0.0.1"))
        << run.err.toStdString();
    EXPECT_TRUE(run.out.contains("link drops 1, reconnects 1; link connected, PLC answering"))
        << run.out.toStdString();
}

// The simulator keeps the line's time: the measured cycle is the planned one.
TEST(HostProgram, MeasuredCycleMatchesThePlannedLineTime)
{
    const QString line = QStringLiteral("115200,8,NONE,1");
    const HostRun run = runWithSim(
        "--line " + line, "--watch D_W:0:300 --watch M_bit:35.3 --duration 2 --line " + line);
    const QRegularExpressionMatch m =
        QRegularExpression(
            "poll cycle ([0-9.]+) ms over \\d+ cycles \\(line time planned ([0-9.]+) ms")
            .match(run.out);
    ASSERT_TRUE(m.hasMatch()) << run.out.toStdString() << run.err.toStdString();
    const double planned = m.captured(2).toDouble();
    EXPECT_NEAR(m.captured(1).toDouble(), planned, 0.05 * planned);
}
#endif
