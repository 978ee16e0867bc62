// xbc-host: plays the HMI runtime against a PLC (xbc-plc-sim, or a real one
// over TCP or serial), prints every value change and a summary.
#include "capture.h"
#include "console.h"
#include "xbc_host.h"

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

enum { EXIT_OK = 0, EXIT_NO_LINK = 1, EXIT_USAGE = 2 };
// A panel's scan rate, not a busy loop.
enum { PANEL_CYCLE_MS = 50 };
// Writes wait at most this long for the first poll cycle.
enum { FIRST_CYCLE_WAIT_MS = 2000 };
// "Until interrupted": longer than any run, short of overflowing a timer.
constexpr int UNTIL_STOPPED_MS = 1000000000;

volatile std::sig_atomic_t stopRequested = 0;

void onSignal(int)
{
    stopRequested = 1;
}

bool stopped()
{
    return stopRequested != 0;
}

void printOut(const QString &text)
{
    std::fprintf(stdout, "%s\n", text.toLocal8Bit().constData());
    std::fflush(stdout);
}

int fail(const QString &text)
{
    std::fprintf(stderr, "xbc-host: %s\n", text.toLocal8Bit().constData());
    return EXIT_USAGE;
}

int usageError(const QString &text)
{
    fail(text);
    std::fprintf(stderr, "Try 'xbc-host --help'.\n");
    return EXIT_USAGE;
}

const char DESCRIPTION[] =
    "Runtime stand-in for the ls_xbc_cpu_direct driver.\n"
    "Loads the driver library, hands it the watched addresses and runs the\n"
    "communication loop: next frame from the driver, send it, collect the "
    "reply\n"
    "(until EOT, the expected length or a timeout), hand it back. Prints "
    "every\n"
    "value change (time, station, register, address, value) and a summary.\n"
    "The PLC is --tcp or --serial; xbc-plc-sim simulates one on loopback\n"
    "(scripts/demo.sh starts it and this program together). The driver "
    "library\n"
    "is --driver, else XBC_DRIVER_LIBRARY, else the installed one (found from\n"
    "this program's place), else the one built with this program.\n\n"
    "Examples:\n"
    "  xbc-host --tcp 127.0.0.1:PORT --watch D_W:100:10 --watch M_bit:35.3 "
    "--write D_W:100=1234\n"
    "  xbc-host --tcp 127.0.0.1:PORT --watch D_W:0 --trace --duration 3\n"
    "  xbc-host --serial /dev/pts/5 --line 115200,8,NONE,1 --watch M_W:0:4";

struct Options {
    QCommandLineOption tcp{QStringLiteral("tcp"),
                           QStringLiteral("Connect to HOST:PORT (port 8000 when omitted)."),
                           QStringLiteral("HOST:PORT")};
    QCommandLineOption serial{QStringLiteral("serial"),
                              QStringLiteral("Use the serial device DEVICE."),
                              QStringLiteral("DEVICE")};
    QCommandLineOption line{QStringLiteral("line"),
                            QStringLiteral("Serial line parameters BAUD,DATABITS,PARITY,STOPBITS "
                                           "(default 115200,8,NONE,1)."),
                            QStringLiteral("PARAMS"), QStringLiteral("115200,8,NONE,1")};
    QCommandLineOption watch{
        QStringLiteral("watch"),
        QStringLiteral("Watch COUNT values from ADDRESS, in the register's own notation: "
                       "D_W:100:10, M_bit:35.3, TX:7 (repeatable)."),
        QStringLiteral("REG:ADDRESS[:COUNT]")};
    QCommandLineOption write{
        QStringLiteral("write"),
        QStringLiteral("Write VALUE once the first poll cycle is done: D_W:100=1234, "
                       "M_bit:35.3=1; several comma-separated values fill consecutive "
                       "addresses (repeatable)."),
        QStringLiteral("REG:ADDRESS=VALUE")};
    QCommandLineOption props{QStringLiteral("props"),
                             QStringLiteral("Property string "
                                            "driverId#localWriteOnly#spare#retryTimes#maxPacketLen "
                                            "(default 1#0#0#3#64)."),
                             QStringLiteral("PROPS"), QStringLiteral("1#0#0#3#64")};
    QCommandLineOption trace{
        QStringLiteral("trace"),
        QStringLiteral("Print every frame sent and received, control bytes shown "
                       "as <STX> etc.")};
    QCommandLineOption driver{
        QStringLiteral("driver"),
        QStringLiteral("Load the driver library PATH instead of the installed or "
                       "built one."),
        QStringLiteral("PATH")};
    QCommandLineOption duration{
        QStringLiteral("duration"),
        QStringLiteral("Run this many seconds (default 5; 0 runs until interrupted)."),
        QStringLiteral("SECONDS"), QStringLiteral("5")};
    QCommandLineOption capture{
        QStringLiteral("capture"),
        QStringLiteral("Write every frame sent and every reply received (a timeout as an "
                       "empty "
                       "record) to FILE, a pcap file for Wireshark with the xbc dissector."),
        QStringLiteral("FILE")};
    QCommandLineOption http{
        QStringLiteral("http"),
        QStringLiteral("Serve the browser console on [ADDRESS:]PORT: live "
                       "values, watches, writes, "
                       "link state and frames. Loopback unless ADDRESS is given; "
                       "PORT 0 picks a "
                       "free port; the address to open is printed. Runs until "
                       "interrupted unless "
                       "--duration is given."),
        QStringLiteral("[ADDRESS:]PORT")};
    QCommandLineOption httpToken{
        QStringLiteral("http-token"),
        QStringLiteral("Access token the console requires of every request (made up and "
                       "printed "
                       "when the console listens on an address other than loopback)."),
        QStringLiteral("TOKEN")};

