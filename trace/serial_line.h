// Serial line settings as the runtime's driver parameter gives them
// ("115200,8,NONE,1"), shared by the runtime stand-in and the line tap so both
// read a line text alike and count its bits alike.
#ifndef XBC_SERIAL_LINE_H
#define XBC_SERIAL_LINE_H

#include <QSerialPort>
#include <QString>

namespace xbctrace {

struct SerialLine {
    qint32 baud = 115200;
    QSerialPort::DataBits dataBits = QSerialPort::Data8;
    QSerialPort::Parity parity = QSerialPort::NoParity;
    QSerialPort::StopBits stopBits = QSerialPort::OneStop;
};

// "BAUD,DATABITS,PARITY,STOPBITS": parity NONE, EVEN, ODD, SPACE or MARK; stop
// bits 1, 1.5 or 2. Empty error text on success; out is left as it was on
// failure.
QString parseSerialLine(const QString &text, SerialLine &out);

// Bits on the line per character: start, data, parity if any, stop.
double bitsPerCharacter(const SerialLine &line);

} // namespace xbctrace

#endif
