// What is particular to this PLC: address texts, the merge rule, the frame
// layout with its checksum, the read and write frames, the reply check and the
// data of replies. Pure functions: they work on what they are given and never
// touch the driver's state, which the service keeps.
#ifndef XBC_PROTOCOL_H
#define XBC_PROTOCOL_H

#include "ls_xbc_cpu_direct.h"
#include "registers.h"

#include <QStringList>

// --- address texts ---
int a2i(const QString &text, int &value, const QString &format, const QString &regName);
int addr_str2int(const QString &text, const QString &regName);
QString addr_int2str(int value, const QString &regName);
int addrOffset(const QString &regName, int value);
// The sort key of an address: `position` is the register's place in a list of
// `registerCount` names.
unsigned int addressWeight(int station, int position, int value, int registerCount);
// An address in the notation of its register of the table: word.bit or the
// plain number of its format.
QString addressText(const Register &reg, int value);
int uchar2int16(unsigned char low, unsigned char high);
int uchar2int32(unsigned char b0, unsigned char b1, unsigned char b2, unsigned char b3);
// A format with a second kind of character (the "." of "DDDD.DD") is word.bit.
bool isWordBitFormat(const QString &format);
// Number text in the notation of a plain (not word.bit) format: %u, %x or %o by
// its first character; empty for any other.
QString formatPlainAddress(const QString &format, int value);

// --- merge rule ---
// What the merge rule looks at of a key: the merge passes work on these small
// runs instead of whole keys with their 1024 data bytes.
struct MergeRun {
    int stationNo;
    QString regName;
    int address;
    int count;
    bool contact; // regName is a contact register
};
// 1 when `next` opens a block of its own, 0 when it may join `block`, with
// gaps of up to `allowance` units.
int mergeRule(const MergeRun &block, const MergeRun &next, int allowance);

// --- frame layout ---
enum { STX = 0x02, ETX = 0x03, EOT = 0x04, ACK = 0x06, NAK = 0x15 };
// A request: STX, command, area letter, byte address (two pairs, low byte
// first), "00", byte count pair or bit mask, data pairs, checksum pair, ETX.
enum {
    FRAME_COMMAND = 1,
    FRAME_AREA = 2,
    FRAME_ADDRESS = 3,
    FRAME_RESERVED = 7,
    FRAME_COUNT = 9,
    FRAME_DATA = 11,
    FRAME_TRAILER = 3, // checksum pair and ETX
};
enum { READ_FRAME_LEN = 14, BIT_FRAME_LEN = 16, WRITE_REPLY_LEN = 5 };
// A reply: ACK, the command character, data, checksum pair, EOT.
enum { REPLY_DATA = 2, REPLY_OVERHEAD = 5 };
// Bits travel as the 16-bit words that hold them.
constexpr int WIRE_WORD_BITS = 16;
// Largest word count one request can describe (its byte count is one hex pair).
constexpr int MAX_WORDS_PER_FRAME = 127;
// Most words one read request is read for (the largest register holds 32768):
// longer counts are cut there instead of queueing frames without end.
constexpr int MAX_WORDS_PER_READ = 32768;
unsigned char hexChar(int nibble);
void putHexPair(unsigned char *at, unsigned char byte);
void putHex16(unsigned char *at, quint16 value); // low byte first
unsigned char asc2hex(const QByteArray &bytes, int pos);
quint16 computate_check(const unsigned char *bytes, quint16 n);
// Writes the checksum pair and ETX at the end of a frame of frameLen bytes.
void sealFrame(unsigned char *frame, int frameLen);

FRAME_PRO handShakeFrame();
// Appends the read frames of a request of register `reg` to `out`; returns 1,
// or 0 when no frame could be built.
int getReadFrame(const Register &reg, const VARIABLE &request, QList<FRAME_PRO> &out);
// Appends the frames of one write request to `out`; returns the number
// appended (0 when the request cannot be put into a frame).
int getWriteFrame(const Register &reg, const VARIABLE &request, QList<FRAME_PRO> &out);
// Fills the word write of a several-bit write from the reply to its read: the
// words read with the request's bits merged in (one data byte per bit; any
// non-zero byte sets). False when the frames do not match.
bool completeReadModifyWrite(FRAME_PRO &write, const QByteArray &reply, int words, int start,
                             const VARIABLE &request);

// --- reply check ---
enum ReplyCheck { REPLY_BAD = 0, REPLY_READ_DATA = 1, REPLY_WRITE_ACK = 2 };
// Checks a reply against the frame in flight (null: none).
int check_rcv_data(const unsigned char *buf, const FRAME_PRO *inFlight, int len);

// --- data of a reply: four characters per word, low byte first ---
// Word k of the data from `start`.
quint16 replyWord(const QByteArray &reply, int start, int k);
// Bit `bit` of the data from `start`, counted from bit 0 of its first word.
unsigned char replyBit(const QByteArray &reply, int start, int bit);

#endif