    // The description, --help and every option.
    void addTo(QCommandLineParser &parser) const
    {
        parser.setApplicationDescription(QLatin1String(DESCRIPTION));
        parser.addHelpOption();
        parser.addOptions(all());
    }

    QList<QCommandLineOption> all() const
    {
        return {tcp,   serial,   line,   watch,   write, props,
                trace, duration, driver, capture, http,  httpToken};
    }
};

// How long the loop runs and what it writes on the way.
struct RunPlan {
    int totalMs = 0;
    QList<xbchost::WriteItem> writes;
};

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

// Loads the driver and learns which of its registers hold bits, which the
// checks of watches and writes need.
bool loadDriverFor(xbchost::Host &host, const QString &path, QString *error)
{
    if (!xbchost::loadDriver(host.api, path, error))
        return false;
    QList<QString> bitNames;
    host.api.getRegListByType(0, bitNames);
    host.bitRegisters = bitNames;
    return true;
}

// Options that contradict each other or carry no usable value.
QString checkOptions(const QCommandLineParser &parser, const Options &opt, RunPlan &plan)
{
    if (!parser.positionalArguments().isEmpty())
        return QStringLiteral("unexpected argument '%1'").arg(parser.positionalArguments().first());
    if (parser.isSet(opt.tcp) && parser.isSet(opt.serial))
        return QStringLiteral("--tcp and --serial exclude each other");
    if (parser.isSet(opt.line) && !parser.isSet(opt.serial))
        return QStringLiteral("--line goes with --serial");
    bool ok = false;
    const double seconds = parser.value(opt.duration).toDouble(&ok);
    if (!ok || seconds < 0)
        return QStringLiteral("--duration: expected a number of seconds");
    // The console runs until interrupted unless a duration is given.
    const bool untilStopped = parser.isSet(opt.http) && !parser.isSet(opt.duration);
    plan.totalMs = seconds > 0 && !untilStopped
                       ? int(qMin(seconds * 1000.0, double(UNTIL_STOPPED_MS)))
                       : UNTIL_STOPPED_MS;
    PropertyNumbers numbers;
    if (parsePropertyString(parser.value(opt.props), numbers) != PROPERTIES_OK)
        return QStringLiteral("--props '%1': expected five numbers separated by '#'")
            .arg(parser.value(opt.props));
    return QString();
}

// Watches and writes, each checked by the driver as an editor would.
QString readWatchesAndWrites(const QCommandLineParser &parser, const Options &opt,
                             xbchost::Host &host, RunPlan &plan)
{
    for (const QString &w : parser.values(opt.watch)) {
        xbchost::WatchItem item;
        const QString error = xbchost::parseWatch(host, w, item);
        if (!error.isEmpty())
            return QStringLiteral("--watch %1").arg(error);
        xbchost::addWatch(host, item);
    }
    for (const QString &w : parser.values(opt.write)) {
        xbchost::WriteItem item;
        const QString error = xbchost::parseWrite(host, w, item);
        if (!error.isEmpty())
            return QStringLiteral("--write %1").arg(error);
        plan.writes.append(item);
    }
    return QString();
}

