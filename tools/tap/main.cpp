// xbc-tap: the line tap as a program.
#include "tap.h"

#include <QCommandLineParser>
#include <QCoreApplication>

#include <cstdio>

namespace {

enum { EXIT_USAGE = 2, MAX_PORT = 65535, MIN_TIMEOUT_MS = 1 };

const char DESCRIPTION[] =
    "Line tap for the ls_xbc_cpu_direct protocol: sits between a runtime and a PLC,\n"
    "forwards every byte both ways unchanged, and writes requests and replies to a\n"
    "pcap file as xbc-host --capture does (Wireshark decodes it with the dissector).\n"
    "\n"
    "TCP:    xbc-tap --listen [ADDRESS:]PORT --plc HOST:PORT [--capture FILE]\n"
    "        listens for the runtime (on 127.0.0.1 unless an address is given; port 0\n"
    "        picks a free one, printed as 'tcp ADDRESS:PORT') and connects to the PLC\n"
    "        for each runtime connection. When either side drops, the other is\n"
    "        closed too; the runtime's next connection starts a new pair.\n"
    "Serial: xbc-tap --serial-runtime DEVICE --serial-plc DEVICE [--line PARAMS]\n"
    "        the runtime's cable on one device, the PLC's on the other; a device that\n"
    "        fails is reopened every second.\n"
    "\n"
    "A live line on stderr counts frames, replies, timeouts, retries, NAKs and\n"
    "checksum errors; link events are printed there with their time. The totals\n"
    "are printed on stdout at the end (Ctrl+C, SIGTERM or --duration).";

struct Options {
    QCommandLineOption listen{QStringLiteral("listen"),
                              QStringLiteral("Listen for the runtime on [ADDRESS:]PORT."),
                              QStringLiteral("[ADDRESS:]PORT")};
    QCommandLineOption plc{QStringLiteral("plc"),
                           QStringLiteral("Connect to the PLC at HOST:PORT (TCP)."),
                           QStringLiteral("HOST:PORT")};
    QCommandLineOption serialRuntime{QStringLiteral("serial-runtime"),
                                     QStringLiteral("Serial device towards the runtime."),
                                     QStringLiteral("DEVICE")};
    QCommandLineOption serialPlc{QStringLiteral("serial-plc"),
                                 QStringLiteral("Serial device towards the PLC."),
                                 QStringLiteral("DEVICE")};
    QCommandLineOption line{QStringLiteral("line"),
                            QStringLiteral("Serial line parameters BAUD,DATABITS,PARITY,STOPBITS "
                                           "for both devices (default 115200,8,NONE,1)."),
                            QStringLiteral("PARAMS"), QStringLiteral("115200,8,NONE,1")};
    QCommandLineOption capture{QStringLiteral("capture"),
                               QStringLiteral("Write requests and replies to FILE (pcap)."),
                               QStringLiteral("FILE")};
    QCommandLineOption replyTimeout{
        QStringLiteral("reply-timeout"),
        QStringLiteral("A reply not complete this many ms after its request is recorded as "
                       "it came, nothing as a timeout (default 500, as xbc-host waits)."),
        QStringLiteral("MS"), QStringLiteral("500")};
    QCommandLineOption quiet{QStringLiteral("quiet"),
                             QStringLiteral("No live summary line on stderr.")};
    QCommandLineOption duration{
        QStringLiteral("duration"),
        QStringLiteral("Stop after this many seconds (default 0: run until interrupted)."),
        QStringLiteral("SECONDS"), QStringLiteral("0")};

