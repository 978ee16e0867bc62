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

static void settleWrite(int stationNo, const QString &regName, int start, int count, bool ok,
                        int listFrom);

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

// ---------------------------------------------------------------------------
// Requests left: a record shows its written value while a write request for it
// is still on the write list. Counted from the list itself, so that a request
// that was overwritten or dropped is never counted and a failed write always
// falls back to the image.

// The write requests of one station and area on the list, from position
// `from` on (1 skips the head, whose result is being settled).
struct RequestsLeft {
    struct Span {
        bool bits; // a bit-in-word request, else a word request
        qint64 first, end;
    };
    QVector<Span> spans;
};

static RequestsLeft requestsLeft(int st, const QString &area, int from)
{
    RequestsLeft left;
    QMutexLocker lock(&driver.dataMutex);
    for (int i = qMax(from, 0); i < driver.writeList.size(); ++i) {
        const VARIABLE &v = driver.writeList.at(i);
        if (v.stationNo != st)
            continue;
        const RegisterView view = registerViewOf(v.regName);
        if (view.area != area || (view.kind != MAP_WORD && view.kind != MAP_BIT_IN_WORD))
            continue;
        left.spans.append({view.kind == MAP_BIT_IN_WORD, qint64(v.address),
                           qint64(v.address) + qMax(v.count, 0)});
    }
    return left;
}

// pendingBitWrites of 16-bit record `record`: bit 2b says that a request for
// bit b is left, bit 2b+1 that a second one is.
static quint32 bitWritesLeft(const RequestsLeft &left, int record)
{
    int perBit[MAX_UNIT_BITS] = {};
    const qint64 first = qint64(record) * MAX_UNIT_BITS, end = first + MAX_UNIT_BITS;
    for (const RequestsLeft::Span &span : left.spans) {
        for (qint64 a = qMax(span.first, first); span.bits && a < qMin(span.end, end); ++a)
            ++perBit[a - first];
    }
    quint32 flags = 0;
    for (int b = 0; b < MAX_UNIT_BITS; ++b) {
        if (perBit[b] >= 1)
            flags |= 1u << (2 * b);
        if (perBit[b] >= 2)
            flags |= 1u << (2 * b + 1);
    }
    return flags;
}

static bool wordWritesLeft(const RequestsLeft &left, int record)
{
    for (const RequestsLeft::Span &span : left.spans) {
        if (!span.bits && span.first <= record && record < span.end)
            return true;
    }
    return false;
}

static void storeBitInWord(int st, const QString &area, int start, int i, unsigned char on)
{
    const int a = addrAt(start, i);
    if (a < 0)
        return;
    int index = 0;
    _DATA_ &r = recordAt(st, area, a / 16, &index);
    const int b = a % 16, k = b / 8, p = a % 8;
    const unsigned char *shown = shownBytes(r);
    const unsigned char newByte =
        on != 0 ? (unsigned char)(shown[k] | (1u << p)) : (unsigned char)(shown[k] & ~(1u << p));
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
    // The request of this write is already queued; the bits of one record
    // come one after another, so the list is counted once per record.
    if (i == 0 || b == 0)
        r.pendingBitWrites = bitWritesLeft(requestsLeft(st, area, 0), a / 16);
}

static void storeBitInByte(int st, const QString &area, int a, unsigned char on)
{
    if (a < 0)
        return;
    const unsigned char shown = shownBytes(recordAt(st, area, a / 8))[0];
    const unsigned char mask = (unsigned char)(1u << (a % 8));
    storeByte(st, area, a / 8, on != 0 ? shown | mask : shown & ~mask, true, QString(), 0);
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
            storeByte(stationNo, v.area, addrAt(start, i), data[i] != 0 ? 1 : 0, false, regName,
                      addrAt(start, i));
            break;
        case MAP_BIT_IN_WORD:
            storeBitInWord(stationNo, v.area, start, i, data[i]);
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
            VARIABLE displaced;
            bool lost = false;
            {
                QMutexLocker lock(&driver.dataMutex);
                lost = queueRequest(driver.writeList, request, &displaced);
            }
            // A full list loses its last request: its write is reported failed,
            // so the screens fall back to the PLC's value instead of keeping it.
            if (lost)
                settleWrite(displaced.stationNo, displaced.regName, displaced.address,
                            displaced.count, false, 0);
        }
    }
    write_saveDataToArea(stationNo, regName, start, count, data);
    return 1;
}

// ---------------------------------------------------------------------------
// Write results: success makes the written value the image; failure falls back
// to the image and tells the runtime so its screens show the PLC's value again.

