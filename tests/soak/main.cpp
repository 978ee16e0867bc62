// xbc-soak: the fault soak as a program. Exit code 0 when every check held, 1
// when one failed, 2 when the run could not be set up.
#include "soak.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QTemporaryDir>

#include <climits>
#include <cstdio>

using namespace soak;
using xbchost::Host;

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
};

// Sanitizers keep freed memory in quarantine and shadow every byte.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int DEFAULT_MAX_RSS_MIB = 768;
#else
constexpr int DEFAULT_MAX_RSS_MIB = 64;
#endif

constexpr int DEFAULT_RETRIES = 3;
const char *const DEFAULT_FAULTS = "drop=10,corrupt=10,truncate=5,delay=5";

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
    int seconds = 60;
    bool pty = false;
    quint32 seed = 1;
    QString faults = QLatin1String(DEFAULT_FAULTS);
    QString driver;
    QString simulator;
    int maxRssMib = DEFAULT_MAX_RSS_MIB;
    int retries = DEFAULT_RETRIES;
    bool verbose = false;
};

QString parseOptions(const QCoreApplication &app, Options &o)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral(
        "Fault soak: the driver, loaded by the runtime stand-in, against xbc-plc-sim\n"
        "running as its own process with faults on its replies. Writes random words, bits,\n"
        "runs of bits and contacts, runs condition reads and recipe transfers, and drops\n"
        "the link now and then. At the end, with the faults off: every write holds in the\n"
        "simulator or was taken back with a notification, every shown value is the\n"
        "simulator's, every condition read ended, every recipe request byte is 0, and the\n"
        "peak resident memory stays under its bound."));
    parser.addHelpOption();
    const QCommandLineOption secondsOpt(QStringLiteral("seconds"),
                                        QStringLiteral("Length of the faulty run (default 60)."),
                                        QStringLiteral("N"), QStringLiteral("60"));
    const QCommandLineOption linkOpt(QStringLiteral("link"),
                                     QStringLiteral("tcp (loopback, the default) or pty."),
                                     QStringLiteral("KIND"), QStringLiteral("tcp"));
    const QCommandLineOption seedOpt(
        QStringLiteral("seed"), QStringLiteral("Seed of the work and of the faults (default 1)."),
        QStringLiteral("N"), QStringLiteral("1"));
    const QCommandLineOption faultsOpt(
        QStringLiteral("faults"),
        QStringLiteral("Faults of the simulator (default %1).").arg(QLatin1String(DEFAULT_FAULTS)),
        QStringLiteral("SPEC"), QLatin1String(DEFAULT_FAULTS));
    const QCommandLineOption driverOpt(QStringLiteral("driver"),
                                       QStringLiteral("Driver library to load."),
                                       QStringLiteral("PATH"), QStringLiteral(XBC_DRIVER_PATH));
    const QCommandLineOption simOpt(QStringLiteral("sim"), QStringLiteral("xbc-plc-sim to run."),
                                    QStringLiteral("PATH"), QStringLiteral(XBC_SIM_PATH));
    const QCommandLineOption rssOpt(
        QStringLiteral("max-rss-mb"),
        QStringLiteral("Bound of the peak resident memory (default %1).").arg(DEFAULT_MAX_RSS_MIB),
        QStringLiteral("MIB"), QString::number(DEFAULT_MAX_RSS_MIB));
    const QCommandLineOption retriesOpt(
        QStringLiteral("retries"),
        QStringLiteral("retryTimes of the property string (default %1): fewer make more "
                       "writes fail.")
            .arg(DEFAULT_RETRIES),
        QStringLiteral("N"), QString::number(DEFAULT_RETRIES));
    const QCommandLineOption verboseOpt(QStringLiteral("verbose"),
                                        QStringLiteral("Print the host's link messages."));
    parser.addOptions({secondsOpt, linkOpt, seedOpt, faultsOpt, driverOpt, simOpt, rssOpt,
                       retriesOpt, verboseOpt});
    parser.process(app);
    bool ok = false;
    o.seconds = parser.value(secondsOpt).toInt(&ok);
    if (!ok || o.seconds < 1)
        return QStringLiteral("--seconds: expected a number of at least 1");
    const QString link = parser.value(linkOpt);
    if (link != QLatin1String("tcp") && link != QLatin1String("pty"))
        return QStringLiteral("--link: expected tcp or pty");
    o.pty = link == QLatin1String("pty");
    o.seed = parser.value(seedOpt).toUInt(&ok);
    if (!ok)
        return QStringLiteral("--seed: expected a number");
    o.maxRssMib = parser.value(rssOpt).toInt(&ok);
    if (!ok || o.maxRssMib < 1)
        return QStringLiteral("--max-rss-mb: expected a number of at least 1");
    o.retries = parser.value(retriesOpt).toInt(&ok);
    if (!ok || o.retries < 1)
        return QStringLiteral("--retries: expected a number of at least 1");
    o.faults = parser.value(faultsOpt);
    o.driver = parser.value(driverOpt);
    o.simulator = parser.value(simOpt);
    o.verbose = parser.isSet(verboseOpt);
    return QString();
}

