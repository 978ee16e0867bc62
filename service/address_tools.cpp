// Address checks for the runtime's editors, and series of addresses for copies.
#include "service.h"

namespace {
// How the caller asks for an address: as a bit or a word, and what else to check.
struct CheckRequest {
    bool askedAsBit;
    bool checkAccess;
    int accessMode;
    bool checkDataType;
    int dataType;
};
} // namespace

static bool dataTypeFitsDoubleWord(int dataType)
{
    return dataType == 1 || dataType == 3 || dataType == 5 || dataType == 6 || dataType == 9;
}

static int checkAddress(const QString &regName, const QString &addrText, int *address, int count,
                        const CheckRequest &req)
{
    int value = address != nullptr ? *address : 0;
    int minimum = 0;
    int maximum = 0;
    int unit = 16;
    const int index = getIndexFromRegName(regName);
    if (index >= 0) {
        const QString *row = ADDRESS_RANGE_PRO[index];
        const Register &reg = *tableRegister(regName);
        const bool bitRegister = reg.dataBits == 1;
        if (bitRegister != req.askedAsBit)
            return ADDR_WRONG_KIND;
        if (req.checkAccess && row[COL_ACCESS] == QLatin1String("R") &&
            (req.accessMode == 1 || req.accessMode == 2))
            return ADDR_READ_ONLY;
        if (req.checkDataType && reg.dataBits == 32 && !dataTypeFitsDoubleWord(req.dataType))
            return ADDR_WRONG_TYPE;
        const int parsed = a2i(addrText, value, row[COL_FORMAT], regName);
        if (address != nullptr)
            *address = value;
        if (parsed == -1)
            return ADDR_BAD_FORMAT;
        a2i(row[COL_MAX], maximum, row[COL_FORMAT], regName);
        a2i(row[COL_MIN], minimum, row[COL_FORMAT], regName);
        unit = req.askedAsBit ? 16 : reg.unitBits;
    }
    if (value < minimum)
        return ADDR_OUT_OF_RANGE;
    if (double(count) / (unit * 0.0625) + value > double(maximum) + 1)
        return ADDR_OUT_OF_RANGE;
    if (index < 0)
        return ADDR_UNKNOWN_REG;
    if (address != nullptr)
        *address = addrOffset(regName, value);
    return ADDR_VALID;
}

int intf_checkAddrValidity(const QString &regName, const QString &addrText, int *address, int count,
                           int wordMode)
{
    return checkAddress(regName, addrText, address, count,
                        CheckRequest{wordMode == 0, false, 0, false, 0});
}

int intf_checkAddr(const QString &regName, const QString &addrText, int *address, int dataType,
                   int count, int accessMode)
{
    return checkAddress(regName, addrText, address, count,
                        CheckRequest{dataType == -1, true, accessMode, true, dataType});
}

static int resolveStep(const QString &regName, int step)
{
    if (step == -1 || step == -2) {
        const Register reg = registerOf(regName);
        if (reg.wireBits()) {
            step = 1; // bits step by element
        } else {
            const float unitBits = float(reg.unitBits);
            step = unitBits > 0 ? int((step == -1 ? 16.0f : 32.0f) / unitBits) : 0;
        }
    }
    return step <= 0 ? 1 : step;
}

int multiCp(const QString &regName, const QString &format, int start, int copies, int step,
            QVector<QString> &texts, QVector<int> &values, int maxValue, const QString &maxText)
{
    const bool wordBit = isWordBitFormat(format);
    if (copies <= 0)
        return 1;
    int result = 1;
    QString text;
    step = resolveStep(regName, step);
    for (int i = 0; i < copies; ++i) {
        const int address = int(quint32(start) + quint32(i) * quint32(step));
        if (address > maxValue) {
            values.append(maxValue);
            texts.append(maxText);
            result = 2;
            continue;
        }
        if (wordBit) {
            text = addr_int2str(address, regName);
            if (text.isEmpty())
                return 2;
        } else if (!format.isEmpty() && QString::fromLatin1("DHO").contains(format.at(0))) {
            text = formatPlainAddress(format, address);
        }
        values.append(address);
        texts.append(text);
    }
    return result;
}

int intf_multiCopy(const QString &regName, int start, int copies, int step, QVector<QString> &texts,
                   QVector<int> &values)
{
    const int index = getIndexFromRegName(regName);
    if (index < 0)
        return 0;
    const QString &format = ADDRESS_RANGE_PRO[index][COL_FORMAT];
    const QString &maxText = ADDRESS_RANGE_PRO[index][COL_MAX];
    int maxValue = 0;
    a2i(maxText, maxValue, format, regName);
    return multiCp(regName, format, start, copies, step, texts, values, maxValue, maxText);
}
