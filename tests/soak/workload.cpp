// The random work of a soak run: writes of every form, condition reads, recipe
// transfers and link drops, as screens and a restless line would cause them.
#include "soak.h"

#include <sys/resource.h>

namespace soak {

namespace {

using xbchost::Host;

enum {
    PERCENT = 100,
    WRITES_PER_SECOND = 8,
    CONDITION_READ_PERCENT = 10, // ticks that start a condition read when none is open
    RECIPE_PER_MILLE = 25,       // ticks that start a recipe transfer when none is pending
    MAX_RUN = 12,                // longest run of words or bits of one write
    MAX_CONTACT_RUN = 4,
    MAX_BURST = 8,        // writes of one toggle burst
    BURST_PER_MILLE = 30, // ticks that start one
    M_BITS = M_WORDS * 16,
    RECIPE_BUFFER_WORDS = 40,
    RECIPE_WAIT_MS = 15000,
};

// Recipe variables, apart from everything written at random so that the two
// never decide each other's outcome. Bit variables take one buffer word a bit.
struct RecipeVar {
    const char *regName;
    const char *addressText; // the simulator's notation
    int address;
    int count;
    int bufferIndex;
    bool bits;
};
// Contacts stay out: a recipe unit of one bit takes no bytes of the buffer, so
// a contact download always writes 0.
const RecipeVar RECIPE_VARS[] = {
    {"D_W", "2000", 2000, 8, 0, false},
    {"D_W", "2008", 2008, 4, 8, false},
    {"M_W", "100", 100, 2, 16, false},
    {"L_bit", "1.0", 16, 5, 20, true},
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
    const bool bits = xbchost::isBitRegister(host, reg);
    QByteArray data;
    for (int v : values) {
        data.append(char(v & 0xFF));
        if (!bits)
            data.append(char(v >> 8));
    }
    const int tag = xbchost::queueWrite(host, reg, address, values.size(), data);
    recordWrite(ledger, tag, reg, address, values, host.clock.elapsed());
}

void queueRandomWrite(Work &work, Host &host, Ledger &ledger)
{
    QString reg;
    int address = 0;
    int count = 1;
    bool bits = true;
    const int form = draw(work, 0, PERCENT - 1);
    if (form < 30) { // one word
        reg = QStringLiteral("D_W");
        address = draw(work, 0, D_WORDS - 1);
        bits = false;
    } else if (form < 40) { // a run of words
        reg = QStringLiteral("D_W");
        count = draw(work, 2, MAX_RUN);
        address = draw(work, 0, D_WORDS - count);
        bits = false;
    } else if (form < 60) { // one bit
        reg = QStringLiteral("M_bit");
        address = draw(work, 0, M_BITS - 1);
    } else if (form < 70) { // a run of bits: read, then written back
        reg = QStringLiteral("M_bit");
        count = draw(work, 2, MAX_RUN);
        address = draw(work, 0, M_BITS - count);
    } else if (form < 80) { // a word over the same bits
        reg = QStringLiteral("M_W");
        address = draw(work, 0, M_WORDS - 1);
        bits = false;
    } else { // contacts, one frame each
        reg = chance(work, 50) ? QStringLiteral("TX") : QStringLiteral("CX");
        count = draw(work, 1, MAX_CONTACT_RUN);
        address = draw(work, 0, CONTACTS - count);
    }
    QVector<int> values;
    for (int i = 0; i < count; ++i)
        values.append(bits ? bitByte(work) : draw(work, 0, 0xFFFF));
    queueValues(host, ledger, reg, address, values);
}

// Quick toggles of two bits of one word with word writes in between, as a
// button pressed several times while the line is slow: later requests replace
// queued ones for the same bit, and the word write shares their record.
void queueToggleBurst(Work &work, Host &host, Ledger &ledger)
{
    const int word = draw(work, 0, M_WORDS - 1);
    const int first = word * 16 + draw(work, 0, 15);
    const int second = word * 16 + draw(work, 0, 15);
    const int steps = draw(work, 3, MAX_BURST);
    for (int i = 0; i < steps; ++i) {
        const int form = draw(work, 0, 9);
        if (form < 4)
            queueValues(host, ledger, QStringLiteral("M_bit"), first, {bitByte(work)});
        else if (form < 7)
            queueValues(host, ledger, QStringLiteral("M_bit"), second, {bitByte(work)});
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
        int first, last, maxCount;
    } choices[] = {
        {"D_W", 0, 3000, 300},   // watched words and others, several pieces
        {"M_bit", 0, 4000, 300}, // read through the words that hold the bits
        {"TX", 0, 500, 40},
        {"L_W", 0, 1000, 64},
    };
    const auto &c = choices[draw(work, 0, int(std::size(choices)) - 1)];
    const int count = draw(work, 1, c.maxCount);
    xbchost::queueConditionRead(host, QLatin1String(c.regName), draw(work, c.first, c.last), count);
    ++work.stats.conditionReads;
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

void fillRecipeBuffer(Work &work, Host &host)
{
    for (const RecipeVar &v : RECIPE_VARS)
        for (int i = 0; i < v.count; ++i)
            setBufferWord(host, v.bufferIndex + i, v.bits ? bitByte(work) : draw(work, 0, 0xFFFF));
}

void startRecipe(Work &work, Host &host)
{
    const bool download = chance(work, 50);
    if (download) {
        fillRecipeBuffer(work, host);
        ++work.stats.downloads;
    } else {
        host.uploadedWords.clear();
        ++work.stats.uploads;
    }
    xbchost::requestRecipe(host, download);
}

bool runUntil(Host &host, const std::function<bool()> &done, int maxMs)
{
    xbchost::runFor(host, INT_MAX, maxMs, done);
    return done();
}

} // namespace

void planWatchesAndRecipes(Host &host)
{
    const QStringList watches{QStringLiteral("D_W:0:%1").arg(int(D_WORDS)),
                              QStringLiteral("M_bit:0.0:%1").arg(int(M_BITS)),
                              QStringLiteral("M_W:0:%1").arg(int(M_WORDS)),
                              QStringLiteral("TX:0:%1").arg(int(CONTACTS)),
                              QStringLiteral("CX:0:%1").arg(int(CONTACTS))};
    for (const QString &text : watches) {
        xbchost::WatchItem item;
        const QString error = xbchost::parseWatch(host, text, item);
        Q_ASSERT(error.isEmpty());
        xbchost::addWatch(host, item);
    }
    const int driverId = xbchost::parseProperties(host.config.properties).driverId;
    for (const RecipeVar &v : RECIPE_VARS)
        host.recipeVars.append({driverId, host.config.stationNo, QLatin1String(v.regName),
                                v.address, v.count, v.bufferIndex, 0});
}

bool conditionReadOpen(const Host &host, const Work &work)
{
    return host.conditionsDone + host.conditionsFailed < work.stats.conditionReads;
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
    if (draw(work, 0, 999) < BURST_PER_MILLE)
        queueToggleBurst(work, host, ledger);
    // A runtime waits for the end of one condition read before the next: the
    // driver reports the end of the last one queued.
    if (!conditionReadOpen(host, work) && chance(work, CONDITION_READ_PERCENT))
        startConditionRead(work, host);
    if (!recipePending(host) && draw(work, 0, 999) < RECIPE_PER_MILLE)
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
        ++work.stats.linkDropsByClose;
    } else {
        if (!simCommand(sim, QStringLiteral("save %1").arg(memoryFile), nullptr, error))
            return false;
        QString stats;
        if (simCommand(sim, QStringLiteral("stats"), &stats, error))
            work.simStats << stats;
        stopSim(sim);
        if (!startSim(sim, error) ||
            !simCommand(sim, QStringLiteral("load %1").arg(memoryFile), nullptr, error))
            return false;
        ++work.stats.restarts;
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
    if (!runUntil(
            host, [&host]() { return !xbchost::recipePending(host, true); }, RECIPE_WAIT_MS))
        return QStringLiteral("the download request byte stayed set");
    for (const RecipeVar &v : RECIPE_VARS) {
        QVector<int> held;
        QString error;
        if (!simValues(sim, QLatin1String(v.regName), QLatin1String(v.addressText), v.count, held,
                       &error))
            return error;
        for (int i = 0; i < v.count; ++i) {
            const int want =
                v.bits ? int((sent[v.bufferIndex + i] & 0xFF) != 0) : sent[v.bufferIndex + i];
            if (held[i] != want)
                return QStringLiteral("download: %1 %2 +%3 holds %4, the buffer gave %5")
                    .arg(QLatin1String(v.regName), QLatin1String(v.addressText))
                    .arg(i)
                    .arg(held[i])
                    .arg(want);
        }
    }
    for (int w = 0; w < RECIPE_BUFFER_WORDS; ++w)
        setBufferWord(host, w, 0);
    xbchost::requestRecipe(host, false);
    if (!runUntil(
            host, [&host]() { return !xbchost::recipePending(host, false); }, RECIPE_WAIT_MS))
        return QStringLiteral("the upload request byte stayed set");
    QStringList wrong;
    for (const RecipeVar &v : RECIPE_VARS) {
        for (int i = 0; i < v.count; ++i) {
            const int at = v.bufferIndex + i;
            const int want = v.bits ? int((sent[at] & 0xFF) != 0) : sent[at];
            if (bufferWord(host, at) != want)
                wrong << QStringLiteral("word %1 (%2 %3 +%4) holds %5, the PLC %6")
                             .arg(at)
                             .arg(QLatin1String(v.regName), QLatin1String(v.addressText))
                             .arg(i)
                             .arg(bufferWord(host, at))
                             .arg(want);
        }
    }
    if (!wrong.isEmpty())
        return QStringLiteral("upload: ") + wrong.join(QStringLiteral("; "));
    return QString();
}

long peakRssKib()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss; // KiB on Linux
}

} // namespace soak
