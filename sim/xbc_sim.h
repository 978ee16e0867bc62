// PLC simulator: the memory of every area, the answers to r, w, o and n
// requests, fault injection, live changes for demos, and the servers that
// carry it over TCP on loopback and over a pseudo-terminal.
//
// Error replies start with NAK so that a master sees them as bad replies:
//   NAK, command character ('?' when the request has none), error code as one
//   hex pair, checksum pair over the bytes from offset 1 to before the checksum,
//   EOT.
#ifndef XBC_SIM_H
#define XBC_SIM_H

#include <QByteArray>
#include <QList>
#include <QMutex>
#include <QString>
#include <QStringList>
#include <QVector>

#include <functional>
#include <random>

class QObject;
class QSocketNotifier;
class QTimer;

namespace xbcsim {

// ---------------------------------------------------------------------------
// Memory areas.

enum Area {
    AREA_P,
    AREA_M,
    AREA_L,
    AREA_K,
    AREA_F,
    AREA_D,
    AREA_S,
    AREA_T,
    AREA_C,
    AREA_N,
    AREA_Z,
    AREA_TX,
    AREA_CX,
    AREA_COUNT
};

struct AreaInfo {
    const char *name; // "D", "TX"
    char letter;      // memory-area letter of the requests
    int words;        // size in 16-bit words
};

const AreaInfo &areaInfo(int area);
// -1 when the letter names no area.
int areaFromLetter(char letter);
// Area of a register name: "D_W", "M_bit", "TX", or the bare area name "D".
int areaFromRegister(const QString &regName);

// Every area as 16-bit words. TX and CX are bit areas stored as words:
// contact b lives in word b / 16, bit b % 16.
struct Memory {
    QVector<quint16> areas[AREA_COUNT];
};

Memory makeMemory();
bool inRange(const Memory &mem, int area, int word, int words);
quint16 wordAt(const Memory &mem, int area, int word);
void setWordAt(Memory &mem, int area, int word, quint16 value);
bool bitAt(const Memory &mem, int area, int bitAddress);
void setBitAt(Memory &mem, int area, int bitAddress, bool on);

// A location in register notation: "D_W:100", "M_bit:35.3", "TX:7".
struct Location {
    int area = -1;
    bool isBit = false; // bit address in bitAddress, else word in word
    int word = 0;
    int bitAddress = 0;
};
// Empty error text on success.
QString parseLocation(const QString &text, Location &out);

// ---------------------------------------------------------------------------
// Wire encoding.

enum : char { STX = 0x02, ETX = 0x03, EOT = 0x04, ACK = 0x06, NAK = 0x15 };

enum ErrorCode {
    ERR_NONE = 0,
    ERR_MALFORMED = 0x01, // framing, length or non-hex characters
    ERR_CHECKSUM = 0x02,
    ERR_COMMAND = 0x03, // command letter not r, w, o, n
    ERR_AREA = 0x04,    // unknown memory-area letter
    ERR_RANGE = 0x05,   // outside the area
    ERR_COUNT = 0x06,   // byte count odd, zero, or not matching the data
};

// Low 8 bits of the sum of bytes [from, to).
quint8 byteSum(const QByteArray &bytes, int from, int to);
QByteArray hexPair(quint8 value);
// Two upper-case hex characters to a byte; false for any other character.
bool parseHexPair(const QByteArray &bytes, int pos, quint8 &value);
// 16-bit quantity as two hex pairs, low byte first.
QByteArray hex16(quint16 value);

struct Request {
    char command = 0;
    int area = -1;
    int byteAddress = 0;
    int byteCount = 0; // r, w
    QByteArray data;   // w: raw bytes, low byte of each word first
    quint16 mask = 0;  // o, n
};

// Parses one whole request, STX to ETX. Returns ERR_NONE or an error code.
int parseRequest(const QByteArray &frame, Request &out);

QByteArray ackReply(char command, const QByteArray &dataChars);
QByteArray nakReply(char command, int errorCode);

// Applies one request to the memory and returns the reply bytes.
QByteArray answerFrame(Memory &mem, const QByteArray &frame);

// Cuts a byte stream into requests. Bytes before STX are dropped; a frame
// longer than the largest request is dropped and reported as malformed.
struct FrameSplitter {
    QByteArray pending;
    qint64 pendingSinceNs = 0; // when the first byte of pending arrived
};
enum { MAX_REQUEST_BYTES = 2048 };
// Appends incoming bytes and returns the complete frames found, in order. An
// overlong frame comes out as an empty entry (answer it with a NAK).
QList<QByteArray> takeFrames(FrameSplitter &splitter, const QByteArray &incoming);

// ---------------------------------------------------------------------------
// Fault injection on replies, repeatable from the seed.

struct FaultConfig {
    int dropPercent = 0;     // reply not sent
    int corruptPercent = 0;  // one character changed
    int truncatePercent = 0; // reply cut before its end
    int doublePercent = 0;   // reply sent twice
    int nakPercent = 0;      // a NAK sent instead, as if the request came garbled
    int delayMs = 0;         // every reply held back this long
    quint32 seed = 1;
};

struct FaultCounters {
    int dropped = 0;
    int corrupted = 0;
    int truncated = 0;
    int doubled = 0;
    int nakAnswered = 0;
};

// Every reply fault in one place: its name in a fault spec (--faults, the
// control channel), the setting that makes it happen, its counter and the
// counter's name in summaries. The parser, the help text and the summaries
// all read this table; applyFaults() does what each one means.
struct FaultKind {
    const char *name;
    int FaultConfig::*percent;
    int FaultCounters::*counter;
    const char *countedAs;
};
inline constexpr FaultKind FAULT_KINDS[] = {
    {"drop", &FaultConfig::dropPercent, &FaultCounters::dropped, "dropped"},
    {"corrupt", &FaultConfig::corruptPercent, &FaultCounters::corrupted, "corrupted"},
    {"truncate", &FaultConfig::truncatePercent, &FaultCounters::truncated, "truncated"},
    {"double", &FaultConfig::doublePercent, &FaultCounters::doubled, "doubled"},
    {"nak", &FaultConfig::nakPercent, &FaultCounters::nakAnswered, "nak-answered"},
};
// The settings of a fault spec besides the faults: held back replies and
// the generator's seed.
inline constexpr const char *FAULT_DELAY = "delay";
inline constexpr const char *FAULT_SEED = "seed";
enum { MAX_FAULT_DELAY_MS = 60000 };

struct FaultState {
    FaultConfig config;
    std::mt19937 rng;
    FaultCounters counters;
};

// Fresh state: the configuration, the generator seeded, every counter zero.
void resetFaults(FaultState &state, const FaultConfig &config);
// What actually goes on the line for one reply: nothing, one or two chunks.
QList<QByteArray> applyFaults(FaultState &state, const QByteArray &reply);
// "drop=10,corrupt=5,delay=20,seed=7": empty error text on success.
QString parseFaultSpec(const QString &text, FaultConfig &out);
// The form of a fault spec, for help texts: "drop=PCT,...,delay=MS,seed=N".
QString faultSpecSyntax();
// "dropped 3", "corrupted 0", ...: every counter by its name, in table order.
QStringList faultCountTexts(const FaultCounters &counters);
// Names of the faults whose counters went up from before to after: what
// applyFaults did to one reply ("corrupt", "double").
QStringList faultsBetween(const FaultCounters &before, const FaultCounters &after);

// ---------------------------------------------------------------------------
// Line pacing: a reply leaves no sooner than the request and the reply would
// take on a serial line, plus the scan time, counted from the request's first
// byte arriving. The whole reply goes at once, when its last character would
// have arrived on the real line.

struct LineSettings {
    int baud = 0; // 0: no line time
    int dataBits = 8;
    int parityBits = 0;   // NONE 0; EVEN, ODD, MARK, SPACE 1
    int stopHalfBits = 2; // stop bits counted in halves: 1, 1.5, 2 -> 2, 3, 4
    int scanMs = 0;
};
enum { MAX_SCAN_MS = 60000 };

// "115200,8,NONE,1" (parity NONE, EVEN, ODD, MARK or SPACE; stop bits 1, 1.5
// or 2) into out, keeping its scan time: empty error text on success.
QString parseLineSettings(const QString &text, LineSettings &out);
// Time that many characters take on the line: start bit, data bits, parity
// bit if any and stop bits each.
qint64 lineTimeNs(const LineSettings &line, int characters);
bool paced(const LineSettings &line);
// The monotonic clock the pacing counts on.
qint64 monotonicNs();

// ---------------------------------------------------------------------------
// Live changes for demos: counter words count up, blinking bits toggle.

struct LiveConfig {
    QList<Location> counters; // words
    QList<Location> blinks;   // bits
    int periodMs = 500;
};

void stepLive(Memory &mem, const LiveConfig &live);
// Adds a --counter (a word) or a --blink (a bit) location; empty error text on
// success.
QString addCounter(LiveConfig &live, const QString &text);
QString addBlink(LiveConfig &live, const QString &text);
// Presets one word or bit: "D_W:100=1234", "M_bit:3.4=1", "TX:7=1" (--set);
// empty error text on success.
QString applyPreset(Memory &mem, const QString &text);

// ---------------------------------------------------------------------------
// The running simulator: memory behind a lock, TCP server on loopback and an
// optional pseudo-terminal, both served from the thread that started them.

struct SimStats {
    int requests = 0;
    int naks = 0;
};

// One served link: a TCP client or the master side of the pseudo-terminal,
// read and written directly (replies are small; most go out in one write).
struct Connection {
    int fd = -1;
    bool isPty = false;
    QSocketNotifier *reader = nullptr;
    QSocketNotifier *writer = nullptr; // on while output waits for room
    QByteArray output;                 // reply bytes the link had no room for yet
    FrameSplitter splitter;
    qint64 lineFreeNs = 0; // paced: when the last reply has left the line
};

// A reply, or one copy of a doubled one, on its way out.
struct Outgoing {
    QByteArray bytes;
    qint64 dueNs = 0; // on the monotonic clock; 0: at once
    QString trace;    // trace line written when it leaves (empty: none)
    Connection *to = nullptr;
};

struct Simulator {
    QMutex lock; // memory, faults and stats: tests read them from other threads
    Memory memory = makeMemory();
    FaultState faults;
    LiveConfig live;
    LineSettings line;
    SimStats stats;
    bool trace = false;
    std::function<void(const QString &)> traceSink; // default: stderr
    // Answers a request instead of the memory (a replay), under the lock; an
    // empty reply is silence.
    std::function<QByteArray(const QByteArray &frame)> answer;

