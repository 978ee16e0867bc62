// Writes the seed corpora: fuzz_make_seeds DIR writes DIR/fuzz_receive,
// DIR/fuzz_setup and DIR/fuzz_addresses. Receive seeds run the harness itself
// and answer each frame the driver sends with the simulator's reply, so that
// they replay exactly and start the fuzzer on the paths a real PLC takes.
#include "receive_harness.h"
#include "xbc_sim.h"

#include <QDir>
#include <QFile>

#include <cstdio>
#include <cstring>
#include <map>

namespace {

QString outputDir;

void writeSeed(const char *target, const QString &name, const QByteArray &bytes)
{
    const QString dir = outputDir + QLatin1Char('/') + QLatin1String(target);
    QDir().mkpath(dir);
    QFile file(dir + QLatin1Char('/') + name);
    if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size())
        std::fprintf(stderr, "cannot write %s\n", qPrintable(file.fileName()));
}

int rowOf(const char *name)
{
    return getIndexFromRegName(QString::fromLatin1(name));
}

int maxAddressOf(int row)
{
    int value = 0;
    a2i(ADDRESS_RANGE_PRO[row][COL_MAX], value, ADDRESS_RANGE_PRO[row][COL_FORMAT], REG_LIST[row]);
    return value;
}

// ---------------------------------------------------------------------------
// fuzz_receive

struct Key {
    int row;
    int address;
    int count;
    int station = 0;
};

void key(FuzzSeed &s, const Key &k)
{
    s.byte(k.station).regName(k.row);
    if (k.address >= 0 && k.address <= 0x7FFF)
        s.byte(0).int16(k.address);
    else
        s.byte(255).int32(k.address);
    s.count(k.count).byte(ADDRESS_RANGE_PRO[k.row][COL_DATA_BITS] == QLatin1String("1") ? 1 : 0);
}

void write(FuzzSeed &s, const Key &k, const QByteArray &pattern)
{
    s.byte(pattern.size() - 1).raw(pattern);
    key(s, k);
    s.byte(1); // tag
}

struct RecipeVar {
    int row;
    int address;
    int count;
    int bufferIndex; // in units of 16 buffer words
};

struct ReceiveScenario {
    const char *name;
    int properties = 0;
    QList<Key> watched;
    QList<std::pair<Key, QByteArray>> writes;
    QList<Key> conditionReads;
    QList<RecipeVar> recipe;
    int recipeRequest = 0;
    int turns = 8;
    // A write made by the screens before the given turn.
    std::map<int, std::pair<Key, QByteArray>> laterWrites;
};

QByteArray setUpBytes(const ReceiveScenario &sc)
{
    FuzzSeed s;
    s.byte(sc.properties).byte(sc.watched.size());
    for (const Key &k : sc.watched)
        key(s, k);
    s.int16(sc.writes.size());
    for (const auto &w : sc.writes)
        write(s, w.first, w.second);
    s.byte(sc.conditionReads.size());
    for (const Key &k : sc.conditionReads) {
        key(s, k);
        s.byte(7); // tag
    }
    s.byte(sc.recipe.size());
    for (const RecipeVar &v : sc.recipe)
        s.byte(0).regName(v.row).int16(v.address).byte(v.count).byte(v.bufferIndex);
    s.byte(sc.recipeRequest);
    return s.bytes;
}

// A simulator memory with something else than zeros in it.
xbcsim::Memory patternedMemory()
{
    xbcsim::Memory mem = xbcsim::makeMemory();
    for (int area = 0; area < xbcsim::AREA_COUNT; ++area) {
        for (int word = 0; word < mem.areas[area].size(); ++word)
            mem.areas[area][word] = quint16(word * 0x0101 + area * 0x1111);
    }
    return mem;
}

FuzzInput inputOf(const QByteArray &bytes)
{
    return FuzzInput{reinterpret_cast<const uint8_t *>(bytes.constData()), size_t(bytes.size())};
}

void writeReceiveSeed(const ReceiveScenario &sc)
{
    xbcsim::Memory mem = patternedMemory();
    FuzzSeed seed;
    seed.raw(setUpBytes(sc));
    FuzzInput setUp = inputOf(seed.bytes);
    receiveSetUp(setUp);
    for (int turn = 0; turn < sc.turns; ++turn) {
        FuzzSeed action;
        const auto later = sc.laterWrites.find(turn);
        if (later != sc.laterWrites.end()) {
            action.byte(ACT_WRITE);
            write(action, later->second.first, later->second.second);
        } else {
            action.byte(ACT_NONE);
        }
        FuzzInput actionInput = inputOf(action.bytes);
        receiveAction(actionInput);
        FRAME_PRO frame;
        if (!intf_getSendFrame(&frame))
            break;
        const QByteArray request(reinterpret_cast<const char *>(frame.frame), frame.frameLen);
        const QByteArray reply = xbcsim::answerFrame(mem, request);
        FuzzSeed rest;
        rest.byte(REPLY_RAW).byte(0).int16(reply.size()).raw(reply);
        const Key &shown = sc.watched.isEmpty() ? Key{rowOf("D_W"), 0, 1} : sc.watched.first();
        rest.byte(shown.station)
            .regName(shown.row)
            .int16(shown.address)
            .byte(shown.count % FEW_VALUES);
        FuzzInput turnInput = inputOf(rest.bytes);
        receiveTurn(turnInput);
        seed.raw(action.bytes).raw(rest.bytes);
    }
    fuzzReleaseDriver();
    writeSeed("fuzz_receive", QString::fromLatin1(sc.name), seed.bytes);
}

