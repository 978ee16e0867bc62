// xbc-host's loop against the xbc-plc-sim program, next to libmodbus's own TCP
// client and server, on 127.0.0.1 in the same run: exchanges per second of a
// small and of a full read, and the processor time each side spends per
// exchange. Neither side is paced; the simulator injects no faults.
//
// The libmodbus server is a child process of this program, as the simulator
// is; the two clients run here, one after the other. The sides alternate over
// several rounds and the fastest round of each counts, so a burst of other
// work on the machine hurts one side less.
#include "xbc_host.h"

#include <modbus.h>

#include <QCoreApplication>
#include <QProcess>
#include <QRegularExpression>

#include <arpa/inet.h>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

enum {
    DEFAULT_EXCHANGES = 500,
    DEFAULT_ROUNDS = 20,
    MAX_ATTEMPTS = 3,
    WARM_UP_EXCHANGES = 100,
    SIM_START_MS = 5000,
    EXIT_SLOWER = 1,
    EXIT_BROKEN = 2,
    MAX_FRAME_WORDS = 127, // the most words one read frame carries
};
// Below this the run fails: a loopback rate is noisy on a shared machine, but
// not by this much.
constexpr double DEFAULT_FAIL_BELOW = 0.8;
constexpr double NS_PER_S = 1e9;
constexpr double NS_PER_US = 1e3;

// The two sizes compared: one register, and the largest read of each
// protocol in one frame.
struct Size {
    const char *name;
    int modbusRegisters;
    int xbcWords;
};
const Size SIZES[] = {
    {"1 word", 1, 1},
    {"full frame (125 registers, 127 words)", MODBUS_MAX_READ_REGISTERS, MAX_FRAME_WORDS}};

struct Sample {
    double perSecond = 0;
    double clientUs = 0; // processor time per exchange, client side
    double serverUs = 0; // and server side
};

qint64 clockNs(clockid_t clock)
{
    timespec t{};
    clock_gettime(clock, &t);
    return qint64(t.tv_sec) * 1000000000 + t.tv_nsec;
}

// Processor time of another process: exact, unlike the tick counts of /proc.
qint64 cpuNsOf(pid_t pid)
{
    clockid_t clock;
    if (clock_getcpuclockid(pid, &clock) != 0)
        return 0;
    return clockNs(clock);
}

// Times `exchanges` calls of `one` on the wall clock and on both sides'
// processor clocks. False when an exchange failed.
template <typename Exchange> bool measure(int exchanges, pid_t server, Exchange one, Sample &out)
{
    const qint64 wall0 = clockNs(CLOCK_MONOTONIC);
    const qint64 client0 = clockNs(CLOCK_PROCESS_CPUTIME_ID);
    const qint64 server0 = cpuNsOf(server);
    for (int i = 0; i < exchanges; ++i)
        if (!one())
            return false;
    const double wall = double(clockNs(CLOCK_MONOTONIC) - wall0);
    out.perSecond = exchanges * NS_PER_S / wall;
    out.clientUs = double(clockNs(CLOCK_PROCESS_CPUTIME_ID) - client0) / exchanges / NS_PER_US;
    out.serverUs = double(cpuNsOf(server) - server0) / exchanges / NS_PER_US;
    return true;
}

// libmodbus ------------------------------------------------------------------

struct ModbusSide {
    pid_t server = -1;
    modbus_t *client = nullptr;
    bool connected = false;
};

// The child: libmodbus's own accept, receive and reply, until the client goes.
[[noreturn]] void serveModbus(modbus_t *ctx, int listenFd)
{
    modbus_mapping_t *map = modbus_mapping_new(0, 0, MODBUS_MAX_READ_REGISTERS, 0);
    if (!map || modbus_tcp_accept(ctx, &listenFd) < 0)
        _exit(EXIT_BROKEN);
    uint8_t query[MODBUS_TCP_MAX_ADU_LENGTH];
    for (;;) {
        const int n = modbus_receive(ctx, query);
        if (n < 0)
            break;
        if (n > 0)
            modbus_reply(ctx, query, n, map);
    }
    _exit(0);
}

bool startModbus(ModbusSide &side, QString &error)
{
    modbus_t *serverCtx = modbus_new_tcp("127.0.0.1", 0); // any free port
    const int listenFd = serverCtx ? modbus_tcp_listen(serverCtx, 1) : -1;
    sockaddr_in bound{};
    socklen_t size = sizeof bound;
    if (listenFd < 0 || getsockname(listenFd, reinterpret_cast<sockaddr *>(&bound), &size) != 0) {
        error = QStringLiteral("libmodbus cannot listen on 127.0.0.1: %1")
                    .arg(QString::fromLocal8Bit(modbus_strerror(errno)));
        return false;
    }
    side.server = fork();
    if (side.server == 0)
        serveModbus(serverCtx, listenFd);
    close(listenFd);
    modbus_free(serverCtx);
    side.client = modbus_new_tcp("127.0.0.1", ntohs(bound.sin_port));
    side.connected = side.server > 0 && side.client && modbus_connect(side.client) == 0;
    if (!side.connected) {
        error = QStringLiteral("the libmodbus client cannot connect: %1")
                    .arg(QString::fromLocal8Bit(modbus_strerror(errno)));
        return false;
    }
    return true;
}

