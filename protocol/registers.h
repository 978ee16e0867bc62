// The register model: everything the driver knows about a register, worked
// out once from the text tables of the public header. No other file derives
// these facts from a register's name or its table row.
#ifndef XBC_REGISTERS_H
#define XBC_REGISTERS_H

#include "ls_xbc_cpu_direct.h"

// How a register's values map onto data area records.
enum MappingKind {
    MAP_NONE,
    MAP_WORD,           // one 16-bit record per word
    MAP_WORD_OF_BYTES,  // a 16-bit value over two 8-bit records
    MAP_DWORD_OF_WORDS, // a 32-bit value over two 16-bit records
    MAP_DWORD_OF_BYTES, // a 32-bit value over four 8-bit records
    MAP_DWORD,          // one 32-bit record per value
    MAP_PER_BIT,        // one record per bit, keyed by the whole register name
    MAP_BIT_IN_WORD,    // a bit of a 16-bit record
    MAP_BIT_IN_BYTE,    // a bit of an 8-bit record
};

struct Register {
    int index = -1;         // position in REG_LIST; -1 for a name not in it
    int row = 0;            // row of ADDRESS_RANGE_PRO: the index, or the fallback row
    int dataBits = 0;       // bits of one value
    int unitBits = 0;       // bits of the unit its values are packed into in the image
    bool bitInWord = false; // a "_bit" register: bits of a word area, addressed word.bit
    bool contact = false;   // a table register of one-bit units ("TX", "CX"): bits
                            // with an area letter of their own
    char letter = 0;        // memory-area letter of its frames; 0 when it has none
    char readLetter = 0;    // the letter of `readName`, which its word reads go out as
    MappingKind kind = MAP_NONE;
    QString area;     // area name of its records: "M" for "M_W" and "M_bit"; the
                      // whole name for a register of one record per bit
    QString readName; // the register its reads go out as: "M_W" for "M_bit"
    // Written bit by bit on the wire: single-bit or read-modify-write frames.
    bool wireBits() const
    {
        return bitInWord || contact;
    }
    // A 32-bit value counts two 16-bit words of a range.
    bool doubleWord() const
    {
        return kind == MAP_DWORD_OF_WORDS || kind == MAP_DWORD_OF_BYTES || kind == MAP_DWORD;
    }
};

// The model of a register name; names outside REG_LIST use the fallback row.
Register registerOf(const QString &regName);
// The model of a register of the table; null for a name not in it.
const Register *tableRegister(const QString &regName);
// Position in REG_LIST, -1 for a name not in it.
int getIndexFromRegName(const QString &regName);

// The run of units of `unitBits` bits that holds `count` bits from bit `first`.
struct UnitRun {
    int address;
    int count;
};
UnitRun unitRunOfBits(int first, int count, int unitBits);

// The names under which changes of one area's records are notified, one per
// width it can be viewed in. For the areas of the table they are formed once
// and shared, so a notification costs no string copy.
struct AreaRegisters {
    QString bit;   // bits of its units: "M_bit"
    QString byte;  // 8-bit units: "M_B"
    QString word;  // 16-bit units: "M_W"
    QString dword; // 32-bit values: "M_D"
};
AreaRegisters registersOfArea(const QString &area);
// The same for an area of the table, without a copy; null for other areas.
const AreaRegisters *tableAreaRegisters(const QString &area);

#endif