// Where a register's test values go: a word address, or a bit address for the
// "_bit" registers (word * 16 + bit).
int sampleAddress(int row)
{
    if (registerOf(REG_LIST[row]).bitInWord)
        return 35 * 16 + 3;
    return qMin(100, maxAddressOf(row) - 20);
}

void receiveSeeds()
{
    const QByteArray wordValue("\x34\x12", 2);
    const QByteArray bits("\x01\x00\x01", 3);
    for (int row = 0; row < REG_COUNT; ++row) {
        const bool bit = ADDRESS_RANGE_PRO[row][COL_DATA_BITS] == QLatin1String("1");
        const int a = sampleAddress(row);
        ReceiveScenario sc;
        const QByteArray name = "watch-write-" + REG_LIST[row].toLatin1();
        sc.name = name.constData();
        sc.watched = {Key{row, a, 20}};
        sc.writes = {{Key{row, a + 1, bit ? 1 : 2}, bit ? bits : wordValue}};
        writeReceiveSeed(sc);
    }

    const int D = rowOf("D_W"), M = rowOf("M_bit"), TX = rowOf("TX"), L = rowOf("L_bit");
    ReceiveScenario longRead;
    longRead.name = "long-read-D_W";
    longRead.watched = {Key{D, 0, 300}, Key{D, 1000, 4}};
    writeReceiveSeed(longRead);

    ReceiveScenario splitWrite;
    splitWrite.name = "write-300-words";
    splitWrite.properties = 5;
    splitWrite.writes = {{Key{D, 500, 300}, QByteArray("\x01\x02\x03", 3)}};
    splitWrite.watched = {Key{D, 500, 10}};
    writeReceiveSeed(splitWrite);

    ReceiveScenario bitRuns;
    bitRuns.name = "bit-runs-and-contacts";
    bitRuns.watched = {Key{M, 0, 48}, Key{TX, 0, 16}};
    bitRuns.writes = {{Key{M, 3, 5}, bits}, {Key{TX, 4, 3}, bits}, {Key{M, 20, 1}, bits}};
    writeReceiveSeed(bitRuns);

    ReceiveScenario condition;
    condition.name = "condition-reads";
    condition.properties = 1;
    condition.watched = {Key{D, 10, 2}};
    condition.conditionReads = {Key{D, 200, 40}, Key{M, 16 * 7 + 2, 30}};
    condition.turns = 12;
    writeReceiveSeed(condition);

    ReceiveScenario recipeDown;
    recipeDown.name = "recipe-download";
    recipeDown.recipe = {{D, 10, 5, 0}, {D, 15, 3, 1}, {M, 16, 4, 2}};
    recipeDown.recipeRequest = 1;
    writeReceiveSeed(recipeDown);

    ReceiveScenario recipeUp = recipeDown;
    recipeUp.name = "recipe-upload";
    recipeUp.recipeRequest = 2;
    writeReceiveSeed(recipeUp);

    ReceiveScenario handshake;
    handshake.name = "handshake";
    handshake.watched = {Key{D, 0, 4}};
    handshake.recipeRequest = 0xF0;
    writeReceiveSeed(handshake);

    ReceiveScenario outOfRange;
    outOfRange.name = "nak-out-of-range";
    outOfRange.properties = 1;
    outOfRange.watched = {Key{D, 32760, 20}, Key{L, 11263 * 16 + 8, 12}};
    outOfRange.writes = {{Key{D, 32767, 3}, wordValue}};
    writeReceiveSeed(outOfRange);

    // Single-bit writes overwritten while queued, a word write between them.
    ReceiveScenario overwrite;
    overwrite.name = "bit-overwrite";
    overwrite.properties = 1;
    overwrite.watched = {Key{M, 166, 1}, Key{M, 165, 1}};
    overwrite.writes = {{Key{M, 165, 1}, QByteArray(1, '\1')},
                        {Key{D, 5, 1}, wordValue},
                        {Key{M, 165, 1}, QByteArray(1, '\0')}};
    overwrite.laterWrites = {{1, {Key{M, 165, 1}, QByteArray(1, '\1')}},
                             {4, {Key{M, 166, 1}, QByteArray(1, '\1')}}};
    overwrite.turns = 8;
    writeReceiveSeed(overwrite);
}

// ---------------------------------------------------------------------------
// fuzz_setup

