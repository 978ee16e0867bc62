// Checks a reply against the frame in flight.
#include "xbc_protocol.h"

int check_rcv_data(const unsigned char *buf, const FRAME_PRO *inFlight, int len)
{
    if (inFlight == nullptr || buf == nullptr)
        return REPLY_BAD;
    if (inFlight->replyLen <= 4 || len < 4 || len > 0xFFFF)
        return REPLY_BAD;
    if (buf[0] != ACK || buf[len - 1] != EOT)
        return REPLY_BAD;
    const quint16 sum = computate_check(buf + 1, quint16(len - 4));
    unsigned char expected[2];
    putHexPair(expected, (unsigned char)(sum & 0xFF));
    if (buf[len - 3] != expected[0] || buf[len - 2] != expected[1])
        return REPLY_BAD;
    return inFlight->wordCount != 0 ? REPLY_READ_DATA : REPLY_WRITE_ACK;
}