// Success makes what the request wrote the image; the record goes on showing
// its written value while other requests for it are left.
static void settleWord(int st, const QString &area, int address, bool success,
                       const unsigned char *requestBytes, const RequestsLeft &left)
{
    int index = 0;
    _DATA_ &r = recordAt(st, area, address, &index);
    if (success) {
        const unsigned char *landed = requestBytes ? requestBytes : r.writtenValue;
        r.value[0] = landed[0];
        r.value[1] = landed[1];
    }
    if (wordWritesLeft(left, address) || bitWritesLeft(left, address) != 0)
        return;
    r.writePending = false;
    if (success)
        return;
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

// Bits of one shared record settled by one result: the record shows the
// written word until no write request for it is left.
static void settleBitsOfRecord(int st, const QString &area, int record, int firstBit, int bits,
                               int unitBits, bool success, const RequestsLeft &left)
{
    int index = 0;
    _DATA_ &r = recordAt(st, area, record, &index);
    for (int b = firstBit; b < firstBit + bits && success; ++b) {
        const int k = b / 8;
        const unsigned char mask = (unsigned char)(1u << (b % 8));
        r.value[k] = (unsigned char)((r.value[k] & ~mask) | (r.writtenValue[k] & mask));
    }
    r.pendingBitWrites = unitBits == MAX_UNIT_BITS ? bitWritesLeft(left, record) : 0;
    if (r.pendingBitWrites != 0 || (unitBits == MAX_UNIT_BITS && wordWritesLeft(left, record)))
        return;
    r.writePending = false;
    if (unitBits == MAX_UNIT_BITS)
        _wordDataChange(nullptr, nullptr, index, 0);
    else
        _byteDataChange(nullptr, nullptr, index, 0);
}

static void settleBits(int st, const QString &area, int start, int count, int unitBits,
                       bool success, const RequestsLeft &left)
{
    for (int i = 0; i < count;) {
        const int a = addrAt(start, i);
        if (a < 0) {
            ++i;
            continue;
        }
        const int bits = qMin(count - i, unitBits - a % unitBits);
        settleBitsOfRecord(st, area, a / unitBits, a % unitBits, bits, unitBits, success, left);
        i += bits;
    }
}

// The bytes a word request wrote to `address`, when the request being settled
// is the head of the write list; null when they are not known.
static const unsigned char *headBytesFor(int st, const QString &regName, int address, int listFrom)
{
    if (listFrom != 1 || driver.writeList.isEmpty())
        return nullptr;
    const VARIABLE &head = driver.writeList.first();
    const qint64 offset = qint64(address) - head.address;
    if (head.stationNo != st || head.regName != regName || offset < 0 || offset >= head.count ||
        2 * offset + 1 >= DATA_BYTES)
        return nullptr;
    return head.data + 2 * offset;
}

static void settleWrite(int stationNo, const QString &regName, int start, int count, bool ok,
                        int listFrom)
{
    const RegisterView v = registerViewOf(regName);
    const int n = qMin(count, int(MAX_VALUES_PER_CALL));
    const RequestsLeft left = requestsLeft(stationNo, v.area, listFrom);
    if (v.kind == MAP_BIT_IN_WORD || v.kind == MAP_BIT_IN_BYTE) {
        settleBits(stationNo, v.area, start, n, v.kind == MAP_BIT_IN_WORD ? 16 : 8, ok, left);
        return;
    }
    for (int i = 0; i < n; ++i) {
        switch (v.kind) {
        case MAP_WORD: {
            const int address = addrAt(start, i);
            settleWord(stationNo, v.area, address, ok,
                       headBytesFor(stationNo, regName, address, listFrom), left);
            break;
        }
        case MAP_WORD_OF_BYTES:
        case MAP_DWORD_OF_BYTES:
            settleByte(stationNo, v.area, addrAt(start, 2 * i), ok);
            settleByte(stationNo, v.area, addrAt(start, 2 * i + 1), ok);
            break;
        case MAP_DWORD_OF_WORDS:
            settleWord(stationNo, v.area, addrAt(start, i), ok, nullptr, RequestsLeft());
            break;
        case MAP_DWORD:
            if (i < count / 2)
                settleDoubleWord(stationNo, v.area, addrAt(start, i), ok);
            break;
        case MAP_PER_BIT:
            settlePerBit(stationNo, regName, addrAt(start, i), ok);
            break;
        case MAP_BIT_IN_WORD:
        case MAP_BIT_IN_BYTE:
        case MAP_NONE:
            return;
        }
    }
}

// The result of the request at the head of the write list.
void _write_FailOrSuc(int stationNo, QString regName, int start, int count, int success)
{
    settleWrite(stationNo, regName, start, count, success == 1, 1);
}