void setupKey(FuzzSeed &s, int row, int address, int count)
{
    s.byte(0).byte(0).regName(row);
    if (address >= INT16_MIN && address <= INT16_MAX)
        s.byte(0).int16(address);
    else
        s.byte(200).int32(address);
    s.count(count);
}

void setupSeeds()
{
    const char *const properties[] = {"1#0#0#3#64", "1#0#0#1#8",   "2#1#0#2#127", "1#0#0#0#0",
                                      "1#0#0#3#-5", "7#0#0#3#300", "1#0#0#3",     "x#y#z#w#v",
                                      "",           "1#0#0#3#64#9"};
    int n = 0;
    for (const char *p : properties) {
        FuzzSeed s;
        s.byte(int(strlen(p))).raw(QByteArray(p));
        // Round one: the first registers at their first address; round two:
        // the last ones near their end, with a count that runs past it.
        const int keys = SETUP_MAX_KEYS - 1;
        s.byte(keys);
        for (int row = 0; row < keys; ++row)
            setupKey(s, row, 0, 1 + row % 4);
        s.byte(keys);
        for (int row = REG_COUNT - keys; row < REG_COUNT; ++row)
            setupKey(s, row, maxAddressOf(row) - 2, 5);
        writeSeed("fuzz_setup", QString::fromLatin1("registers-%1").arg(n++), s.bytes);
    }
    // Neighbours that merge, a gap, names outside the table.
    FuzzSeed merge;
    merge.byte(10).raw("1#0#0#3#64");
    merge.byte(6);
    setupKey(merge, rowOf("D_W"), 0, 10);
    setupKey(merge, rowOf("D_W"), 10, 10);
    setupKey(merge, rowOf("D_W"), 40, 10);
    setupKey(merge, rowOf("M_bit"), 3, 20);
    setupKey(merge, rowOf("M_W"), 1, 2);
    setupKey(merge, rowOf("TX"), 0, 40);
    merge.byte(3);
    merge.byte(0).byte(1).byte(REG_PICK_TABLE).byte(3).raw("X_W").byte(0).int16(5).count(3);
    merge.byte(0).byte(2).byte(REG_PICK_TABLE).byte(1).raw("D").byte(0).int16(5).count(3);
    setupKey(merge, rowOf("D_W"), -5, 3);
    writeSeed("fuzz_setup", QString::fromLatin1("merge-and-odd-names"), merge.bytes);
}

// ---------------------------------------------------------------------------
// fuzz_addresses

void addressSeed(int row, const QString &format, const QString &text, int n)
{
    const bool bit = ADDRESS_RANGE_PRO[row][COL_DATA_BITS] == QLatin1String("1");
    const int maximum = maxAddressOf(row);
    FuzzSeed s;
    s.regName(row);
    s.byte(format.size()).raw(format.toLatin1());
    s.byte(text.size()).raw(text.toLatin1());
    s.int32(0);                                      // a2i value
    s.int32(maximum);                                // addr_int2str
    s.int32(0).int32(maximum);                       // weight: station, value
    s.int32(maximum);                                // formatPlainAddress
    s.int32(0).int32(1).byte(bit ? 0 : 1);           // checkAddrValidity
    s.int32(0).int16(bit ? -1 : 0).int32(1).byte(1); // checkAddr
    s.count(4);                                      // checkAddrValidity, no address
    s.int32(maximum - 3).byte(5).int32(1);           // multiCopy: start, copies, step
    s.int16(2).int32(maximum);                       // multiCp: step, maximum
    writeSeed("fuzz_addresses", QString::fromLatin1("%1-%2").arg(REG_LIST[row]).arg(n), s.bytes);
}

void addressSeeds()
{
    for (int row = 0; row < REG_COUNT; ++row) {
        const QString *r = ADDRESS_RANGE_PRO[row];
        const QString &format = r[COL_FORMAT];
        int n = 0;
        for (const QString &text : {r[COL_MIN], r[COL_MAX], QString::fromLatin1("12")})
            addressSeed(row, format, text, n++);
        // One past the end, in the register's own notation.
        const int past = maxAddressOf(row) + 1;
        addressSeed(row, format,
                    registerOf(REG_LIST[row]).bitInWord ? addr_int2str(past, REG_LIST[row])
                                                        : QString::number(past),
                    n++);
    }
    // Odd texts and formats on a word and a bit register.
    const char *const texts[] = {"12.16", "-1", "0x10", " 7", "1.2.3", "99999999999"};
    int n = 100;
    for (const char *text : texts) {
        addressSeed(rowOf("D_W"), QString::fromLatin1("HHHH"), QString::fromLatin1(text), n++);
        addressSeed(rowOf("M_bit"), QString::fromLatin1("DDDD.DD"), QString::fromLatin1(text), n++);
    }
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s OUTPUT_DIR\n", argv[0]);
        return 2;
    }
    outputDir = QString::fromLocal8Bit(argv[1]);
    receiveSeeds();
    setupSeeds();
    addressSeeds();
    return 0;
}
