// The runtime's reads and writes of values. A write is queued by the write
// queue (write_queue.cpp) and shown in the image here at once.
#include "service.h"

// Bit `bit` of a record's shown bytes, as 0 or 1.
static unsigned char shownBit(const _DATA_ &r, int bit)
{
    return (shownBytes(r)[bit / 8] >> (bit % 8)) & 1;
}

// ---------------------------------------------------------------------------
// Reading.

int intf_getData(int stationNo, QString regName, int start, int count, unsigned char *out)
{
    DriverCall call;
    const Register reg = registerOf(regName);
    if (out == nullptr)
        return 1;
    const AreaRecords area = areaRecords(stationNo, reg.area);
    walkRecords(reg, start, count, [&](const RecordSlot &slot) {
        if (!slot.hasRecord()) {
            out[slot.offset] = 0;
            return;
        }
        const _DATA_ &r = recordAt(area, slot.address);
        if (slot.bytes == 0)
            out[slot.offset] = shownBit(r, slot.part);
        else
            memcpy(out + slot.offset, shownBytes(r), size_t(slot.bytes));
    });
    return 1;
}

// ---------------------------------------------------------------------------
// Writing: the image shows the written value at once.

// A bit of a shared record, set by any non-zero byte as on the wire.
static void storeBit(const AreaRecords &area, const Register &reg, const RecordSlot &slot,
                     unsigned char on)
{
    if (!slot.hasRecord())
        return;
    int index = 0;
    _DATA_ &r = recordAt(area, slot.address, &index);
    const int k = slot.part / 8;
    const unsigned char mask = (unsigned char)(1u << (slot.part % 8));
    const unsigned char *shown = shownBytes(r);
    const unsigned char newByte = on != 0 ? shown[k] | mask : shown[k] & ~mask;
    if (newByte != shown[k]) {
        unsigned char bytes[2] = {shown[0], shown[1]};
        bytes[k] = newByte;
        if (reg.kind == MAP_BIT_IN_WORD) {
            int oldValue = uchar2int16(shown[0], shown[1]);
            int newValue = uchar2int16(bytes[0], bytes[1]);
            _wordDataChange(&oldValue, &newValue, index, 0);
        } else {
            unsigned char oldByte = shown[0];
            _byteDataChange(&oldByte, &bytes[0], index, 0);
        }
    }
    if (!r.writePending && reg.kind == MAP_BIT_IN_WORD)
        r.writtenValue[1 - k] = r.value[1 - k]; // a whole word that starts from the image
    r.writtenValue[k] = newByte;
    // The request of this write is already queued; the bits of one record come
    // one after another, so the list is counted once per record.
    const bool countRequests = reg.kind == MAP_BIT_IN_WORD && (slot.value == 0 || slot.part == 0);
    showWrittenBits(area, r, slot.address, countRequests);
}

// A unit of one, two or four bytes. A contact is stored as 0 or 1, as any
// non-zero byte sets it on the wire.
static void storeUnit(const AreaRecords &area, const Register &reg, const QString &regName,
                      int start, const RecordSlot &slot, const unsigned char *data)
{
    int index = 0;
    _DATA_ &r = recordAt(area, slot.address, &index);
    unsigned char bytes[4] = {};
    memcpy(bytes, data + slot.offset, size_t(slot.bytes));
    if (reg.kind == MAP_PER_BIT)
        bytes[0] = bytes[0] != 0 ? 1 : 0;
    const unsigned char *shown = shownBytes(r);
    if (memcmp(shown, bytes, size_t(slot.bytes)) != 0) {
        int oldValue = uchar2int32(shown[0], shown[1], shown[2], shown[3]);
        int newValue = uchar2int32(bytes[0], bytes[1], bytes[2], bytes[3]);
        unsigned char oldByte = shown[0];
        if (slot.bytes == 4) {
            _dwordDataChange(&oldValue, &newValue, index, 0);
        } else if (slot.bytes == 2) {
            oldValue = uchar2int16(shown[0], shown[1]);
            newValue = uchar2int16(bytes[0], bytes[1]);
            _wordDataChange(&oldValue, &newValue, index, 0);
        } else if (reg.kind == MAP_PER_BIT || (reg.kind == MAP_WORD_OF_BYTES && slot.part == 1)) {
            // The value as a whole, whatever its flags say.
            notifyHost(driver.driverId, area.stationNo, regName, addrAt(start, slot.value));
        } else {
            _byteDataChange(&oldByte, &bytes[0], index, 0);
        }
    }
    memcpy(r.writtenValue, bytes, size_t(slot.bytes));
    showWrittenValue(r);
}

void write_saveDataToArea(int stationNo, QString regName, int start, int count, unsigned char *data)
{
    if (data == nullptr)
        return;
    const Register reg = registerOf(regName);
    const AreaRecords area = areaRecords(stationNo, reg.area);
    walkRecords(reg, start, qMin(count, DATA_BYTES), [&](const RecordSlot &slot) {
        if (slot.bytes == 0)
            storeBit(area, reg, slot, data[slot.offset]);
        else
            storeUnit(area, reg, regName, start, slot, data);
    });
}

int intf_setData(int stationNo, QString regName, int start, int count, unsigned char *data, int tag)
{
    DriverCall call;
    const Register reg = registerOf(regName);
    const qint64 bytes = reg.dataBits == 1 ? qint64(count) : 2 * qint64(count);
    // A write that does not fit one request's data is refused as a whole.
    if (count > 0 && (data == nullptr || bytes > DATA_BYTES))
        return 1;
    if (!driver.localWriteOnly) {
        KEY_ADDRESS key;
        key.stationNo = stationNo;
        key.regName = regName;
        key.address = start;
        key.count = count;
        key.dataKind = reg.dataBits == 1 ? -1 : 0;
        if (count > 0)
            memcpy(key.data, data, size_t(bytes));
        queueWrite(reg, key, tag);
    }
    write_saveDataToArea(stationNo, regName, start, count, data);
    return 1;
}
