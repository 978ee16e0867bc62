// The register model, worked out once from the text tables.
#include "registers.h"

#include <QHash>
#include <QStringList>

#include <array>

int getIndexFromRegName(const QString &regName)
{
    for (int i = 0; i < REG_COUNT; ++i) {
        if (REG_LIST[i] == regName)
            return i;
    }
    return -1;
}

static MappingKind kindOf(bool bitName, int dataBits, int unitBits)
{
    if ((dataBits == 1 || dataBits == 8) && !bitName)
        return MAP_PER_BIT;
    switch (dataBits) {
    case 16:
        return unitBits == 8 ? MAP_WORD_OF_BYTES : MAP_WORD;
    case 32:
        if (unitBits == 16)
            return MAP_DWORD_OF_WORDS;
        return unitBits == 8 ? MAP_DWORD_OF_BYTES : MAP_DWORD;
    case 1:
    case 8:
        if (unitBits == 16)
            return MAP_BIT_IN_WORD;
        return unitBits == 8 ? MAP_BIT_IN_BYTE : MAP_NONE;
    default:
        return MAP_NONE;
    }
}

// The part of a name before its first "_"; a name without one is its own.
static QString prefixOf(const QString &regName)
{
    const int underscore = regName.indexOf(QLatin1Char('_'));
    return underscore < 0 ? regName : regName.left(underscore);
}

// Reads of a register of two name parts go out under its area's register of
// the width of its units ("M_bit" as "M_W"); other names as they are.
static QString readNameOf(const QString &regName, int unitBits)
{
    const QStringList parts = regName.split(QLatin1Char('_'));
    if (parts.size() != 2)
        return regName;
    const char *suffix = unitBits == 8 ? "_B" : unitBits == 16 ? "_W" : unitBits == 32 ? "_D" : "";
    return parts.at(0) + QLatin1String(suffix);
}

// The memory-area letter of a register of the table; 0 for other names.
static char letterOf(int index)
{
    if (index < 0 || ADDRESS_RW_COMMAND[index].isEmpty())
        return 0;
    return ADDRESS_RW_COMMAND[index].at(0).toLatin1();
}

static Register modelOf(const QString &regName)
{
    Register r;
    r.index = getIndexFromRegName(regName);
    r.row = r.index < 0 ? REG_FALLBACK_ROW : r.index;
    r.dataBits = ADDRESS_RANGE_PRO[r.row][COL_DATA_BITS].toInt();
    r.unitBits = ADDRESS_RANGE_PRO[r.row][COL_UNIT_BITS].toInt();
    r.bitInWord = regName.contains(QLatin1String("_bit"));
    // One-bit values in one-bit units: each bit is a record of its own.
    r.contact = r.index >= 0 && r.dataBits == 1 && r.unitBits == 1;
    r.letter = letterOf(r.index);
    r.kind = kindOf(r.bitInWord, r.dataBits, r.unitBits);
    r.area = r.kind == MAP_PER_BIT ? regName : prefixOf(regName);
    r.readName = readNameOf(regName, r.unitBits);
    r.readLetter = letterOf(getIndexFromRegName(r.readName));
    return r;
}

// The table's registers, built on first use (the text tables are built while
// the library loads, in an order this file does not control).
static const std::array<Register, REG_COUNT> &tableModels()
{
    static const std::array<Register, REG_COUNT> models = [] {
        std::array<Register, REG_COUNT> out;
        for (int i = 0; i < REG_COUNT; ++i)
            out[size_t(i)] = modelOf(REG_LIST[i]);
        return out;
    }();
    return models;
}

const Register *tableRegister(const QString &regName)
{
    const int index = getIndexFromRegName(regName);
    return index < 0 ? nullptr : &tableModels()[size_t(index)];
}

Register registerOf(const QString &regName)
{
    const Register *known = tableRegister(regName);
    return known != nullptr ? *known : modelOf(regName);
}

UnitRun unitRunOfBits(int first, int count, int unitBits)
{
    if (unitBits < 1)
        return {first, count};
    const qint64 bits = qint64(first) % unitBits + count;
    return {first / unitBits, int(bits / unitBits + (bits % unitBits != 0 ? 1 : 0))};
}

static AreaRegisters formNames(const QString &area)
{
    return {area + QLatin1String("_bit"), area + QLatin1String("_B"), area + QLatin1String("_W"),
            area + QLatin1String("_D")};
}

const AreaRegisters *tableAreaRegisters(const QString &area)
{
    static const QHash<QString, AreaRegisters> known = [] {
        QHash<QString, AreaRegisters> out;
        for (const Register &r : tableModels())
            out.insert(r.area, formNames(r.area));
        return out;
    }();
    const auto found = known.constFind(area);
    return found != known.constEnd() ? &found.value() : nullptr;
}

AreaRegisters registersOfArea(const QString &area)
{
    const AreaRegisters *known = tableAreaRegisters(area);
    return known != nullptr ? *known : formNames(area);
}
