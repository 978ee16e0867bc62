// Runtime stand-in: loads the driver library by path, owns the memory the
// runtime owns (status block, recipe buffer, lock, callback) and runs the
// communication loop over a TCP or serial link.
//
// The loop never blocks outside an event loop: every wait (reply, poll
// interval, reconnect) runs a local QEventLoop, so a simulator served by the
// same thread keeps answering. runFor() is bounded in exchanges and time.
#ifndef XBC_HOST_H
#define XBC_HOST_H

#include "ls_xbc_cpu_direct.h"
#include "serial_line.h"

#include <QElapsedTimer>
#include <QFile>
#include <QHash>
#include <QLibrary>
#include <QMap>
#include <QMutex>
#include <QSerialPort>
#include <QSet>
#include <QString>
#include <QStringList>
#include <QTcpSocket>
#include <QTime>
#include <QVector>

#include <functional>
#include <memory>

namespace xbctrace {
struct Capture; // capture.h
}

namespace xbchost {

// ---------------------------------------------------------------------------
// The driver's exported functions, resolved by their plain names.

struct DriverApi {
    std::unique_ptr<QLibrary> library;
#define XBC_API_MEMBER(name) decltype(&::intf_##name) name = nullptr;
    XBC_FOR_EACH_EXPORTED_FUNCTION(XBC_API_MEMBER)
#undef XBC_API_MEMBER
    Protocol *driver = nullptr;
};

// Loads the library and resolves every name. On failure the error names the
// library and each missing symbol, and api is left unusable.
bool loadDriver(DriverApi &api, const QString &path, QString *error);

// ---------------------------------------------------------------------------
// The property string, read as the driver reads it (PropertyNumbers of the
// driver's header): numbers that do not parse are 0.
PropertyNumbers parseProperties(const QString &text);

// ---------------------------------------------------------------------------
// Links.

struct LinkConfig {
    enum Kind { Tcp, Serial };
    Kind kind = Tcp;
    QString host = QStringLiteral("127.0.0.1");
    quint16 port = 8000;
    QString device;
    QString line = QStringLiteral("115200,8,NONE,1");
    // Line settings a TCP link is planned for (a serial server behind it);
    // empty: no line time is planned for TCP.
    QString planLine;
};

// "HOST:PORT" or "HOST" (port 8000). Empty error text on success.
QString parseTcpTarget(const QString &text, LinkConfig &out);

// Line texts ("115200,8,NONE,1") are read as the line tap reads them.
using xbctrace::parseSerialLine;
using xbctrace::SerialLine;

struct Link {
    LinkConfig config;
    std::unique_ptr<QTcpSocket> tcp;
    std::unique_ptr<QSerialPort> serial;
    int backoffMs = 0; // wait before the next attempt; 0: try at once
    QElapsedTimer lastAttempt;
    int connects = 0;
    int failedAttempts = 0;
    bool readable = false; // the socket said bytes (or its end) came since the last read
};

enum { CONNECT_TIMEOUT_MS = 1000, BACKOFF_FIRST_MS = 100, BACKOFF_MAX_MS = 3000 };

// ---------------------------------------------------------------------------
// Watches, writes and outcomes.

struct WatchItem {
    QString regName;
    QString addressText;
    int address = 0; // numeric address from the driver's check
    int count = 1;
    bool isBit = false;
};

struct WriteItem {
    QString regName;
    QString addressText;
    int address = 0;
    bool isBit = false;
    QVector<int> values; // consecutive values from address on
};

// One write as its frames show it. The driver cuts a write as it must (frame
// limits, one frame per contact, a read before a write of some bits); every
// frame carries the write's tag, so the host counts what comes and waits until
// nothing with the tag is left in the driver.
struct WriteRecord {
    int stationNo = 0;
    QString regName;
    int address = 0;
    int count = 0;
    bool localOnly = false; // kept in the driver's image only (local-write-only property)
    int acked = 0;          // write frames the PLC answered
    int failed = 0;         // frames abandoned after their retries
    int failNoteIndex = -1; // notes from here on came with or after the failure
    bool done = false;      // nothing with its tag is queued or on the line any more
    qint64 doneAtMs = -1;
    QString failReason; // why its last frame was abandoned
    QString text;       // "D_W:5 = 777", as the outcome names it
};
// Landed: every frame it needed was answered (or, local-write-only, it was
// kept in the driver's image). A write the driver took no frame for is not.
bool writeLanded(const WriteRecord &w);

struct Notification {
    qint64 atMs = 0;
    int id = 0;
    int stationNo = 0;
    QString name;
    int address = 0;
    QTime wallTime;
    int value = 0; // read with intf_getData during the callback
    // The value the record's previous notification showed: nothing changed
    // (the driver notifies every watched bit of a word when a write settles).
    // Not printed nor logged; observers showing changes skip it too.
    bool repeated = false;
    // False: no good reply ever filled the record and no write of it is open;
    // the value is the driver's stand-in, not the PLC's.
    bool known = true;
};

// Records a good reply (or a landed write) filled, and when it last did.
// Addresses in the host's units (bits of a word register: word * 16 + bit).
struct Coverage {
    int stationNo = 0;
    QString regName;
    int first = 0;
    int count = 0;
    qint64 lastGoodMs = -1;
    // The bit register whose bits these words hold ("M_bit" of "M_W": bit
    // registers are read as their words); empty when none.
    QString bitRegName;
};

// --log FILE.csv: the change log.
struct LogFile {
    QFile file;
};

struct HostStats {
    int framesSent = 0;
    int goodReplies = 0;
    int retries = 0;
    int abandoned = 0;
    int pollReads = 0;
    int pollCycles = 0;
    qint64 pollCycleNsTotal = 0; // busy time of the completed cycles
    int linkDrops = 0;
    int reconnects = 0;
    int writesLanded = 0;
    int writesFailed = 0;
};

struct HostConfig {
    QString properties = QStringLiteral("1#0#0#3#64");
    int stationNo = 1;
    int replyTimeoutMs = 500;
    int pollIntervalMs = 20;
    int cycleFloorMs = 0; // shortest poll cycle; 0 polls as fast as the link goes
    // Nothing else on this thread needs its event loop while a reply is awaited
    // (xbc-host): wait on the link alone, which costs far less per exchange.
    // False serves the loop meanwhile, e.g. for a simulator in the same thread.
    bool waitOnLinkOnly = false;
    bool trace = false;
    bool printChanges = false; // value changes on stdout
    // Time-stamped events: write outcomes (stdout when landed), retries and
    // abandonments with their reasons, the PLC falling silent (stderr).
    bool printEvents = false;
    std::function<void(const QString &)> print; // default: stdout
    std::function<void(const QString &)> warn;  // default: stderr
    // Observers such as the browser console: every trace line (printed or
    // not) and every value change as it is recorded.
    std::function<void(const QString &)> traceSink;
    std::function<void(const Notification &)> noteSink;
    // Every write's outcome as it settles (tag, landed, text as printed).
    std::function<void(int, bool, const QString &)> writeSink;
    // Runs before each exchange, with no frame in flight: the place where
    // others may change watches or queue writes.
    std::function<void()> beforeExchange;
};

enum { STATUS_BLOCK_BYTES = 64 * 1024, RECIPE_BUFFER_BYTES = 64 * 1024 };
// The tags the host hands the driver: its condition reads carry one, each
// write its own from FIRST_WRITE_TAG on. A read frame with any other tag is
// the driver's own polling.
enum { CONDITION_TAG = 77, FIRST_WRITE_TAG = 1000 };

struct Host {
    DriverApi api;
    HostConfig config;
    PropertyNumbers props;
    Link link;
    QVector<unsigned char> statusBlock = QVector<unsigned char>(STATUS_BLOCK_BYTES, 0);
    QVector<unsigned char> recipeBuffer = QVector<unsigned char>(RECIPE_BUFFER_BYTES, 0);
    QMutex lock; // the runtime's lock handed to the driver
    int runStatus = 0;
    QStringList bitRegisters;
    QList<KEY_ADDRESS> keys;
    QVector<_RCP_VAR_PRO> recipeVars;
    int readBlocks = 0;
    std::unique_ptr<FRAME_PRO> frame = std::make_unique<FRAME_PRO>();

