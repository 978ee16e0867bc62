// pcap writer for the link traffic, in Wireshark's exported-PDU link type.
#include "capture.h"

#include <pcap/pcap.h>

#include <QFile>
#include <QtEndian>

#include <sys/time.h>

namespace xbctrace {

namespace {

// Tag numbers and values of the exported-PDU header, as Wireshark reads them.
enum : quint16 {
    TAG_END_OF_OPT = 0,
    TAG_DISSECTOR_NAME = 12,
    TAG_IPV4_SRC = 20,
    TAG_IPV4_DST = 21,
    TAG_IPV6_SRC = 22,
    TAG_IPV6_DST = 23,
    TAG_PORT_TYPE = 24,
    TAG_SRC_PORT = 25,
    TAG_DST_PORT = 26,
    TAG_P2P_DIRECTION = 35,
};
enum : quint32 { PORT_TYPE_TCP = 2, DIRECTION_SENT = 0, DIRECTION_RECEIVED = 1 };

const char DISSECTOR_NAME[] = "xbc";
// The largest request is about 2 KiB; a reply read until a timeout could be
// longer, so the snapshot length leaves ample room and records are never cut.
enum { SNAPSHOT_BYTES = 262144 };

void appendTag(QByteArray &out, quint16 tag, const QByteArray &value)
{
    char head[4];
    qToBigEndian<quint16>(tag, head);
    qToBigEndian<quint16>(quint16(value.size()), head + 2);
    out.append(head, sizeof head);
    out.append(value);
}

QByteArray bigEndian32(quint32 value)
{
    char bytes[4];
    qToBigEndian<quint32>(value, bytes);
    return QByteArray(bytes, sizeof bytes);
}

void appendAddress(QByteArray &out, bool source, const QHostAddress &address)
{
    bool isV4 = false;
    const quint32 v4 = address.toIPv4Address(&isV4);
    if (isV4) {
        appendTag(out, source ? TAG_IPV4_SRC : TAG_IPV4_DST, bigEndian32(v4));
        return;
    }
    if (address.protocol() != QAbstractSocket::IPv6Protocol)
        return;
    const Q_IPV6ADDR v6 = address.toIPv6Address();
    appendTag(out, source ? TAG_IPV6_SRC : TAG_IPV6_DST,
              QByteArray(reinterpret_cast<const char *>(v6.c), sizeof v6.c));
}

QByteArray exportedPduHeader(const CaptureEnds &ends, bool fromHost)
{
    QByteArray header;
    appendTag(header, TAG_DISSECTOR_NAME, QByteArray(DISSECTOR_NAME));
    if (ends.tcp) {
        appendAddress(header, true, fromHost ? ends.hostAddress : ends.plcAddress);
        appendAddress(header, false, fromHost ? ends.plcAddress : ends.hostAddress);
        appendTag(header, TAG_PORT_TYPE, bigEndian32(PORT_TYPE_TCP));
        appendTag(header, TAG_SRC_PORT, bigEndian32(fromHost ? ends.hostPort : ends.plcPort));
        appendTag(header, TAG_DST_PORT, bigEndian32(fromHost ? ends.plcPort : ends.hostPort));
    }
    appendTag(header, TAG_P2P_DIRECTION,
              bigEndian32(fromHost ? DIRECTION_SENT : DIRECTION_RECEIVED));
    appendTag(header, TAG_END_OF_OPT, QByteArray());
    return header;
}

void writeRecord(Capture &capture, const CaptureEnds &ends, bool fromHost, const QByteArray &bytes)
{
    if (!captureIsOpen(capture))
        return;
    const QByteArray record = exportedPduHeader(ends, fromHost) + bytes;
    pcap_pkthdr header{};
    timeval now{};
    gettimeofday(&now, nullptr);
    header.ts = now;
    header.caplen = bpf_u_int32(record.size());
    header.len = bpf_u_int32(record.size());
    pcap_dump(reinterpret_cast<u_char *>(capture.dumper), &header,
              reinterpret_cast<const u_char *>(record.constData()));
    pcap_dump_flush(capture.dumper);
}

} // namespace

QString openCapture(Capture &capture, const QString &path)
{
    closeCapture(capture);
    capture.dead = pcap_open_dead(DLT_WIRESHARK_UPPER_PDU, SNAPSHOT_BYTES);
    if (!capture.dead)
        return QStringLiteral("--capture %1: cannot set up the capture writer").arg(path);
    const QByteArray name = QFile::encodeName(path);
    capture.dumper = pcap_dump_open(capture.dead, name.constData());
    if (!capture.dumper) {
        const QString reason = QString::fromLocal8Bit(pcap_geterr(capture.dead));
        pcap_close(capture.dead);
        capture.dead = nullptr;
        return QStringLiteral("--capture %1: %2").arg(path, reason);
    }
    capture.path = path;
    return QString();
}

bool captureIsOpen(const Capture &capture)
{
    return capture.dumper != nullptr;
}

void recordSent(Capture &capture, const CaptureEnds &ends, const QByteArray &bytes)
{
    writeRecord(capture, ends, true, bytes);
}

void recordReceived(Capture &capture, const CaptureEnds &ends, const QByteArray &bytes)
{
    writeRecord(capture, ends, false, bytes);
}

void recordTimeout(Capture &capture, const CaptureEnds &ends)
{
    writeRecord(capture, ends, false, QByteArray());
}

void closeCapture(Capture &capture)
{
    if (capture.dumper)
        pcap_dump_close(capture.dumper);
    if (capture.dead)
        pcap_close(capture.dead);
    capture.dumper = nullptr;
    capture.dead = nullptr;
    capture.path.clear();
}

} // namespace xbctrace
