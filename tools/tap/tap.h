// xbc-tap: a line tap between a runtime and a PLC. It forwards every byte
// both ways unchanged, cuts the traffic into requests and replies by the
// protocol's framing, writes them to a capture (the records xbc-host
// --capture writes) and counts frames, retries, NAKs and checksum errors.
#ifndef XBC_TAP_H
#define XBC_TAP_H

#include "capture.h"
#include "serial_line.h"

#include <QByteArray>
#include <QHostAddress>
#include <QSerialPort>
#include <QString>

namespace xbctap {

// ---------------------------------------------------------------------------
// Requests and replies out of the two byte streams.

struct TapCounts {
    int frames = 0;         // whole requests from the runtime
    int replies = 0;        // replies that came, good or bad
    int timeouts = 0;       // requests whose reply never came in time
    int retries = 0;        // a request sent again after a bad or missing reply
    int naks = 0;           // replies starting with NAK
    int checksumErrors = 0; // framed replies whose checksum does not match
    int otherBad = 0;       // replies cut short, too long or not framed
    int strayBytes = 0;     // PLC bytes while no reply was awaited
};

struct Exchanges {
    xbctrace::Capture *capture = nullptr; // null: count only
    xbctrace::CaptureEnds ends;
    QByteArray request; // runtime bytes not yet a whole request
    QByteArray lastRequest;
    bool lastReplyBad = false;
    bool awaitingReply = false;
    QByteArray reply;
    int expectedReplyLen = 0;
    TapCounts counts;
};

// Bytes from the runtime; returns the number of requests they completed (a
// reply is awaited from the last one on).
int takeRuntimeBytes(Exchanges &ex, const QByteArray &bytes);
// Bytes from the PLC; a reply ends at EOT, or at its full length when it
// starts with ACK.
void takePlcBytes(Exchanges &ex, const QByteArray &bytes);
// The time for the reply ran out, or a side dropped: what came of the reply
// is recorded as it is (nothing at all as a timeout).
void endAwaitedReply(Exchanges &ex);
// "frames 120, replies 118, timeouts 2, retries 2, NAKs 0, checksum errors 1"
QString countsText(const TapCounts &counts);

// ---------------------------------------------------------------------------
// The relay.

struct Endpoint {
    QString host; // TCP
    quint16 port = 0;
    QString device; // serial
};

// Line texts are read as the runtime stand-in reads them.
using xbctrace::parseSerialLine;
using xbctrace::SerialLine;

struct TapConfig {
    bool serial = false;
    Endpoint listen{QStringLiteral("127.0.0.1"), 0, QString()}; // runtime side, TCP
    Endpoint plc;                                               // TCP
    QString runtimeDevice;                                      // serial
    QString plcDevice;
    SerialLine line;
    int replyTimeoutMs = 500;
    bool quiet = false;
    double durationSeconds = 0;
    QString capturePath;
};

// Runs the relay until a signal or the duration; returns the exit status.
int runTap(const TapConfig &config);

} // namespace xbctap

#endif
