#include "frame_text.h"

namespace xbctrace {

namespace {

enum : quint8 { FIRST_PRINTABLE = 0x20, DEL = 0x7F };

const char *const CONTROL_NAMES[FIRST_PRINTABLE] = {
    "NUL", "SOH", "STX", "ETX", "EOT", "ENQ", "ACK", "BEL", "BS",  "HT",  "LF",
    "VT",  "FF",  "CR",  "SO",  "SI",  "DLE", "DC1", "DC2", "DC3", "DC4", "NAK",
    "SYN", "ETB", "CAN", "EM",  "SUB", "ESC", "FS",  "GS",  "RS",  "US"};

} // namespace

QString printable(const QByteArray &bytes)
{
    QString out;
    for (char ch : bytes) {
        const quint8 c = quint8(ch);
        if (c < FIRST_PRINTABLE)
            out += QLatin1Char('<') + QLatin1String(CONTROL_NAMES[c]) + QLatin1Char('>');
        else if (c < DEL)
            out += QLatin1Char(char(c));
        else
            out += QStringLiteral("<0x%1>").arg(QString::number(c, 16).toUpper());
    }
    return out;
}

} // namespace xbctrace
