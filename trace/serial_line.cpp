#include "serial_line.h"

#include <QStringList>

#include <map>

namespace xbctrace {

namespace {

const std::map<QString, QSerialPort::Parity> PARITIES = {
    {QStringLiteral("NONE"), QSerialPort::NoParity},
    {QStringLiteral("EVEN"), QSerialPort::EvenParity},
    {QStringLiteral("ODD"), QSerialPort::OddParity},
    {QStringLiteral("SPACE"), QSerialPort::SpaceParity},
    {QStringLiteral("MARK"), QSerialPort::MarkParity},
};
const std::map<QString, QSerialPort::StopBits> STOP_BITS = {
    {QStringLiteral("1"), QSerialPort::OneStop},
    {QStringLiteral("1.5"), QSerialPort::OneAndHalfStop},
    {QStringLiteral("2"), QSerialPort::TwoStop},
};
enum { FIELDS = 4, FEWEST_DATA_BITS = 5, MOST_DATA_BITS = 8 };

} // namespace

QString parseSerialLine(const QString &text, SerialLine &out)
{
    const QString usage =
        QStringLiteral("line parameters '%1': expected BAUD,DATABITS,PARITY,STOPBITS "
                       "such as 115200,8,NONE,1")
            .arg(text);
    const QStringList f = text.split(QLatin1Char(','));
    if (f.size() != FIELDS)
        return usage;
    bool baudOk = false, bitsOk = false;
    const int baud = f[0].trimmed().toInt(&baudOk);
    const int bits = f[1].trimmed().toInt(&bitsOk);
    const auto parity = PARITIES.find(f[2].trimmed().toUpper());
    const auto stop = STOP_BITS.find(f[3].trimmed());
    if (!baudOk || baud <= 0 || !bitsOk || bits < FEWEST_DATA_BITS || bits > MOST_DATA_BITS ||
        parity == PARITIES.end() || stop == STOP_BITS.end())
        return usage;
    out.baud = baud;
    out.dataBits = QSerialPort::DataBits(bits);
    out.parity = parity->second;
    out.stopBits = stop->second;
    return QString();
}

double bitsPerCharacter(const SerialLine &line)
{
    const double stopBits = line.stopBits == QSerialPort::OneAndHalfStop ? 1.5
                            : line.stopBits == QSerialPort::TwoStop      ? 2.0
                                                                         : 1.0;
    const int parityBits = line.parity == QSerialPort::NoParity ? 0 : 1;
    return 1 + int(line.dataBits) + parityBits + stopBits;
}

} // namespace xbctrace
