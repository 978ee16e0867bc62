// xbc-host: plays the HMI runtime against a PLC (or the built-in simulator),
// prints every value change and a summary.
#include "capture.h"
#include "console.h"
#include "xbc_host.h"
#include "xbc_sim.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>

#include <csignal>
#include <cstdio>

#ifndef XBC_DRIVER_PATH
#define XBC_DRIVER_PATH ""
#endif
#ifndef XBC_INSTALLED_DRIVER
#define XBC_INSTALLED_DRIVER ""
#endif

namespace {

volatile std::sig_atomic_t stopRequested = 0;

void onSignal(int) { stopRequested = 1; }

void printOut(const QString &text)
{
    std::fprintf(stdout, "%s\n", text.toLocal8Bit().constData());
    std::fflush(stdout);
}

int usageError(const QString &text)
{
    std::fprintf(stderr, "xbc-host: %s\n", text.toLocal8Bit().constData());
    std::fprintf(stderr, "Try 'xbc-host --help'.\n");
    return 2;
}

// The driver library: --driver, else XBC_DRIVER_LIBRARY, else the installed
// one where the install layout puts it relative to this program, else the one
// built with this program, else libls_xbc_cpu_direct.so beside the program.
QString driverPath(const QString &fromOption)
{
    if (!fromOption.isEmpty())
        return fromOption;
    const QString fromEnv = qEnvironmentVariable("XBC_DRIVER_LIBRARY");
    if (!fromEnv.isEmpty())
        return fromEnv;
    const QString installed = QStringLiteral(XBC_INSTALLED_DRIVER);
    if (!installed.isEmpty()) {
        const QString path =
            QFileInfo(QDir(QCoreApplication::applicationDirPath()), installed).absoluteFilePath();
        if (QFileInfo::exists(path))
            return QDir::cleanPath(path);
    }
    const QString built = QStringLiteral(XBC_DRIVER_PATH);
    if (!built.isEmpty() && QFileInfo::exists(built))
        return built;
    return QCoreApplication::applicationDirPath() + QStringLiteral("/libls_xbc_cpu_direct.so");
}

// Live values so a demo shows changes: a counter word and two blinking bits.
void startBuiltInSimulator(xbcsim::Simulator &sim, xbchost::LinkConfig &link)
{
    xbcsim::Location loc;
    xbcsim::parseLocation(QStringLiteral("D_W:0"), loc);
    sim.live.counters.append(loc);
    xbcsim::parseLocation(QStringLiteral("M_bit:0.0"), loc);
    sim.live.blinks.append(loc);
    xbcsim::parseLocation(QStringLiteral("TX:0"), loc);
    sim.live.blinks.append(loc);
    sim.live.periodMs = 500;
    for (int i = 0; i < 10; ++i)
        xbcsim::writeWord(sim, xbcsim::AREA_D, 100 + i, quint16(1000 + i));
    xbcsim::writeBit(sim, xbcsim::AREA_M, 35 * 16 + 3, true);
    xbcsim::writeBit(sim, xbcsim::AREA_TX, 7, true);
    xbcsim::startLive(sim);
    QString error;
    const int port = xbcsim::startTcp(sim, 0, &error);
    link.kind = xbchost::LinkConfig::Tcp;
    link.host = QStringLiteral("127.0.0.1");
    link.port = quint16(qMax(port, 0));
    if (port < 0)
        std::fprintf(stderr, "xbc-host: built-in simulator: %s\n", error.toLocal8Bit().constData());
    else
        printOut(QStringLiteral("built-in simulator on 127.0.0.1:%1 (D_W 0 counts, M_bit 0.0 "
                                "and TX 0 blink)").arg(port));
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("xbc-host"));

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral(
        "Runtime stand-in for the ls_xbc_cpu_direct driver.\n"
        "Loads the driver library, hands it the watched addresses and runs the\n"
        "communication loop: next frame from the driver, send it, collect the reply\n"
        "(until EOT, the expected length or a timeout), hand it back. Prints every\n"
        "value change (time, station, register, address, value) and a summary.\n"
        "Without --tcp or --serial a built-in simulator is started on a free\n"
        "loopback port. The driver library is --driver, else XBC_DRIVER_LIBRARY,\n"
        "else the installed one (found from this program's place), else the one\n"
        "built with this program.\n\n"
        "Examples:\n"
        "  xbc-host --watch D_W:100:10 --watch M_bit:35.3 --watch TX:7 --write D_W:100=1234\n"
        "  xbc-host --tcp 127.0.0.1:PORT --watch D_W:0 --trace --duration 3\n"
        "  xbc-host --serial /dev/pts/5 --line 115200,8,NONE,1 --watch M_W:0:4"));
    parser.addHelpOption();
    const QCommandLineOption tcpOpt(QStringLiteral("tcp"),
        QStringLiteral("Connect to HOST:PORT (port 8000 when omitted)."), QStringLiteral("HOST:PORT"));
    const QCommandLineOption serialOpt(QStringLiteral("serial"),
        QStringLiteral("Use the serial device DEVICE."), QStringLiteral("DEVICE"));
    const QCommandLineOption lineOpt(QStringLiteral("line"),
        QStringLiteral("Serial line parameters BAUD,DATABITS,PARITY,STOPBITS (default 115200,8,NONE,1)."),
        QStringLiteral("PARAMS"), QStringLiteral("115200,8,NONE,1"));
    const QCommandLineOption watchOpt(QStringLiteral("watch"),
        QStringLiteral("Watch COUNT values from ADDRESS, in the register's own notation: "
                       "D_W:100:10, M_bit:35.3, TX:7 (repeatable)."),
        QStringLiteral("REG:ADDRESS[:COUNT]"));
    const QCommandLineOption writeOpt(QStringLiteral("write"),
        QStringLiteral("Write VALUE once the first poll cycle is done: D_W:100=1234, M_bit:35.3=1; "
                       "several comma-separated values fill consecutive addresses (repeatable)."),
        QStringLiteral("REG:ADDRESS=VALUE"));
    const QCommandLineOption propsOpt(QStringLiteral("props"),
        QStringLiteral("Property string driverId#localWriteOnly#spare#retryTimes#maxPacketLen "
                       "(default 1#0#0#3#64)."),
        QStringLiteral("PROPS"), QStringLiteral("1#0#0#3#64"));
    const QCommandLineOption traceOpt(QStringLiteral("trace"),
        QStringLiteral("Print every frame sent and received, control bytes shown as <STX> etc."));
    const QCommandLineOption driverOpt(
        QStringLiteral("driver"),
        QStringLiteral("Load the driver library PATH instead of the installed or built one."),
        QStringLiteral("PATH"));
    const QCommandLineOption durationOpt(QStringLiteral("duration"),
        QStringLiteral("Run this many seconds (default 5; 0 runs until interrupted)."),
        QStringLiteral("SECONDS"), QStringLiteral("5"));
    const QCommandLineOption captureOpt(QStringLiteral("capture"),
        QStringLiteral("Write every frame sent and every reply received (a timeout as an empty "
                       "record) to FILE, a pcap file for Wireshark with the xbc dissector."),
        QStringLiteral("FILE"));
    parser.addOptions({tcpOpt, serialOpt, lineOpt, watchOpt, writeOpt, propsOpt, traceOpt,
                       durationOpt, driverOpt});
    parser.addOption(captureOpt);
    const QCommandLineOption httpOpt(
        QStringLiteral("http"),
        QStringLiteral("Serve the browser console on [ADDRESS:]PORT: live values, watches, writes, "
                       "link state and frames. Loopback unless ADDRESS is given; PORT 0 picks a "
                       "free port; the address to open is printed. Runs until interrupted unless "
                       "--duration is given."),
        QStringLiteral("[ADDRESS:]PORT"));
    const QCommandLineOption httpTokenOpt(
        QStringLiteral("http-token"),
        QStringLiteral("Access token the console requires of every request (made up and printed "
                       "when the console listens on an address other than loopback)."),
        QStringLiteral("TOKEN"));
    parser.addOptions({httpOpt, httpTokenOpt});
    parser.process(app);

    if (!parser.positionalArguments().isEmpty())
        return usageError(QStringLiteral("unexpected argument '%1'").arg(parser.positionalArguments().first()));
    if (parser.isSet(tcpOpt) && parser.isSet(serialOpt))
        return usageError(QStringLiteral("--tcp and --serial exclude each other"));
    if (parser.isSet(lineOpt) && !parser.isSet(serialOpt))
        return usageError(QStringLiteral("--line goes with --serial"));
    bool ok = false;
    const double duration = parser.value(durationOpt).toDouble(&ok);
    if (!ok || duration < 0)
        return usageError(QStringLiteral("--duration: expected a number of seconds"));

    xbchost::Host host;
    host.config.properties = parser.value(propsOpt);
    host.config.trace = parser.isSet(traceOpt);
    host.config.printChanges = true;
    host.config.cycleFloorMs = 50; // a panel's scan rate, not a busy loop
    if (parser.value(propsOpt).split(QLatin1Char('#')).size() < 5)
        return usageError(QStringLiteral("--props '%1': expected five numbers separated by '#'")
                              .arg(parser.value(propsOpt)));

    const QString path = driverPath(parser.value(driverOpt));
    QString error;
    if (!xbchost::loadDriver(host.api, path, &error)) {
        std::fprintf(stderr, "xbc-host: %s\n", error.toLocal8Bit().constData());
        return 2;
    }
    {
        QList<QString> names;
        host.api.getRegListByType(0, names);
        host.bitRegisters = names;
    }

    for (const QString &w : parser.values(watchOpt)) {
        xbchost::WatchItem item;
        error = xbchost::parseWatch(host, w, item);
        if (!error.isEmpty())
            return usageError(QStringLiteral("--watch %1").arg(error));
        xbchost::addWatch(host, item);
    }
    QList<xbchost::WriteItem> writes;
    for (const QString &w : parser.values(writeOpt)) {
        xbchost::WriteItem item;
        error = xbchost::parseWrite(host, w, item);
        if (!error.isEmpty())
            return usageError(QStringLiteral("--write %1").arg(error));
        writes.append(item);
    }

    xbcsim::Simulator sim;
    if (parser.isSet(tcpOpt)) {
        error = xbchost::parseTcpTarget(parser.value(tcpOpt), host.link.config);
        if (!error.isEmpty())
            return usageError(error);
    } else if (parser.isSet(serialOpt)) {
        host.link.config.kind = xbchost::LinkConfig::Serial;
        host.link.config.device = parser.value(serialOpt);
        host.link.config.line = parser.value(lineOpt);
        xbchost::SerialLine line;
        error = xbchost::parseSerialLine(host.link.config.line, line);
        if (!error.isEmpty())
            return usageError(QStringLiteral("--line %1").arg(error));
    } else {
        startBuiltInSimulator(sim, host.link.config);
    }

    printOut(QStringLiteral("driver %1 version %2, properties %3, %4 watched range(s)")
                 .arg(path, host.api.getVersion(), host.config.properties)
                 .arg(host.keys.size()));
    xbchost::Capture capture;
    if (parser.isSet(captureOpt)) {
        error = xbchost::openCapture(capture, parser.value(captureOpt));
        if (!error.isEmpty())
            return usageError(error);
        host.capture = &capture;
    }
    xbchost::startRun(host);
    xbchost::ConsoleHandle console;
    if (parser.isSet(httpOpt)) {
        xbchost::ConsoleOptions http;
        error =
            xbchost::parseConsoleOptions(parser.value(httpOpt), parser.value(httpTokenOpt), http);
        QString url;
        if (error.isEmpty())
            console = xbchost::startConsole(host, http, &url, &error);
        if (!console)
            return usageError(error);
        printOut(QStringLiteral("console: %1").arg(url));
    }

    std::signal(SIGINT, onSignal);
    std::signal(SIGTERM, onSignal);
    const bool consoleUntilStopped = parser.isSet(httpOpt) && !parser.isSet(durationOpt);
    const int totalMs =
        duration > 0 && !consoleUntilStopped ? int(qMin(duration * 1000.0, 1e9)) : 1000000000;
    QElapsedTimer clock;
    clock.start();
    const auto stopped = []() { return stopRequested != 0; };

    if (!writes.isEmpty()) {
        // Writes go after the first poll cycle, so the printed changes show the
        // PLC's values first and the written ones after.
        xbchost::runFor(host, 1000000000, qMin(totalMs, 2000), [&host]() {
            return stopRequested != 0 || host.stats.pollCycles > 0 ||
                   (host.readBlocks > 0 && host.stats.pollReads >= host.readBlocks);
        });
        for (const xbchost::WriteItem &w : writes) {
            printOut(QStringLiteral("write %1:%2 = %3").arg(w.regName, w.addressText,
                         [&w]() { QStringList v; for (int x : w.values) v << QString::number(x); return v.join(QLatin1Char(',')); }()));
            xbchost::queueWriteItem(host, w);
        }
    }
    const qint64 left = totalMs - clock.elapsed();
    if (left > 0)
        xbchost::runFor(host, 1000000000, int(left), stopped);

    if (host.link.connects == 0)
        std::fprintf(stderr, "xbc-host: the link never came up\n");
    printOut(xbchost::summaryText(host));
    xbchost::closeLink(host);
    xbchost::closeCapture(capture);
    return host.link.connects > 0 ? 0 : 1;
}