void stopModbus(ModbusSide &side)
{
    if (side.client) {
        modbus_close(side.client); // the server sees the end and exits
        modbus_free(side.client);
    }
    if (side.server > 0 && !side.connected)
        kill(side.server, SIGKILL); // still waiting for its client
    if (side.server > 0)
        waitpid(side.server, nullptr, 0);
}

bool measureModbus(ModbusSide &side, int registers, int exchanges, Sample &out)
{
    uint16_t values[MODBUS_MAX_READ_REGISTERS];
    const auto one = [&]() {
        return modbus_read_registers(side.client, 0, registers, values) == registers;
    };
    for (int i = 0; i < WARM_UP_EXCHANGES; ++i)
        if (!one())
            return false;
    return measure(exchanges, side.server, one, out);
}

// xbc-host against xbc-plc-sim ------------------------------------------------

struct XbcSide {
    QProcess sim;
    xbchost::Host host;
};

bool startXbc(XbcSide &side, QString &error)
{
    side.sim.setProgram(QStringLiteral(XBC_SIM_PROGRAM));
    side.sim.setArguments({QStringLiteral("--port"), QStringLiteral("0")});
    side.sim.start();
    if (!side.sim.waitForStarted(SIM_START_MS)) {
        error = QStringLiteral("cannot start %1").arg(side.sim.program());
        return false;
    }
    const QRegularExpression portLine(QStringLiteral("tcp 127\\.0\\.0\\.1:(\\d+)"));
    QByteArray said;
    QRegularExpressionMatch m;
    while (!(m = portLine.match(QString::fromLatin1(said))).hasMatch() &&
           side.sim.waitForReadyRead(SIM_START_MS))
        said += side.sim.readAllStandardOutput();
    if (!m.hasMatch()) {
        error = QStringLiteral("xbc-plc-sim did not say where it listens");
        return false;
    }
    xbchost::Host &host = side.host;
    if (!xbchost::loadDriver(host.api, QStringLiteral(XBC_DRIVER_PATH), &error))
        return false;
    // As xbc-host runs it, minus the scan-rate floor and the terminal output.
    host.config.printChanges = true;
    host.config.printEvents = true;
    host.config.print = [](const QString &) {};
    host.config.warn = [](const QString &) {};
    host.config.waitOnLinkOnly = true;
    host.link.config.kind = xbchost::LinkConfig::Tcp;
    host.link.config.host = QStringLiteral("127.0.0.1");
    host.link.config.port = quint16(m.captured(1).toUInt());
    return true;
}

void stopXbc(XbcSide &side)
{
    xbchost::closeLink(side.host);
    side.sim.closeWriteChannel();
    side.sim.terminate();
    if (!side.sim.waitForFinished(SIM_START_MS))
        side.sim.kill();
    side.sim.waitForFinished(SIM_START_MS);
}

bool measureXbc(XbcSide &side, int words, int exchanges, Sample &out)
{
    xbchost::Host &host = side.host;
    host.config.properties = QStringLiteral("1#0#0#3#%1").arg(words);
    host.keys.clear();
    KEY_ADDRESS key;
    key.stationNo = host.config.stationNo;
    key.regName = QStringLiteral("D_W");
    key.count = words;
    host.keys.append(key);
    xbchost::startRun(host);
    if (host.readBlocks != 1 || !xbchost::ensureLink(host))
        return false;
    const auto one = [&]() {
        const int good = host.stats.goodReplies;
        return xbchost::exchangeOnce(host) == xbchost::Step::Exchanged &&
               host.stats.goodReplies == good + 1;
    };
    for (int i = 0; i < WARM_UP_EXCHANGES; ++i)
        if (!one())
            return false;
    return measure(exchanges, pid_t(side.sim.processId()), one, out);
}

// ----------------------------------------------------------------------------

constexpr int SIZE_COUNT = int(sizeof SIZES / sizeof SIZES[0]);

// The fastest round of each side and size.
struct Result {
    Sample modbus[SIZE_COUNT];
    Sample xbc[SIZE_COUNT];
};

void keepFastest(Sample &best, const Sample &s)
{
    if (s.perSecond > best.perSecond)
        best = s;
}

