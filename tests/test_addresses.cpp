// Address texts and numbers, the address checks, multi-copy, the hex helpers,
// the checksum and the handshake frame.
#include "ls_xbc_cpu_direct.h"
#include "service.h"
#include "xbc_protocol.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <cstring>
#include <ostream>
#include <vector>

inline void PrintTo(const QString &s, std::ostream *os)
{
    *os << '"' << s.toStdString() << '"' << (s.isNull() ? " (null)" : "");
}

namespace {

std::vector<unsigned char> statusBlock(64 * 1024);

void cleanRun()
{
    int status = -1;
    ASSERT_EQ(intf_initProperty(statusBlock.data(), 0, nullptr, &status, "1#0#0#3#64", nullptr), 1);
}

const int KEEP = INT_MIN + 7; // "address left as the caller preset it"

// --- register lookups -----------------------------------------------------

TEST(RegisterLookup, GetIndexFromRegName)
{
    for (int i = 0; i < REG_COUNT; ++i)
        EXPECT_EQ(getIndexFromRegName(REG_LIST[i]), i) << i;
    for (const char *name : {"p_w", "", "P_W ", " P_W", "PW", "_bit", "M_BIT", "Tx", "D"})
        EXPECT_EQ(getIndexFromRegName(name), -1) << name;
    EXPECT_EQ(getIndexFromRegName(QString()), -1);
    EXPECT_EQ(regRowOf("CX"), 17);
    EXPECT_EQ(regRowOf("Q_W"), REG_FALLBACK_ROW);
}

TEST(RegisterLookup, Kinds)
{
    struct Case {
        const char *name;
        bool bitName, wireBit;
        char letter;
    };
    const Case cases[] = {{"P_W", false, false, 'h'}, {"D_W", false, false, 'a'},
                          {"Z_W", false, false, 's'}, {"M_bit", true, true, 'i'},
                          {"F_bit", true, true, 'n'}, {"TX", false, true, 'l'},
                          {"CX", false, true, 'm'},   {"Q_W", false, false, 0},
                          {"X_bit", true, true, 0},   {"", false, false, 0}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(isBitRegName(c.name), c.bitName);
        EXPECT_EQ(isWireBitRegister(c.name), c.wireBit);
        EXPECT_EQ(areaLetter(c.name), c.letter);
    }
}

// --- a2i, addr_str2int, addr_int2str --------------------------------------

TEST(AddressText, A2i)
{
    struct Case {
        const char *text, *format, *reg;
        int result, value; // value KEEP: unchanged
    };
    const Case cases[] = {
        {"0012", "DDDD", "D_W", 1, 12},
        {"12A", "DDDD", "D_W", -1, 0},
        {"", "DDDD", "D_W", -1, 0},
        {"1F", "HHHH", "D_W", 1, 31},
        {"1f", "HHHH", "D_W", 1, 31},
        {"1F", "H", "D_W", 1, 31},
        {"10", "O", "D_W", 1, 8},
        {"1F", "D", "D_W", -1, 0},
        {"1F", "DDDH", "D_W", 1, 0}, // mixed letters: a word.bit pattern, "D_W" has no bit
        {"17", "OOOO", "D_W", 1, 15},
        {"19", "OOOO", "D_W", -1, 0},
        {"42", "", "D_W", 1, 42},            // empty pattern: decimal
        {"42", "XXXX", "D_W", 1, 42},        // unknown letter: decimal
        {"123456", "DDD", "S_W", 1, 123456}, // digits are not counted
        {"-5", "DDDD", "D_W", 1, -5},
        {"32767", "DDDDD", "D_W", 1, 32767},
        {"15.7", "DDDD.DD", "M_bit", 1, 247},
        {"0.0", "DDDD.DD", "P_bit", 1, 0},
        {"2047.15", "DDDD.DD", "M_bit", 1, 32767},
        {"11263.15", "DDDDD.DD", "L_bit", 1, 180223},
        {"15.07", "DDDD.DD", "M_bit", 1, 247},
        {"15.16", "DDDD.DD", "M_bit", -1, KEEP},
        {"15", "DDDD.DD", "M_bit", -1, KEEP},
        {"1.2.3", "DDDD.DD", "M_bit", -1, KEEP},
        {"x.1", "DDDD.DD", "M_bit", -1, KEEP},
        {"2047.", "DDDD.DD", "M_bit", -1, KEEP},
        {".5", "DDDD.DD", "M_bit", -1, KEEP},
        {"", "DDDD.DD", "M_bit", -1, KEEP},
        {"15.7", "DDDD.DD", "D_W", 1, 0}, // word.bit pattern on a name without "_bit"
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(std::string(c.text) + " / " + c.format + " / " + c.reg);
        int value = KEEP;
        EXPECT_EQ(a2i(c.text, value, c.format, c.reg), c.result);
        EXPECT_EQ(value, c.value);
    }
}

TEST(AddressText, Str2Int)
{
    struct Case {
        const char *text, *reg;
        int result;
    };
    const Case cases[] = {
        {"15.7", "M_bit", 247},      {"0.0", "P_bit", 0},    {"1.15", "K_bit", 31},
        {"2.0", "M_bit", 32},        {"0.1", "F_bit", 1},    {"2047.15", "M_bit", 32767},
        {"4095.15", "K_bit", 65535}, {"2047.", "M_bit", -1}, {".5", "M_bit", -1},
        {"12.16", "M_bit", -1},      {"12", "M_bit", -1},    {"1.2.3", "M_bit", -1},
        {"", "M_bit", -1},           {"a.1", "M_bit", -1},   {"1.b", "M_bit", -1},
        {"15.7", "D_W", 0},          {"garbage", "TX", 0},   {"15.7", "CX", 0},
    };
    for (const Case &c : cases)
        EXPECT_EQ(addr_str2int(c.text, c.reg), c.result) << c.text << " " << c.reg;
}

TEST(AddressText, Int2Str)
{
    struct Case {
        int value;
        const char *reg, *text;
    };
    const Case cases[] = {
        {247, "M_bit", "15.7"},
        {32, "M_bit", "2.0"},
        {0, "P_bit", "0.0"},
        {15, "M_bit", "0.15"},
        {16, "M_bit", "1.0"},
        {31, "F_bit", "1.15"},
        {32767, "M_bit", "2047.15"},
        {180223, "L_bit", "11263.15"},
        {-17, "M_bit", "-1.-1"}, // truncating division, remainder with the sign of value
        {247, "D_W", ""},
        {5, "TX", ""},
        {5, "CX", ""},
        {5, "Q_W", ""},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(std::to_string(c.value) + " " + c.reg);
        QString text = addr_int2str(c.value, c.reg);
        EXPECT_EQ(text, QString(c.text));
        EXPECT_FALSE(text.isNull());
    }
    // Round trip over a whole bit register.
    for (int v = 0; v <= 32767; v += 7)
        ASSERT_EQ(addr_str2int(addr_int2str(v, "M_bit"), "M_bit"), v) << v;
}

TEST(AddressText, OffsetIsIdentity)
{
    for (const char *reg : {"D_W", "M_bit", "TX", "Q_W"})
        for (int v : {0, 1, 247, 32767, -1, INT_MAX})
            EXPECT_EQ(addrOffset(reg, v), v) << reg << " " << v;
}

TEST(AddressText, FormatPlainAddress)
{
    EXPECT_EQ(formatPlainAddress("DDDD", 100), QString("100"));
    EXPECT_EQ(formatPlainAddress("DDDD", -2), QString("4294967294"));
    EXPECT_EQ(formatPlainAddress("HHHH", 255), QString("ff"));
    EXPECT_EQ(formatPlainAddress("OOOO", 8), QString("10"));
    EXPECT_EQ(formatPlainAddress("HDDD", 26), QString("1a")); // by the first letter
    EXPECT_TRUE(formatPlainAddress("XXXX", 5).isEmpty());
}

// --- weights and byte assembly --------------------------------------------

TEST(AddressNumbers, Weight)
{
    struct Case {
        int station;
        const char *reg;
        int value;
        unsigned int weight;
    };
    const Case cases[] = {
        {0, "P_W", 5, 5u},
        {0, "M_W", 0, 65535u},
        {1, "P_W", 0, 18u * 65535u},
        {0, "CX", 0, 17u * 65535u},
        {2, "CX", 7, 3473362u},
        {0, "Q_W", 0, 4294901761u}, // position -1: wraps below zero
        {0, "Q_W", 65535, 0u},
        {1, "Q_W", 0, 1114095u}, // 18 x 65535 - 65535
        {0, "P_W", -1, 0xFFFFFFFFu},
        {4000, "P_W", 0, 423552704u}, // 32-bit wrap of the station term
        {0, "M_bit", 32767, 12u * 65535u + 32767u},
    };
    for (const Case &c : cases)
        EXPECT_EQ(getRegAddressWeight(c.station, c.reg, c.value), c.weight)
            << c.station << " " << c.reg << " " << c.value;
    // Sorting order: station, then register in table order, then address.
    EXPECT_LT(getRegAddressWeight(0, "CX", 2047), getRegAddressWeight(1, "P_W", 0));
    EXPECT_LT(getRegAddressWeight(1, "D_W", 65534), getRegAddressWeight(1, "S_W", 0));
}

TEST(AddressNumbers, UcharToInt)
{
    struct Case16 {
        unsigned char lo, hi;
        int value;
    };
    for (const Case16 &c : {Case16{52, 18, 18 * 256 + 52}, Case16{255, 255, 65535}, Case16{0, 0, 0},
                            Case16{1, 0, 1}, Case16{0, 1, 256}, Case16{0x80, 0, 0x80},
                            Case16{0, 0x80, 0x8000}, Case16{0x34, 0x12, 0x1234}})
        EXPECT_EQ(uchar2int16(c.lo, c.hi), c.value) << int(c.lo) << " " << int(c.hi);

    EXPECT_EQ(uchar2int32(1, 2, 3, 4), 1 + 2 * 256 + 3 * 65536 + 4 * 16777216);
    EXPECT_EQ(uchar2int32(0x78, 0x56, 0x34, 0x12), 0x12345678);
    EXPECT_EQ(uchar2int32(255, 0, 0, 0), 255);
    EXPECT_EQ(uchar2int32(0, 0, 0, 1), 1 << 24);
    EXPECT_EQ(uchar2int32(255, 255, 255, 127), INT_MAX);
    EXPECT_EQ(uchar2int32(255, 255, 255, 255), -1);
}

// --- intf_checkAddrValidity and intf_checkAddr ----------------------------

TEST(AddressCheck, Validity)
{
    struct Case {
        const char *reg, *text;
        int preset, count, wordMode;
        int code, address; // address KEEP: the preset is left
    };
    const int P = 55; // a preset that no case produces
    const Case cases[] = {
        {"D_W", "32767", P, 1, 1, 0, 32767},
        {"D_W", "32767", P, 2, 1, 2, 32767}, // parsed before the range check
        {"D_W", "32768", P, 1, 1, 2, 32768},
        {"D_W", "0", P, 1, 1, 0, 0},
        {"D_W", "0", P, 32768, 1, 0, 0}, // last element 32767
        {"D_W", "0", P, 32769, 1, 2, 0},
        {"D_W", "1", P, 32767, 1, 0, 1},
        {"D_W", "1", P, 32768, 1, 2, 1},
        {"D_W", "5", P, 0, 1, 0, 5},
        {"D_W", "-1", P, 1, 1, 2, -1},
        {"D_W", "12A", P, 1, 1, 4, 0}, // a failed plain number stores 0
        {"D_W", "", P, 1, 1, 4, 0},
        {"D_W", "100", P, 1, 0, 1, KEEP}, // word register asked as a bit
        {"D_W", "12A", P, 1, 0, 1, KEEP}, // kind before parse
        {"M_bit", "2047.15", P, 1, 0, 0, 32767},
        {"M_bit", "2047.15", P, 2, 0, 2, 32767},
        {"M_bit", "2048.0", P, 1, 0, 2, 32768},
        {"M_bit", "2047.16", P, 1, 0, 4, KEEP}, // word.bit failure leaves it
        {"M_bit", "2047.15", P, 1, 1, 1, KEEP},
        {"M_bit", "15.7", P, 1, 0, 0, 247},
        {"M_bit", "0.0", P, 16, 0, 0, 0},
        {"P_bit", "15", P, 1, 0, 4, KEEP},
        {"K_bit", "4095.15", P, 1, 0, 0, 65535},
        {"K_W", "2559", P, 1, 1, 0, 2559},
        {"K_W", "2560", P, 1, 1, 2, 2560},
        {"L_bit", "11263.15", P, 1, 0, 0, 180223},
        {"L_W", "11263", P, 1, 1, 0, 11263},
        {"TX", "0", P, 1, 1, 1, KEEP},
        {"TX", "0", P, 1, 0, 0, 0},
        {"TX", "2047", P, 1, 0, 0, 2047},
        {"TX", "2048", P, 1, 0, 2, 2048},
        {"TX", "1.0", P, 1, 0, 4, 0},
        {"CX", "2047", P, 1, 0, 0, 2047},
        {"CX", "2047", P, 2, 0, 2, 2047},
        {"CX", "2046", P, 2, 0, 0, 2046},
        {"Z_W", "127", P, 1, 1, 0, 127},
        {"Z_W", "128", P, 1, 1, 2, 128},
        {"S_W", "0127", P, 1, 1, 0, 127},
        {"S_W", "1000", P, 1, 1, 2, 1000},
        {"N_W", "21503", P, 1, 1, 0, 21503},
        {"N_W", "21504", P, 1, 1, 2, 21504},
        // Unknown names: min 0, max 0, the preset is the address.
        {"Q_W", "5", 0, 1, 1, 3, KEEP},
        {"Q_W", "5", 0, 2, 1, 2, KEEP},
        {"Q_W", "5", 1, 1, 1, 2, KEEP},
        {"Q_W", "5", -1, 1, 1, 2, KEEP},
        {"Q_W", "5", 0, 0, 1, 3, KEEP},
        {"Q_W", "5", 1, 0, 1, 3, KEEP},
        {"d_w", "5", 0, 1, 1, 3, KEEP},
        {"d_w", "5", 0, 1, 0, 3, KEEP},
        {"", "", 0, 1, 0, 3, KEEP},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(std::string(c.reg) + " " + c.text + " preset " + std::to_string(c.preset) +
                     " count " + std::to_string(c.count) + " word " + std::to_string(c.wordMode));
        int address = c.preset;
        EXPECT_EQ(intf_checkAddrValidity(c.reg, c.text, &address, c.count, c.wordMode), c.code);
        EXPECT_EQ(address, c.address == KEEP ? c.preset : c.address);
    }
}

TEST(AddressCheck, WithDataTypeAndAccess)
{
    struct Case {
        const char *reg, *text;
        int preset, dataType, count, accessMode;
        int code, address;
    };
    const int P = 55;
    const Case cases[] = {
        {"M_W", "10", P, -1, 1, 0, 1, KEEP},
        {"M_W", "10", P, 0, 1, 2, 0, 10}, // every register is "RW"
        {"M_W", "10", P, 0, 1, 1, 0, 10},
        {"M_W", "2047", P, 3, 1, 0, 0, 2047},
        {"M_W", "2047", P, 3, 2, 0, 2, 2047},
        {"M_W", "2046", P, 3, 2, 0, 0, 2046},
        {"D_W", "100", P, 2, 1, 0, 0, 100}, // no 32-bit register: any type
        {"D_W", "100", P, 4, 1, 0, 0, 100},
        {"D_W", "100", P, 7, 1, 0, 0, 100},
        {"D_W", "100", P, 10, 1, 0, 0, 100},
        {"D_W", "12A", P, 0, 1, 0, 4, 0},
        {"D_W", "12A", P, -1, 1, 0, 1, KEEP},
        {"M_bit", "15.7", P, -1, 1, 0, 0, 247},
        {"M_bit", "15.7", P, 0, 1, 0, 1, KEEP},
        {"M_bit", "15.16", P, -1, 1, 0, 4, KEEP},
        {"M_bit", "2047.15", P, -1, 2, 0, 2, 32767},
        {"TX", "5", P, -1, 1, 2, 0, 5},
        {"TX", "5", P, 0, 1, 0, 1, KEEP},
        {"TX", "2047", P, -1, 1, 0, 0, 2047},
        {"CX", "2048", P, -1, 1, 0, 2, 2048},
        {"Q_W", "5", 0, 0, 1, 0, 3, KEEP},
        {"Q_W", "5", 0, 0, 2, 0, 2, KEEP},
        {"Q_W", "5", 0, -1, 1, 0, 3, KEEP},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(std::string(c.reg) + " " + c.text + " type " + std::to_string(c.dataType) +
                     " count " + std::to_string(c.count) + " access " +
                     std::to_string(c.accessMode));
        int address = c.preset;
        EXPECT_EQ(intf_checkAddr(c.reg, c.text, &address, c.dataType, c.count, c.accessMode),
                  c.code);
        EXPECT_EQ(address, c.address == KEEP ? c.preset : c.address);
    }
}

// --- intf_multiCopy -------------------------------------------------------

TEST(MultiCopy, Series)
{
    struct Case {
        const char *reg;
        int start, copies, step, result;
        QVector<int> values;
        QVector<QString> texts;
    };
    const Case cases[] = {
        {"D_W", 100, 3, -1, 1, {100, 101, 102}, {"100", "101", "102"}},
        {"D_W", 100, 3, -2, 1, {100, 102, 104}, {"100", "102", "104"}},
        {"D_W", 100, 3, 5, 1, {100, 105, 110}, {"100", "105", "110"}},
        {"D_W", 32766, 3, 1, 2, {32766, 32767, 32767}, {"32766", "32767", "32767"}},
        {"D_W", 32760, 3, 4, 2, {32760, 32764, 32767}, {"32760", "32764", "32767"}},
        {"D_W", 32767, 1, 1, 1, {32767}, {"32767"}},
        {"D_W", 5, 3, 0, 1, {5, 6, 7}, {"5", "6", "7"}},  // step 0 becomes 1
        {"D_W", 5, 3, -3, 1, {5, 6, 7}, {"5", "6", "7"}}, // so does -3
        {"D_W", -2, 2, 1, 1, {-2, -1}, {"4294967294", "4294967295"}},
        {"P_W", 2047, 2, -2, 2, {2047, 2047}, {"2047", "2047"}},
        {"Z_W", 126, 3, 1, 2, {126, 127, 127}, {"126", "127", "127"}},
        {"M_bit", 30, 4, -1, 1, {30, 31, 32, 33}, {"1.14", "1.15", "2.0", "2.1"}},
        {"M_bit", 30, 2, -2, 1, {30, 31}, {"1.14", "1.15"}},
        {"M_bit", 32767, 2, 16, 2, {32767, 32767}, {"2047.15", "2047.15"}},
        {"M_bit", 0, 3, 16, 1, {0, 16, 32}, {"0.0", "1.0", "2.0"}},
        {"K_bit", 65530, 2, 16, 2, {65530, 65535}, {"4095.10", "4095.15"}},
        {"TX", 7, 2, -2, 1, {7, 8}, {"7", "8"}},
        {"CX", 2046, 3, -1, 2, {2046, 2047, 2047}, {"2046", "2047", "2047"}},
        {"Q_W", 0, 3, 1, 0, {}, {}},
        {"d_w", 0, 3, 1, 0, {}, {}},
        {"D_W", 0, 0, 1, 1, {}, {}},
        {"D_W", 0, -3, 1, 1, {}, {}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(std::string(c.reg) + " start " + std::to_string(c.start) + " copies " +
                     std::to_string(c.copies) + " step " + std::to_string(c.step));
        QVector<QString> texts = {"kept"};
        QVector<int> values = {-42};
        EXPECT_EQ(intf_multiCopy(c.reg, c.start, c.copies, c.step, texts, values), c.result);
        EXPECT_EQ(values, QVector<int>{-42} + c.values);
        EXPECT_EQ(texts, QVector<QString>{"kept"} + c.texts);
    }
}

// --- hex, checksum, frame sealing, handshake -------------------------------

TEST(Hex, CharsPairsAndWords)
{
    const char digits[] = "0123456789ABCDEF";
    for (int v = 0; v < 16; ++v)
        EXPECT_EQ(hexChar(v), static_cast<unsigned char>(digits[v])) << v;

    struct Pair {
        unsigned char byte;
        const char *text;
    };
    for (const Pair &p : {Pair{0x3C, "3C"}, Pair{0x0F, "0F"}, Pair{0xA5, "A5"}, Pair{0x00, "00"},
                          Pair{0xFF, "FF"}, Pair{0x10, "10"}, Pair{0x0A, "0A"}}) {
        unsigned char out[4] = {'#', '#', '#', '#'};
        putHexPair(out + 1, p.byte);
        EXPECT_EQ(std::string(reinterpret_cast<char *>(out), 4), std::string("#") + p.text + "#");
        QByteArray bytes = QByteArray("xx") + p.text;
        EXPECT_EQ(asc2hex(bytes, 2), p.byte) << p.text;
    }

    struct Word {
        quint16 value;
        const char *text;
    };
    for (const Word &w :
         {Word{0x1234, "3412"}, Word{200, "C800"}, Word{4, "0400"}, Word{0xABCD, "CDAB"},
          Word{0, "0000"}, Word{0xFFFF, "FFFF"}, Word{0x00FF, "FF00"}, Word{0xFF00, "00FF"}}) {
        unsigned char out[6] = {'#', '#', '#', '#', '#', '#'};
        putHex16(out + 1, w.value);
        EXPECT_EQ(std::string(reinterpret_cast<char *>(out), 6), std::string("#") + w.text + "#");
    }
}

TEST(Checksum, ComputateCheck)
{
    EXPECT_EQ(computate_check(nullptr, 0), 0); // reads nothing
    const unsigned char a[] = {0xFF, 0xFF, 0x02};
    EXPECT_EQ(computate_check(a, 3), 0x0200);
    EXPECT_EQ(computate_check(a, 2), 0x01FE);
    const unsigned char b[] = {1, 2, 3, 200};
    EXPECT_EQ(computate_check(b, 3), 6);
    std::vector<unsigned char> big(300, 0xFF);
    EXPECT_EQ(computate_check(big.data(), 300), 10964); // 76500 mod 65536
    std::vector<unsigned char> huge(65535, 0xFF);
    EXPECT_EQ(computate_check(huge.data(), 65535), quint16(65535u * 255u));
}

TEST(Checksum, SealFrame)
{
    // The 14-byte read frame of 5 words of D_W from word 100:
    // STX r a C800 00 0A <sum> ETX; the sum covers offsets 1 to 10.
    unsigned char frame[FRAME_BYTES];
    std::memset(frame, '#', sizeof frame);
    const char body[] = "\x02rAC80000"
                        "0A";
    std::memcpy(frame, body, 11);
    frame[2] = 'a';
    sealFrame(frame, 14);
    unsigned sum = 0;
    for (int i = 1; i <= 10; ++i)
        sum += frame[i];
    char expect[3];
    std::snprintf(expect, sizeof expect, "%02X", sum & 0xFF);
    EXPECT_EQ(frame[11], expect[0]);
    EXPECT_EQ(frame[12], expect[1]);
    EXPECT_EQ(frame[13], ETX);
    EXPECT_EQ(frame[14], '#'); // nothing written past the frame
    EXPECT_EQ(frame[0], STX);

    // A sum above 255 keeps only its low byte: 0x1A5 gives A5.
    unsigned char f2[8] = {STX, 0xFF, 0xA6, 0x00, 0x00, 0, 0, 0};
    sealFrame(f2, 7);
    EXPECT_EQ(f2[4], 'A');
    EXPECT_EQ(f2[5], '5');
    EXPECT_EQ(f2[6], ETX);
    EXPECT_EQ(f2[7], 0);
}

TEST(Handshake, AppendsEmptyFrameRecord)
{
    cleanRun();
    FRAME_PRO first;
    first.frameLen = 14;
    driver.sendList.append(first);
    handShakeFrame();
    ASSERT_EQ(driver.sendList.size(), 2);
    EXPECT_EQ(driver.sendList.first().frameLen, 14); // appended at the end
    const FRAME_PRO &f = driver.sendList.last();
    EXPECT_EQ(f.frameLen, 0);
    EXPECT_EQ(f.replyLen, 0);
    EXPECT_EQ(f.dataPos, 0);
    EXPECT_EQ(f.wordCount, 0);
    EXPECT_EQ(f.reserved, 0);
    EXPECT_TRUE(f.var.regName.isEmpty());
    EXPECT_EQ(f.var.stationNo, 0);
    EXPECT_EQ(f.var.address, 0);
    EXPECT_EQ(f.var.count, 0);
    handShakeFrame();
    EXPECT_EQ(driver.sendList.size(), 3);
    cleanRun();
}

} // namespace
