// xbc-plc-sim: the PLC simulator as a program, serving TCP on loopback and,
// on request, a pseudo-terminal.
#include "replay.h"
#include "xbc_sim.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QTimer>

#include <csignal>
#include <cstdio>
#include <unistd.h>

namespace {

enum {
    EXIT_FAILURE_TO_SERVE = 1,
    EXIT_USAGE = 2,
    STOP_CHECK_MS = 100,
    MIN_PERIOD_MS = 10,
    MAX_PORT = 65535,
};

volatile std::sig_atomic_t stopRequested = 0;

void onSignal(int)
{
    stopRequested = 1;
}

void printLine(const QString &text)
{
    std::fprintf(stdout, "%s\n", text.toLocal8Bit().constData());
    std::fflush(stdout);
}

int fail(const QString &text)
{
    std::fprintf(stderr, "xbc-plc-sim: %s\n", text.toLocal8Bit().constData());
    return EXIT_FAILURE_TO_SERVE;
}

int usageError(const QString &text)
{
    fail(text);
    std::fprintf(stderr, "Try 'xbc-plc-sim --help'.\n");
    return EXIT_USAGE;
}

const char DESCRIPTION[] =
    "Simulated PLC for the ls_xbc_cpu_direct protocol.\n"
    "Answers r, w, o and n requests from its memory (every area of the register\n"
    "table, all zero at start). It listens on 127.0.0.1 only and prints\n"
    "'tcp 127.0.0.1:PORT' and, with --pty, 'pty PATH' once it is ready.\n"
    "Error replies: NAK, the command character, an error code pair (01 malformed,\n"
    "02 checksum, 03 command, 04 area, 05 range, 06 count), checksum, EOT.\n"
    "\n"
    "With --control it takes commands on standard input, one a line, and answers\n"
    "each with one line 'ok ...' or 'error ...' on standard output (an empty or\n"
    "unknown command and a line over 4096 characters too); end of input stops it:\n"
    "  faults off | faults SPEC   reply faults, SPEC as for --faults; the counters\n"
    "                             go on counting\n"
    "  drop link                  close the TCP clients and replace the\n"
    "                             pseudo-terminal ('ok pty PATH')\n"
    "  read REGISTER ADDRESS N    N values, e.g. 'read D_W 0 100',\n"
    "                             'read M_bit 3.4 20' ('ok V1 V2 ...')\n"
    "  save FILE | load FILE      the whole memory (restart keeping it)\n"
    "  stats                      requests, NAK replies and faults so far";

struct Options {
    QCommandLineOption port{
        QStringLiteral("port"),
        QStringLiteral("TCP port on 127.0.0.1 (0, the default, picks a free one)."),
        QStringLiteral("PORT"), QStringLiteral("0")};
    QCommandLineOption noTcp{QStringLiteral("no-tcp"), QStringLiteral("Do not serve TCP.")};
    QCommandLineOption pty{
        QStringLiteral("pty"),
        QStringLiteral("Also serve a pseudo-terminal; its slave path is printed.")};
    QCommandLineOption set{
        QStringLiteral("set"),
        QStringLiteral("Preset memory, e.g. D_W:100=1234, M_bit:3.4=1, TX:7=1 (repeatable); a "
                       "word takes 0 to 65535 (or 0x0 to 0xFFFF), a bit 0 or 1."),
        QStringLiteral("REG:ADDRESS=VALUE")};
    QCommandLineOption counter{
        QStringLiteral("counter"),
        QStringLiteral("Word that counts up every period, e.g. D_W:0 (repeatable; a word "
                       "register only)."),
        QStringLiteral("REG:ADDRESS")};
    QCommandLineOption blink{
        QStringLiteral("blink"),
        QStringLiteral("Bit that toggles every period, e.g. M_bit:0.0 or TX:3 (repeatable; a "
                       "bit register or contact only)."),
        QStringLiteral("REG:ADDRESS")};
    QCommandLineOption period{QStringLiteral("period"),
                              QStringLiteral("Period of the live changes in ms (default 500)."),
                              QStringLiteral("MS"), QStringLiteral("500")};
    QCommandLineOption faults{
        QStringLiteral("faults"),
        QStringLiteral("Fault injection on replies: %1.").arg(xbcsim::faultSpecSyntax()),
        QStringLiteral("SPEC")};
    QCommandLineOption trace{
        QStringLiteral("trace"),
        QStringLiteral("Print every request and reply on stderr with its time (HH:MM:SS.mmm) "
                       "and number, e.g. 'sim <- #12 ...', 'sim -> #12 ...'; a reply spoilt by "
                       "a fault is marked '[fault corrupt]', a dropped one 'no reply [fault "
                       "drop]'. Clients connecting and closing are traced too.")};
    QCommandLineOption line{
        QStringLiteral("line"),
        QStringLiteral("Keep the time of a serial line BAUD,DATABITS,PARITY,STOPBITS, e.g. "
                       "115200,8,NONE,1: a reply leaves no sooner than the request and the "
                       "reply take on that line (start bit, data bits, parity bit if any and "
                       "stop bits per character), plus the scan time, counted from the "
                       "request's first byte arriving; it goes whole at the time its last "
                       "character would arrive. Over TCP and the pseudo-terminal alike. "
                       "Without it replies leave at once."),
        QStringLiteral("PARAMS")};
    QCommandLineOption scanMs{
        QStringLiteral("scan-ms"),
        QStringLiteral("Scan time in ms between a request and its reply (default 0), on top "
                       "of the line time of --line."),
        QStringLiteral("MS"), QStringLiteral("0")};
    QCommandLineOption duration{
        QStringLiteral("duration"),
        QStringLiteral("Stop after this many seconds (default 0: run until interrupted)."),
        QStringLiteral("SECONDS"), QStringLiteral("0")};
    QCommandLineOption control{
        QStringLiteral("control"),
        QStringLiteral("Take commands on standard input (see above); end of input stops the "
                       "simulator.")};

