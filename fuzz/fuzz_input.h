// The byte encoding of the fuzz inputs, both ways: FuzzInput reads typed values
// off the fuzzer's byte string (past its end everything is 0), FuzzSeed writes
// the same encoding for the seed corpus.
#ifndef FUZZ_INPUT_H
#define FUZZ_INPUT_H

#include "service.h"

#include <climits>
#include <cstddef>
#include <cstdint>

// Every watched value is a record and costs its share of each input: the fast
// targets keep positive counts at or below this, enough to cut frames (127
// words), refuse writes (512 words, 1024 bits) and fill a condition read's
// pieces. Built with FUZZ_LARGE_COUNTS, a target takes any count.
#ifdef FUZZ_LARGE_COUNTS
constexpr int FUZZ_COUNT_LIMIT = INT_MAX;
#else
constexpr int FUZZ_COUNT_LIMIT = 1040;
#endif

// Pick bytes: below REG_PICK_TABLE a register of the table, else a name read
// off the input; below COUNT_PICK_SHORT a count below SHORT_COUNT_RANGE, below
// COUNT_PICK_SMALL one below SMALL_COUNT_RANGE (past a frame's 127 words),
// below COUNT_PICK_WORD a 16-bit one, else a 32-bit one.
constexpr uint8_t REG_PICK_TABLE = 200;
constexpr uint8_t COUNT_PICK_SHORT = 200;
constexpr uint8_t COUNT_PICK_SMALL = 250;
constexpr uint8_t COUNT_PICK_WORD = 254;
constexpr int SHORT_COUNT_RANGE = 20;
constexpr int SMALL_COUNT_RANGE = 140;
constexpr int MAX_NAME_BYTES = 8;
// Keys of one merge in fuzz_setup: below this many.
constexpr int SETUP_MAX_KEYS = 8;

struct FuzzInput {
    const uint8_t *data;
    size_t size;
    size_t pos = 0;

    bool atEnd() const
    {
        return pos >= size;
    }
    uint8_t byte()
    {
        return pos < size ? data[pos++] : 0;
    }
    int16_t int16()
    {
        return int16_t(byte() | byte() << 8);
    }
    int32_t int32()
    {
        return int32_t(uint32_t(int16() & 0xFFFF) | uint32_t(int16() & 0xFFFF) << 16);
    }
    QByteArray bytes(size_t n)
    {
        n = n < size - pos ? n : size - pos;
        QByteArray out(reinterpret_cast<const char *>(data + pos), int(n));
        pos += n;
        return out;
    }
    // A register name: mostly from the table, sometimes arbitrary text.
    QString regName()
    {
        const uint8_t pick = byte();
        if (pick < REG_PICK_TABLE)
            return REG_LIST[pick % REG_COUNT];
        return QString::fromLatin1(bytes(byte() % MAX_NAME_BYTES));
    }
    // A count that is mostly small, now and then odd, negative or large.
    int count()
    {
        const uint8_t pick = byte();
        if (pick < COUNT_PICK_SHORT)
            return pick % SHORT_COUNT_RANGE;
        if (pick < COUNT_PICK_SMALL)
            return pick % SMALL_COUNT_RANGE;
        const int n = pick < COUNT_PICK_WORD ? int16() : int32();
        return n > FUZZ_COUNT_LIMIT ? n % (FUZZ_COUNT_LIMIT + 1) : n;
    }
};

struct FuzzSeed {
    QByteArray bytes;

    FuzzSeed &byte(int b)
    {
        bytes.append(char(uint8_t(b)));
        return *this;
    }
    FuzzSeed &int16(int v)
    {
        return byte(v & 0xFF).byte((v >> 8) & 0xFF);
    }
    FuzzSeed &int32(int v)
    {
        return int16(v & 0xFFFF).int16(int(uint32_t(v) >> 16));
    }
    FuzzSeed &raw(const QByteArray &b)
    {
        bytes.append(b);
        return *this;
    }
    // The register of the table at `row`.
    FuzzSeed &regName(int row)
    {
        return byte(row);
    }
    FuzzSeed &count(int n)
    {
        if (n >= 0 && n < SHORT_COUNT_RANGE)
            return byte(n);
        const int small = n + SMALL_COUNT_RANGE; // a pick byte that reads back as n
        if (n >= 0 && small >= COUNT_PICK_SHORT && small < COUNT_PICK_SMALL)
            return byte(small);
        if (n >= INT16_MIN && n <= INT16_MAX)
            return byte(COUNT_PICK_SMALL).int16(n);
        return byte(COUNT_PICK_WORD).int32(n);
    }
};

// ACK, body, checksum pair over the bytes after ACK, EOT.
inline QByteArray framedReply(const QByteArray &body, char first = char(ACK))
{
    QByteArray reply;
    reply.append(first);
    reply.append(body);
    unsigned char pair[2];
    const quint16 sum = computate_check(
        reinterpret_cast<const unsigned char *>(reply.constData()) + 1, quint16(reply.size() - 1));
    putHexPair(pair, (unsigned char)(sum & 0xFF));
    reply.append(char(pair[0]));
    reply.append(char(pair[1]));
    reply.append(char(EOT));
    return reply;
}

// The status block: the driver reads and clears only the two recipe request
// bytes, so only those are reset between inputs.
inline unsigned char *fuzzStatusBlock()
{
    static unsigned char status[65536];
    return status;
}

inline void fuzzResetDriver(const char *properties)
{
    static unsigned char recipe[65536 * 2 + 2048];
    static QMutex hostLock;
    int initStatus = 1;
    fuzzStatusBlock()[STATUS_RECIPE_WRITE] = 0;
    fuzzStatusBlock()[STATUS_RECIPE_READ] = 0;
    intf_setAddrValueChangeCallBack([](int, int, const QString &, int) {});
    intf_initProperty(fuzzStatusBlock(), 0, recipe, &initStatus, properties, &hostLock);
}

// Frees what one input built up (lists, records, recipe blocks), so that the
// fuzzer's leak check sees as many frees as allocations and each input costs
// only its own work.
inline void fuzzReleaseDriver()
{
    QVector<_RCP_VAR_PRO> none;
    intf_setRcpAddress(&none);
    int initStatus = 1;
    // A new run also numbers its areas afresh, so the names an input invents
    // do not pile up: each input starts from a fresh driver and a finding
    // replays alone.
    intf_initProperty(fuzzStatusBlock(), 0, nullptr, &initStatus, "", nullptr);
}

#endif
