// Replay of a capture: reading it (libpcap), pairing requests with replies,
// the memory image, and the answers.
#include "replay.h"

#include "frame_text.h"

#include <QCommandLineParser>
#include <QFile>
#include <QMutexLocker>
#include <QtEndian>

#include <pcap/pcap.h>

#include <cstdio>

namespace xbcsim {

namespace {

// One piece of traffic in capture order: bytes towards the PLC or from it,
// or the mark of a reply that never came.
struct Event {
    bool toPlc = false;
    QByteArray bytes;
    bool timeout = false;
};

// ---------------------------------------------------------------------------
// Exported PDUs, as xbc-host --capture and xbc-tap write them.

enum : quint16 { TAG_END_OF_OPT = 0, TAG_P2P_DIRECTION = 35 };
enum : quint32 { DIRECTION_SENT = 0 };
enum { TAG_HEAD_BYTES = 4 };

bool readExportedPdu(const QByteArray &record, Event &out)
{
    int pos = 0;
    int direction = -1;
    for (;;) {
        if (pos + TAG_HEAD_BYTES > record.size())
            return false;
        const quint16 tag = qFromBigEndian<quint16>(record.constData() + pos);
        const quint16 length = qFromBigEndian<quint16>(record.constData() + pos + 2);
        pos += TAG_HEAD_BYTES;
        if (tag == TAG_END_OF_OPT)
            break;
        if (pos + length > record.size())
            return false;
        if (tag == TAG_P2P_DIRECTION && length == 4)
            direction = int(qFromBigEndian<quint32>(record.constData() + pos));
        pos += length;
    }
    out.bytes = record.mid(pos);
    // Without a direction tag, a frame from STX is a request.
    out.toPlc = direction >= 0 ? quint32(direction) == DIRECTION_SENT : out.bytes.startsWith(STX);
    out.timeout = !out.toPlc && out.bytes.isEmpty();
    return true;
}

// ---------------------------------------------------------------------------
// TCP traffic from the wire: the IP packet inside the link layer, the TCP
// payload inside it, put together per direction by sequence number.

enum : quint16 { ETHERTYPE_IPV4 = 0x0800, ETHERTYPE_IPV6 = 0x86DD, ETHERTYPE_VLAN = 0x8100 };
enum {
    ETHERNET_HEAD = 14,
    VLAN_TAG = 4,
    SLL_HEAD = 16,
    SLL_PROTOCOL_AT = 14,
    SLL2_HEAD = 20,
    NULL_HEAD = 4,
    IPV4_MIN_HEAD = 20,
    IPV6_HEAD = 40,
    TCP_MIN_HEAD = 20,
    IP_PROTOCOL_TCP = 6,
    TCP_FLAG_SYN = 0x02,
    PLC_PORT = 8000,
};

// Offset of the IP header for the capture's link type; -1: not a link type
// that carries IP this way.
int ipOffset(int linkType, const QByteArray &p)
{
    auto u16 = [&p](int at) {
        return at + 2 <= p.size() ? qFromBigEndian<quint16>(p.constData() + at) : quint16(0);
    };
    switch (linkType) {
    case DLT_EN10MB: {
        int at = ETHERNET_HEAD;
        quint16 type = u16(ETHERNET_HEAD - 2);
        while (type == ETHERTYPE_VLAN) {
            type = u16(at + 2);
            at += VLAN_TAG;
        }
        return type == ETHERTYPE_IPV4 || type == ETHERTYPE_IPV6 ? at : -1;
    }
    case DLT_LINUX_SLL:
        return SLL_HEAD;
    case DLT_LINUX_SLL2:
        return SLL2_HEAD;
    case DLT_RAW:
    case DLT_IPV4:
    case DLT_IPV6:
        return 0;
    case DLT_NULL:
    case DLT_LOOP:
        return NULL_HEAD;
    default:
        return -1;
    }
}

bool carriesIp(int linkType)
{
    switch (linkType) {
    case DLT_EN10MB:
    case DLT_LINUX_SLL:
    case DLT_LINUX_SLL2:
    case DLT_RAW:
    case DLT_IPV4:
    case DLT_IPV6:
    case DLT_NULL:
    case DLT_LOOP:
        return true;
    default:
        return false;
    }
}

struct Segment {
    QByteArray src, dst; // address and port, as bytes
    quint16 srcPort = 0, dstPort = 0;
    quint32 seq = 0;
    bool syn = false;
    QByteArray payload;
};

bool readTcp(const QByteArray &p, int at, Segment &s)
{
    if (at < 0 || at >= p.size())
        return false;
    const auto *b = reinterpret_cast<const uchar *>(p.constData());
    const int version = b[at] >> 4;
    int tcpAt = 0;
    int end = 0;
    if (version == 4 && at + IPV4_MIN_HEAD <= p.size()) {
        if (b[at + 9] != IP_PROTOCOL_TCP)
            return false;
        tcpAt = at + (b[at] & 0x0F) * 4;
        end = at + qFromBigEndian<quint16>(b + at + 2); // Ethernet pads short frames
        s.src = p.mid(at + 12, 4);
        s.dst = p.mid(at + 16, 4);
    } else if (version == 6 && at + IPV6_HEAD <= p.size()) {
        if (b[at + 6] != IP_PROTOCOL_TCP)
            return false; // extension headers are not looked through
        tcpAt = at + IPV6_HEAD;
        end = tcpAt + qFromBigEndian<quint16>(b + at + 4);
        s.src = p.mid(at + 8, 16);
        s.dst = p.mid(at + 24, 16);
    } else {
        return false;
    }
    end = qMin(end, p.size());
    if (tcpAt + TCP_MIN_HEAD > end)
        return false;
    s.srcPort = qFromBigEndian<quint16>(b + tcpAt);
    s.dstPort = qFromBigEndian<quint16>(b + tcpAt + 2);
    s.seq = qFromBigEndian<quint32>(b + tcpAt + 4);
    s.syn = (b[tcpAt + 13] & TCP_FLAG_SYN) != 0;
    const int dataAt = tcpAt + (b[tcpAt + 12] >> 4) * 4;
    s.payload = dataAt < end ? p.mid(dataAt, end - dataAt) : QByteArray();
    return true;
}

QByteArray endKey(const QByteArray &address, quint16 port)
{
    QByteArray key = address;
    key.append(char(port >> 8)).append(char(port & 0xFF));
    return key;
}

struct TcpStreams {
    QHash<QByteArray, quint32> nextSeq;   // per direction: source end + destination end
    QHash<QByteArray, QByteArray> plcEnd; // per connection: the PLC's end
};

// The new payload bytes of a segment as an event; false when it brings none.
bool streamEvent(TcpStreams &t, const Segment &s, Event &out)
{
    const QByteArray from = endKey(s.src, s.srcPort);
    const QByteArray to = endKey(s.dst, s.dstPort);
    const QByteArray flow = from + to;
    const QByteArray connection = qMin(from, to) + qMax(from, to);
    if (s.syn) {
        t.nextSeq[flow] = s.seq + 1;
        t.plcEnd.remove(connection); // a new connection on the same ends
        return false;
    }
    if (s.payload.isEmpty())
        return false;
    QByteArray payload = s.payload;
    auto next = t.nextSeq.find(flow);
    if (next != t.nextSeq.end()) {
        const qint32 seen = qint32(next.value() - s.seq);
        if (seen >= payload.size())
            return false; // a retransmission of bytes already had
        if (seen > 0)
            payload.remove(0, seen);
    }
    t.nextSeq[flow] = s.seq + quint32(s.payload.size());
    if (!t.plcEnd.contains(connection)) {
        if (s.dstPort == PLC_PORT || s.srcPort == PLC_PORT)
            t.plcEnd[connection] = s.dstPort == PLC_PORT ? to : from;
        else
            t.plcEnd[connection] = payload.startsWith(STX) ? to : from;
    }
    out.toPlc = t.plcEnd.value(connection) == to;
    out.bytes = payload;
    return true;
}

// ---------------------------------------------------------------------------
// Reading the file.

QString readEvents(const QString &path, QList<Event> &events)
{
    char errorText[PCAP_ERRBUF_SIZE] = {};
    pcap_t *file = pcap_open_offline(QFile::encodeName(path).constData(), errorText);
    if (!file)
        return QStringLiteral("--replay %1: %2").arg(path, QString::fromLocal8Bit(errorText));
    const int linkType = pcap_datalink(file);
    const bool exported = linkType == DLT_WIRESHARK_UPPER_PDU;
    if (!exported && !carriesIp(linkType)) {
        pcap_close(file);
        return QStringLiteral("--replay %1: link type %2 is neither xbc-host's nor xbc-tap's "
                              "records nor Ethernet, Linux cooked, raw IP or loopback")
            .arg(path, QString::fromLatin1(pcap_datalink_val_to_name(linkType)));
    }
    TcpStreams streams;
    pcap_pkthdr *header = nullptr;
    const u_char *data = nullptr;
    int rc = 0;
    while ((rc = pcap_next_ex(file, &header, &data)) == 1) {
        const QByteArray packet(reinterpret_cast<const char *>(data), int(header->caplen));
        Event event;
        Segment segment;
        if (exported ? readExportedPdu(packet, event)
                     : readTcp(packet, ipOffset(linkType, packet), segment) &&
                           streamEvent(streams, segment, event))
            events.append(event);
    }
    const QString reason = rc == PCAP_ERROR ? QString::fromLocal8Bit(pcap_geterr(file)) : QString();
    pcap_close(file);
    if (!reason.isEmpty())
        return QStringLiteral("--replay %1: %2").arg(path, reason);
    return QString();
}

// ---------------------------------------------------------------------------
// Requests paired with replies, and the memory image.

bool isGoodReply(const QByteArray &reply)
{
    const int n = reply.size();
    return n >= 5 && reply.startsWith(ACK) && reply.endsWith(EOT) &&
           reply.mid(n - 3, 2) == hexPair(byteSum(reply, 1, n - 3));
}

// A good read reply puts its words into the image; an acknowledged write is
// applied to it.
void learn(Memory &image, const QByteArray &request, const QByteArray &reply)
{
    Request r;
    if (!isGoodReply(reply) || parseRequest(request, r) != ERR_NONE)
        return;
    if (r.command != 'r') {
        answerFrame(image, request);
        return;
    }
    const int words = r.byteCount / 2;
    if (reply.size() != words * 4 + 5)
        return;
    for (int k = 0; k < words; ++k) {
        quint8 lo = 0, hi = 0;
        if (parseHexPair(reply, 2 + 4 * k, lo) && parseHexPair(reply, 4 + 4 * k, hi))
            setWordAt(image, r.area, r.byteAddress / 2 + k, quint16(lo | (hi << 8)));
    }
}

struct Pairing {
    FrameSplitter requests;
    QByteArray request; // the one awaiting its reply; empty: none
    QByteArray reply;
    bool timedOut = false;
};

void closeExchange(Replay &replay, Memory &image, Pairing &p)
{
    if (p.request.isEmpty())
        return;
    auto it = replay.byRequest.find(p.request);
    if (it == replay.byRequest.end()) {
        replay.recordedOrder.append(p.request);
        it = replay.byRequest.insert(p.request, RecordedReplies());
    }
    it->replies.append(p.timedOut ? QByteArray() : p.reply);
    ++replay.exchanges;
    learn(image, p.request, p.reply);
    p.request.clear();
    p.reply.clear();
    p.timedOut = false;
}

void pairEvents(Replay &replay, Memory &image, const QList<Event> &events)
{
    Pairing p;
    for (const Event &e : events) {
        if (e.toPlc) {
            for (const QByteArray &frame : takeFrames(p.requests, e.bytes)) {
                closeExchange(replay, image, p);
                p.request = frame;
            }
        } else if (e.timeout) {
            p.timedOut = p.reply.isEmpty();
        } else if (p.timedOut || p.request.isEmpty()) {
            replay.lateBytes += e.bytes.size();
        } else {
            p.reply += e.bytes;
        }
    }
    closeExchange(replay, image, p);
}

QString frameText(const QByteArray &frame)
{
    return frame.isEmpty() ? QStringLiteral("(nothing)") : xbctrace::printable(frame);
}

} // namespace

QString loadReplay(Replay &replay, const QString &path, Memory &image)
{
    QList<Event> events;
    const QString error = readEvents(path, events);
    if (!error.isEmpty())
        return error;
    replay.path = path;
    pairEvents(replay, image, events);
    if (replay.exchanges == 0)
        return QStringLiteral("--replay %1: the capture holds no request").arg(path);
    return QString();
}

QByteArray replayAnswer(Replay &replay, Memory &image, const QByteArray &frame)
{
    auto it = replay.byRequest.find(frame);
    if (it == replay.byRequest.end()) {
        if (!replay.unseen.contains(frame))
            replay.unseenOrder.append(frame);
        ++replay.unseen[frame];
        if (replay.strict) {
            ++replay.leftSilent;
            std::fprintf(stderr, "xbc-plc-sim: replay: %s is not in the capture: no reply\n",
                         xbctrace::printable(frame).toLocal8Bit().constData());
            return QByteArray();
        }
        ++replay.answeredFromImage;
        return answerFrame(image, frame);
    }
    RecordedReplies &r = it.value();
    const bool past = r.next >= r.replies.size();
    const QByteArray reply = r.replies.at(past ? r.replies.size() - 1 : r.next);
    if (past)
        ++r.pastEnd;
    else
        ++r.next;
    ++replay.answeredAsRecorded;
    learn(image, frame, reply);
    return reply;
}

QStringList replayReport(const Replay &replay)
{
    enum { MAX_LISTED = 5 };
    QStringList lines;
    int unused = 0, pastEnd = 0;
    for (const RecordedReplies &r : replay.byRequest) {
        unused += r.replies.size() - r.next;
        pastEnd += r.pastEnd;
    }
    lines << QStringLiteral("replay %1: %2 recorded exchanges of %3 distinct requests")
                 .arg(replay.path)
                 .arg(replay.exchanges)
                 .arg(replay.byRequest.size());
    lines << QStringLiteral("replay: %1 requests answered as recorded (%2 of them past the end "
                            "of their recording, the last reply repeated); %3 recorded replies "
                            "not replayed")
                 .arg(replay.answeredAsRecorded)
                 .arg(pastEnd)
                 .arg(unused);
    if (replay.lateBytes > 0)
        lines << QStringLiteral("replay: %1 bytes that came after a recorded timeout not replayed")
                     .arg(replay.lateBytes);
    const QString fate = replay.strict ? QStringLiteral("left unanswered (--replay-strict)")
                                       : QStringLiteral("answered from the memory image");
    lines << QStringLiteral("replay: %1 requests not in the capture, %2")
                 .arg(replay.answeredFromImage + replay.leftSilent)
                 .arg(fate);
    for (int i = 0; i < replay.unseenOrder.size() && i < MAX_LISTED; ++i)
        lines << QStringLiteral("replay:   %1 x%2")
                     .arg(frameText(replay.unseenOrder.at(i)))
                     .arg(replay.unseen.value(replay.unseenOrder.at(i)));
    if (replay.unseenOrder.size() > MAX_LISTED)
        lines
            << QStringLiteral("replay:   and %1 more").arg(replay.unseenOrder.size() - MAX_LISTED);
    for (const QByteArray &request : replay.recordedOrder) {
        const RecordedReplies &r = replay.byRequest.value(request);
        if (r.next < r.replies.size() && lines.size() < 2 * MAX_LISTED + 4)
            lines << QStringLiteral("replay:   %1: %2 of %3 recorded replies replayed")
                         .arg(frameText(request))
                         .arg(r.next)
                         .arg(r.replies.size());
    }
    return lines;
}

QList<QCommandLineOption> replayOptions()
{
    return {QCommandLineOption(
                QStringLiteral("replay"),
                QStringLiteral("Answer as the PLC recorded in FILE did (a capture of xbc-host "
                               "--capture, xbc-tap or Wireshark on TCP, pcap or pcapng): each "
                               "request gets the replies recorded for the same request bytes in "
                               "recorded order, the last one repeated past the end; a recorded "
                               "timeout is silence. Other requests are answered from the memory "
                               "the capture shows. A report follows at the end."),
                QStringLiteral("FILE")),
            QCommandLineOption(QStringLiteral("replay-strict"),
                               QStringLiteral("With --replay: leave requests the capture never "
                                              "saw unanswered, each with a line on stderr."))};
}

QString startReplay(const QCommandLineParser &parser, Simulator &sim, Replay &replay)
{
    const QString file = parser.value(QStringLiteral("replay"));
    replay.strict = parser.isSet(QStringLiteral("replay-strict"));
    if (file.isEmpty())
        return replay.strict ? QStringLiteral("--replay-strict goes with --replay FILE")
                             : QString();
    QMutexLocker locker(&sim.lock);
    const QString error = loadReplay(replay, file, sim.memory);
    if (!error.isEmpty())
        return error;
    sim.answer = [&sim, &replay](const QByteArray &frame) {
        return replayAnswer(replay, sim.memory, frame);
    };
    return QString();
}

} // namespace xbcsim
