// xbc-soak: the fault soak as a program. Exit code 0 when every check held, 1
// when one failed, 2 when the run could not be set up.
#include "soak.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QMap>
#include <QTemporaryDir>

#include <climits>
#include <cstdio>

using namespace soak;

namespace {

enum {
    TICK_MS = 50,          // random work between slices of the loop
    FOLD_GRACE_MS = 60000, // an overwritten write has settled by then
    LINK_DROP_MIN_MS = 4000,
    LINK_DROP_MAX_MS = 12000,
    PROGRESS_EVERY_MS = 60000,
    SETTLE_MIN_MS = 2000,
    SETTLE_MAX_MS = 30000,
    SETTLE_POLL_CYCLES = 3, // full poll cycles after the write list emptied
    REPLY_TIMEOUT_MS = 100,
    POLL_INTERVAL_MS = 5,
    KIB_PER_MIB = 1024,
    MAX_DIFFERENCES_SHOWN = 10,
};

// Sanitizers keep freed memory in quarantine and shadow every byte.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
const char *const DEFAULT_MAX_RSS_MIB = "768";
#else
const char *const DEFAULT_MAX_RSS_MIB = "64";
#endif

const char *const DESCRIPTION =
    "Fault soak: the driver, loaded by the runtime stand-in, against xbc-plc-sim\n"
    "running as its own process with faults on its replies. Writes random words, bits,\n"
    "runs of bits and contacts, runs condition reads and recipe transfers, and drops\n"
    "the link now and then. At the end, with the faults off: every write holds in the\n"
    "simulator or was taken back with a notification, every shown value is the\n"
    "simulator's, every condition read ended, every recipe request byte is 0, a\n"
    "recipe round trip holds, and the peak resident memory stays under its bound.";

int exitCode = 0;

void say(const QString &text)
{
    std::fprintf(stdout, "%s\n", text.toLocal8Bit().constData());
    std::fflush(stdout);
}

void failCheck(const QString &text)
{
    say(QStringLiteral("FAIL: ") + text);
    exitCode = 1;
}

int setupError(const QString &text)
{
    std::fprintf(stderr, "xbc-soak: %s\n", text.toLocal8Bit().constData());
    return 2;
}

struct Options {
    int seconds = 0, seed = 0, maxRssMib = 0, retries = 0;
    bool pty = false, verbose = false;
    QString faults, driver, simulator;
};

QString parseOptions(const QCoreApplication &app, Options &o)
{
    struct Spec {
        const char *name, *valueName, *defaultValue, *help;
    };
    const Spec specs[] = {
        {"seconds", "N", "60", "Length of the faulty run."},
        {"link", "KIND", "tcp", "tcp (loopback) or pty."},
        {"seed", "N", "1", "Seed of the work and of the faults."},
        {"faults", "SPEC", "drop=10,corrupt=10,truncate=5,delay=5,double=5",
         "Faults of the simulator."},
        {"driver", "PATH", XBC_DRIVER_PATH, "Driver library to load."},
        {"sim", "PATH", XBC_SIM_PATH, "xbc-plc-sim to run."},
        {"max-rss-mb", "MIB", DEFAULT_MAX_RSS_MIB, "Bound of the peak resident memory."},
        {"retries", "N", "3",
         "retryTimes of the property string, the tries of a frame (0 and 1: one); fewer make "
         "more writes fail."},
    };
    QCommandLineParser parser;
    parser.setApplicationDescription(QLatin1String(DESCRIPTION));
    parser.addHelpOption();
    for (const Spec &s : specs)
        parser.addOption({QLatin1String(s.name),
                          QStringLiteral("%1 (default %2).")
                              .arg(QLatin1String(s.help), QLatin1String(s.defaultValue)),
                          QLatin1String(s.valueName), QLatin1String(s.defaultValue)});
    parser.addOption(
        {QStringLiteral("verbose"), QStringLiteral("Print the host's link messages.")});
    parser.process(app);
    QString error;
    const auto number = [&](const char *name, int min) {
        bool ok = false;
        const int n = parser.value(QLatin1String(name)).toInt(&ok);
        if ((!ok || n < min) && error.isEmpty())
            error = QStringLiteral("--%1: expected a number of at least %2").arg(name).arg(min);
        return n;
    };
    o.seconds = number("seconds", 1);
    o.seed = number("seed", 0);
    o.maxRssMib = number("max-rss-mb", 1);
    o.retries = number("retries", 1);
    const QString link = parser.value(QStringLiteral("link"));
    if (link != QLatin1String("tcp") && link != QLatin1String("pty"))
        error = QStringLiteral("--link: expected tcp or pty");
    o.pty = link == QLatin1String("pty");
    o.faults = parser.value(QStringLiteral("faults"));
    o.driver = parser.value(QStringLiteral("driver"));
    o.simulator = parser.value(QStringLiteral("sim"));
    o.verbose = parser.isSet(QStringLiteral("verbose"));
    return error;
}

void setUpHost(Host &host, Ledger &ledger, const Options &o, const SimProcess &sim)
{
    host.config.properties = QStringLiteral("1#0#0#%1#64").arg(o.retries);
    host.config.replyTimeoutMs = REPLY_TIMEOUT_MS;
    host.config.pollIntervalMs = POLL_INTERVAL_MS;
    host.config.print = [](const QString &) {};
    host.config.warn = [verbose = o.verbose](const QString &text) {
        if (verbose)
            std::fprintf(stderr, "%s\n", text.toLocal8Bit().constData());
    };
    host.config.noteSink = [&ledger](const xbchost::Notification &n) { recordNote(ledger, n); };
    QList<QString> bits;
    host.api.getRegListByType(0, bits);
    host.bitRegisters = bits;
    host.link.config.kind = sim.pty ? xbchost::LinkConfig::Serial : xbchost::LinkConfig::Tcp;
    host.link.config.device = sim.ptyPath;
    host.link.config.host = QStringLiteral("127.0.0.1");
    host.link.config.port = sim.port;
}

// Runs the loop with the faults off until the write list is empty, a few full
// poll cycles have refreshed every shown value, and no condition read or
// recipe transfer is left.
bool settle(Host &host, const Work &work)
{
    QElapsedTimer timer;
    timer.start();
    int cyclesAtEmpty = -1;
    auto settled = [&]() {
        const bool writesLeft = !host.api.driver->writeList.isEmpty();
        if (writesLeft)
            cyclesAtEmpty = -1;
        else if (cyclesAtEmpty < 0)
            cyclesAtEmpty = host.stats.pollCycles;
        return timer.elapsed() >= SETTLE_MIN_MS && !writesLeft &&
               host.stats.pollCycles >= cyclesAtEmpty + SETTLE_POLL_CYCLES &&
               !conditionReadOpen(host, work) && !recipePending(host);
    };
    return xbctest::runUntil(host, settled, SETTLE_MAX_MS);
}

struct Region {
    const char *regName;
    const char *address;
    int count;
    int kind;
};
const Region CHECKED[] = {
    {"D_W", "0", D_WORDS, LOC_D_WORD}, {"M_bit", "0.0", M_BITS, LOC_M_BIT},
    {"TX", "0", CONTACTS, LOC_TX},     {"CX", "0", CONTACTS, LOC_CX},
    {"M_W", "0", M_WORDS, LOC_M_WORD}, // not written as such: words of the M bits
};

// The simulator's memory of every written location; false on a control error.
bool readSimulator(SimProcess &sim, QHash<int, int> &byKey, QString *error)
{
    for (const Region &r : CHECKED) {
        QVector<int> values;
        if (!xbctest::simValues(sim, QLatin1String(r.regName), QLatin1String(r.address), r.count,
                                values, error))
            return false;
        for (int i = 0; i < r.count; ++i)
            byKey.insert(locKey(r.kind, i), values[i]);
    }
    return true;
}

// Every shown value is what the simulator holds.
void checkShownValues(Host &host, const QHash<int, int> &byKey)
{
    int differ = 0;
    for (const Region &r : CHECKED) {
        const QVector<int> shown = xbchost::shownValues(host, QLatin1String(r.regName), 0, r.count);
        for (int i = 0; i < r.count; ++i) {
            const int key = locKey(r.kind, i);
            if (shown[i] != byKey.value(key) && ++differ <= MAX_DIFFERENCES_SHOWN)
                failCheck(QStringLiteral("%1 shows %2, the simulator holds %3")
                              .arg(locationText(key))
                              .arg(shown[i])
                              .arg(byKey.value(key)));
        }
    }
    if (differ > 0)
        failCheck(QStringLiteral("%1 shown values differ from the simulator's").arg(differ));
}

// "requests N naks N dropped N ..." of every simulator run, added up.
QString simulatorTotals(const QStringList &runs)
{
    QMap<QString, qint64> sums;
    for (const QString &run : runs) {
        const QStringList words = run.split(QLatin1Char(' '), Qt::SkipEmptyParts);
        for (int i = 0; i + 1 < words.size(); i += 2)
            sums[words[i]] += words[i + 1].toLongLong();
    }
    QStringList parts;
    for (auto it = sums.cbegin(); it != sums.cend(); ++it)
        parts << QStringLiteral("%1 %2").arg(it.key()).arg(it.value());
    return parts.join(QStringLiteral(", "));
}

void report(const Options &o, Host &host, const Ledger &ledger, const Work &work)
{
    const Outcomes &w = ledger.outcomes;
    const xbchost::HostStats &s = host.stats;
    say(QString::asprintf(
        "writes %d: last of their place held %d, fell back with a notification "
        "%d, lost %d; overwritten later: acknowledged %d, failed %d, replaced "
        "in the queue %d",
        w.held + w.fellBack + int(w.lost.size()) + w.acknowledged + w.failed + w.replacedInQueue,
        w.held, w.fellBack, int(w.lost.size()), w.acknowledged, w.failed, w.replacedInQueue));
    say(QString::asprintf("condition reads %d: ended %d, ended failed %d; recipe downloads %d, "
                          "uploads %d",
                          work.conditionReads, host.conditionsDone, host.conditionsFailed,
                          work.downloads, work.uploads));
    say(QString::asprintf("link drops: closed by the simulator %d, simulator restarts %d; the "
                          "host saw %d",
                          work.linkCloses, work.restarts, int(s.linkDrops)));
    say(QString::asprintf("frames %lld, good replies %lld, retries %lld, abandoned %lld, poll "
                          "cycles %lld",
                          qint64(s.framesSent), qint64(s.goodReplies), qint64(s.retries),
                          qint64(s.abandoned), qint64(s.pollCycles)));
    say(QStringLiteral("simulator: %1").arg(simulatorTotals(work.simStats)));
    const long peak = peakRssKib();
    say(QString::asprintf("peak RSS %.1f MiB (bound %d MiB)", peak / double(KIB_PER_MIB),
                          o.maxRssMib));
    if (peak > long(o.maxRssMib) * KIB_PER_MIB)
        failCheck(QString::asprintf("peak RSS %.1f MiB is over the bound of %d MiB",
                                    peak / double(KIB_PER_MIB), o.maxRssMib));
}

void finalChecks(Host &host, Ledger &ledger, Work &work, SimProcess &sim)
{
    if (!settle(host, work))
        failCheck(QStringLiteral("the loop did not settle: write list %1, condition reads open "
                                 "%2, recipe request bytes set %3")
                      .arg(host.api.driver->writeList.size())
                      .arg(conditionReadOpen(host, work))
                      .arg(recipePending(host)));
    const int ended = host.conditionsDone + host.conditionsFailed;
    if (ended != work.conditionReads)
        failCheck(QStringLiteral("%1 condition reads, %2 ends reported")
                      .arg(work.conditionReads)
                      .arg(ended));
    QHash<int, int> byKey;
    QString error;
    if (!readSimulator(sim, byKey, &error)) {
        failCheck(error);
        return;
    }
    checkShownValues(host, byKey);
    checkFinalWrites(ledger, host, byKey);
    for (const QString &lost : ledger.outcomes.lost)
        failCheck(QStringLiteral("lost: ") + lost);
    const QString recipe = checkRecipeRoundTrip(host, sim);
    if (!recipe.isEmpty())
        failCheck(QStringLiteral("recipe round trip without faults: ") + recipe);
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("xbc-soak"));
    Options o;
    QString error = parseOptions(app, o);
    if (!error.isEmpty())
        return setupError(error);

