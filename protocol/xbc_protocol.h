// What is particular to this PLC: address texts, the merge rule, the frame
// layout with its checksum, the read and write frames and the reply check.
#ifndef XBC_PROTOCOL_H
#define XBC_PROTOCOL_H

#include "ls_xbc_cpu_direct.h"

#include <QStringList>

// --- register table lookups ---
int getIndexFromRegName(const QString &regName);
// Row of ADDRESS_RANGE_PRO for a name: its register index, or the fallback row.
int regRowOf(const QString &regName);
const QString &regColumn(const QString &regName, int column);
int regDataBits(const QString &regName);
int regUnitBits(const QString &regName);
bool isBitRegName(const QString &regName);      // contains "_bit"
bool isWireBitRegister(const QString &regName); // "_bit", "TX" or "CX"
// The part of a register name before its first "_" ("M" for "M_bit").
QString areaPrefix(const QString &regName);

// --- address texts ---
int a2i(const QString &text, int &value, const QString &format, const QString &regName);
int addr_str2int(const QString &text, const QString &regName);
QString addr_int2str(int value, const QString &regName);
int addrOffset(const QString &regName, int value);
unsigned int getRegAddressWeight(int station, const QString &regName, int value);
int uchar2int16(unsigned char low, unsigned char high);
int uchar2int32(unsigned char b0, unsigned char b1, unsigned char b2, unsigned char b3);
// A format with a second kind of character (the "." of "DDDD.DD") is word.bit.
bool isWordBitFormat(const QString &format);
// Number text in the notation of a plain (not word.bit) format: %u, %x or %o by
// its first character; empty for any other.
QString formatPlainAddress(const QString &format, int value);

// --- merge rule ---
int judgeAddrMerge(KEY_ADDRESS block, KEY_ADDRESS next, int allowGap);
// What the merge rule looks at of a key: the merge passes work on these small
// runs instead of whole keys with their 1024 data bytes.
struct MergeRun {
    int stationNo;
    QString regName;
    int address;
    int count;
};
int mergeRule(const MergeRun &block, const MergeRun &next, int allowGap);

// --- frame layout ---
enum { STX = 0x02, ETX = 0x03, EOT = 0x04, ACK = 0x06, NAK = 0x15 };
enum { READ_FRAME_LEN = 14, BIT_FRAME_LEN = 16, WRITE_REPLY_LEN = 5 };
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
// Memory-area letter of a register, 0 when it has none.
char areaLetter(const QString &regName);

void handShakeFrame();
// Queues a read frame for the first variable; returns the number of variables
// served (1), or 0 when no frame could be built.
int getReadFrame(QList<VARIABLE> vars);
// Queues the frames of one write request; returns the number queued (0 when
// the request cannot be put into a frame).
int getWriteFrame(VARIABLE &request);

// --- reply check ---
int check_rcv_data(const unsigned char *buf, QList<VARIABLE> vars, int len);

#endif
