// The driver's own work, in process: one exchange of a 127-word read that
// changes every value, value reads and writes against large images, the
// polling plan, and writes against a full write list.
#include "bench_support.h"
#include "service.h"

#include <benchmark/benchmark.h>

#include <QMutex>

#include <memory>
#include <random>
#include <vector>

namespace xbcbench {

long long notesSeen = 0;

namespace {

unsigned char statusBlock[65536];
unsigned char recipeBuffer[65536];
QMutex hostLock;

void noteNothing(int, int, const QString &, int)
{
    ++notesSeen;
}

} // namespace

void startDriver(const char *properties)
{
    intf_setAddrValueChangeCallBack(&noteNothing);
    int status = 1;
    intf_initProperty(statusBlock, 0, recipeBuffer, &status, properties, &hostLock);
}

KEY_ADDRESS watchKey(int station, const char *regName, int address, int count, bool bits)
{
    KEY_ADDRESS k;
    k.stationNo = station;
    k.regName = QString::fromLatin1(regName);
    k.address = address;
    k.count = count;
    k.dataKind = bits ? -1 : 0;
    return k;
}

QByteArray readReply(int words, quint16 word)
{
    static const char hex[] = "0123456789ABCDEF";
    QByteArray r;
    r.append(char(0x06));
    r.append('r');
    for (int i = 0; i < words; ++i) {
        const unsigned char bytes[2] = {quint8(word & 0xFF), quint8(word >> 8)};
        for (unsigned char b : bytes) {
            r.append(hex[b >> 4]);
            r.append(hex[b & 0x0F]);
        }
    }
    unsigned sum = 0;
    for (int i = 1; i < r.size(); ++i)
        sum += quint8(r.at(i));
    r.append(hex[(sum >> 4) & 0x0F]);
    r.append(hex[sum & 0x0F]);
    r.append(char(0x04));
    return r;
}

namespace {

// ---------------------------------------------------------------------------
// One exchange: frame out, reply in, 127 words and their 2032 bits watched,
// every word and every bit different from the previous reply.

void BM_Exchange127Words(benchmark::State &state)
{
    startDriver("1#0#0#3#127");
    QList<KEY_ADDRESS> keys;
    keys << watchKey(1, "M_W", 0, 127, false) << watchKey(1, "M_bit", 0, 127 * 16, true);
    if (intf_addrMerge(&keys) != 1) {
        state.SkipWithError("the watch did not merge into one read block");
        return;
    }
    const QByteArray replies[2] = {readReply(127, 0x5555), readReply(127, 0xAAAA)};
    auto frame = std::make_unique<FRAME_PRO>();
    QString errorText;
    // First exchange outside the timing: the image then holds 0x5555 and every
    // timed exchange flips all bits.
    intf_getSendFrame(frame.get());
    QByteArray first = replies[0];
    intf_dealRcvFrame(first, errorText);
    if (frame->frameLen != READ_REQUEST_BYTES || frame->replyLen != replies[0].size()) {
        state.SkipWithError("unexpected frame or reply size");
        return;
    }
    const long long notesBefore = notesSeen;
    unsigned n = 1;
    for (auto _ : state) {
        if (intf_getSendFrame(frame.get()) != 1) {
            state.SkipWithError("no frame to send");
            break;
        }
        QByteArray reply = replies[n++ & 1];
        if (intf_dealRcvFrame(reply, errorText) != 1) {
            state.SkipWithError("reply refused");
            break;
        }
    }
    const double exchanges = double(state.iterations());
    state.counters["notes_per_exchange"] =
        exchanges > 0 ? double(notesSeen - notesBefore) / exchanges : 0.0;
    state.counters["line_ms_115200"] =
        1e3 * lineSeconds(READ_REQUEST_BYTES, READ_127_REPLY_BYTES, SERIAL_BAUD);
}
BENCHMARK(BM_Exchange127Words)->Unit(benchmark::kMicrosecond);

// ---------------------------------------------------------------------------
// Images of n word records: D_W 0.. of stations 1, 2, ... (32768 words each).

int imageRecords = -1;

void buildImage(int records)
{
    if (imageRecords == records && driver.dataAreas.size() == records)
        return;
    startDriver("1#0#0#3#127");
    std::vector<unsigned char> out(2 * 32768);
    const QString reg = QStringLiteral("D_W");
    for (int station = 1, made = 0; made < records; ++station) {
        const int count = qMin(32768, records - made);
        intf_getData(station, reg, 0, count, out.data());
        made += count;
    }
    imageRecords = records;
}

// Builds the image for a benchmark; false (and the benchmark skipped) when it
// could not be built.
bool imageReady(benchmark::State &state, int records)
{
    buildImage(records);
    if (driver.dataAreas.size() == records)
        return true;
    state.SkipWithError("image not built");
    return false;
}

// Builds the image of state.range(0) records and picks the word in its
// middle; false (and the benchmark skipped) when the image was not built.
bool middleOfImage(benchmark::State &state, int &station, int &address)
{
    const int records = int(state.range(0));
    if (!imageReady(state, records))
        return false;
    const int mid = records / 2;
    station = 1 + mid / 32768;
    address = mid % 32768;
    return true;
}

void BM_GetDataOneWord(benchmark::State &state)
{
    int station = 0, address = 0;
    if (!middleOfImage(state, station, address))
        return;
    const QString reg = QStringLiteral("D_W");
    unsigned char out[2] = {};
    for (auto _ : state) {
        intf_getData(station, reg, address, 1, out);
        benchmark::DoNotOptimize(out);
    }
    state.counters["records"] = double(state.range(0));
}
BENCHMARK(BM_GetDataOneWord)->Arg(1000)->Arg(10000)->Arg(100000)->Arg(1000000);

// The same read, one word at a time from 4096 words spread over the whole
// image: what a screen of scattered values costs once the image no longer
// fits the caches.
void BM_GetDataScattered(benchmark::State &state)
{
    const int records = int(state.range(0));
    if (!imageReady(state, records))
        return;
    std::mt19937 draw(11);
    std::vector<std::pair<int, int>> words(4096);
    for (auto &w : words) {
        const int r = int(draw() % unsigned(records));
        w = {1 + r / 32768, r % 32768};
    }
    const QString reg = QStringLiteral("D_W");
    unsigned char out[2] = {};
    size_t i = 0;
    for (auto _ : state) {
        const auto &w = words[i++ & 4095];
        intf_getData(w.first, reg, w.second, 1, out);
        benchmark::DoNotOptimize(out);
    }
}
BENCHMARK(BM_GetDataScattered)->Arg(1000)->Arg(1000000);

void BM_SetDataOneWord(benchmark::State &state)
{
    int station = 0, address = 0;
    if (!middleOfImage(state, station, address))
        return;
    const QString reg = QStringLiteral("D_W");
    unsigned char data[2] = {0x34, 0x12};
    int tag = 1000;
    for (auto _ : state) {
        data[0] ^= 0xFF; // a new value every time, so the image changes
        intf_setData(station, reg, address, 1, data, tag++);
    }
    // The queued writes are never sent: leave the list as a fresh run has it.
    driver.writeList.clear();
}
BENCHMARK(BM_SetDataOneWord)->Arg(1000)->Arg(10000)->Arg(100000)->Arg(1000000);

// ---------------------------------------------------------------------------
// The write list at its bound: 512 queued single-word writes, then writes of
// other words, each searched against the whole list and put in the last place.

void BM_SetDataFullWriteList(benchmark::State &state)
{
    startDriver("1#0#0#3#127");
    imageRecords = -1;
    const QString reg = QStringLiteral("D_W");
    unsigned char data[2] = {1, 0};
    for (int a = 0; a < 512; ++a)
        intf_setData(1, reg, a, 1, data, 1000 + a);
    int tag = 5000;
    int n = 0;
    for (auto _ : state) {
        data[0] = quint8(n);
        intf_setData(1, reg, 1000 + (n & 1), 1, data, tag++);
        ++n;
    }
    state.counters["write_list"] = driver.writeList.size();
    startDriver("1#0#0#3#127");
}
BENCHMARK(BM_SetDataFullWriteList)->Unit(benchmark::kMicrosecond);

// ---------------------------------------------------------------------------
// The polling plan of n random keys over 4 stations and 10 registers, from a
// fresh run (its records are created as part of the call).

QList<KEY_ADDRESS> randomKeys(int n)
{
    struct Reg {
        const char *name;
        int maxAddress; // numeric address, bits as word * 16 + bit
        bool bits;
    };
    static const Reg regs[] = {
        {"D_W", 32767, false},
        {"M_W", 2047, false},
        {"P_W", 2047, false},
        {"L_W", 11263, false},
        {"N_W", 21503, false},
        {"T_W", 2047, false},
        {"M_bit", 2047 * 16 + 15, true},
        {"P_bit", 2047 * 16 + 15, true},
        {"L_bit", 11263 * 16 + 15, true},
        {"K_bit", 4095 * 16 + 15, true},
    };
    std::mt19937 draw{unsigned(n)};
    QList<KEY_ADDRESS> keys;
    keys.reserve(n);
    for (int i = 0; i < n; ++i) {
        const Reg &r = regs[draw() % (sizeof regs / sizeof regs[0])];
        const int count = 1 + int(draw() % (r.bits ? 16 : 8));
        const int address = int(draw() % unsigned(r.maxAddress - count + 2));
        keys.append(watchKey(1 + int(draw() % 4), r.name, address, count, r.bits));
    }
    return keys;
}

void BM_AddrMerge(benchmark::State &state)
{
    const int n = int(state.range(0));
    // Not shared with another list: the call only reads it, so nothing is copied.
    QList<KEY_ADDRESS> keys = randomKeys(n);
    imageRecords = -1;
    int blocks = 0;
    for (auto _ : state) {
        state.PauseTiming();
        startDriver("1#0#0#3#127");
        state.ResumeTiming();
        blocks = intf_addrMerge(&keys);
    }
    state.counters["keys"] = n;
    state.counters["read_blocks"] = blocks;
    state.counters["records"] = driver.dataAreas.size();
    startDriver("1#0#0#3#127");
}
BENCHMARK(BM_AddrMerge)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

} // namespace

} // namespace xbcbench
