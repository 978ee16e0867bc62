// The runtime stand-in without the driver: library loading errors, argument
// parsing and link reconnection.
// The driver header first: Qt's keyword macros (slots) must not reach it.
#include "wait.h"
#include "xbc_host.h"

#include <QTcpServer>

#include <gtest/gtest.h>

#include <tuple>

using namespace xbchost;
using xbctest::waitUntil;

TEST(HostLoad, NamesAMissingLibrary)
{
    DriverApi api;
    QString error;
    EXPECT_FALSE(loadDriver(api, QStringLiteral("/nonexistent/libnothing.so"), &error));
    EXPECT_TRUE(
        error.contains(QLatin1String("cannot load driver library '/nonexistent/libnothing.so'")))
        << error.toStdString();
    EXPECT_EQ(api.getSendFrame, nullptr);
}

TEST(HostLoad, NamesEveryMissingSymbol)
{
    DriverApi api;
    QString error;
    EXPECT_FALSE(loadDriver(api, QStringLiteral(XBC_STUB_DRIVER_PATH), &error));
    const char *missing[] = {"intf_getProtocolType",   "intf_setAddrValueChangeCallBack",
                             "intf_initProperty",      "intf_addrMerge",
                             "intf_dealRcvFrame",      "intf_setData",
                             "intf_checkAddrValidity", "intf_SetDriverPropertyPage"};
    for (const char *name : missing)
        EXPECT_TRUE(error.contains(QLatin1String(name))) << name << ": " << error.toStdString();
    // Present names are not reported.
    EXPECT_FALSE(error.contains(QLatin1String("intf_getSendFrame,"))) << error.toStdString();
    EXPECT_FALSE(error.contains(QLatin1String("intf_getData,"))) << error.toStdString();
    EXPECT_FALSE(error.endsWith(QLatin1String("driver"))) << error.toStdString();
    EXPECT_EQ(api.getSendFrame, nullptr); // nothing half-usable is left behind
}

TEST(HostArgs, ParsesTcpTargetsAndSerialLines)
{
    struct Tcp {
        const char *text, *host;
        int port; // 0: refused
    } tcp[] = {{"127.0.0.1:1234", "127.0.0.1", 1234},
               {"localhost", "localhost", 8000},
               {"[::1]:99", "::1", 99},
               {"127.0.0.1:0", "", 0},
               {"127.0.0.1:70000", "", 0},
               {":80", "", 0}};
    for (const Tcp &c : tcp) {
        LinkConfig link;
        const QString error = parseTcpTarget(QString::fromLatin1(c.text), link);
        EXPECT_EQ(error.isEmpty(), c.port != 0) << c.text << ": " << error.toStdString();
        if (c.port != 0) {
            EXPECT_EQ(link.host, QLatin1String(c.host)) << c.text;
            EXPECT_EQ(link.port, c.port) << c.text;
        }
    }
    struct Serial {
        const char *text;
        int baud; // 0: refused
        QSerialPort::Parity parity;
        QSerialPort::StopBits stop;
    } serial[] = {
        {"9600,7,EVEN,2", 9600, QSerialPort::EvenParity, QSerialPort::TwoStop},
        {"19200,8,odd,1.5", 19200, QSerialPort::OddParity, QSerialPort::OneAndHalfStop},
        {"115200,9,NONE,1", 0, {}, {}},
        {"115200,8,MAYBE,1", 0, {}, {}},
        {"115200,8,NONE", 0, {}, {}},
        {"fast,8,NONE,1", 0, {}, {}},
    };
    for (const Serial &c : serial) {
        SerialLine line;
        EXPECT_EQ(parseSerialLine(QString::fromLatin1(c.text), line).isEmpty(), c.baud != 0)
            << c.text;
        if (c.baud != 0) {
            EXPECT_EQ(std::make_tuple(line.baud, line.parity, line.stopBits),
                      std::make_tuple(c.baud, c.parity, c.stop))
                << c.text;
        }
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