// Both sides started afresh, then rounds of every size, the sides taking turns.
bool compare(int exchanges, int rounds, Result &out, QString &error)
{
    ModbusSide modbus;
    XbcSide xbc;
    bool ok = startModbus(modbus, error) && startXbc(xbc, error);
    for (int round = 0; ok && round < rounds; ++round) {
        for (int s = 0; ok && s < SIZE_COUNT; ++s) {
            Sample m, x;
            const auto modbusTurn = [&]() {
                if (!measureModbus(modbus, SIZES[s].modbusRegisters, exchanges, m))
                    error = QStringLiteral("a libmodbus exchange failed");
                return error.isEmpty();
            };
            const auto xbcTurn = [&]() {
                if (!measureXbc(xbc, SIZES[s].xbcWords, exchanges, x))
                    error = QStringLiteral("an xbc-host exchange failed: %1")
                                .arg(xbc.host.lastProblem + xbc.host.lastLinkProblem);
                return error.isEmpty();
            };
            // Who goes first alternates, so neither side always follows the other.
            ok = round % 2 == 0 ? modbusTurn() && xbcTurn() : xbcTurn() && modbusTurn();
            keepFastest(out.modbus[s], m);
            keepFastest(out.xbc[s], x);
        }
    }
    stopXbc(xbc);
    stopModbus(modbus);
    return ok;
}

void printRow(const QString &what, const Sample &s)
{
    std::printf("%-36s %12.0f %16.1f %16.1f\n", qPrintable(what), s.perSecond, s.clientUs,
                s.serverUs);
}

// The table; true when no ratio is below failBelow.
bool report(const Result &r, double failBelow)
{
    std::printf("%-36s %12s %16s %16s\n", "", "exchanges/s", "client CPU us", "server CPU us");
    bool fast = true;
    for (int s = 0; s < SIZE_COUNT; ++s) {
        const double ratio = r.xbc[s].perSecond / r.modbus[s].perSecond;
        printRow(QStringLiteral("libmodbus, %1 register(s)").arg(SIZES[s].modbusRegisters),
                 r.modbus[s]);
        printRow(QStringLiteral("xbc-host + xbc-plc-sim, %1 word(s)").arg(SIZES[s].xbcWords),
                 r.xbc[s]);
        // Marked below 1 only when the printed figure is.
        std::printf("  %s: ratio %.2f%s\n", SIZES[s].name, ratio,
                    ratio < failBelow ? "  FAILED"
                    : ratio < 0.995   ? "  (below 1)"
                                      : "");
        fast = fast && ratio >= failBelow;
    }
    return fast;
}

int intArgument(const QStringList &args, const QString &name, int fallback)
{
    const int i = args.indexOf(name);
    return i >= 0 && i + 1 < args.size() ? qMax(1, args[i + 1].toInt()) : fallback;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    if (args.contains(QStringLiteral("--help"))) {
        std::printf("usage: %s [--exchanges N] [--rounds R] [--fail-below RATIO]\n"
                    "Exchanges per second of xbc-host's loop against xbc-plc-sim and of\n"
                    "libmodbus's TCP client and server, on 127.0.0.1, unpaced; the fastest\n"
                    "of R rounds of N exchanges. A ratio (xbc / libmodbus) below RATIO\n"
                    "(default %.1f) is measured again with fresh processes, up to %d times\n"
                    "in all; exit 1 when it stays below, 2 when a side cannot run.\n",
                    argv[0], DEFAULT_FAIL_BELOW, int(MAX_ATTEMPTS));
        return 0;
    }
    const int exchanges = intArgument(args, QStringLiteral("--exchanges"), DEFAULT_EXCHANGES);
    const int rounds = intArgument(args, QStringLiteral("--rounds"), DEFAULT_ROUNDS);
    const int failAt = args.indexOf(QStringLiteral("--fail-below"));
    const double failBelow =
        failAt >= 0 && failAt + 1 < args.size() ? args[failAt + 1].toDouble() : DEFAULT_FAIL_BELOW;
    std::signal(SIGPIPE, SIG_IGN);

    for (int attempt = 1;; ++attempt) {
        Result result;
        QString error;
        if (!compare(exchanges, rounds, result, error)) {
            std::fprintf(stderr, "loopback-compare: %s\n", error.toLocal8Bit().constData());
            return EXIT_BROKEN;
        }
        std::printf("loopback, unpaced, %d exchanges a round, fastest of %d rounds\n", exchanges,
                    rounds);
        if (report(result, failBelow))
            return 0;
        if (attempt == MAX_ATTEMPTS)
            return EXIT_SLOWER;
        // A burst of other work can slow one side for a whole run (the
        // scheduler may put a client and its server on one processor).
        std::printf("a ratio is below %.2f: measuring again with fresh processes (%d of %d)\n",
                    failBelow, attempt + 1, int(MAX_ATTEMPTS));
    }
}
