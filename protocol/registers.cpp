// Lookups in the register tables.
#include "xbc_protocol.h"

int getIndexFromRegName(const QString &regName)
{
    for (int i = 0; i < REG_COUNT; ++i) {
        if (REG_LIST[i] == regName)
            return i;
    }
    return -1;
}

int regRowOf(const QString &regName)
{
    const int index = getIndexFromRegName(regName);
    return index < 0 ? REG_FALLBACK_ROW : index;
}

const QString &regColumn(const QString &regName, int column)
{
    return ADDRESS_RANGE_PRO[regRowOf(regName)][column];
}

int regDataBits(const QString &regName)
{
    return regColumn(regName, COL_DATA_BITS).toInt();
}

int regUnitBits(const QString &regName)
{
    return regColumn(regName, COL_UNIT_BITS).toInt();
}

bool isBitRegName(const QString &regName)
{
    return regName.contains(QLatin1String("_bit"));
}

bool isWireBitRegister(const QString &regName)
{
    return isBitRegName(regName) || regName == QLatin1String("TX") ||
           regName == QLatin1String("CX");
}

QString areaPrefix(const QString &regName)
{
    const int underscore = regName.indexOf(QLatin1Char('_'));
    return underscore < 0 ? regName : regName.left(underscore);
}
