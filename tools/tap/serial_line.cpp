// Serial line settings as the runtime's driver parameter gives them:
// "115200,8,NONE,1".
#include "tap.h"

#include <QStringList>

#include <map>

namespace xbctap {

QString parseSerialLine(const QString &text, SerialLine &out)
{
    static const std::map<QString, QSerialPort::Parity> parities = {
        {QStringLiteral("NONE"), QSerialPort::NoParity},
        {QStringLiteral("EVEN"), QSerialPort::EvenParity},
        {QStringLiteral("ODD"), QSerialPort::OddParity},
        {QStringLiteral("SPACE"), QSerialPort::SpaceParity},
        {QStringLiteral("MARK"), QSerialPort::MarkParity},
    };
    static const std::map<QString, QSerialPort::StopBits> stopBits = {
        {QStringLiteral("1"), QSerialPort::OneStop},
        {QStringLiteral("1.5"), QSerialPort::OneAndHalfStop},
        {QStringLiteral("2"), QSerialPort::TwoStop},
    };
    enum { FIELDS = 4, FEWEST_DATA_BITS = 5, MOST_DATA_BITS = 8 };
    const QString usage = QStringLiteral("--line '%1': expected BAUD,DATABITS,PARITY,STOPBITS "
                                         "such as 115200,8,NONE,1")
                              .arg(text);
    const QStringList f = text.split(QLatin1Char(','));
    if (f.size() != FIELDS)
        return usage;
    bool baudOk = false, bitsOk = false;
    const int baud = f[0].trimmed().toInt(&baudOk);
    const int bits = f[1].trimmed().toInt(&bitsOk);
    const auto parity = parities.find(f[2].trimmed().toUpper());
    const auto stop = stopBits.find(f[3].trimmed());
    if (!baudOk || baud <= 0 || !bitsOk || bits < FEWEST_DATA_BITS || bits > MOST_DATA_BITS ||
        parity == parities.end() || stop == stopBits.end())
        return usage;
    out.baud = baud;
    out.dataBits = QSerialPort::DataBits(bits);
    out.parity = parity->second;
    out.stopBits = stop->second;
    return QString();
}

} // namespace xbctap
