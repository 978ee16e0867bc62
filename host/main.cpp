// xbc-host: plays the HMI runtime against a PLC (xbc-plc-sim, or a real one
// over TCP or serial), prints every value change and a summary.
#include "capture.h"
#include "console.h"
#include "xbc_host.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QMap>

#include <csignal>
#include <cstdio>

#ifndef XBC_DRIVER_PATH
#define XBC_DRIVER_PATH ""
#endif
#ifndef XBC_INSTALLED_DRIVER
#define XBC_INSTALLED_DRIVER ""
#endif

namespace {

// A failed write and a link that never came up both exit 1, as the one-shot
// commands do.
enum { EXIT_OK = 0, EXIT_NO_LINK = 1, EXIT_WRITE_FAILED = 1, EXIT_USAGE = 2 };
// After the run's time, queued writes get this long to settle.
enum { WRITE_SETTLE_MS = 3000 };
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
    "\n"
    "  xbc-host [OPTIONS] --watch ...        run the communication loop (the default)\n"
    "  xbc-host read ADDRESS... [OPTIONS]    read every address once and print it\n"
    "  xbc-host write ADDRESS=VALUE... [OPTIONS]  write, wait for each outcome\n"
    "  xbc-host plan --watch ... [--props P] [--line L]  the poll cycle, no PLC needed\n"
    "\n"
    "The loop: next frame from the driver, send it, collect the reply (until EOT,\n"
    "the expected length or a timeout), hand it back. It prints every value\n"
    "change (time, station, register, address, value), each write's outcome,\n"
    "every retry and abandonment with its reason, link and PLC state changes,\n"
    "and a summary. A value no good reply ever filled prints as unknown.\n"
    "The PLC answers while good replies come; it is 'not answering' once frames\n"
    "went unanswered for three poll cycles (at least one frame's tries times the\n"
    "reply timeout plus a cycle, at least 1 s); values older than that are stale.\n"
    "A poll cycle is every read block read once.\n"
    "\n"
    "read and write take the addresses as arguments (REG:ADDRESS[:COUNT],\n"
    "REG:ADDRESS=VALUE), give up after --timeout and exit 0 only when every\n"
    "value was read (every write landed); 1 otherwise, saying why; 2 on usage\n"
    "errors. plan loads the driver, merges the watches and answers the frames\n"
    "of one poll cycle itself: blocks, frames, bytes and line time per cycle at\n"
    "--line, and the same for other maxPacketLen values.\n"
    "\n"
    "The PLC is --tcp or --serial; xbc-plc-sim simulates one on loopback\n"
    "(scripts/demo.sh starts it and this program together). The driver library\n"
    "is --driver, else XBC_DRIVER_LIBRARY, else the installed one (found from\n"
    "this program's place), else the one built with this program.\n\n"
    "Examples:\n"
    "  xbc-host read --tcp 127.0.0.1:PORT D_W:100:4 M_bit:35.3 --json\n"
    "  xbc-host write --tcp 127.0.0.1:PORT D_W:100=1234 M_bit:35.3=1\n"
    "  xbc-host plan --watch D_W:0:300 --watch M_W:10 --line 9600,8,EVEN,1\n"
    "  xbc-host --tcp 127.0.0.1:PORT --watch D_W:100:10 --write D_W:100=1234 --log changes.csv\n"
    "  xbc-host --serial /dev/pts/5 --line 115200,8,NONE,1 --watch M_W:0:4";

struct Options {
    QCommandLineOption help{{QStringLiteral("h"), QStringLiteral("help")},
                            QStringLiteral("Show this help.")};
    QCommandLineOption tcp{QStringLiteral("tcp"),
                           QStringLiteral("Connect to HOST:PORT (port 8000 when omitted)."),
                           QStringLiteral("HOST:PORT")};
    QCommandLineOption serial{QStringLiteral("serial"),
                              QStringLiteral("Use the serial device DEVICE."),
                              QStringLiteral("DEVICE")};
    QCommandLineOption line{QStringLiteral("line"),
                            QStringLiteral("Serial line parameters BAUD,DATABITS,PARITY,STOPBITS "
                                           "(default 115200,8,NONE,1). With --tcp: the line the "
                                           "planned cycle time is figured for."),
                            QStringLiteral("PARAMS"), QStringLiteral("115200,8,NONE,1")};
    QCommandLineOption watch{
        QStringLiteral("watch"),
        QStringLiteral("Watch COUNT values from ADDRESS, in the register's own notation: "
                       "D_W:100:10, M_bit:35.3, TX:7 (repeatable)."),
        QStringLiteral("REG:ADDRESS[:COUNT]")};
    QCommandLineOption write{
        QStringLiteral("write"),
        QStringLiteral("Write VALUE once the first poll cycle is done (at once when "
                       "nothing is watched) and print its outcome: D_W:100=1234, "
                       "M_bit:35.3=1; several comma-separated values fill consecutive "
                       "addresses (repeatable)."),
        QStringLiteral("REG:ADDRESS=VALUE")};
    QCommandLineOption props{QStringLiteral("props"),
                             QStringLiteral("Property string "
                                            "driverId#localWriteOnly#spare#retryTimes#maxPacketLen "
                                            "(default 1#0#0#3#64): five whole numbers. retryTimes "
                                            "is the number of tries of a frame (0 and 1 both "
                                            "mean one try); maxPacketLen the longest merged read "
                                            "block."),
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
    QCommandLineOption log{QStringLiteral("log"),
                           QStringLiteral("Record every printed value change in FILE.csv: "
                                          "time,register,address,value (ISO 8601 local time)."),
                           QStringLiteral("FILE.csv")};
    QCommandLineOption timeout{
        QStringLiteral("timeout"),
        QStringLiteral("read and write: give up after this many seconds (default 5)."),
        QStringLiteral("SECONDS"), QStringLiteral("5")};
    QCommandLineOption json{QStringLiteral("json"),
                            QStringLiteral("read: print the values as one JSON object.")};
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
        parser.addOptions(all());
        parser.addPositionalArgument(QStringLiteral("COMMAND"),
                                     QStringLiteral("read, write or plan (none: the loop)."),
                                     QStringLiteral("[read|write|plan] [ARGUMENTS...]"));
    }

