// Cutting the two byte streams into requests and replies, pairing them, and
// recording them the way xbc-host --capture does.
#include "frame_text.h"
#include "tap.h"

#include <QStringList>

namespace xbctap {

namespace {

enum : char { STX = 0x02, ETX = 0x03, EOT = 0x04, ACK = 0x06, NAK = 0x15 };

enum {
    // A request is at most about 2 KiB; runtime bytes that make no request
    // by then are recorded as they are so the buffer cannot grow.
    MAX_REQUEST_BYTES = 4096,
    // STX, command, area letter, address (4), "00", body, checksum (2), ETX.
    COMMAND_OFFSET = 1,
    BYTE_COUNT_OFFSET = 9,
    // ACK, one character, checksum (2), EOT, and two characters per data byte.
    REPLY_FRAME_BYTES = 5,
    CHECKSUM_CHARS = 2,
    SMALLEST_FRAMED_REPLY = 4,
};

void record(Exchanges &ex, bool fromRuntime, const QByteArray &bytes)
{
    if (!ex.capture)
        return;
    if (fromRuntime)
        xbctrace::recordSent(*ex.capture, ex.ends, bytes);
    else if (bytes.isEmpty())
        xbctrace::recordTimeout(*ex.capture, ex.ends);
    else
        xbctrace::recordReceived(*ex.capture, ex.ends, bytes);
}

// The reply length a request asks for: a read names its byte count, every
// other command is answered by the bare frame. 0 when it cannot be told.
int expectedReplyLength(const QByteArray &request)
{
    if (request.size() <= BYTE_COUNT_OFFSET + 1 || request.at(0) != STX)
        return 0;
    if (request.at(COMMAND_OFFSET) != 'r')
        return REPLY_FRAME_BYTES;
    const int high = xbctrace::hexDigitValue(request.at(BYTE_COUNT_OFFSET));
    const int low = xbctrace::hexDigitValue(request.at(BYTE_COUNT_OFFSET + 1));
    if (high < 0 || low < 0)
        return 0;
    return REPLY_FRAME_BYTES + 2 * (high * 16 + low);
}

// The checksum pair before EOT against the sum of the bytes from offset 1.
bool checksumMatches(const QByteArray &reply)
{
    const int end = reply.size() - 1 - CHECKSUM_CHARS;
    quint8 sum = 0;
    for (int i = 1; i < end; ++i)
        sum = quint8(sum + quint8(reply.at(i)));
    return xbctrace::hexDigitValue(reply.at(end)) == sum >> 4 &&
           xbctrace::hexDigitValue(reply.at(end + 1)) == (sum & 0xF);
}

// Counts one reply (empty: none came) and remembers whether it was bad.
void judgeReply(Exchanges &ex, const QByteArray &reply)
{
    TapCounts &c = ex.counts;
    if (reply.isEmpty()) {
        ++c.timeouts;
        ex.lastReplyBad = true;
        return;
    }
    ++c.replies;
    const bool framed = (reply.at(0) == ACK || reply.at(0) == NAK) && reply.endsWith(EOT) &&
                        reply.size() >= SMALLEST_FRAMED_REPLY;
    bool bad = true;
    if (framed && !checksumMatches(reply))
        ++c.checksumErrors;
    else if (framed && reply.at(0) == NAK)
        ++c.naks;
    else if (framed && (ex.expectedReplyLen == 0 || reply.size() == ex.expectedReplyLen))
        bad = false;
    else
        ++c.otherBad;
    ex.lastReplyBad = bad;
}

// By value: the reply may be ex.reply itself, cleared here.
void finishReply(Exchanges &ex, const QByteArray reply)
{
    ex.awaitingReply = false;
    ex.reply.clear();
    record(ex, false, reply);
    judgeReply(ex, reply);
}

void startRequest(Exchanges &ex, const QByteArray &request)
{
    if (ex.awaitingReply)
        endAwaitedReply(ex);
    record(ex, true, request);
    ++ex.counts.frames;
    if (request == ex.lastRequest && ex.lastReplyBad)
        ++ex.counts.retries;
    ex.lastRequest = request;
    ex.expectedReplyLen = expectedReplyLength(request);
    ex.awaitingReply = true;
}

} // namespace

int takeRuntimeBytes(Exchanges &ex, const QByteArray &bytes)
{
    int completed = 0;
    ex.request += bytes;
    for (;;) {
        const int start = ex.request.indexOf(STX);
        const int end = ex.request.indexOf(ETX, qMax(start, 0));
        if (start >= 0 && end > start) {
            // Anything before STX was on the line too: it goes with the frame.
            startRequest(ex, ex.request.left(end + 1));
            ex.request.remove(0, end + 1);
            ++completed;
        } else if (ex.request.size() >= MAX_REQUEST_BYTES) {
            startRequest(ex, ex.request);
            ex.request.clear();
            ++completed;
        } else {
            return completed;
        }
    }
}

void takePlcBytes(Exchanges &ex, const QByteArray &bytes)
{
    if (!ex.awaitingReply) {
        // Late, doubled or unasked-for bytes: recorded as they came.
        ex.counts.strayBytes += bytes.size();
        record(ex, false, bytes);
        return;
    }
    ex.reply += bytes;
    const int eot = ex.reply.indexOf(EOT);
    int end = eot >= 0 ? eot + 1 : 0;
    if (end == 0 && ex.reply.startsWith(ACK) && ex.expectedReplyLen > 0 &&
        ex.reply.size() >= ex.expectedReplyLen)
        end = ex.expectedReplyLen;
    if (end == 0)
        return;
    const QByteArray surplus = ex.reply.mid(end);
    finishReply(ex, ex.reply.left(end));
    if (!surplus.isEmpty())
        takePlcBytes(ex, surplus);
}

void endAwaitedReply(Exchanges &ex)
{
    if (ex.awaitingReply)
        finishReply(ex, ex.reply);
}

QString countsText(const TapCounts &c)
{
    QStringList items{QStringLiteral("frames %1").arg(c.frames),
                      QStringLiteral("replies %1").arg(c.replies),
                      QStringLiteral("timeouts %1").arg(c.timeouts),
                      QStringLiteral("retries %1").arg(c.retries),
                      QStringLiteral("NAKs %1").arg(c.naks),
                      QStringLiteral("checksum errors %1").arg(c.checksumErrors)};
    if (c.otherBad)
        items << QStringLiteral("malformed replies %1").arg(c.otherBad);
    if (c.strayBytes)
        items << QStringLiteral("unasked bytes %1").arg(c.strayBytes);
    return items.join(QLatin1String(", "));
}

} // namespace xbctap