    HostStats stats;
    QElapsedTimer clock;
    QElapsedTimer cycleTimer;
    int pollReadsInCycle = 0;
    QList<Notification> notes;
    QMap<int, WriteRecord> writes;
    QSet<int> openWrites; // tags of the writes not done yet
    int nextWriteTag = FIRST_WRITE_TAG;
    int conditionsDone = 0;
    int conditionsFailed = 0;
    QList<int> uploadedWords;             // "RWI" notifications, recipe buffer words
    xbctrace::Capture *capture = nullptr; // not owned; null: no capture file
    LogFile *log = nullptr;               // not owned; null: no change log

    // What the status functions judge by (times on `clock`, -1: never).
    qint64 lastGoodReplyMs = -1;
    qint64 waitingSinceMs = -1; // first frame sent after the last good reply
    bool reportedAnswering = true;
    QVector<Coverage> coverage;
    QHash<QString, int> lastShown; // per station:register:address, the value last delivered
    qint64 cycleBytes = 0;         // line bytes of the poll reads of the cycle under way
    int plannedCycleBytes = 0;     // of the last cycle with every read answered
    bool cycleFailed = false;      // a poll read of the cycle under way was abandoned
    int goodCycles = 0;            // cycles with every read answered, and their busy time
    qint64 goodCycleNsTotal = 0;
    int failStreak = 0;     // bad replies in a row to the frame in flight
    bool receiving = false; // inside intf_dealRcvFrame: notes wait for its outcome
    QList<Notification> heldNotes;
    QByteArray reply;        // kept from exchange to exchange: no allocation each time
    QString description;     // the driver's text of the request in flight
    QString lastProblem;     // the last retry or abandonment line, with its reason
    QString lastLinkProblem; // the last link message
};

// Register kind as the driver reports it (bit registers, TX and CX).
bool isBitRegister(const Host &host, const QString &regName);

// Checks "REG:ADDRESS[:COUNT]" with intf_checkAddr. Error texts quote the
// text and name the failing check.
QString parseWatch(Host &host, const QString &text, WatchItem &out);
// "REG:ADDRESS=VALUE[,VALUE...]".
QString parseWrite(Host &host, const QString &text, WriteItem &out);
void addWatch(Host &host, const WatchItem &watch);

// Hands callback, properties, watches and recipe variables to the driver.
// Needs api loaded; keys and recipeVars may be set before.
void startRun(Host &host);

// Queues a write through intf_setData; returns the tag that tracks it. text
// names it in its outcome ("D_W:5 = 777"; default: register, address, count).
int queueWrite(Host &host, const QString &regName, int address, int count, const QByteArray &data,
               const QString &text = QString());
int queueWriteItem(Host &host, const WriteItem &item);
void queueConditionRead(Host &host, const QString &regName, int address, int count);
// Sets the recipe download (60115) or upload (60116) byte under the lock.
void requestRecipe(Host &host, bool download);
bool recipePending(Host &host, bool download);

// Reads values from the driver's image: words as 16-bit values, bits as 0/1.
QVector<int> shownValues(Host &host, const QString &regName, int address, int count);

// ---------------------------------------------------------------------------
// The loop.

enum class Step { Exchanged, Idle, LinkDown };

// The loop's own test of the link: TCP connected; serial open without error.
bool linkIsUp(const Host &host);
bool ensureLink(Host &host);
void closeLink(Host &host);
Step exchangeOnce(Host &host);
// Runs exchanges until maxExchanges steps were made, maxMs passed, or done()
// returns true. Returns the number of steps made.
int runFor(Host &host, int maxExchanges, int maxMs,
           const std::function<bool()> &done = std::function<bool()>());

// Waits ms while serving the event loop of this thread.
void serveEventsFor(int ms);

QString summaryText(const Host &host);
QString formatNotification(const Host &host, const Notification &note);

// ---------------------------------------------------------------------------
// Status as the loop itself judges it: the console and the CLI show these and
// keep no judgement of their own.

enum class LinkState { Connected, Reconnecting, Down };
// Connected: the loop's own test (TCP connected; serial open without an
// error). Reconnecting: before the first attempt, and after a drop until
// RECONNECT_GRACE_ATTEMPTS attempts failed. Down: after that, or when the link
// never came up and an attempt failed.
enum { RECONNECT_GRACE_ATTEMPTS = 3 };
LinkState linkState(const Host &host);
QString linkStateText(LinkState state); // "connected", "reconnecting", "down"

// The PLC answers: the link is connected, a good reply came, and no frame
// sent since has gone unanswered for longer than staleAfterMs(host).
bool plcAnswering(const Host &host);
QString plcStateText(const Host &host); // "answering" or "not answering"
// Three poll cycles (each the measured busy time, else the planned line time,
// plus the pause between cycles), but at least the time one frame takes to
// be abandoned (tries x reply timeout) plus one cycle, and at least 1 s.
qint64 staleAfterMs(const Host &host);
enum { MIN_STALE_MS = 1000, STALE_CYCLES = 3 };

struct ValueView {
    bool known = false; // a good reply or a landed write ever filled it
    bool stale = false; // known, but its last good reply is older than staleAfterMs
    qint64 ageMs = -1;  // since the last good reply (or landed write) covering it
    int value = 0;      // as intf_getData shows it; meaningless when !known
};
// address: the numeric address of parseWatch/intf_checkAddr.
ValueView valueView(Host &host, const QString &regName, int address);
// "values: 10 fresh, 1 stale (oldest 3.2 s), 1 unknown ...": every watched value.
QString watchedValuesText(Host &host);
// "1234", "unknown", "1234 (stale, 3.2 s old)".
QString valueViewText(const ValueView &view);

// Line time of one poll cycle (every read block once, request and reply) at
// the host's line settings (serial line, or LinkConfig::planLine for TCP);
// 0 when there is none or no cycle has been sent yet. Same figure as `plan`.
double plannedCycleMs(const Host &host);
// Average measured busy time of a poll cycle, -1 before the first.
double measuredCycleMs(const Host &host);

// The loop's bookkeeping behind the status above (host.cpp calls these).
void noteGoodRead(Host &host, const FRAME_PRO &frame);
void noteCoverage(Host &host, int station, const QString &regName, int first, int count);
bool plcSilent(const Host &host); // frames unanswered for longer than staleAfterMs
bool isCovered(const Host &host, int station, const QString &regName, int address);
void logChange(LogFile &log, const Notification &note, const QString &value);

// Why a reply was refused, in words, from the frame in flight and the bytes
// that came: "no reply within 500 ms", "wrong checksum: received 3F, expected
// 3E", "reply too short: 9 bytes, expected 13", "NAK, error code 05: address
// out of range", "the reply echoes the request ...".
QString replyProblemText(const FRAME_PRO &frame, const QByteArray &reply, int timeoutMs);

// The driver's own plan of one poll cycle (planner.cpp): the read blocks
// intf_addrMerge made of host.keys and the frames intf_getSendFrame builds to
// read each once, answered with well-formed replies of their replyLen.
struct PlannedFrame {
    QByteArray request;
    int replyLen = 0;
    QString what; // "read D_W 0 (127 words)"
};
struct CyclePlan {
    int maxPacketLen = 0;
    QStringList blocks; // "D_W 0 (200 words)"
    QVector<PlannedFrame> frames;
    qint64 requestBytes = 0;
    qint64 replyBytes = 0;
};
// Needs the driver loaded and host.keys set; runs the driver with the given
// property string (the PLC is not contacted). Empty text on success.
QString planCycle(Host &host, const QString &properties, CyclePlan &out);
// "maxPacketLen" replaced in a property string.
QString withMaxPacketLen(const QString &properties, int maxPacketLen);

// ---------------------------------------------------------------------------
// One-shot commands (oneshot.cpp). Driver loaded, link configured; they
// print to stdout, say why on stderr and return the exit status.

enum { ONE_SHOT_OK = 0, ONE_SHOT_FAILED = 1 };
struct OneShotOptions {
    int timeoutMs = 5000;
    bool json = false;
};
// Reads every read block once and prints each value: known, "unknown" (no
// good reply filled it) or stale with its age. Fails unless all are known.
int readOnce(Host &host, const QList<WatchItem> &items, const OneShotOptions &options);
// Queues the writes at once and waits for each outcome. Fails unless all landed.
int writeAndWait(Host &host, const QList<WriteItem> &items, const OneShotOptions &options);
// The poll cycle of host.keys as the driver plans it, at properties and the
// serial line settings, then the same figures for PLANNED_PACKET_LENGTHS.
int printPlan(Host &host, const QString &properties, const QString &line);
constexpr int PLANNED_PACKET_LENGTHS[] = {8, 16, 32, 64, 127};

// Line time: start bit, data bits, parity bit, stop bits per character.
double lineTimeMs(qint64 bytes, const SerialLine &line);

// "HOST:PORT" or "DEVICE (LINE)": the target as every message names it.
QString targetText(const LinkConfig &config);
// "1,2,3": values as a write and its outcome name them.
QString valuesText(const QVector<int> &values);
// "M_bit 35.3", "D_W 100": a record as the output names it.
QString recordText(const QString &regName, int address);
// "35.3", "100": an address in its register's notation.
QString addressText(const QString &regName, int address);
// After the watches (host.keys) changed: hands them to the driver again and
// starts the cycle count afresh.
void remerge(Host &host);

// Text of an event line: "HH:mm:ss.zzz text", as printed and as handed to
// HostConfig::traceSink.
QString stampedText(const QString &text);

// --log FILE.csv: "time,register,address,value", one row per printed change.
QString openLog(LogFile &log, const QString &path);
void closeLog(LogFile &log);

} // namespace xbchost

#endif