    QList<QCommandLineOption> all() const
    {
        return {help,     tcp, line,    serial, watch,  write,   props, trace,
                duration, log, timeout, json,   driver, capture, http,  httpToken};
    }
};

// How long the loop runs and what it writes on the way.
struct RunPlan {
    enum Command { Loop, Read, Write, Plan };
    Command command = Loop;
    int totalMs = 0;
    QList<xbchost::WatchItem> watches;
    QList<xbchost::WriteItem> writes;
    xbchost::OneShotOptions oneShot;
};

const QMap<QString, RunPlan::Command> COMMANDS = {{QStringLiteral("read"), RunPlan::Read},
                                                  {QStringLiteral("write"), RunPlan::Write},
                                                  {QStringLiteral("plan"), RunPlan::Plan}};

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

// Seconds of an option as milliseconds; false when not a number >= 0.
bool millisecondsOf(const QString &text, int &ms)
{
    bool ok = false;
    const double seconds = text.toDouble(&ok);
    if (!ok || seconds < 0)
        return false;
    ms = int(qMin(seconds * 1000.0, double(UNTIL_STOPPED_MS)));
    return true;
}

// Which command, and options that contradict each other or carry no usable
// value.
QString checkOptions(const QCommandLineParser &parser, const Options &opt, RunPlan &plan)
{
    QStringList args = parser.positionalArguments();
    if (!args.isEmpty()) {
        if (!COMMANDS.contains(args.first()))
            return QStringLiteral("unknown command '%1' (read, write or plan)").arg(args.first());
        plan.command = COMMANDS.value(args.takeFirst());
    }
    const bool oneShot = plan.command == RunPlan::Read || plan.command == RunPlan::Write;
    if (!oneShot && !args.isEmpty())
        return QStringLiteral("unexpected argument '%1'").arg(args.first());
    if (oneShot && args.isEmpty())
        return plan.command == RunPlan::Read
                   ? QStringLiteral("read: give one ADDRESS or more")
                   : QStringLiteral("write: give one ADDRESS=VALUE or more");
    if (oneShot && (parser.isSet(opt.watch) || parser.isSet(opt.write)))
        return QStringLiteral("read and write take their addresses as arguments, not --watch or "
                              "--write");
    if (plan.command == RunPlan::Plan && !parser.isSet(opt.watch))
        return QStringLiteral("plan: give the watched addresses with --watch");
    if (parser.isSet(opt.tcp) && parser.isSet(opt.serial))
        return QStringLiteral("--tcp and --serial exclude each other");
    if (!millisecondsOf(parser.value(opt.duration), plan.totalMs))
        return QStringLiteral("--duration: expected a number of seconds");
    if (!millisecondsOf(parser.value(opt.timeout), plan.oneShot.timeoutMs) ||
        plan.oneShot.timeoutMs == 0)
        return QStringLiteral("--timeout: expected a number of seconds above 0");
    plan.oneShot.json = parser.isSet(opt.json);
    // The console runs until interrupted unless a duration is given.
    const bool untilStopped = parser.isSet(opt.http) && !parser.isSet(opt.duration);
    if (plan.totalMs == 0 || untilStopped)
        plan.totalMs = UNTIL_STOPPED_MS;
    PropertyNumbers numbers;
    if (parsePropertyString(parser.value(opt.props), numbers) != PROPERTIES_OK)
        return QStringLiteral("--props '%1': expected five whole numbers separated by '#'")
            .arg(parser.value(opt.props));
    return QString();
}

// Watches and writes, each checked by the driver as an editor would.
QString readWatchesAndWrites(const QCommandLineParser &parser, const Options &opt,
                             xbchost::Host &host, RunPlan &plan)
{
    const QStringList args = parser.positionalArguments().mid(1);
    const bool reads = plan.command == RunPlan::Read;
    const bool writes = plan.command == RunPlan::Write;
    for (const QString &w : reads ? args : parser.values(opt.watch)) {
        xbchost::WatchItem item;
        const QString error = xbchost::parseWatch(host, w, item);
        if (!error.isEmpty())
            return reads ? error : QStringLiteral("--watch %1").arg(error);
        plan.watches.append(item);
    }
    for (const QString &w : writes ? args : parser.values(opt.write)) {
        xbchost::WriteItem item;
        const QString error = xbchost::parseWrite(host, w, item);
        if (!error.isEmpty())
            return writes ? error : QStringLiteral("--write %1").arg(error);
        plan.writes.append(item);
    }
    return QString();
}

QString setUpLink(const QCommandLineParser &parser, const Options &opt, xbchost::LinkConfig &link)
{
    xbchost::SerialLine line;
    const QString lineError = xbchost::parseSerialLine(parser.value(opt.line), line);
    if (!lineError.isEmpty())
        return QStringLiteral("--line %1").arg(lineError);
    if (parser.isSet(opt.tcp)) {
        if (parser.isSet(opt.line))
            link.planLine = parser.value(opt.line);
        return xbchost::parseTcpTarget(parser.value(opt.tcp), link);
    }
    if (!parser.isSet(opt.serial))
        return QStringLiteral("no PLC to talk to: give --tcp HOST:PORT or --serial DEVICE "
                              "(xbc-plc-sim --port 0 simulates one on loopback)");
    link.kind = xbchost::LinkConfig::Serial;
    link.device = parser.value(opt.serial);
    link.line = parser.value(opt.line);
    if (parser.isSet(opt.line))
        link.planLine = link.line;
    return QString();
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

// Writes go after the first poll cycle, so the printed changes show the
// PLC's values first and the written ones after; with nothing watched, at once.
void runWrites(xbchost::Host &host, const RunPlan &plan)
{
    if (host.readBlocks > 0)
        xbchost::runFor(host, UNTIL_STOPPED_MS, qMin(plan.totalMs, int(FIRST_CYCLE_WAIT_MS)),
                        [&host]() { return stopped() || host.stats.pollReads >= host.readBlocks; });
    for (const xbchost::WriteItem &w : plan.writes) {
        printOut(xbchost::stampedText(
            QStringLiteral("write %1:%2 = %3 queued")
                .arg(w.regName, w.addressText, xbchost::valuesText(w.values))));
        xbchost::queueWriteItem(host, w);
    }
}

// The communication loop until the run's time is up or a signal stops it;
// queued writes get up to WRITE_SETTLE_MS more to settle.
void run(xbchost::Host &host, const RunPlan &plan)
{
    QElapsedTimer clock;
    clock.start();
    if (!plan.writes.isEmpty())
        runWrites(host, plan);
    const qint64 left = plan.totalMs - clock.elapsed();
    if (left > 0)
        xbchost::runFor(host, UNTIL_STOPPED_MS, int(left), stopped);
    if (!stopped() && !host.openWrites.isEmpty())
        xbchost::runFor(host, UNTIL_STOPPED_MS, WRITE_SETTLE_MS,
                        [&host]() { return stopped() || host.openWrites.isEmpty(); });
}

// Parses the command line; --help prints the help. Every usage error says
// what was wrong and exits EXIT_USAGE.
bool parseCommandLine(QCommandLineParser &parser, const Options &opt, const QStringList &args,
                      int &exitCode)
{
    opt.addTo(parser);
    if (!parser.parse(args)) {
        exitCode = usageError(parser.errorText());
        return false;
    }
    if (parser.isSet(opt.help)) {
        std::fprintf(stdout, "%s", parser.helpText().toLocal8Bit().constData());
        exitCode = EXIT_OK;
        return false;
    }
    return true;
}

// The loop (the default command): changes, write outcomes, the summary.
int runLoop(xbchost::Host &host, const QCommandLineParser &parser, const Options &opt,
            const RunPlan &plan, const QString &path)
{
    printOut(QStringLiteral("driver %1 version %2, properties %3, %4 watched range(s)")
                 .arg(path, host.api.getVersion(), host.config.properties)
                 .arg(host.keys.size()));
    xbctrace::Capture capture;
    if (parser.isSet(opt.capture)) {
        const QString error = xbctrace::openCapture(capture, parser.value(opt.capture));
        if (!error.isEmpty())
            return usageError(error);
        host.capture = &capture;
    }
    xbchost::startRun(host);
    xbchost::ConsoleHandle console;
    if (parser.isSet(opt.http)) {
        const QString error = startConsole(parser, opt, host, console);
        if (!error.isEmpty())
            return usageError(error);
    }
    run(host, plan);

    if (host.link.connects == 0)
        std::fprintf(stderr, "xbc-host: the link never came up\n");
    printOut(xbchost::summaryText(host));
    if (!host.keys.isEmpty())
        printOut(xbchost::watchedValuesText(host));
    xbchost::closeLink(host);
    xbctrace::closeCapture(capture);
    const int unsettled = host.openWrites.size();
    if (unsettled > 0)
        std::fprintf(stderr, "xbc-host: %d write(s) had no outcome when the run ended\n",
                     unsettled);
    if (host.link.connects == 0)
        return EXIT_NO_LINK;
    return host.stats.writesFailed > 0 || unsettled > 0 ? EXIT_WRITE_FAILED : EXIT_OK;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("xbc-host"));
    const Options opt;
    QCommandLineParser parser;
    int exitCode = EXIT_OK;
    if (!parseCommandLine(parser, opt, app.arguments(), exitCode))
        return exitCode;

    RunPlan plan;
    QString error = checkOptions(parser, opt, plan);
    if (!error.isEmpty())
        return usageError(error);
    xbchost::Host host;
    host.config.properties = parser.value(opt.props);
    host.config.trace = parser.isSet(opt.trace);
    host.config.printChanges = plan.command == RunPlan::Loop;
    host.config.printEvents = true;
    // This thread serves only the link; the console runs in threads of its own.
    host.config.waitOnLinkOnly = true;
    host.config.cycleFloorMs = plan.command == RunPlan::Loop ? int(PANEL_CYCLE_MS) : 0;
    const QString path = driverPath(parser.value(opt.driver));
    if (!loadDriverFor(host, path, &error))
        return fail(error);
    error = readWatchesAndWrites(parser, opt, host, plan);
    if (error.isEmpty() && plan.command != RunPlan::Plan)
        error = setUpLink(parser, opt, host.link.config);
    if (!error.isEmpty())
        return usageError(error);
    xbchost::LogFile log;
    if (parser.isSet(opt.log)) {
        error = xbchost::openLog(log, parser.value(opt.log));
        if (!error.isEmpty())
            return usageError(error);
        host.log = &log;
    }
    std::signal(SIGINT, onSignal);
    std::signal(SIGTERM, onSignal);

    switch (plan.command) {
    case RunPlan::Read:
        exitCode = xbchost::readOnce(host, plan.watches, plan.oneShot);
        break;
    case RunPlan::Write:
        exitCode = xbchost::writeAndWait(host, plan.writes, plan.oneShot);
        break;
    case RunPlan::Plan:
        for (const xbchost::WatchItem &w : plan.watches)
            xbchost::addWatch(host, w);
        exitCode = xbchost::printPlan(host, host.config.properties, parser.value(opt.line));
        break;
    case RunPlan::Loop:
        for (const xbchost::WatchItem &w : plan.watches)
            xbchost::addWatch(host, w);
        exitCode = runLoop(host, parser, opt, plan, path);
        break;
    }
    xbchost::closeLink(host);
    xbchost::closeLog(log);
    return exitCode;
}
