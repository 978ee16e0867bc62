// Why a reply was refused, told from the frame in flight and the bytes that
// came: the driver only says good or bad.
#include "frame_text.h"
#include "xbc_host.h"

namespace xbchost {

namespace {

enum : char { ACK_BYTE = 0x06, EOT_BYTE = 0x04, NAK_BYTE = 0x15 };
// A reply: ACK or NAK, one character, data, checksum pair, end byte. A NAK
// carries its error code as the hex pair after the command character.
enum { CHECKSUM_FROM = 1, TRAILER_BYTES = 3, NAK_CODE_AT = 2, NAK_MIN_LEN = 4 };

// Error codes of a NAK reply.
struct NakCode {
    int code;
    const char *meaning;
};
const NakCode NAK_CODES[] = {
    {0x01, "malformed request (framing, length or characters)"},
    {0x02, "the request's checksum is wrong"},
    {0x03, "unknown command"},
    {0x04, "unknown memory area"},
    {0x05, "address out of range"},
    {0x06, "byte count wrong"},
};

QString nakMeaning(int code)
{
    for (const NakCode &n : NAK_CODES)
        if (n.code == code)
            return QLatin1String(n.meaning);
    return QStringLiteral("no known meaning");
}

QString hexPairText(quint8 byte)
{
    return QStringLiteral("%1").arg(byte, 2, 16, QLatin1Char('0')).toUpper();
}

// The checksum pair a reply of this length should carry.
QString expectedChecksum(const QByteArray &reply)
{
    quint8 sum = 0;
    for (int i = CHECKSUM_FROM; i < reply.size() - TRAILER_BYTES; ++i)
        sum = quint8(sum + quint8(reply[i]));
    return hexPairText(sum);
}

QString nakText(const QByteArray &reply)
{
    if (reply.size() < NAK_MIN_LEN + 1)
        return QStringLiteral("NAK without an error code (%1 bytes)").arg(reply.size());
    const int high = xbctrace::hexDigitValue(reply[NAK_CODE_AT]);
    const int low = xbctrace::hexDigitValue(reply[NAK_CODE_AT + 1]);
    if (high < 0 || low < 0)
        return QStringLiteral("NAK with an unreadable error code '%1'")
            .arg(QString::fromLatin1(reply.mid(NAK_CODE_AT, 2)));
    const int code = high * 16 + low;
    return QStringLiteral("NAK, error code %1: %2")
        .arg(hexPairText(quint8(code)), nakMeaning(code));
}

} // namespace

QString replyProblemText(const FRAME_PRO &frame, const QByteArray &reply, int timeoutMs)
{
    if (frame.frameLen <= 0)
        return QStringLiteral("a handshake frame: nothing was sent, no reply is taken");
    if (reply.isEmpty())
        return QStringLiteral("no reply within %1 ms").arg(timeoutMs);
    const QByteArray request = QByteArray::fromRawData(reinterpret_cast<const char *>(frame.frame),
                                                       qBound(0, frame.frameLen, int(FRAME_BYTES)));
    if (reply.startsWith(request) || (request.startsWith(reply) && reply.size() > 1))
        return QStringLiteral("the reply echoes the request (%1 bytes): the line is looped "
                              "back, or this is not the PLC's port")
            .arg(reply.size());
    if (reply[0] == NAK_BYTE)
        return nakText(reply);
    if (reply.size() < frame.replyLen)
        return QStringLiteral("reply too short: %1 bytes, expected %2")
            .arg(reply.size())
            .arg(frame.replyLen);
    if (reply.size() > frame.replyLen)
        return QStringLiteral("reply too long: %1 bytes, expected %2")
            .arg(reply.size())
            .arg(frame.replyLen);
    if (reply[0] != ACK_BYTE)
        return QStringLiteral("the reply starts with 0x%1, not ACK")
            .arg(hexPairText(quint8(reply[0])));
    if (reply.endsWith(EOT_BYTE) == false)
        return QStringLiteral("the reply ends with 0x%1, not EOT")
            .arg(hexPairText(quint8(reply[reply.size() - 1])));
    const QString received = QString::fromLatin1(reply.mid(reply.size() - TRAILER_BYTES, 2));
    const QString expected = expectedChecksum(reply);
    if (received != expected)
        return QStringLiteral("wrong checksum: received %1, expected %2").arg(received, expected);
    return QStringLiteral("reply refused by the driver (%1 bytes)").arg(reply.size());
}

} // namespace xbchost
