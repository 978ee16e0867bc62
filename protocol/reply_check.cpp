// Checks a reply against the frame in flight.
#include "xbc_protocol.h"

int check_rcv_data(const unsigned char *buf, QList<VARIABLE> vars, int len)
{
    Q_UNUSED(vars);
    if (driver.sendList.isEmpty() || buf == nullptr)
        return REPLY_BAD;
    const FRAME_PRO &head = driver.sendList.first();
    if (head.replyLen <= 4 || len < 4 || len > 0xFFFF)
        return REPLY_BAD;
    if (buf[0] != ACK || buf[len - 1] != EOT)
        return REPLY_BAD;
    const quint16 sum = computate_check(buf + 1, quint16(len - 4));
    unsigned char expected[2];
    putHexPair(expected, (unsigned char)(sum & 0xFF));
    if (buf[len - 3] != expected[0] || buf[len - 2] != expected[1])
        return REPLY_BAD;
    return head.wordCount != 0 ? REPLY_READ_DATA : REPLY_WRITE_ACK;
}
