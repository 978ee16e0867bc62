// Frames as text for traces: what the runtime stand-in and the simulator print
// and what tests show when a frame is not the expected one. Needs nothing of
// the driver, so both programs link it without linking each other.
#ifndef XBC_FRAME_TEXT_H
#define XBC_FRAME_TEXT_H

#include <QByteArray>
#include <QString>

namespace xbctrace {

// Control bytes by name (<STX>, <ACK>), bytes from 0x7F on in hex (<0x9A>),
// the rest as they are.
QString printable(const QByteArray &bytes);

// The value of an upper-case hexadecimal digit as frames carry it; -1 for any
// other character.
inline int hexDigitValue(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

} // namespace xbctrace

#endif
