// The runtime's reads and writes of values, and the settling of write results.
#include "service.h"

#include <QMutexLocker>

static _DATA_ &recordAt(int stationNo, const QString &area, int address, int *index = nullptr)
{
    const int i = getIndexOfDataArea(stationNo, area, address, driver.dataAreas);
    if (index != nullptr)
        *index = i;
    return driver.dataAreas[i];
}

static bool isDoubleWordKind(MappingKind kind)
{
    return kind == MAP_DWORD_OF_WORDS || kind == MAP_DWORD_OF_BYTES || kind == MAP_DWORD;
}

// Bit `bitAddress` of a record of `unitBits` bits, as 0 or 1.
static unsigned char shownBit(int stationNo, const QString &area, int bitAddress, int unitBits)
{
    if (bitAddress < 0)
        return 0;
    const _DATA_ &r = recordAt(stationNo, area, bitAddress / unitBits);
    const int b = bitAddress % unitBits;
    return (shownBytes(r)[b / 8] >> (b % 8)) & 1;
}

// ---------------------------------------------------------------------------
// Reading.

static void copyShownValue(const RegisterView &v, int st, int start, int i, unsigned char *out)
{
    switch (v.kind) {
    case MAP_WORD:
        memcpy(out + 2 * i, shownBytes(recordAt(st, v.area, addrAt(start, i))), 2);
        break;
    case MAP_WORD_OF_BYTES:
        out[2 * i] = shownBytes(recordAt(st, v.area, addrAt(start, 2 * i)))[0];
        out[2 * i + 1] = shownBytes(recordAt(st, v.area, addrAt(start, 2 * i + 1)))[0];
        break;
    case MAP_DWORD_OF_WORDS:
        memcpy(out + 4 * i, shownBytes(recordAt(st, v.area, addrAt(start, 2 * i))), 2);
        memcpy(out + 4 * i + 2, shownBytes(recordAt(st, v.area, addrAt(start, 2 * i + 1))), 2);
        break;
    case MAP_DWORD_OF_BYTES:
        for (int k = 0; k < 4; ++k)
            out[4 * i + k] = shownBytes(recordAt(st, v.area, addrAt(start, 4 * i + k)))[0];
        break;
    case MAP_DWORD:
        memcpy(out + 4 * i, shownBytes(recordAt(st, v.area, addrAt(start, i))), 4);
        break;
    case MAP_PER_BIT:
        out[i] = shownBytes(recordAt(st, v.area, addrAt(start, i)))[0];
        break;
    case MAP_BIT_IN_WORD:
        out[i] = shownBit(st, v.area, addrAt(start, i), 16);
        break;
    case MAP_BIT_IN_BYTE:
        out[i] = shownBit(st, v.area, addrAt(start, i), 8);
        break;
    case MAP_NONE:
        break;
    }
}

int intf_getData(int stationNo, QString regName, int start, int count, unsigned char *out)
{
    DriverCall call;
    const RegisterView view = registerViewOf(regName);
    if (out == nullptr || view.kind == MAP_NONE)
        return 1;
    const int values = isDoubleWordKind(view.kind) ? count / 2 : count;
    for (int i = 0; i < qMin(values, int(MAX_VALUES_PER_CALL)); ++i)
        copyShownValue(view, stationNo, start, i, out);
    return 1;
}

// ---------------------------------------------------------------------------
// Writing: the image shows the written value at once.

static void storeWord(int st, const QString &area, int address, const unsigned char *bytes)
{
    int index = 0;
    _DATA_ &r = recordAt(st, area, address, &index);
    const unsigned char *shown = shownBytes(r);
    if (shown[0] != bytes[0] || shown[1] != bytes[1]) {
        int oldValue = uchar2int16(shown[0], shown[1]);
        int newValue = uchar2int16(bytes[0], bytes[1]);
        _wordDataChange(&oldValue, &newValue, index, 0);
    }
    r.writtenValue[0] = bytes[0];
    r.writtenValue[1] = bytes[1];
    r.writePending = true;
}

static void storeByte(int st, const QString &area, int address, unsigned char byte,
                      bool notifyAsByte, const QString &regName, int valueAddress)
{
    int index = 0;
    _DATA_ &r = recordAt(st, area, address, &index);
    unsigned char oldValue = shownBytes(r)[0];
    if (oldValue != byte) {
        if (notifyAsByte)
            _byteDataChange(&oldValue, &byte, index, 0);
        else
            notifyHost(driver.driverId, st, regName, valueAddress);
    }
    r.writtenValue[0] = byte;
    r.writePending = true;
}

static void storeDoubleWord(int st, const QString &area, int address, const unsigned char *bytes)
{
    int index = 0;
    _DATA_ &r = recordAt(st, area, address, &index);
    const unsigned char *shown = shownBytes(r);
    int oldValue = uchar2int32(shown[0], shown[1], shown[2], shown[3]);
    int newValue = uchar2int32(bytes[0], bytes[1], bytes[2], bytes[3]);
    if (oldValue != newValue)
        _dwordDataChange(&oldValue, &newValue, index, 0);
    memcpy(r.writtenValue, bytes, 4);
    r.writePending = true;
}