    QObject *owner = nullptr; // parent of every Qt object below
    int listenFd = -1;
    QSocketNotifier *acceptor = nullptr;
    QList<Connection *> clients;
    Connection *pty = nullptr;
    int ptySlave = -1; // kept open so the master never sees a hang-up
    QString ptyPath;
    QTimer *liveTimer = nullptr;
    // Held back replies (pacing, the delay fault), earliest first, and the
    // timer that sends them: a timerfd, since Qt timers count whole ms.
    QList<Outgoing> held;
    int heldTimerFd = -1;
    QSocketNotifier *heldTimer = nullptr;

    Simulator();
    ~Simulator();
    Simulator(const Simulator &) = delete;
    Simulator &operator=(const Simulator &) = delete;
};

// Listens on 127.0.0.1; port 0 picks a free port. Returns the port, or -1
// with the reason in error.
int startTcp(Simulator &sim, quint16 port, QString *error);
// Opens a pseudo-terminal in raw mode and serves its master side. Returns the
// slave path, or an empty string with the reason in error.
QString startPty(Simulator &sim, QString *error);
void startLive(Simulator &sim);
// Closes the pseudo-terminal, if any; TCP goes on.
void closePty(Simulator &sim);
// Closes every TCP client; the server goes on taking new ones.
void closeClients(Simulator &sim);
void stopSimulator(Simulator &sim);

// Thread-safe access for tests and tools.
quint16 readWord(Simulator &sim, int area, int word);
void writeWord(Simulator &sim, int area, int word, quint16 value);
bool readBit(Simulator &sim, int area, int bitAddress);
void writeBit(Simulator &sim, int area, int bitAddress, bool on);
// New fault settings; the counters go on counting from where they were.
void setFaults(Simulator &sim, const FaultConfig &config);
SimStats statsOf(Simulator &sim);
FaultCounters faultCountersOf(Simulator &sim);

// Handles bytes that arrived on one connection at arrivedNs and returns the
// replies to send, faults applied, each with the time it may leave.
QList<Outgoing> handleIncoming(Simulator &sim, Connection &link, const QByteArray &incoming,
                               qint64 arrivedNs);

// ---------------------------------------------------------------------------
// Control channel for programs that run the simulator as a process (xbc-plc-sim
// --control): one command a line, one answer line each, "ok ..." or
// "error ..."; an empty line and one too long get an error line too.
//   faults off | faults SPEC   reply faults, SPEC as for --faults; the
//                              counters go on from where they were
//   drop link                  closes every TCP client; a pseudo-terminal is
//                              replaced by a new one: "ok pty PATH"
//   read REGISTER ADDRESS N    "ok V1 V2 ...": N words or bits from ADDRESS in
//                              the register's notation (D_W 100, M_bit 3.4, TX 7)
//   save FILE | load FILE      the whole memory, for a restart that keeps it
//   stats                      "ok requests N naks N dropped N corrupted N ..."

enum { MAX_CONTROL_LINE_BYTES = 4096 };
QString controlCommand(Simulator &sim, const QString &line);
// Closes the TCP clients and renews the pseudo-terminal; returns the new slave
// path, empty when there was none (or no new one could be opened).
QString dropLink(Simulator &sim);
// Reads commands from fd (standard input) in the event loop of this thread and
// hands each answer line to answer; atEnd runs at end of input. The returned
// object stops the channel when deleted.
QObject *startControl(Simulator &sim, int fd, const std::function<void(const QString &)> &answer,
                      const std::function<void()> &atEnd);

} // namespace xbcsim

#endif
