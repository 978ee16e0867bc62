// Address texts to numeric addresses and back, and the sort key of addresses.
#include "xbc_protocol.h"

static int radixOfFormat(const QString &format)
{
    if (format.isEmpty())
        return 10;
    const QChar last = format.at(format.size() - 1);
    if (last == QLatin1Char('O'))
        return 8;
    if (last == QLatin1Char('H'))
        return 16;
    return 10;
}

bool isWordBitFormat(const QString &format)
{
    if (format.isEmpty())
        return false;
    for (const QChar c : format) {
        if (c != format.at(0))
            return true;
    }
    return false;
}

int a2i(const QString &text, int &value, const QString &format, const QString &regName)
{
    if (isWordBitFormat(format)) {
        const int packed = addr_str2int(text, regName);
        if (packed == -1)
            return -1;
        value = packed;
        return 1;
    }
    bool ok = false;
    value = text.toInt(&ok, radixOfFormat(format));
    return ok ? 1 : -1;
}

int addr_str2int(const QString &text, const QString &regName)
{
    if (!registerOf(regName).bitInWord)
        return 0;
    const QStringList parts = text.split(QLatin1Char('.'));
    if (parts.size() != 2)
        return -1;
    bool ok = false;
    const int word = parts.at(0).toInt(&ok, 10);
    if (!ok)
        return -1;
    const int bit = parts.at(1).toInt(&ok, 10);
    if (!ok || bit > 15)
        return -1;
    return int(quint32(word) * 16u + quint32(bit));
}

static QString wordBitText(int value)
{
    return QString::number(value / 16) + QLatin1Char('.') + QString::number(value % 16);
}

QString addr_int2str(int value, const QString &regName)
{
    if (!registerOf(regName).bitInWord)
        return QString(QLatin1String(""));
    return wordBitText(value);
}

int addrOffset(const QString &regName, int value)
{
    Q_UNUSED(regName);
    return value;
}

unsigned int addressWeight(int station, int position, int value, int registerCount)
{
    const quint32 n = quint32(registerCount);
    return quint32(station) * (n * 65535u) + quint32(position) * 65535u + quint32(value);
}

QString addressText(const Register &reg, int value)
{
    if (reg.bitInWord)
        return wordBitText(value);
    return formatPlainAddress(ADDRESS_RANGE_PRO[reg.row][COL_FORMAT], value);
}

int uchar2int16(unsigned char low, unsigned char high)
{
    return int(low) + int(high) * 256;
}

int uchar2int32(unsigned char b0, unsigned char b1, unsigned char b2, unsigned char b3)
{
    return int(quint32(b0) | quint32(b1) << 8 | quint32(b2) << 16 | quint32(b3) << 24);
}

QString formatPlainAddress(const QString &format, int value)
{
    if (format.isEmpty())
        return QString();
    switch (format.at(0).toLatin1()) {
    case 'D':
        return QString::number(quint32(value), 10);
    case 'H':
        return QString::number(quint32(value), 16);
    case 'O':
        return QString::number(quint32(value), 8);
    default:
        return QString();
    }
}
