// Capture of the link traffic to a pcap file that Wireshark opens as
// exported PDUs handed to the "xbc" dissector: every frame sent, every reply
// received (cut short or corrupted ones as they came), and an empty record
// where a reply never came.
//
// Each record carries the dissector name, the direction, and for TCP the
// addresses and ports of both ends; serial records carry no addresses.
#ifndef XBC_CAPTURE_H
#define XBC_CAPTURE_H

#include <QByteArray>
#include <QHostAddress>
#include <QString>

struct pcap;
struct pcap_dumper;

namespace xbctrace {

// The two ends of the link as a record names them.
struct CaptureEnds {
    bool tcp = false;
    QHostAddress hostAddress; // the panel's side
    quint16 hostPort = 0;
    QHostAddress plcAddress;
    quint16 plcPort = 0;
};

struct Capture {
    pcap *dead = nullptr;
    pcap_dumper *dumper = nullptr;
    QString path;
};

// Creates or truncates the file. Empty error text on success.
QString openCapture(Capture &capture, const QString &path);
bool captureIsOpen(const Capture &capture);
// Records are flushed as they are written, so a capture cut off by a crash
// or a kill keeps every frame before it.
void recordSent(Capture &capture, const CaptureEnds &ends, const QByteArray &bytes);
void recordReceived(Capture &capture, const CaptureEnds &ends, const QByteArray &bytes);
// The reply to the last frame sent never came: an empty record from the PLC.
void recordTimeout(Capture &capture, const CaptureEnds &ends);
void closeCapture(Capture &capture);

} // namespace xbctrace

#endif