void setUpHost(Host &host, Ledger &ledger, const Options &o)
{
    host.config.properties = QStringLiteral("1#0#0#%1#64").arg(o.retries);
    host.config.replyTimeoutMs = REPLY_TIMEOUT_MS;
    host.config.pollIntervalMs = POLL_INTERVAL_MS;
    host.config.print = [](const QString &) {};
    const bool verbose = o.verbose;
    host.config.warn = [verbose](const QString &text) {
        if (verbose)
            std::fprintf(stderr, "%s\n", text.toLocal8Bit().constData());
    };
    host.config.noteSink = [&ledger](const xbchost::Notification &n) { recordNote(ledger, n); };
    QList<QString> bits;
    host.api.getRegListByType(0, bits);
    host.bitRegisters = bits;
}

void pointHostAt(Host &host, const SimProcess &sim)
{
    if (sim.pty) {
        host.link.config.kind = xbchost::LinkConfig::Serial;
        host.link.config.device = sim.ptyPath;
    } else {
        host.link.config.kind = xbchost::LinkConfig::Tcp;
        host.link.config.host = QStringLiteral("127.0.0.1");
        host.link.config.port = sim.port;
    }
}

double mib(long kib)
{
    return double(kib) / KIB_PER_MIB;
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
    xbchost::runFor(host, INT_MAX, SETTLE_MAX_MS, settled);
    return settled();
}

struct Region {
    const char *regName;
    const char *address;
    int count;
    int kind;
};
const Region CHECKED[] = {
    {"D_W", "0", D_WORDS, LOC_D_WORD},
    {"M_bit", "0.0", M_WORDS * 16, LOC_M_BIT},
    {"TX", "0", CONTACTS, LOC_TX},
    {"CX", "0", CONTACTS, LOC_CX},
};

// The simulator's memory of every written location; false on a control error.
bool readSimulator(SimProcess &sim, QHash<int, int> &byKey, QString *error)
{
    for (const Region &r : CHECKED) {
        QVector<int> values;
        if (!simValues(sim, QLatin1String(r.regName), QLatin1String(r.address), r.count, values,
                       error))
            return false;
        for (int i = 0; i < r.count; ++i)
            byKey.insert(locKey(r.kind, i), values[i]);
    }
    return true;
}