    // The description, --help and every option.
    void addTo(QCommandLineParser &parser) const
    {
        parser.setApplicationDescription(QLatin1String(DESCRIPTION));
        parser.addHelpOption();
        parser.addOptions(all());
    }

    QList<QCommandLineOption> all() const
    {
        return {port,   noTcp, pty,    set,   counter,  blink,  period,
                faults, line,  scanMs, trace, duration, control};
    }
};

// What to serve and for how long, from the options.
struct Run {
    bool tcp = true;
    bool pty = false;
    quint16 port = 0;
    double durationSeconds = 0;
    bool control = false;
};

// Each text through add (addCounter, addBlink); the first error, if any.
QString addLive(xbcsim::LiveConfig &live, const QStringList &texts,
                QString (*add)(xbcsim::LiveConfig &, const QString &))
{
    for (const QString &t : texts) {
        const QString error = add(live, t);
        if (!error.isEmpty())
            return error;
    }
    return QString();
}

// Line time and scan time; empty error text on success.
QString configureLine(const QCommandLineParser &parser, const Options &opt, xbcsim::Simulator &sim)
{
    bool ok = false;
    sim.line.scanMs = parser.value(opt.scanMs).toInt(&ok);
    if (!ok || sim.line.scanMs < 0 || sim.line.scanMs > xbcsim::MAX_SCAN_MS)
        return QStringLiteral("--scan-ms '%1': expected 0 to %2 ms")
            .arg(parser.value(opt.scanMs))
            .arg(xbcsim::MAX_SCAN_MS);
    if (!parser.isSet(opt.line))
        return QString();
    return xbcsim::parseLineSettings(parser.value(opt.line), sim.line);
}

// Faults, presets and live values; empty error text on success.
QString configureMemory(const QCommandLineParser &parser, const Options &opt,
                        xbcsim::Simulator &sim)
{
    xbcsim::FaultConfig faults;
    if (parser.isSet(opt.faults)) {
        const QString error = xbcsim::parseFaultSpec(parser.value(opt.faults), faults);
        if (!error.isEmpty())
            return QStringLiteral("--faults %1").arg(error);
    }
    xbcsim::setFaults(sim, faults);
    for (const QString &preset : parser.values(opt.set)) {
        const QString error = xbcsim::applyPreset(sim.memory, preset);
        if (!error.isEmpty())
            return error;
    }
    QString error = addLive(sim.live, parser.values(opt.counter), xbcsim::addCounter);
    if (error.isEmpty())
        error = addLive(sim.live, parser.values(opt.blink), xbcsim::addBlink);
    if (error.isEmpty())
        error = configureLine(parser, opt, sim);
    if (!error.isEmpty())
        return error;
    bool ok = false;
    sim.live.periodMs = parser.value(opt.period).toInt(&ok);
    if (!ok || sim.live.periodMs < MIN_PERIOD_MS)
        return QStringLiteral("--period: expected a number of ms of at least %1")
            .arg(MIN_PERIOD_MS);
    return QString();
}

QString readRun(const QCommandLineParser &parser, const Options &opt, Run &run)
{
    bool ok = false;
    run.durationSeconds = parser.value(opt.duration).toDouble(&ok);
    if (!ok || run.durationSeconds < 0)
        return QStringLiteral("--duration: expected a number of seconds");
    const uint port = parser.value(opt.port).toUInt(&ok);
    if (!ok || port > MAX_PORT)
        return QStringLiteral("--port: expected 0 to %1").arg(MAX_PORT);
    run.port = quint16(port);
    run.tcp = !parser.isSet(opt.noTcp);
    run.pty = parser.isSet(opt.pty);
    run.control = parser.isSet(opt.control);
    if (!run.tcp && !run.pty)
        return QStringLiteral("nothing to serve: --no-tcp without --pty");
    return QString();
}

// Starts the servers and prints where they are.
QString startLinks(xbcsim::Simulator &sim, const Run &run)
{
    QString error;
    if (run.tcp) {
        const int bound = xbcsim::startTcp(sim, run.port, &error);
        if (bound < 0)
            return error;
        printLine(QStringLiteral("tcp 127.0.0.1:%1").arg(bound));
    }
    if (run.pty) {
        const QString path = xbcsim::startPty(sim, &error);
        if (path.isEmpty())
            return error;
        printLine(QStringLiteral("pty %1").arg(path));
    }
    return QString();
}

// Serves until a signal, the end of the control input or the duration.
int serve(QCoreApplication &app, xbcsim::Simulator &sim, const Run &run)
{
    if (!sim.live.counters.isEmpty() || !sim.live.blinks.isEmpty())
        xbcsim::startLive(sim);
    std::signal(SIGINT, onSignal);
    std::signal(SIGTERM, onSignal);
    QTimer stopCheck;
    QObject::connect(&stopCheck, &QTimer::timeout, &app, []() {
        if (stopRequested)
            QCoreApplication::quit();
    });
    stopCheck.start(STOP_CHECK_MS);
    if (run.control)
        xbcsim::startControl(sim, STDIN_FILENO, printLine, &QCoreApplication::quit)
            ->setParent(&app);
    if (run.durationSeconds > 0)
        QTimer::singleShot(int(run.durationSeconds * 1000), &app, &QCoreApplication::quit);
    return app.exec();
}

QString summaryLine(xbcsim::Simulator &sim)
{
    const xbcsim::SimStats stats = xbcsim::statsOf(sim);
    QStringList items{QStringLiteral("requests %1").arg(stats.requests),
                      QStringLiteral("NAK replies %1").arg(stats.naks)};
    items << xbcsim::faultCountTexts(xbcsim::faultCountersOf(sim));
    return items.join(QLatin1String(", "));
}

} // namespace

