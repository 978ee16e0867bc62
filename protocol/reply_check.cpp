// Checks a reply against the frame in flight.
#include "xbc_protocol.h"

int check_rcv_data(const unsigned char *buf, QList<VARIABLE> vars, int len)
{
    Q_UNUSED(vars);
    if (driver.sendList.isEmpty() || buf == nullptr)
        return 0;
    const FRAME_PRO &head = driver.sendList.first();
    if (head.replyLen <= 4 || len < 4 || len > 0xFFFF)
        return 0;
    if (buf[0] != ACK || buf[len - 1] != EOT)
        return 0;
    const quint16 sum = computate_check(buf + 1, quint16(len - 4));
    unsigned char expected[2];
    putHexPair(expected, (unsigned char)(sum & 0xFF));
    if (buf[len - 3] != expected[0] || buf[len - 2] != expected[1])
        return 0;
    return head.wordCount != 0 ? 1 : 2;
}
