#include "capture_oracle.h"

#include "xbc_sim.h"

#include <pcap/pcap.h>

#include <QFile>
#include <QtEndian>

namespace capturetest {

namespace {

enum : quint16 {
    TAG_END = 0,
    TAG_DISSECTOR = 12,
    TAG_SRC_PORT = 25,
    TAG_DST_PORT = 26,
    TAG_DIRECTION = 35
};
enum {
    TAG_HEAD_BYTES = 4,
    READ_REQUEST_BYTES = 14,
    ACK_REPLY_BYTES = 5,
    NAK_REPLY_BYTES = 7,
    SHORTEST_CHECKED_REPLY = 4,
    REPLY_DATA_POS = 2,
    CHARS_PER_WORD = 4
};

quint32 be32(const QByteArray &b)
{
    return b.size() == 4 ? qFromBigEndian<quint32>(b.constData()) : 0;
}

// Splits the tags off one record; false when they are not well formed.
bool parseRecord(const QByteArray &raw, Record &out)
{
    int pos = 0;
    for (;;) {
        if (pos + TAG_HEAD_BYTES > raw.size())
            return false;
        const quint16 tag = qFromBigEndian<quint16>(raw.constData() + pos);
        const quint16 len = qFromBigEndian<quint16>(raw.constData() + pos + 2);
        pos += TAG_HEAD_BYTES;
        if (pos + len > raw.size())
            return false;
        const QByteArray value = raw.mid(pos, len);
        pos += len;
        if (tag == TAG_END)
            break;
        if (tag == TAG_DISSECTOR)
            out.dissector = QString::fromLatin1(value);
        else if (tag == TAG_DIRECTION)
            out.direction = int(be32(value));
        else if (tag == TAG_SRC_PORT) {
            out.hasPorts = true;
            out.sourcePort = be32(value);
        } else if (tag == TAG_DST_PORT)
            out.destinationPort = be32(value);
    }
    out.bytes = raw.mid(pos);
    return true;
}

QString hexWords(const QByteArray &chars)
{
    QStringList words;
    for (int i = 0; i + CHARS_PER_WORD <= chars.size(); i += CHARS_PER_WORD) {
        quint8 lo = 0, hi = 0;
        if (!xbcsim::parseHexPair(chars, i, lo) || !xbcsim::parseHexPair(chars, i + 2, hi))
            return QStringLiteral("(not hex)");
        words << QString::number(lo | (hi << 8));
    }
    return words.join(QLatin1Char(','));
}

// Checksum pair before the last byte and whether it matches the sum of the
// bytes after the first one up to it.
void addChecksum(const QByteArray &frame, Fields &f)
{
    const int pos = frame.size() - 3;
    quint8 sent = 0;
    const bool parsed = xbcsim::parseHexPair(frame, pos, sent);
    if (parsed)
        f[QStringLiteral("xbc.checksum")] = QString::number(sent);
    const bool good = parsed && sent == xbcsim::byteSum(frame, 1, pos);
    f[QStringLiteral("xbc.checksum.status")] =
        good ? QStringLiteral("valid") : QStringLiteral("wrong");
    if (!good)
        f[QStringLiteral("xbc.checksum.wrong")] = QStringLiteral("1");
}

Fields requestFields(const Record &r, int &replyLength)
{
    Fields f;
    f[QStringLiteral("xbc.direction")] = QString::number(DIRECTION_SENT);
    xbcsim::Request q;
    const int error = xbcsim::parseRequest(r.bytes, q);
    if (error != xbcsim::ERR_NONE) {
        // Never from the driver: marks the record so the comparison fails.
        f[QStringLiteral("oracle")] =
            QStringLiteral("request the simulator refuses (%1)").arg(error);
        return f;
    }
    f[QStringLiteral("xbc.command")] = QString(QLatin1Char(q.command));
    f[QStringLiteral("xbc.area")] = QString(QLatin1Char(xbcsim::areaInfo(q.area).letter));
    f[QStringLiteral("xbc.address")] = QString::number(q.byteAddress);
    f[QStringLiteral("xbc.word")] = QString::number(q.byteAddress / 2);
    replyLength = ACK_REPLY_BYTES;
    if (q.command == 'r' || q.command == 'w') {
        f[QStringLiteral("xbc.count")] = QString::number(q.byteCount);
        if (q.command == 'r')
            replyLength = ACK_REPLY_BYTES + 2 * q.byteCount;
        else
            f[QStringLiteral("xbc.data")] = hexWords(r.bytes.mid(11, 2 * q.byteCount));
    } else {
        f[QStringLiteral("xbc.mask")] = QString::number(q.mask);
        const quint16 single = q.command == 'o' ? q.mask : quint16(~q.mask);
        for (int b = 0; b < 16; ++b)
            if (single == (1u << b))
                f[QStringLiteral("xbc.bit")] = QString::number(b);
    }
    addChecksum(r.bytes, f);
    return f;
}

Fields replyFields(const Record &r, int replyLength)
{
    Fields f;
    f[QStringLiteral("xbc.direction")] = QString::number(DIRECTION_RECEIVED);
    const QByteArray &b = r.bytes;
    if (b.isEmpty()) {
        f[QStringLiteral("xbc.timeout")] = QStringLiteral("1");
        return f;
    }
    const bool nak = b[0] == xbcsim::NAK;
    if (!nak && b[0] != xbcsim::ACK) {
        f[QStringLiteral("oracle")] = QStringLiteral("reply that starts with neither ACK nor NAK");
        return f;
    }
    f[QStringLiteral("xbc.reply")] = nak ? QStringLiteral("NAK") : QStringLiteral("ACK");
    const int expected = nak ? NAK_REPLY_BYTES : replyLength;
    if (expected > 0 && b.size() != expected)
        f[QStringLiteral("xbc.length_mismatch")] = QStringLiteral("1");
    if (b[b.size() - 1] != xbcsim::EOT) {
        f[QStringLiteral("xbc.incomplete")] = QStringLiteral("1");
        return f;
    }
    if (b.size() < SHORTEST_CHECKED_REPLY)
        return f;
    const QByteArray body = b.mid(REPLY_DATA_POS, b.size() - 3 - REPLY_DATA_POS);
    quint8 code = 0;
    if (nak && b.size() >= NAK_REPLY_BYTES && xbcsim::parseHexPair(b, REPLY_DATA_POS, code))
        f[QStringLiteral("xbc.error")] = QString::number(code);
    if (!nak && body.size() >= CHARS_PER_WORD)
        f[QStringLiteral("xbc.data")] = hexWords(body);
    addChecksum(b, f);
    return f;
}

} // namespace

QString readCapture(const QString &path, QVector<Record> &records)
{
    char error[PCAP_ERRBUF_SIZE] = {};
    pcap_t *p = pcap_open_offline(QFile::encodeName(path).constData(), error);
    if (!p)
        return QString::fromLocal8Bit(error);
    QString problem;
    if (pcap_datalink(p) != DLT_WIRESHARK_UPPER_PDU)
        problem = QStringLiteral("link type %1, not exported PDUs").arg(pcap_datalink(p));
    pcap_pkthdr *header = nullptr;
    const u_char *data = nullptr;
    while (problem.isEmpty() && pcap_next_ex(p, &header, &data) == 1) {
        Record r;
        r.timeUs = qint64(header->ts.tv_sec) * 1000000 + header->ts.tv_usec;
        if (header->caplen != header->len)
            problem = QStringLiteral("record %1 was cut").arg(records.size() + 1);
        else if (!parseRecord(QByteArray(reinterpret_cast<const char *>(data), int(header->caplen)),
                              r))
            problem = QStringLiteral("record %1 has malformed tags").arg(records.size() + 1);
        records.append(r);
    }
    pcap_close(p);
    return problem;
}

QVector<Fields> expectedFields(const QVector<Record> &records)
{
    QVector<Fields> out;
    int lastRequest = -1; // index
    int replyLength = 0;
    for (int i = 0; i < records.size(); ++i) {
        const Record &r = records[i];
        if (r.direction == DIRECTION_SENT) {
            out.append(requestFields(r, replyLength));
            lastRequest = i;
            continue;
        }
        Fields f = replyFields(r, lastRequest >= 0 ? replyLength : 0);
        if (lastRequest >= 0) {
            f[QStringLiteral("xbc.response_to")] = QString::number(lastRequest + 1);
            f[QStringLiteral("xbc.response_time")] =
                QString::number(double(r.timeUs - records[lastRequest].timeUs) / 1e6, 'f', 9);
        }
        out.append(f);
    }
    return out;
}

QStringList dissectorErrorFields()
{
    return {QStringLiteral("_ws.lua.error"), QStringLiteral("_ws.malformed.expert"),
            QStringLiteral("_ws.malformed.dissector_bug")};
}

QStringList comparedFields()
{
    return QStringLiteral("xbc.direction xbc.command xbc.area xbc.address xbc.word xbc.count"
                          " xbc.data xbc.mask xbc.bit xbc.checksum xbc.checksum.status"
                          " xbc.checksum.wrong xbc.reply xbc.error xbc.response_to"
                          " xbc.response_time xbc.timeout xbc.length_mismatch xbc.incomplete")
               .split(QLatin1Char(' ')) +
           dissectorErrorFields();
}

QVector<Fields> parseTsharkFields(const QString &output, const QStringList &fields)
{
    QVector<Fields> rows;
    const QStringList lines = output.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    for (const QString &line : lines) {
        const QStringList cells = line.split(QLatin1Char('\t'));
        if (cells.value(0) == QLatin1String("frame.number"))
            continue;
        Fields row;
        for (int i = 0; i < fields.size() && i + 1 < cells.size(); ++i) {
            const QString cell = cells[i + 1].trimmed();
            if (cell.isEmpty())
                continue;
            QStringList values;
            for (const QString &v : cell.split(QLatin1Char(','))) {
                bool ok = false;
                const qlonglong n = v.toLongLong(&ok, 0);
                values << (ok ? QString::number(n) : v);
            }
            if (fields[i] == QLatin1String("xbc.response_time"))
                values = QStringList{cell}; // seconds, compared with a tolerance
            row[fields[i]] = values.join(QLatin1Char(','));
        }
        rows.append(row);
    }
    return rows;
}

} // namespace capturetest