int main(int argc, char **argv)
{
    // Qt's own poll loop instead of GLib's: it takes about half the
    // instructions per request served, and the simulator needs nothing of GLib.
    qputenv("QT_NO_GLIB", "1");
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("xbc-plc-sim"));
    const Options opt;
    QCommandLineParser parser;
    opt.addTo(parser);
    parser.addOptions(xbcsim::replayOptions());
    if (!parser.parse(app.arguments()))
        return usageError(parser.errorText());
    if (parser.isSet(QStringLiteral("help")))
        parser.showHelp(0);
    if (!parser.positionalArguments().isEmpty())
        return usageError(
            QStringLiteral("unexpected argument '%1'").arg(parser.positionalArguments().first()));

    xbcsim::Simulator sim;
    sim.trace = parser.isSet(opt.trace);
    Run run;
    xbcsim::Replay replay; // the capture comes before --set, which may change it
    QString error = xbcsim::startReplay(parser, sim, replay);
    if (error.isEmpty())
        error = configureMemory(parser, opt, sim);
    if (error.isEmpty())
        error = readRun(parser, opt, run);
    if (!error.isEmpty())
        return usageError(error);
    error = startLinks(sim, run);
    if (!error.isEmpty())
        return fail(error);
    const int rc = serve(app, sim, run);
    printLine(summaryLine(sim));
    if (!replay.path.isEmpty())
        for (const QString &line : xbcsim::replayReport(replay))
            printLine(line);
    xbcsim::stopSimulator(sim);
    return rc;
}
