// The write queue: `writeList`, how a new request takes its place in it, the
// rule that a record shows its written value while a request for it is left,
// and the settling of results. Only this file changes `writeList` and the
// records' `writePending` and `pendingBitWrites`.
#include "service.h"

#include <QMutexLocker>

// ---------------------------------------------------------------------------
// Places in a request queue (the write list and the condition reads).

bool sameRequest(const VARIABLE &a, const VARIABLE &b)
{
    return a.stationNo == b.stationNo && a.regName == b.regName && a.address == b.address &&
           a.count == b.count;
}

bool queueRequest(QList<VARIABLE> &list, const VARIABLE &request, VARIABLE *displaced)
{
    // The head is never replaced: its frame may be on the line.
    for (int i = list.size() - 1; i >= 1; --i) {
        if (sameRequest(list.at(i), request)) {
            list[i] = request;
            return false;
        }
    }
    if (list.size() <= 512) {
        list.append(request);
        return false;
    }
    if (displaced != nullptr)
        *displaced = list.at(512);
    list[512] = request;
    return true;
}

// ---------------------------------------------------------------------------
// Requests left: a record shows its written value while a write request for it
// is still on the write list. Counted from the list itself, so that a request
// that was overwritten or dropped is never counted and a failed write always
// falls back to the image.

// The word and bit-in-word write requests of one station and area on the list,
// from position `from` on (1 skips the head, whose result is being settled).
struct RequestsLeft {
    struct Span {
        bool bits; // a bit-in-word request, else a word request
        qint64 first, end;
    };
    QVector<Span> spans;
};

