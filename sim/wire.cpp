// Requests in, replies out: parsing, checking and answering r, w, o and n.
#include "xbc_sim.h"

#include <cstring>

namespace xbcsim {

namespace {

enum { READ_LEN = 14, BIT_LEN = 16, WRITE_MIN_LEN = 14, REPLY_FRAMING = 5 };

const char HEX_DIGITS[] = "0123456789ABCDEF";

// Without a temporary: replies are built a pair at a time.
void appendHexPair(QByteArray &out, quint8 value)
{
    out.append(HEX_DIGITS[value >> 4]);
    out.append(HEX_DIGITS[value & 0x0F]);
}

int hexValue(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

// The checksum covers offsets 1 to before the checksum pair.
bool checksumMatches(const QByteArray &frame)
{
    const int n = frame.size();
    const quint8 sum = byteSum(frame, 1, n - 3);
    return frame[n - 3] == HEX_DIGITS[sum >> 4] && frame[n - 2] == HEX_DIGITS[sum & 0x0F];
}

bool parseHex16(const QByteArray &bytes, int pos, quint16 &value)
{
    quint8 lo = 0, hi = 0;
    if (!parseHexPair(bytes, pos, lo) || !parseHexPair(bytes, pos + 2, hi))
        return false;
    value = quint16(lo | (hi << 8));
    return true;
}

int expectedLength(const Request &r)
{
    if (r.command == 'o' || r.command == 'n')
        return BIT_LEN;
    if (r.command == 'w')
        return WRITE_MIN_LEN + 2 * r.byteCount;
    return READ_LEN;
}

int checkRange(const Request &r, int words)
{
    if (r.byteAddress % 2 != 0)
        return ERR_RANGE;
    if (r.byteAddress / 2 + words > areaInfo(r.area).words)
        return ERR_RANGE;
    return ERR_NONE;
}

// Two hex digits at out; returns their byte sum.
unsigned putHexPair(char *out, quint8 value)
{
    out[0] = HEX_DIGITS[value >> 4];
    out[1] = HEX_DIGITS[value & 0x0F];
    return quint8(out[0]) + quint8(out[1]);
}

// The ACK reply to a read, written into a buffer of its final size with the
// checksum summed on the way: a call per appended digit cost about a
// microsecond per full frame on loopback. The range is checked already.
QByteArray readReply(const Memory &mem, const Request &r)
{
    const int words = r.byteCount / 2;
    QByteArray reply(4 * words + REPLY_FRAMING, Qt::Uninitialized);
    char *out = reply.data();
    *out++ = ACK;
    *out++ = 'r';
    unsigned sum = 'r';
    const quint16 *from = mem.areas[r.area].constData() + r.byteAddress / 2;
    for (int i = 0; i < words; ++i, out += 4) {
        sum += putHexPair(out, quint8(from[i] & 0xFF));
        sum += putHexPair(out + 2, quint8(from[i] >> 8));
    }
    putHexPair(out, quint8(sum & 0xFF));
    out[2] = EOT;
    return reply;
}

void writeData(Memory &mem, const Request &r)
{
    const int first = r.byteAddress / 2;
    for (int i = 0; i + 1 < r.data.size(); i += 2) {
        const quint16 w = quint16(quint8(r.data[i]) | (quint8(r.data[i + 1]) << 8));
        setWordAt(mem, r.area, first + i / 2, w);
    }
}

} // namespace

quint8 byteSum(const QByteArray &bytes, int from, int to)
{
    unsigned sum = 0;
    for (int i = qMax(from, 0); i < to && i < bytes.size(); ++i)
        sum += quint8(bytes[i]);
    return quint8(sum & 0xFF);
}

QByteArray hexPair(quint8 value)
{
    QByteArray out;
    appendHexPair(out, value);
    return out;
}

bool parseHexPair(const QByteArray &bytes, int pos, quint8 &value)
{
    if (pos < 0 || pos + 1 >= bytes.size())
        return false;
    const int hi = hexValue(bytes[pos]);
    const int lo = hexValue(bytes[pos + 1]);
    if (hi < 0 || lo < 0)
        return false;
    value = quint8(hi * 16 + lo);
    return true;
}

QByteArray hex16(quint16 value)
{
    return hexPair(quint8(value & 0xFF)) + hexPair(quint8(value >> 8));
}

int parseRequest(const QByteArray &frame, Request &out)
{
    Request r;
    const int n = frame.size();
    if (n < READ_LEN || frame[0] != STX || frame[n - 1] != ETX)
        return ERR_MALFORMED;
    r.command = frame[1];
    if (!checksumMatches(frame))
        return ERR_CHECKSUM;
    if (r.command != 'r' && r.command != 'w' && r.command != 'o' && r.command != 'n')
        return ERR_COMMAND;
    r.area = areaFromLetter(frame[2]);
    if (r.area < 0)
        return ERR_AREA;
    quint16 address = 0;
    if (!parseHex16(frame, 3, address) || frame[7] != '0' || frame[8] != '0')
        return ERR_MALFORMED;
    r.byteAddress = address;
    int words = 1;
    if (r.command == 'o' || r.command == 'n') {
        if (n != BIT_LEN || !parseHex16(frame, 9, r.mask))
            return ERR_MALFORMED;
    } else {
        quint8 count = 0;
        if (!parseHexPair(frame, 9, count))
            return ERR_MALFORMED;
        r.byteCount = count;
        if (count == 0 || count % 2 != 0)
            return ERR_COUNT;
        if (n != expectedLength(r))
            return r.command == 'w' ? ERR_COUNT : ERR_MALFORMED;
        if (r.command == 'w')
            r.data.reserve(r.byteCount);
        for (int i = 0; r.command == 'w' && i < r.byteCount; ++i) {
            quint8 b = 0;
            if (!parseHexPair(frame, 11 + 2 * i, b))
                return ERR_MALFORMED;
            r.data.append(char(b));
        }
        words = count / 2;
    }
    const int range = checkRange(r, words);
    if (range != ERR_NONE)
        return range;
    out = r;
    return ERR_NONE;
}

QByteArray ackReply(char command, const QByteArray &dataChars)
{
    QByteArray reply;
    reply.reserve(dataChars.size() + REPLY_FRAMING);
    reply.append(ACK);
    reply.append(command);
    reply.append(dataChars);
    appendHexPair(reply, byteSum(reply, 1, reply.size()));
    reply.append(EOT);
    return reply;
}

QByteArray nakReply(char command, int errorCode)
{
    QByteArray reply;
    reply.append(NAK);
    reply.append(command >= 0x20 && command < 0x7F ? command : '?');
    reply.append(hexPair(quint8(errorCode)));
    reply.append(hexPair(byteSum(reply, 1, reply.size())));
    reply.append(EOT);
    return reply;
}

QByteArray answerFrame(Memory &mem, const QByteArray &frame)
{
    Request r;
    const int error = parseRequest(frame, r);
    if (error != ERR_NONE)
        return nakReply(frame.size() > 1 ? frame[1] : '?', error);
    const int word = r.byteAddress / 2;
    switch (r.command) {
    case 'r':
        return readReply(mem, r);
    case 'w':
        writeData(mem, r);
        break;
    case 'o':
        setWordAt(mem, r.area, word, quint16(wordAt(mem, r.area, word) | r.mask));
        break;
    case 'n':
        setWordAt(mem, r.area, word, quint16(wordAt(mem, r.area, word) & r.mask));
        break;
    }
    return ackReply(r.command, QByteArray());
}

namespace {

// STX, no STX or ETX, ETX: one frame that is not overlong.
bool isOneWholeFrame(const QByteArray &bytes)
{
    const int n = bytes.size();
    if (n < 2 || n > MAX_REQUEST_BYTES || bytes[0] != STX || bytes[n - 1] != ETX)
        return false;
    const char *inner = bytes.constData() + 1;
    return !std::memchr(inner, STX, size_t(n - 2)) && !std::memchr(inner, ETX, size_t(n - 2));
}

} // namespace

QList<QByteArray> takeFrames(FrameSplitter &splitter, const QByteArray &incoming)
{
    // The usual case, a whole request in one read, goes on as it came.
    if (splitter.pending.isEmpty() && isOneWholeFrame(incoming))
        return {incoming};
    QList<QByteArray> frames;
    QByteArray &pending = splitter.pending;
    const char *const data = incoming.constData();
    const int n = incoming.size();
    int i = 0;
    while (i < n) {
        if (pending.isEmpty()) { // noise between frames
            const char *stx = static_cast<const char *>(std::memchr(data + i, STX, size_t(n - i)));
            if (!stx)
                break;
            pending = QByteArray(1, STX);
            i = int(stx - data) + 1;
            continue;
        }
        // The run up to the next STX or ETX joins the frame in one piece.
        int end = i;
        while (end < n && data[end] != STX && data[end] != ETX)
            ++end;
        if (pending.size() + (end - i) >= MAX_REQUEST_BYTES) {
            i += MAX_REQUEST_BYTES - pending.size();
            frames.append(QByteArray()); // overlong: the rest up to an STX is noise
            pending.clear();
            continue;
        }
        pending.append(data + i, end - i);
        i = end;
        if (i == n)
            break;
        if (data[i] == STX) {
            pending = QByteArray(1, STX); // a new start drops a torn frame
        } else {
            pending.append(ETX);
            frames.append(pending);
            pending.clear();
        }
        ++i;
    }
    return frames;
}

} // namespace xbcsim