QString setUpLink(const QCommandLineParser &parser, const Options &opt, xbchost::LinkConfig &link)
{
    if (parser.isSet(opt.tcp))
        return xbchost::parseTcpTarget(parser.value(opt.tcp), link);
    if (!parser.isSet(opt.serial))
        return QStringLiteral("no PLC to talk to: give --tcp HOST:PORT or --serial DEVICE "
                              "(xbc-plc-sim --port 0 simulates one on loopback)");
    link.kind = xbchost::LinkConfig::Serial;
    link.device = parser.value(opt.serial);
    link.line = parser.value(opt.line);
    xbchost::SerialLine line;
    const QString error = xbchost::parseSerialLine(link.line, line);
    return error.isEmpty() ? QString() : QStringLiteral("--line %1").arg(error);
}

QString startConsole(const QCommandLineParser &parser, const Options &opt, xbchost::Host &host,
                     xbchost::ConsoleHandle &console)
{
    xbchost::ConsoleOptions http;
    QString error =
        xbchost::parseConsoleOptions(parser.value(opt.http), parser.value(opt.httpToken), http);
    QString url;
    if (error.isEmpty())
        console = xbchost::startConsole(host, http, &url, &error);
    if (!console)
        return error;
    printOut(QStringLiteral("console: %1").arg(url));
    return QString();
}

QString valuesText(const QVector<int> &values)
{
    QStringList texts;
    for (int v : values)
        texts << QString::number(v);
    return texts.join(QLatin1Char(','));
}

// Writes go after the first poll cycle, so the printed changes show the
// PLC's values first and the written ones after.
void runWrites(xbchost::Host &host, const RunPlan &plan)
{
    xbchost::runFor(host, UNTIL_STOPPED_MS, qMin(plan.totalMs, int(FIRST_CYCLE_WAIT_MS)),
                    [&host]() {
                        return stopped() || host.stats.pollCycles > 0 ||
                               (host.readBlocks > 0 && host.stats.pollReads >= host.readBlocks);
                    });
    for (const xbchost::WriteItem &w : plan.writes) {
        printOut(
            QStringLiteral("write %1:%2 = %3").arg(w.regName, w.addressText, valuesText(w.values)));
        xbchost::queueWriteItem(host, w);
    }
}

// The communication loop until the run's time is up or a signal stops it.
void run(xbchost::Host &host, const RunPlan &plan)
{
    std::signal(SIGINT, onSignal);
    std::signal(SIGTERM, onSignal);
    QElapsedTimer clock;
    clock.start();
    if (!plan.writes.isEmpty())
        runWrites(host, plan);
    const qint64 left = plan.totalMs - clock.elapsed();
    if (left > 0)
        xbchost::runFor(host, UNTIL_STOPPED_MS, int(left), stopped);
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("xbc-host"));
    const Options opt;
    QCommandLineParser parser;
    opt.addTo(parser);
    parser.process(app);

    RunPlan plan;
    QString error = checkOptions(parser, opt, plan);
    if (!error.isEmpty())
        return usageError(error);
    xbchost::Host host;
    host.config.properties = parser.value(opt.props);
    host.config.trace = parser.isSet(opt.trace);
    host.config.printChanges = true;
    host.config.cycleFloorMs = PANEL_CYCLE_MS;
    const QString path = driverPath(parser.value(opt.driver));
    if (!loadDriverFor(host, path, &error))
        return fail(error);
    error = readWatchesAndWrites(parser, opt, host, plan);
    if (error.isEmpty())
        error = setUpLink(parser, opt, host.link.config);
    if (!error.isEmpty())
        return usageError(error);

    printOut(QStringLiteral("driver %1 version %2, properties %3, %4 watched range(s)")
                 .arg(path, host.api.getVersion(), host.config.properties)
                 .arg(host.keys.size()));
    xbctrace::Capture capture;
    if (parser.isSet(opt.capture)) {
        error = xbctrace::openCapture(capture, parser.value(opt.capture));
        if (!error.isEmpty())
            return usageError(error);
        host.capture = &capture;
    }
    xbchost::startRun(host);
    xbchost::ConsoleHandle console;
    if (parser.isSet(opt.http)) {
        error = startConsole(parser, opt, host, console);
        if (!error.isEmpty())
            return usageError(error);
    }
    run(host, plan);

    if (host.link.connects == 0)
        std::fprintf(stderr, "xbc-host: the link never came up\n");
    printOut(xbchost::summaryText(host));
    xbchost::closeLink(host);
    xbctrace::closeCapture(capture);
    return host.link.connects > 0 ? EXIT_OK : EXIT_NO_LINK;
}