static RequestsLeft requestsLeft(const AreaRecords &area, int from)
{
    RequestsLeft left;
    const AreaRegisters names = registersOfArea(area.name);
    QMutexLocker lock(&driver.dataMutex);
    for (int i = qMax(from, 0); i < driver.writeList.size(); ++i) {
        const VARIABLE &v = driver.writeList.at(i);
        if (v.stationNo != area.stationNo)
            continue;
        const bool bits = v.regName == names.bit;
        if (bits || v.regName == names.word)
            left.spans.append({bits, qint64(v.address), qint64(v.address) + qMax(v.count, 0)});
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

// ---------------------------------------------------------------------------
// Showing a written value, and a polled value taking over.

void showWrittenValue(_DATA_ &record)
{
    record.writePending = true;
}

void showWrittenBits(const AreaRecords &area, _DATA_ &record, int address, bool countRequests)
{
    record.writePending = true;
    if (countRequests)
        record.pendingBitWrites = bitWritesLeft(requestsLeft(area, 0), address);
}

void polledWordChanged(_DATA_ &record)
{
    // Bit writes counted as left keep the written word shown while any write is queued.
    if (!(record.pendingBitWrites != 0 && !driver.writeList.isEmpty()))
        record.writePending = false;
}

void polledContactChanged(_DATA_ &record)
{
    record.writePending = false;
}

void forgetBitWriteCount(_DATA_ &record)
{
    record.pendingBitWrites = 0;
}

// ---------------------------------------------------------------------------
// Queueing.

static void settleWrite(int stationNo, const QString &regName, int start, int count, bool ok,
                        int listFrom);

// The records of the image a write request touches: its area and record run.
struct RecordRun {
    int stationNo;
    QString area;
    qint64 first, end;
};

static RecordRun recordRunOf(const VARIABLE &v)
{
    const Register reg = registerOf(v.regName);
    RecordRun run{v.stationNo, reg.area, v.address, qint64(v.address) + qMax(v.count, 0)};
    if (reg.kind == MAP_BIT_IN_WORD) {
        const UnitRun words = unitRunOfBits(v.address, qMax(v.count, 0), reg.unitBits);
        run.first = words.address;
        run.end = qint64(words.address) + words.count;
    }
    return run;
}

static bool overlaps(const RecordRun &a, const RecordRun &b)
{
    return a.stationNo == b.stationNo && a.area == b.area && a.first < b.end && b.first < a.end;
}

// An equal request queued ahead of another write to the same records is not
// overwritten in place: sent first, it would be undone by that later write,
// and the newest value would not be the one the PLC keeps. It leaves its place
// and the new request goes to the end of the list instead.
static void unqueueEqualAheadOfOverlap(const VARIABLE &request)
{
    const RecordRun run = recordRunOf(request);
    for (int i = driver.writeList.size() - 1; i >= 1; --i) {
        if (!sameRequest(driver.writeList.at(i), request))
            continue;
        for (int j = i + 1; j < driver.writeList.size(); ++j) {
            if (overlaps(run, recordRunOf(driver.writeList.at(j)))) {
                driver.writeList.removeAt(i);
                return;
            }
        }
        return;
    }
}

// Queues the pieces of one write; a piece that a full list loses is settled
// as failed, so the screens fall back to the PLC's value instead of keeping it.
void queueWrite(const Register &reg, const KEY_ADDRESS &key, int tag)
{
    QList<KEY_ADDRESS> pieces;
    KEY_ADDRESS whole = key;
    groupingKey(whole, reg.dataBits == 1 ? driver.maxPacketBits : driver.maxPacketWords, pieces, 1);
    for (const KEY_ADDRESS &piece : pieces) {
        VARIABLE request = requestOf(piece, tag);
        memcpy(request.data, piece.data, sizeof request.data);
        if (reg.dataBits != 1 && reg.unitBits > 0)
            request.count = int(qint64(request.count) * 16 / reg.unitBits);
        VARIABLE displaced;
        bool lost = false;
        {
            QMutexLocker lock(&driver.dataMutex);
            unqueueEqualAheadOfOverlap(request);
            lost = queueRequest(driver.writeList, request, &displaced);
        }
        if (lost)
            settleWrite(displaced.stationNo, displaced.regName, displaced.address, displaced.count,
                        false, 0);
    }
}

void clearWrites()
{
    driver.writeList.clear();
}

// The head's frames are all done: it leaves the list.
void retireHeadWrite()
{
    QMutexLocker lock(&driver.dataMutex);
    if (!driver.writeList.isEmpty())
        driver.writeList.removeFirst();
}

// ---------------------------------------------------------------------------
// Write results: success makes what the request wrote the image; failure falls
// back to the image and tells the runtime so its screens show the PLC's value
// again. A record goes on showing its written value while other requests for
// it are left.

static void settleWord(const AreaRecords &area, int address, bool success,
                       const unsigned char *requestBytes, const RequestsLeft &left)
{
    int index = 0;
    _DATA_ &r = recordAt(area, address, &index);
    if (success) {
        const unsigned char *landed = requestBytes ? requestBytes : r.writtenValue;
        r.value[0] = landed[0];
        r.value[1] = landed[1];
    }
    if (wordWritesLeft(left, address) || bitWritesLeft(left, address) != 0)
        return;
    const bool wasShowing = r.writePending;
    r.writePending = false;
    int written = uchar2int16(r.writtenValue[0], r.writtenValue[1]);
    int image = uchar2int16(r.value[0], r.value[1]);
    // A failure is always told; a success only when what lands differs from
    // what was shown (a later write to some of its bits went first).
    if (!success || (wasShowing && written != image))
        _wordDataChange(&written, &image, index, 0);
}

static void settleByte(const AreaRecords &area, int address, bool success)
{
    int index = 0;
    _DATA_ &r = recordAt(area, address, &index);
    r.writePending = false;
    if (success) {
        r.value[0] = r.writtenValue[0];
        return;
    }
    unsigned char written = r.writtenValue[0];
    unsigned char image = r.value[0];
    _byteDataChange(&written, &image, index, 0);
}

static void settleDoubleWord(const AreaRecords &area, int address, bool success)
{
    int index = 0;
    _DATA_ &r = recordAt(area, address, &index);
    r.writePending = false;
    if (success)
        memcpy(r.value, r.writtenValue, 4);
    else
        _dwordDataChange(nullptr, nullptr, index, 0);
}

static void settlePerBit(const AreaRecords &area, int address, bool success)
{
    _DATA_ &r = recordAt(area, address);
    r.writePending = false;
    if (success)
        r.value[0] = r.writtenValue[0];
    else
        notifyHost(driver.driverId, area.stationNo, area.name, address);
}

// The bits of one shared record that one result settles: the record shows the
// written word until no write request for it is left.
struct SettledBits {
    int record = -1;
    quint32 bits = 0;
};

static void settleBitsOfRecord(const AreaRecords &area, const Register &reg,
                               const SettledBits &settled, bool success, const RequestsLeft &left)
{
    if (settled.record < 0)
        return;
    int index = 0;
    _DATA_ &r = recordAt(area, settled.record, &index);
    for (int b = 0; b < reg.unitBits && success; ++b) {
        const unsigned char mask = (unsigned char)(1u << (b % 8));
        if (settled.bits & (1u << b))
            r.value[b / 8] =
                (unsigned char)((r.value[b / 8] & ~mask) | (r.writtenValue[b / 8] & mask));
    }
    const bool inWord = reg.kind == MAP_BIT_IN_WORD;
    r.pendingBitWrites = inWord ? bitWritesLeft(left, settled.record) : 0;
    if (r.pendingBitWrites != 0 || (inWord && wordWritesLeft(left, settled.record)))
        return;
    r.writePending = false;
    if (inWord)
        _wordDataChange(nullptr, nullptr, index, 0);
    else
        _byteDataChange(nullptr, nullptr, index, 0);
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

// Requests are counted from `listFrom`: 1 when the request being settled is the
// head of the write list (it leaves the list once its frames are done), 0 when
// it has left the list already.
static void settleWrite(int stationNo, const QString &regName, int start, int count, bool ok,
                        int listFrom)
{
    const Register reg = registerOf(regName);
    const AreaRecords area = areaRecords(stationNo, reg.area);
    const RequestsLeft left = requestsLeft(area, listFrom);
    SettledBits bits;
    walkRecords(reg, start, count, [&](const RecordSlot &slot) {
        if (slot.bytes == 0) {
            if (!slot.hasRecord())
                return;
            if (slot.address != bits.record) {
                settleBitsOfRecord(area, reg, bits, ok, left);
                bits = SettledBits{slot.address, 0};
            }
            bits.bits |= 1u << slot.part;
        } else if (slot.bytes == 4) {
            settleDoubleWord(area, slot.address, ok);
        } else if (slot.bytes == 2) {
            const bool ownWord = reg.kind == MAP_WORD;
            settleWord(area, slot.address, ok,
                       ownWord ? headBytesFor(stationNo, regName, slot.address, listFrom) : nullptr,
                       ownWord ? left : RequestsLeft());
        } else if (reg.kind == MAP_PER_BIT) {
            settlePerBit(area, slot.address, ok);
        } else {
            settleByte(area, slot.address, ok);
        }
    });
    settleBitsOfRecord(area, reg, bits, ok, left);
}

// The result of the request at the head of the write list.
void _write_FailOrSuc(int stationNo, QString regName, int start, int count, int success)
{
    settleWrite(stationNo, regName, start, count, success == 1, 1);
}

// Every write frame still queued settles its own piece as failed; a two-frame
// bit write is settled once, by its write frame.
void failQueuedWrites()
{
    for (const FRAME_PRO &frame : driver.sendList) {
        if (frame.wordCount == 0)
            _write_FailOrSuc(frame.var.stationNo, frame.var.regName, frame.var.address,
                             frame.var.count, 0);
    }
}

// The head could not be put into a frame. The screens show the written value:
// fall back to the image and say so, while the request is still the head of
// the list, as for any result; then it leaves the list.
void dropHeadWrite()
{
    const VARIABLE dropped = driver.curVar;
    _write_FailOrSuc(dropped.stationNo, dropped.regName, dropped.address, dropped.count, 0);
    retireHeadWrite();
}