// Number of write requests for exactly this write still on the write list.
static int queuedWritesLike(int st, const QString &regName, int start, int count)
{
    QMutexLocker lock(&driver.dataMutex);
    int matches = 0;
    for (const VARIABLE &v : driver.writeList) {
        if (v.stationNo == st && v.regName == regName && v.address == start && v.count == count)
            ++matches;
    }
    return matches;
}

static void storeBitInWord(int st, const QString &area, const QString &regName, int start,
                           int count, int i, unsigned char on)
{
    const int a = addrAt(start, i);
    if (a < 0)
        return;
    int index = 0;
    _DATA_ &r = recordAt(st, area, a / 16, &index);
    const int b = a % 16, k = b / 8, p = a % 8;
    const unsigned char *shown = shownBytes(r);
    const unsigned char newByte =
        on == 1 ? (unsigned char)(shown[k] | (1u << p)) : (unsigned char)(shown[k] & ~(1u << p));
    if (newByte != shown[k]) {
        unsigned char bytes[2] = {shown[0], shown[1]};
        bytes[k] = newByte;
        int oldValue = uchar2int16(shown[0], shown[1]);
        int newValue = uchar2int16(bytes[0], bytes[1]);
        _wordDataChange(&oldValue, &newValue, index, 0);
    }
    if (!r.writePending)
        r.writtenValue[1 - k] = r.value[1 - k]; // a whole word that starts from the image
    r.writtenValue[k] = newByte;
    r.writePending = true;
    const quint32 first = 1u << (2 * b), second = 1u << (2 * b + 1);
    if (!(r.pendingBitWrites & first))
        r.pendingBitWrites |= first;
    else if (queuedWritesLike(st, regName, start, count) == 2)
        r.pendingBitWrites |= second;
}

static void storeBitInByte(int st, const QString &area, int a, unsigned char on)
{
    if (a < 0)
        return;
    const unsigned char shown = shownBytes(recordAt(st, area, a / 8))[0];
    const unsigned char mask = (unsigned char)(1u << (a % 8));
    storeByte(st, area, a / 8, on == 1 ? shown | mask : shown & ~mask, true, QString(), 0);
}

void write_saveDataToArea(int stationNo, QString regName, int start, int count, unsigned char *data)
{
    const RegisterView v = registerViewOf(regName);
    const int values = qMin(isDoubleWordKind(v.kind) ? count / 2 : count, int(DATA_BYTES));
    for (int i = 0; i < values && data != nullptr; ++i) {
        switch (v.kind) {
        case MAP_WORD:
            storeWord(stationNo, v.area, addrAt(start, i), data + 2 * i);
            break;
        case MAP_WORD_OF_BYTES:
            storeByte(stationNo, v.area, addrAt(start, 2 * i), data[2 * i], true, regName, 0);
            storeByte(stationNo, v.area, addrAt(start, 2 * i + 1), data[2 * i + 1], false, regName,
                      addrAt(start, i));
            break;
        case MAP_DWORD_OF_WORDS:
            storeWord(stationNo, v.area, addrAt(start, 2 * i + 1), data + 4 * i + 2);
            storeWord(stationNo, v.area, addrAt(start, 2 * i), data + 4 * i);
            break;
        case MAP_DWORD_OF_BYTES: // spread over four byte records, as reads see it
            for (int k = 0; k < 4; ++k)
                storeByte(stationNo, v.area, addrAt(start, 4 * i + k), data[4 * i + k], true,
                          regName, 0);
            break;
        case MAP_DWORD:
            storeDoubleWord(stationNo, v.area, addrAt(start, i), data + 4 * i);
            break;
        case MAP_PER_BIT:
            storeByte(stationNo, v.area, addrAt(start, i), data[i], false, regName,
                      addrAt(start, i));
            break;
        case MAP_BIT_IN_WORD:
            storeBitInWord(stationNo, v.area, regName, start, count, i, data[i]);
            break;
        case MAP_BIT_IN_BYTE:
            storeBitInByte(stationNo, v.area, addrAt(start, i), data[i]);
            break;
        case MAP_NONE:
            return;
        }
    }
}