// Every shown value, words of M included, is what the simulator holds.
void checkShownValues(Host &host, const QHash<int, int> &byKey)
{
    int differ = 0;
    for (const Region &r : CHECKED) {
        const QVector<int> shown = xbchost::shownValues(host, QLatin1String(r.regName), 0, r.count);
        for (int i = 0; i < r.count; ++i) {
            const int key = locKey(r.kind, i);
            if (shown[i] != byKey.value(key) && ++differ <= 10)
                failCheck(QStringLiteral("%1 shows %2, the simulator holds %3")
                              .arg(locationText(key))
                              .arg(shown[i])
                              .arg(byKey.value(key)));
        }
    }
    const QVector<int> words = xbchost::shownValues(host, QStringLiteral("M_W"), 0, M_WORDS);
    for (int w = 0; w < M_WORDS; ++w) {
        int held = 0;
        for (int b = 0; b < 16; ++b)
            held |= byKey.value(locKey(LOC_M_BIT, w * 16 + b)) << b;
        if (words[w] != held && ++differ <= 10)
            failCheck(QStringLiteral("M_W %1 shows %2, the simulator holds %3")
                          .arg(w)
                          .arg(words[w])
                          .arg(held));
    }
    if (differ > 0)
        failCheck(QStringLiteral("%1 shown values differ from the simulator's").arg(differ));
}

// "requests N naks N dropped N ..." of every simulator run, added up.
QString simulatorTotals(const QStringList &runs)
{
    QStringList names;
    QHash<QString, qint64> sums;
    for (const QString &run : runs) {
        const QStringList words = run.split(QLatin1Char(' '), Qt::SkipEmptyParts);
        for (int i = 0; i + 1 < words.size(); i += 2) {
            if (!names.contains(words[i]))
                names << words[i];
            sums[words[i]] += words[i + 1].toLongLong();
        }
    }
    QStringList parts;
    for (const QString &n : names)
        parts << QStringLiteral("%1 %2").arg(n).arg(sums.value(n));
    return parts.join(QStringLiteral(", "));
}

void report(const Options &o, Host &host, const Ledger &ledger, const Work &work)
{
    const Outcomes &w = ledger.outcomes;
    const xbchost::HostStats &s = host.stats;
    say(QStringLiteral("writes %1: landed %2, failed and reported %3, replaced in the queue %4, "
                       "lost %5")
            .arg(w.writes)
            .arg(w.held + w.acknowledged)
            .arg(w.fellBack + w.failed)
            .arg(w.replacedInQueue)
            .arg(w.lost));
    say(QStringLiteral("  last writes of their place: held %1, fell back with a notification %2; "
                       "overwritten later: acknowledged %3, failed %4, replaced in the queue %5")
            .arg(w.held)
            .arg(w.fellBack)
            .arg(w.acknowledged)
            .arg(w.failed)
            .arg(w.replacedInQueue));
    say(QStringLiteral("condition reads %1: ended %2, ended failed %3")
            .arg(work.stats.conditionReads)
            .arg(host.conditionsDone)
            .arg(host.conditionsFailed));
    say(QStringLiteral("recipe transfers %1: downloads %2, uploads %3")
            .arg(work.stats.downloads + work.stats.uploads)
            .arg(work.stats.downloads)
            .arg(work.stats.uploads));
    say(QStringLiteral("link drops %1: closed by the simulator %2, simulator restarts %3; "
                       "the host saw %4")
            .arg(work.stats.linkDropsByClose + work.stats.restarts)
            .arg(work.stats.linkDropsByClose)
            .arg(work.stats.restarts)
            .arg(s.linkDrops));
    say(QStringLiteral("frames %1, good replies %2, retries %3, abandoned %4, poll cycles %5")
            .arg(s.framesSent)
            .arg(s.goodReplies)
            .arg(s.retries)
            .arg(s.abandoned)
            .arg(s.pollCycles));
    say(QStringLiteral("simulator: %1").arg(simulatorTotals(work.simStats)));
    const long peak = peakRssKib();
    say(QStringLiteral("peak RSS %1 MiB (bound %2 MiB)")
            .arg(mib(peak), 0, 'f', 1)
            .arg(o.maxRssMib));
    if (peak > long(o.maxRssMib) * KIB_PER_MIB)
        failCheck(QStringLiteral("peak RSS %1 MiB is over the bound of %2 MiB")
                      .arg(mib(peak), 0, 'f', 1)
                      .arg(o.maxRssMib));
}