    Host host;
    Ledger ledger;
    QTemporaryDir scratch;
    SimProcess sim;
    sim.program = o.simulator;
    sim.pty = o.pty;
    sim.args = QStringList{QStringLiteral("--faults"),
                           QStringLiteral("%1,seed=%2").arg(o.faults).arg(o.seed)};
    if (!xbchost::loadDriver(host.api, o.driver, &error))
        return setupError(error);
    if (!scratch.isValid() || !startSim(sim, &error))
        return setupError(error.isEmpty() ? QStringLiteral("no scratch directory") : error);
    const QString memoryFile = scratch.filePath(QStringLiteral("memory.bin"));
    setUpHost(host, ledger, o, sim);
    say(QStringLiteral("xbc-soak: %1 s over %2, faults %3, seed %4")
            .arg(o.seconds)
            .arg(o.pty ? QStringLiteral("a pseudo-terminal") : QStringLiteral("TCP loopback"),
                 o.faults)
            .arg(o.seed));

    Work work;
    work.rng.seed(quint32(o.seed));
    planWatchesAndRecipes(host);
    xbchost::startRun(host);
    qint64 nextLinkDropMs = LINK_DROP_MIN_MS, nextProgressMs = PROGRESS_EVERY_MS;
    for (qint64 now = 0; now < qint64(o.seconds) * 1000; now = host.clock.elapsed()) {
        randomWork(work, host, ledger);
        xbchost::runFor(host, INT_MAX, TICK_MS);
        host.notes.clear(); // the ledger keeps what the checks need
        now = host.clock.elapsed();
        foldOverwritten(ledger, host, now, FOLD_GRACE_MS);
        if (now >= nextLinkDropMs) {
            if (!dropLinkNow(work, host, sim, memoryFile, &error))
                return setupError(error);
            nextLinkDropMs = now + std::uniform_int_distribution<int>(LINK_DROP_MIN_MS,
                                                                      LINK_DROP_MAX_MS)(work.rng);
        }
        if (now >= nextProgressMs) {
            say(QString::asprintf("%lld s: frames %lld, condition reads %d, RSS peak %.1f MiB",
                                  now / 1000, qint64(host.stats.framesSent), work.conditionReads,
                                  peakRssKib() / double(KIB_PER_MIB)));
            nextProgressMs += PROGRESS_EVERY_MS;
        }
    }

    QString faultStats;
    if (simCommand(sim, QStringLiteral("stats"), &faultStats, &error))
        work.simStats << faultStats;
    if (!simCommand(sim, QStringLiteral("faults off"), nullptr, &error))
        return setupError(error);
    finalChecks(host, ledger, work, sim);
    stopSim(sim);
    report(o, host, ledger, work);
    say(exitCode == 0 ? QStringLiteral("result: pass") : QStringLiteral("result: FAIL"));
    return exitCode;
}