int intf_setData(int stationNo, QString regName, int start, int count, unsigned char *data, int tag)
{
    DriverCall call;
    const int dataBits = regDataBits(regName);
    const int bytes = dataBits == 1 ? count : 2 * count;
    // A write that does not fit one request's data is refused as a whole.
    if (count > 0 && (data == nullptr || bytes > DATA_BYTES))
        return 1;
    if (!driver.localWriteOnly) {
        KEY_ADDRESS key;
        key.stationNo = stationNo;
        key.regName = regName;
        key.address = start;
        key.count = count;
        key.dataKind = dataBits == 1 ? -1 : 0;
        if (count > 0)
            memcpy(key.data, data, size_t(bytes));
        QList<KEY_ADDRESS> pieces;
        groupingKey(key, dataBits == 1 ? driver.maxPacketBits : driver.maxPacketWords, pieces, 1);
        const int unitBits = regUnitBits(regName);
        for (const KEY_ADDRESS &piece : pieces) {
            VARIABLE request;
            request.requestTag = tag;
            request.stationNo = piece.stationNo;
            request.regName = piece.regName;
            request.address = piece.address;
            request.count = piece.count;
            memcpy(request.data, piece.data, sizeof request.data);
            if (dataBits != 1 && unitBits > 0)
                request.count = int(qint64(request.count) * 16 / unitBits);
            QMutexLocker lock(&driver.dataMutex);
            queueRequest(driver.writeList, request);
        }
    }
    write_saveDataToArea(stationNo, regName, start, count, data);
    return 1;
}

// ---------------------------------------------------------------------------
// Write results: success makes the written value the image; failure falls back
// to the image and tells the runtime so its screens show the PLC's value again.

static void settleWord(int st, const QString &area, int address, bool success)
{
    int index = 0;
    _DATA_ &r = recordAt(st, area, address, &index);
    r.writePending = false;
    if (success) {
        r.value[0] = r.writtenValue[0];
        r.value[1] = r.writtenValue[1];
        return;
    }
    int written = uchar2int16(r.writtenValue[0], r.writtenValue[1]);
    int image = uchar2int16(r.value[0], r.value[1]);
    _wordDataChange(&written, &image, index, 0);
}

static void settleByte(int st, const QString &area, int address, bool success)
{
    int index = 0;
    _DATA_ &r = recordAt(st, area, address, &index);
    r.writePending = false;
    if (success) {
        r.value[0] = r.writtenValue[0];
        return;
    }
    unsigned char written = r.writtenValue[0];
    unsigned char image = r.value[0];
    _byteDataChange(&written, &image, index, 0);
}

static void settleDoubleWord(int st, const QString &area, int address, bool success)
{
    int index = 0;
    _DATA_ &r = recordAt(st, area, address, &index);
    r.writePending = false;
    if (success)
        memcpy(r.value, r.writtenValue, 4);
    else
        _dwordDataChange(nullptr, nullptr, index, 0);
}

static void settlePerBit(int st, const QString &regName, int address, bool success)
{
    _DATA_ &r = recordAt(st, regName, address);
    r.writePending = false;
    if (success)
        r.value[0] = r.writtenValue[0];
    else
        notifyHost(driver.driverId, st, regName, address);
}

// A bit of a shared record: the record shows the written word until every
// single-bit write of it is settled.
static void settleBit(int st, const QString &area, int a, int unitBits, bool success)
{
    if (a < 0)
        return;
    int index = 0;
    _DATA_ &r = recordAt(st, area, a / unitBits, &index);
    const int b = a % unitBits, k = b / 8, p = a % 8;
    const quint32 first = 1u << (2 * b), second = 1u << (2 * b + 1);
    if (r.pendingBitWrites & first)
        r.pendingBitWrites &= ~first;
    else
        r.pendingBitWrites &= ~second;
    if (r.pendingBitWrites == 0)
        r.writePending = false;
    if (success) {
        const unsigned char mask = (unsigned char)(1u << p);
        r.value[k] = (unsigned char)((r.value[k] & ~mask) | (r.writtenValue[k] & mask));
    }
    if (!r.writePending) {
        if (unitBits == 16)
            _wordDataChange(nullptr, nullptr, index, 0);
        else
            _byteDataChange(nullptr, nullptr, index, 0);
    }
}

void _write_FailOrSuc(int stationNo, QString regName, int start, int count, int success)
{
    const RegisterView v = registerViewOf(regName);
    const bool ok = success == 1;
    const int n = qMin(count, int(MAX_VALUES_PER_CALL));
    for (int i = 0; i < n; ++i) {
        switch (v.kind) {
        case MAP_WORD:
            settleWord(stationNo, v.area, addrAt(start, i), ok);
            break;
        case MAP_WORD_OF_BYTES:
        case MAP_DWORD_OF_BYTES:
            settleByte(stationNo, v.area, addrAt(start, 2 * i), ok);
            settleByte(stationNo, v.area, addrAt(start, 2 * i + 1), ok);
            break;
        case MAP_DWORD_OF_WORDS:
            settleWord(stationNo, v.area, addrAt(start, i), ok);
            break;
        case MAP_DWORD:
            if (i < count / 2)
                settleDoubleWord(stationNo, v.area, addrAt(start, i), ok);
            break;
        case MAP_PER_BIT:
            settlePerBit(stationNo, regName, addrAt(start, i), ok);
            break;
        case MAP_BIT_IN_WORD:
            settleBit(stationNo, v.area, addrAt(start, i), 16, ok);
            break;
        case MAP_BIT_IN_BYTE:
            settleBit(stationNo, v.area, addrAt(start, i), 8, ok);
            break;
        case MAP_NONE:
            return;
        }
    }
}