    QList<QCommandLineOption> all() const
    {
        return {listen,  plc,          serialRuntime, serialPlc, line,
                capture, replyTimeout, quiet,         duration};
    }
};

// "[ADDRESS:]PORT" (address 127.0.0.1 when omitted) for --listen; with no
// default host, "HOST:PORT" for --plc. Empty error text on success.
QString parseEndpoint(const QString &option, const QString &text, const QString &defaultHost,
                      xbctap::Endpoint &out)
{
    const int colon = text.lastIndexOf(QLatin1Char(':'));
    QString host = colon < 0 ? defaultHost : text.left(colon);
    if (host.startsWith(QLatin1Char('[')) && host.endsWith(QLatin1Char(']')))
        host = host.mid(1, host.size() - 2);
    bool ok = false;
    const uint port = text.mid(colon + 1).toUInt(&ok);
    const uint lowest = defaultHost.isEmpty() ? 1 : 0; // a PLC has a port; a listener may pick one
    if (host.isEmpty() || !ok || port < lowest || port > MAX_PORT)
        return QStringLiteral("%1 '%2': expected %3 with a port of %4 to %5")
            .arg(option, text,
                 defaultHost.isEmpty() ? QStringLiteral("HOST:PORT")
                                       : QStringLiteral("[ADDRESS:]PORT"))
            .arg(lowest)
            .arg(MAX_PORT);
    out.host = host;
    out.port = quint16(port);
    return QString();
}

int usageError(const QString &text)
{
    std::fprintf(stderr, "xbc-tap: %s\nTry --help.\n", text.toLocal8Bit().constData());
    return EXIT_USAGE;
}

QString readLinks(const QCommandLineParser &parser, const Options &opt, xbctap::TapConfig &c)
{
    const bool tcp = parser.isSet(opt.listen) || parser.isSet(opt.plc);
    const bool serial = parser.isSet(opt.serialRuntime) || parser.isSet(opt.serialPlc);
    if (tcp && serial)
        return QStringLiteral("--listen/--plc (TCP) and --serial-runtime/--serial-plc exclude "
                              "each other");
    if (!tcp && !serial)
        return QStringLiteral("nothing to tap: give --listen and --plc, or --serial-runtime "
                              "and --serial-plc");
    if (parser.isSet(opt.line) && !serial)
        return QStringLiteral("--line goes with --serial-runtime and --serial-plc");
    c.serial = serial;
    if (serial) {
        if (!parser.isSet(opt.serialRuntime) || !parser.isSet(opt.serialPlc))
            return QStringLiteral("a serial tap needs both --serial-runtime and --serial-plc");
        c.runtimeDevice = parser.value(opt.serialRuntime);
        c.plcDevice = parser.value(opt.serialPlc);
        if (c.runtimeDevice == c.plcDevice)
            return QStringLiteral("--serial-runtime and --serial-plc name the same device");
        return xbctap::parseSerialLine(parser.value(opt.line), c.line);
    }
    if (!parser.isSet(opt.listen) || !parser.isSet(opt.plc))
        return QStringLiteral("a TCP tap needs both --listen and --plc");
    const QString error = parseEndpoint(QStringLiteral("--listen"), parser.value(opt.listen),
                                        QStringLiteral("127.0.0.1"), c.listen);
    if (!error.isEmpty())
        return error;
    return parseEndpoint(QStringLiteral("--plc"), parser.value(opt.plc), QString(), c.plc);
}

QString readConfig(const QCommandLineParser &parser, const Options &opt, xbctap::TapConfig &c)
{
    if (!parser.positionalArguments().isEmpty())
        return QStringLiteral("unexpected argument '%1'").arg(parser.positionalArguments().first());
    const QString error = readLinks(parser, opt, c);
    if (!error.isEmpty())
        return error;
    bool ok = false;
    c.replyTimeoutMs = parser.value(opt.replyTimeout).toInt(&ok);
    if (!ok || c.replyTimeoutMs < MIN_TIMEOUT_MS)
        return QStringLiteral("--reply-timeout: expected a number of ms of at least %1")
            .arg(MIN_TIMEOUT_MS);
    c.durationSeconds = parser.value(opt.duration).toDouble(&ok);
    if (!ok || c.durationSeconds < 0)
        return QStringLiteral("--duration: expected a number of seconds");
    c.quiet = parser.isSet(opt.quiet);
    c.capturePath = parser.value(opt.capture);
    if (parser.isSet(opt.capture) && c.capturePath.isEmpty())
        return QStringLiteral("--capture: expected a file name");
    return QString();
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("xbc-tap"));
    const Options opt;
    QCommandLineParser parser;
    parser.setApplicationDescription(QLatin1String(DESCRIPTION));
    parser.addHelpOption();
    parser.addOptions(opt.all());
    if (!parser.parse(app.arguments()))
        return usageError(parser.errorText());
    if (parser.isSet(QStringLiteral("help")))
        parser.showHelp(0);
    xbctap::TapConfig config;
    const QString error = readConfig(parser, opt, config);
    if (!error.isEmpty())
        return usageError(error);
    return xbctap::runTap(config);
}
