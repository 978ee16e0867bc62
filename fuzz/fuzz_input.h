// Reads typed values off the fuzzer's byte string; past its end everything is 0.
#ifndef FUZZ_INPUT_H
#define FUZZ_INPUT_H

#include "service.h"

#include <cstddef>
#include <cstdint>

struct FuzzInput {
    const uint8_t *data;
    size_t size;
    size_t pos = 0;

    bool empty() const
    {
        return pos >= size;
    }
    uint8_t byte()
    {
        return pos < size ? data[pos++] : 0;
    }
    int16_t int16()
    {
        return int16_t(byte() | byte() << 8);
    }
    int32_t int32()
    {
        return int32_t(uint32_t(int16() & 0xFFFF) | uint32_t(int16() & 0xFFFF) << 16);
    }
    QByteArray bytes(size_t n)
    {
        n = n < size - pos ? n : size - pos;
        QByteArray out(reinterpret_cast<const char *>(data + pos), int(n));
        pos += n;
        return out;
    }
    // A register name: mostly from the table, sometimes arbitrary text.
    QString regName()
    {
        const uint8_t pick = byte();
        if (pick < 200)
            return REG_LIST[pick % REG_COUNT];
        return QString::fromLatin1(bytes(byte() % 8));
    }
    // A count that is mostly small, sometimes odd or huge.
    int count()
    {
        const uint8_t pick = byte();
        if (pick < 200)
            return pick % 140;
        return pick < 240 ? int16() : int32();
    }
};

inline void fuzzResetDriver(const char *properties)
{
    static unsigned char status[65536];
    static unsigned char recipe[65536 * 2 + 2048];
    static QMutex hostLock;
    int initStatus = 1;
    memset(status, 0, sizeof status);
    intf_setAddrValueChangeCallBack([](int, int, const QString &, int) {});
    intf_initProperty(status, 0, recipe, &initStatus, properties, &hostLock);
}

inline unsigned char *fuzzStatusBlock()
{
    return driver.hmiStatusBlock;
}

#endif
