// xbc-plc-sim: the PLC simulator as a program, serving TCP on loopback and,
// on request, a pseudo-terminal.
#include "xbc_sim.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QTimer>

#include <csignal>
#include <cstdio>
#include <unistd.h>

namespace {

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
    return 2;
}

// "D_W:100=1234", "M_bit:3.4=1", "TX:7=1".
QString applyPreset(xbcsim::Simulator &sim, const QString &text)
{
    const QString where = text.section(QLatin1Char('='), 0, 0);
    bool ok = false;
    const uint value = text.section(QLatin1Char('='), 1).toUInt(&ok, 0);
    if (!text.contains(QLatin1Char('=')) || !ok || value > 0xFFFF)
        return QStringLiteral("--set '%1': expected REGISTER:ADDRESS=VALUE").arg(text);
    xbcsim::Location loc;
    const QString error = xbcsim::parseLocation(where, loc);
    if (!error.isEmpty())
        return QStringLiteral("--set %1").arg(error);
    if (loc.isBit)
        xbcsim::writeBit(sim, loc.area, loc.bitAddress, value != 0);
    else
        xbcsim::writeWord(sim, loc.area, loc.word, quint16(value));
    return QString();
}

QString addLocations(const QStringList &texts, QList<xbcsim::Location> &out)
{
    for (const QString &t : texts) {
        xbcsim::Location loc;
        const QString error = xbcsim::parseLocation(t, loc);
        if (!error.isEmpty())
            return error;
        out.append(loc);
    }
    return QString();
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("xbc-plc-sim"));

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral(
        "Simulated PLC for the ls_xbc_cpu_direct protocol.\n"
        "Answers r, w, o and n requests from its memory (every area of the register\n"
        "table, all zero at start). It listens on 127.0.0.1 only and prints\n"
        "'tcp 127.0.0.1:PORT' and, with --pty, 'pty PATH' once it is ready.\n"
        "Error replies: NAK, the command character, an error code pair (01 malformed,\n"
        "02 checksum, 03 command, 04 area, 05 range, 06 count), checksum, EOT."));
    parser.addHelpOption();
    const QCommandLineOption portOpt(
        QStringLiteral("port"),
        QStringLiteral("TCP port on 127.0.0.1 (0, the default, picks a free one)."),
        QStringLiteral("PORT"), QStringLiteral("0"));
    const QCommandLineOption noTcpOpt(QStringLiteral("no-tcp"),
                                      QStringLiteral("Do not serve TCP."));
    const QCommandLineOption ptyOpt(
        QStringLiteral("pty"),
        QStringLiteral("Also serve a pseudo-terminal; its slave path is printed."));
    const QCommandLineOption setOpt(
        QStringLiteral("set"),
        QStringLiteral("Preset memory, e.g. D_W:100=1234, M_bit:3.4=1, TX:7=1 (repeatable)."),
        QStringLiteral("REG:ADDRESS=VALUE"));
    const QCommandLineOption counterOpt(
        QStringLiteral("counter"),
        QStringLiteral("Word that counts up every period, e.g. D_W:0 (repeatable)."),
        QStringLiteral("REG:ADDRESS"));
    const QCommandLineOption blinkOpt(
        QStringLiteral("blink"),
        QStringLiteral("Bit that toggles every period, e.g. M_bit:0.0 or TX:3 (repeatable)."),
        QStringLiteral("REG:ADDRESS"));
    const QCommandLineOption periodOpt(
        QStringLiteral("period"), QStringLiteral("Period of the live changes in ms (default 500)."),
        QStringLiteral("MS"), QStringLiteral("500"));
    const QCommandLineOption faultOpt(
        QStringLiteral("faults"),
        QStringLiteral("Fault injection on replies: drop=PCT,corrupt=PCT,truncate=PCT,"
                       "double=PCT,delay=MS,seed=N."),
        QStringLiteral("SPEC"));
    const QCommandLineOption traceOpt(QStringLiteral("trace"),
                                      QStringLiteral("Print every request and reply on stderr."));
    const QCommandLineOption durationOpt(
        QStringLiteral("duration"),
        QStringLiteral("Stop after this many seconds (default 0: run until interrupted)."),
        QStringLiteral("SECONDS"), QStringLiteral("0"));
    const QCommandLineOption controlOpt(
        QStringLiteral("control"),
        QStringLiteral("Take commands on standard input, one a line, each answered with one\n"
                       "line 'ok ...' or 'error ...' on standard output; end of input stops\n"
                       "the simulator. Commands:\n"
                       "  faults off | faults SPEC   reply faults, SPEC as for --faults\n"
                       "  drop link                  close the TCP clients and replace the\n"
                       "                             pseudo-terminal ('ok pty PATH')\n"
                       "  read REGISTER ADDRESS N    N values, e.g. 'read D_W 0 100',\n"
                       "                             'read M_bit 3.4 20' ('ok V1 V2 ...')\n"
                       "  save FILE | load FILE      the whole memory (restart keeping it)\n"
                       "  stats                      requests, NAK replies and faults so far"));
    parser.addOptions({portOpt, noTcpOpt, ptyOpt, setOpt, counterOpt, blinkOpt, periodOpt, faultOpt,
                       traceOpt, durationOpt, controlOpt});
    parser.process(app);

    xbcsim::Simulator sim;
    sim.trace = parser.isSet(traceOpt);

    xbcsim::FaultConfig faults;
    if (parser.isSet(faultOpt)) {
        const QString error = xbcsim::parseFaultSpec(parser.value(faultOpt), faults);
        if (!error.isEmpty())
            return fail(error);
    }
    xbcsim::setFaults(sim, faults);
    for (const QString &preset : parser.values(setOpt)) {
        const QString error = applyPreset(sim, preset);
        if (!error.isEmpty())
            return fail(error);
    }
    QString error = addLocations(parser.values(counterOpt), sim.live.counters);
    if (error.isEmpty())
        error = addLocations(parser.values(blinkOpt), sim.live.blinks);
    if (!error.isEmpty())
        return fail(error);
    bool ok = false;
    sim.live.periodMs = parser.value(periodOpt).toInt(&ok);
    if (!ok || sim.live.periodMs < 10)
        return fail(QStringLiteral("--period: expected a number of ms of at least 10"));
    const double duration = parser.value(durationOpt).toDouble(&ok);
    if (!ok || duration < 0)
        return fail(QStringLiteral("--duration: expected a number of seconds"));
    const uint port = parser.value(portOpt).toUInt(&ok);
    if (!ok || port > 65535)
        return fail(QStringLiteral("--port: expected 0 to 65535"));

    if (!parser.isSet(noTcpOpt)) {
        const int bound = xbcsim::startTcp(sim, quint16(port), &error);
        if (bound < 0)
            return fail(error);
        printLine(QStringLiteral("tcp 127.0.0.1:%1").arg(bound));
    }
    if (parser.isSet(ptyOpt)) {
        const QString path = xbcsim::startPty(sim, &error);
        if (path.isEmpty())
            return fail(error);
        printLine(QStringLiteral("pty %1").arg(path));
    }
    if (parser.isSet(noTcpOpt) && !parser.isSet(ptyOpt))
        return fail(QStringLiteral("nothing to serve: --no-tcp without --pty"));
    if (!sim.live.counters.isEmpty() || !sim.live.blinks.isEmpty())
        xbcsim::startLive(sim);

    std::signal(SIGINT, onSignal);
    std::signal(SIGTERM, onSignal);
    QTimer stopCheck;
    QObject::connect(&stopCheck, &QTimer::timeout, &app, []() {
        if (stopRequested)
            QCoreApplication::quit();
    });
    stopCheck.start(100);
    if (parser.isSet(controlOpt))
        xbcsim::startControl(sim, STDIN_FILENO, printLine, &QCoreApplication::quit)
            ->setParent(&app);
    if (duration > 0)
        QTimer::singleShot(int(duration * 1000), &app, &QCoreApplication::quit);

    const int rc = app.exec();
    const xbcsim::SimStats stats = xbcsim::statsOf(sim);
    const xbcsim::FaultCounters fc = xbcsim::faultCountersOf(sim);
    printLine(QStringLiteral("requests %1, NAK replies %2, dropped %3, corrupted %4, "
                             "truncated %5, doubled %6")
                  .arg(stats.requests)
                  .arg(stats.naks)
                  .arg(fc.dropped)
                  .arg(fc.corrupted)
                  .arg(fc.truncated)
                  .arg(fc.doubled));
    xbcsim::stopSimulator(sim);
    return rc;
}