void finalChecks(Host &host, Ledger &ledger, Work &work, SimProcess &sim)
{
    if (!settle(host, work))
        failCheck(QStringLiteral("the loop did not settle: write list %1, condition reads open "
                                 "%2, recipe request bytes set %3")
                      .arg(host.api.driver->writeList.size())
                      .arg(conditionReadOpen(host, work))
                      .arg(recipePending(host)));
    if (recipePending(host))
        failCheck(QStringLiteral("a recipe request byte stayed set"));
    const int ended = host.conditionsDone + host.conditionsFailed;
    if (ended != work.stats.conditionReads)
        failCheck(QStringLiteral("%1 condition reads, %2 ends reported")
                      .arg(work.stats.conditionReads)
                      .arg(ended));
    QHash<int, int> byKey;
    QString error;
    if (!readSimulator(sim, byKey, &error)) {
        failCheck(error);
        return;
    }
    checkShownValues(host, byKey);
    checkFinalWrites(ledger, host, byKey);
    for (const QString &lost : ledger.outcomes.lostDetails)
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
    const QString optionError = parseOptions(app, o);
    if (!optionError.isEmpty())
        return setupError(optionError);

    Host host;
    Ledger ledger;
    QString error;
    if (!xbchost::loadDriver(host.api, o.driver, &error))
        return setupError(error);
    setUpHost(host, ledger, o);

    QTemporaryDir scratch;
    SimProcess sim;
    sim.program = o.simulator;
    sim.pty = o.pty;
    sim.args = QStringList{QStringLiteral("--faults"),
                           QStringLiteral("%1,seed=%2").arg(o.faults).arg(o.seed)};
    if (!scratch.isValid() || !startSim(sim, &error))
        return setupError(error.isEmpty() ? QStringLiteral("no scratch directory") : error);
    const QString memoryFile = scratch.filePath(QStringLiteral("memory.bin"));
    pointHostAt(host, sim);
    say(QStringLiteral("xbc-soak: %1 s over %2, faults %3, seed %4")
            .arg(o.seconds)
            .arg(o.pty ? QStringLiteral("a pseudo-terminal") : QStringLiteral("TCP loopback"),
                 o.faults)
            .arg(o.seed));

    Work work;
    work.rng.seed(o.seed);
    planWatchesAndRecipes(host);
    xbchost::startRun(host);
    work.nextLinkDropMs = LINK_DROP_MIN_MS;
    qint64 nextProgressMs = PROGRESS_EVERY_MS;
    const qint64 endMs = qint64(o.seconds) * 1000;
    while (host.clock.elapsed() < endMs) {
        randomWork(work, host, ledger);
        xbchost::runFor(host, INT_MAX, TICK_MS);
        host.notes.clear(); // the ledger keeps what the checks need
        const qint64 now = host.clock.elapsed();
        foldOverwritten(ledger, host, now, FOLD_GRACE_MS);
        if (now >= work.nextLinkDropMs) {
            if (!dropLinkNow(work, host, sim, memoryFile, &error))
                return setupError(error);
            work.nextLinkDropMs = now + std::uniform_int_distribution<int>(
                                            LINK_DROP_MIN_MS, LINK_DROP_MAX_MS)(work.rng);
        }
        if (now >= nextProgressMs) {
            say(QStringLiteral("%1 s: frames %2, writes %3, condition reads %4, RSS peak %5 MiB")
                    .arg(now / 1000)
                    .arg(host.stats.framesSent)
                    .arg(ledger.outcomes.writes + ledger.writes.size())
                    .arg(work.stats.conditionReads)
                    .arg(mib(peakRssKib()), 0, 'f', 1));
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
