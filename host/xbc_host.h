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

#include <QElapsedTimer>
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

namespace xbchost {

struct Capture; // capture.h

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
};

// "HOST:PORT" or "HOST" (port 8000). Empty error text on success.
QString parseTcpTarget(const QString &text, LinkConfig &out);

struct SerialLine {
    qint32 baud = 115200;
    QSerialPort::DataBits dataBits = QSerialPort::Data8;
    QSerialPort::Parity parity = QSerialPort::NoParity;
    QSerialPort::StopBits stopBits = QSerialPort::OneStop;
};
// "115200,8,NONE,1": parity NONE, EVEN, ODD, SPACE or MARK; stop bits 1, 1.5, 2.
QString parseSerialLine(const QString &text, SerialLine &out);

struct Link {
    LinkConfig config;
    std::unique_ptr<QTcpSocket> tcp;
    std::unique_ptr<QSerialPort> serial;
    int backoffMs = 0; // wait before the next attempt; 0: try at once
    QElapsedTimer lastAttempt;
    int connects = 0;
    int failedAttempts = 0;
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
    bool settled() const
    {
        return done;
    }
};

struct Notification {
    qint64 atMs = 0;
    int id = 0;
    int stationNo = 0;
    QString name;
    int address = 0;
    QTime wallTime;
    int value = 0; // read with intf_getData during the callback
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
};

struct HostConfig {
    QString properties = QStringLiteral("1#0#0#3#64");
    int stationNo = 1;
    int replyTimeoutMs = 500;
    int pollIntervalMs = 20;
    int cycleFloorMs = 0; // shortest poll cycle; 0 polls as fast as the link goes
    bool trace = false;
    bool printChanges = false;
    std::function<void(const QString &)> print; // default: stdout
    std::function<void(const QString &)> warn;  // default: stderr
    // Observers such as the browser console: every trace line (printed or
    // not) and every value change as it is recorded.
    std::function<void(const QString &)> traceSink;
    std::function<void(const Notification &)> noteSink;
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
    QList<int> uploadedWords;   // "RWI" notifications, recipe buffer words
    Capture *capture = nullptr; // not owned; null: no capture file
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

// Queues a write through intf_setData; returns the tag that tracks it.
int queueWrite(Host &host, const QString &regName, int address, int count, const QByteArray &data);
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

} // namespace xbchost

#endif
