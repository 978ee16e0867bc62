// The random work of a soak run: writes of every form, condition reads, recipe
// transfers and link drops, as screens and a restless line would cause them.
#include "soak.h"

#include <sys/resource.h>

namespace soak {

namespace {

using xbctest::simValues;

enum {
    PERCENT = 100,
    PER_MILLE = 1000,
    WRITES_PER_SECOND = 8,
    CONDITION_READ_PERCENT = 10, // ticks that start a condition read when none is open
    RECIPE_PER_MILLE = 25,       // ticks that start a recipe transfer when none is pending
    MAX_RUN = 12,                // longest run of words or bits of one write
    MAX_CONTACT_RUN = 4,
    MAX_BURST = 8,        // writes of one toggle burst
    BURST_PER_MILLE = 30, // ticks that start one
    RECIPE_BUFFER_WORDS = 40,
    RECIPE_WAIT_MS = 15000,
};

// Recipe variables, apart from everything written at random so that the two
// never decide each other's outcome. A bit variable (contacts too) takes one
// buffer word per bit, 0 or 1.
struct RecipeVar {
    const char *regName;
    const char *addressText; // the simulator's notation
    int address;
    int count;
    int bufferIndex;
    bool bits;
    bool ours = true; // false: another driver's, which this one leaves alone
};
const RecipeVar RECIPE_VARS[] = {
    {"D_W", "2000", 2000, 8, 0, false}, {"D_W", "2008", 2008, 4, 8, false},
    {"M_W", "100", 100, 2, 16, false},  {"L_bit", "1.0", 16, 5, 20, true},
    {"TX", "100", 100, 4, 26, true},    {"D_W", "2100", 2100, 2, 30, false, false},
};

int draw(Work &work, int from, int to)
{
    return std::uniform_int_distribution<int>(from, to)(work.rng);
}

bool chance(Work &work, int percent)
{
    return draw(work, 0, PERCENT - 1) < percent;
}

// A bit byte: mostly 0 and 1, now and then another non-zero byte (it sets).
int bitByte(Work &work)
{
    if (!chance(work, 50))
        return 0;
    return chance(work, 10) ? draw(work, 2, 255) : 1;
}

void queueValues(Host &host, Ledger &ledger, const QString &reg, int address,
                 const QVector<int> &values)
{
    const int tag = xbctest::queueValues(host, reg, address, values);
    recordWrite(ledger, tag, reg, address, values, host.clock.elapsed());
}

void queueRandomWrite(Work &work, Host &host, Ledger &ledger)
{
    struct Form {
        int upTo; // percent
        const char *reg;
        int minCount, maxCount, places;
    };
    static const Form forms[] = {
        {30, "D_W", 1, 1, D_WORDS},
        {40, "D_W", 2, MAX_RUN, D_WORDS},
        {60, "M_bit", 1, 1, M_BITS},
        {70, "M_bit", 2, MAX_RUN, M_BITS},        // a run of bits: read, then written back
        {80, "M_W", 1, 1, M_WORDS},               // a word over the same bits
        {90, "TX", 1, MAX_CONTACT_RUN, CONTACTS}, // contacts, one frame each
        {100, "CX", 1, MAX_CONTACT_RUN, CONTACTS},
    };
    const int pick = draw(work, 0, PERCENT - 1);
    const Form &f = *std::find_if(std::begin(forms), std::end(forms),
                                  [pick](const Form &form) { return pick < form.upTo; });
    const QString reg = QLatin1String(f.reg);
    const int count = draw(work, f.minCount, f.maxCount);
    const bool bits = xbchost::isBitRegister(host, reg);
    QVector<int> values;
    for (int i = 0; i < count; ++i)
        values.append(bits ? bitByte(work) : draw(work, 0, 0xFFFF));
    queueValues(host, ledger, reg, draw(work, 0, f.places - count), values);
}

// Quick toggles of two bits of one word with word writes in between, as a
// button pressed several times while the line is slow: later requests replace
// queued ones for the same bit, and the word write shares their record.
void queueToggleBurst(Work &work, Host &host, Ledger &ledger)
{
    const int word = draw(work, 0, M_WORDS - 1);
    const int bits[] = {word * 16 + draw(work, 0, 15), word * 16 + draw(work, 0, 15)};
    for (int steps = draw(work, 3, MAX_BURST); steps > 0; --steps) {
        const int form = draw(work, 0, 9);
        if (form < 7)
            queueValues(host, ledger, QStringLiteral("M_bit"), bits[form < 4 ? 0 : 1],
                        {bitByte(work)});
        else if (form < 9)
            queueValues(host, ledger, QStringLiteral("D_W"), draw(work, 0, D_WORDS - 1),
                        {draw(work, 0, 0xFFFF)});
        else
            queueValues(host, ledger, QStringLiteral("M_W"), word, {draw(work, 0, 0xFFFF)});
    }
}

void startConditionRead(Work &work, Host &host)
{
    static const struct {
        const char *regName;
        int last, maxCount;
    } choices[] = {
        {"D_W", 3000, 300},   // watched words and others, several pieces
        {"M_bit", 4000, 300}, // read through the words that hold the bits
        {"TX", 500, 40},
        {"L_W", 1000, 64},
    };
    const auto &c = choices[draw(work, 0, int(std::size(choices)) - 1)];
    xbchost::queueConditionRead(host, QLatin1String(c.regName), draw(work, 0, c.last),
                                draw(work, 1, c.maxCount));
    ++work.conditionReads;
}

void setBufferWord(Host &host, int word, int value)
{
    host.recipeBuffer[2 * word] = quint8(value & 0xFF);
    host.recipeBuffer[2 * word + 1] = quint8((value >> 8) & 0xFF);
}

int bufferWord(const Host &host, int word)
{
    return host.recipeBuffer[2 * word] | (host.recipeBuffer[2 * word + 1] << 8);
}

void startRecipe(Work &work, Host &host)
{
    const bool download = chance(work, 50);
    if (download) {
        for (const RecipeVar &v : RECIPE_VARS)
            for (int i = 0; i < v.count; ++i)
                setBufferWord(host, v.bufferIndex + i,
                              v.bits ? bitByte(work) : draw(work, 0, 0xFFFF));
        ++work.downloads;
    } else {
        host.uploadedWords.clear();
        ++work.uploads;
    }
    xbchost::requestRecipe(host, download);
}

// What unit i of a variable holds after a download of `sent`, in the PLC and
// in the buffer after an upload: another driver's variable keeps 0.
int recipeUnitAfter(const RecipeVar &v, int i, const QVector<int> &sent)
{
    const int word = sent[v.bufferIndex + i];
    return !v.ours ? 0 : v.bits ? int((word & 0xFF) != 0) : word;
}

} // namespace

void planWatchesAndRecipes(Host &host)
{
    for (const QString &text : {QStringLiteral("D_W:0:%1").arg(int(D_WORDS)),
                                QStringLiteral("M_bit:0.0:%1").arg(int(M_BITS)),
                                QStringLiteral("M_W:0:%1").arg(int(M_WORDS)),
                                QStringLiteral("TX:0:%1").arg(int(CONTACTS)),
                                QStringLiteral("CX:0:%1").arg(int(CONTACTS))}) {
        xbchost::WatchItem item;
        const QString error = xbchost::parseWatch(host, text, item);
        Q_ASSERT(error.isEmpty());
        xbchost::addWatch(host, item);
    }
    const int driverId = xbchost::parseProperties(host.config.properties).driverId;
    for (const RecipeVar &v : RECIPE_VARS)
        host.recipeVars.append({v.ours ? driverId : driverId + 1, host.config.stationNo,
                                QLatin1String(v.regName), v.address, v.count, v.bufferIndex, 0});
}

bool conditionReadOpen(const Host &host, const Work &work)
{
    return host.conditionsDone + host.conditionsFailed < work.conditionReads;
}

bool recipePending(Host &host)
{
    return xbchost::recipePending(host, true) || xbchost::recipePending(host, false);
}

void randomWork(Work &work, Host &host, Ledger &ledger)
{
    // Writes come at a steady rate however long the slices of the loop take.
    const qint64 now = host.clock.elapsed();
    work.writeBudget += double(now - work.lastWorkMs) * WRITES_PER_SECOND / 1000;
    work.lastWorkMs = now;
    for (; work.writeBudget >= 1; work.writeBudget -= 1)
        queueRandomWrite(work, host, ledger);
    if (draw(work, 0, PER_MILLE - 1) < BURST_PER_MILLE)
        queueToggleBurst(work, host, ledger);
    // A runtime waits for the end of one condition read before the next: the
    // driver reports the end of the last one queued.
    if (!conditionReadOpen(host, work) && chance(work, CONDITION_READ_PERCENT))
        startConditionRead(work, host);
    if (!recipePending(host) && draw(work, 0, PER_MILLE - 1) < RECIPE_PER_MILLE)
        startRecipe(work, host);
}

bool dropLinkNow(Work &work, Host &host, SimProcess &sim, const QString &memoryFile, QString *error)
{
    if (chance(work, 50)) {
        QString answer;
        if (!simCommand(sim, QStringLiteral("drop link"), &answer, error))
            return false;
        if (sim.pty)
            sim.ptyPath = answer.section(QLatin1Char(' '), 1);
        ++work.linkCloses;
    } else {
        QString stats;
        if (!simCommand(sim, QStringLiteral("save %1").arg(memoryFile), nullptr, error) ||
            !simCommand(sim, QStringLiteral("stats"), &stats, error))
            return false;
        work.simStats << stats;
        stopSim(sim);
        if (!startSim(sim, error) ||
            !simCommand(sim, QStringLiteral("load %1").arg(memoryFile), nullptr, error))
            return false;
        ++work.restarts;
    }
    if (sim.pty)
        host.link.config.device = sim.ptyPath;
    return true;
}

QString checkRecipeRoundTrip(Host &host, SimProcess &sim)
{
    // A fixed pattern, so that every run checks the same bits: words count
    // up, bits of one variable differ from each other.
    for (const RecipeVar &v : RECIPE_VARS)
        for (int i = 0; i < v.count; ++i)
            setBufferWord(host, v.bufferIndex + i,
                          v.bits ? int(i % 2 == 1 || i == v.count - 1)
                                 : 0x1000 * (i + 1) + v.address);
    QVector<int> sent;
    for (int w = 0; w < RECIPE_BUFFER_WORDS; ++w)
        sent.append(bufferWord(host, w));
    xbchost::requestRecipe(host, true);
    if (!xbctest::runUntil(
            host, [&host]() { return !xbchost::recipePending(host, true); }, RECIPE_WAIT_MS))
        return QStringLiteral("the download request byte stayed set");
    QStringList wrong;
    const auto expectUnit = [&](const char *step, const RecipeVar &v, int i, int got) {
        if (got != recipeUnitAfter(v, i, sent))
            wrong << QStringLiteral("%1: %2 %3 +%4 holds %5, not %6")
                         .arg(QLatin1String(step), QLatin1String(v.regName),
                              QLatin1String(v.addressText))
                         .arg(i)
                         .arg(got)
                         .arg(recipeUnitAfter(v, i, sent));
    };
    for (const RecipeVar &v : RECIPE_VARS) {
        QVector<int> held;
        QString error;
        if (!simValues(sim, QLatin1String(v.regName), QLatin1String(v.addressText), v.count, held,
                       &error))
            return error;
        for (int i = 0; i < v.count; ++i)
            expectUnit("download", v, i, held[i]);
    }
    for (int w = 0; w < RECIPE_BUFFER_WORDS; ++w)
        setBufferWord(host, w, 0);
    xbchost::requestRecipe(host, false);
    if (!xbctest::runUntil(
            host, [&host]() { return !xbchost::recipePending(host, false); }, RECIPE_WAIT_MS))
        return QStringLiteral("the upload request byte stayed set");
    for (const RecipeVar &v : RECIPE_VARS)
        for (int i = 0; i < v.count; ++i)
            expectUnit("upload", v, i, bufferWord(host, v.bufferIndex + i));
    return wrong.join(QStringLiteral("; "));
}

long peakRssKib()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss; // KiB on Linux
}

} // namespace soak
