// The general driver service: polling plan, send schedule, dispatch and
// decoding, data area cache. Internal to the library.
#ifndef XBC_SERVICE_H
#define XBC_SERVICE_H

#include "driver_private.h"
#include "ls_xbc_cpu_direct.h"
#include "xbc_protocol.h"

// --- one exported call: holds the driver's own lock and delivers the gathered
// notifications after releasing it ---
class DriverCall {
  public:
    DriverCall();
    ~DriverCall();
    DriverCall(const DriverCall &) = delete;
    DriverCall &operator=(const DriverCall &) = delete;
};
// Queues a value-change notification of the current call.
void notifyHost(int id, int stationNo, const QString &name, int address);
// The same with a name of the register model's tables, which is not copied.
void notifyHostTableName(int id, int stationNo, const QString *name, int address);

// --- identity and properties ---
void resetRun();

// --- address tools ---
int multiCp(const QString &regName, const QString &format, int start, int copies, int step,
            QVector<QString> &texts, QVector<int> &values, int maxValue, const QString &maxText);

// --- polling plan ---
void addrMerge(QList<KEY_ADDRESS> &keys, int mergeMode);
void groupingKey(KEY_ADDRESS &key, int maxLen, QList<KEY_ADDRESS> &pieces, int withData);
// The request of one piece: its station, register, address and count, with
// the runtime's tag (data not copied).
VARIABLE requestOf(const KEY_ADDRESS &piece, int tag);
// `reg`: the block's register of the table, null for other names.
void rcpAddrToVar(const Register *reg, _RCP_VAR_PRO block, VARIABLE &var, int withData);
// The sort key of an address, by the register's place in driver.regNameList.
unsigned int getRegAddressWeight(int station, const QString &regName, int value);

// --- send schedule and dispatch ---
// The kind of the frame in flight, in `sendState`.
enum SendState {
    SEND_NONE = 0,
    SEND_HANDSHAKE = 1,
    SEND_WRITE = 2,
    SEND_CONDITION_READ = 3,
    SEND_POLLING_READ = 4,
    SEND_RECIPE_WRITE = 5,
    SEND_RECIPE_READ = 6,
};
// The request tag of the polling read blocks.
constexpr int POLLING_TAG = 4;
// Writes and condition reads sent in a row before polling gets a turn: a
// frame of the kind goes out while `burstCount` is at most this.
constexpr int WRITE_BURST_LIMIT = 9;
constexpr int CONDITION_READ_BURST_LIMIT = 2;
void dealListWhenFinish();
QString getErrorInfo(QByteArray reply);
int dealReadFrameReturnSaveData(const QByteArray &reply);
void analyzeFrameOfVal(const Register &reg, const QByteArray &reply, int count, int start,
                       const VARIABLE &var);

// --- data area cache ---
// Most values one call maps onto records: more than any register holds, so a
// runaway count cannot fill memory.
constexpr int MAX_VALUES_PER_CALL = 1 << 18;
// The widest record a bit lives in; pendingBitWrites holds two flags per bit.
constexpr int MAX_UNIT_BITS = 16;
inline int addrAt(int start, int i)
{
    return int(quint32(start) + quint32(i));
}
const unsigned char *shownBytes(const _DATA_ &record);

// One place where a value of a register range lives. `value` is its position
// in the range; `address` the record (of the register's area) holding it. For
// the bit kinds `part` is the bit of that record, and a bit address below 0
// has no record (address and part -1). For the others `part` is the position
// of the record among the value's records and `flag` its valueMonitor bit.
// `offset` and `bytes` place the part in the runtime's buffer (bytes 0: one
// byte that holds the bit).
struct RecordSlot {
    int value;
    int address;
    int part;
    int flag;
    int offset;
    int bytes;
    bool hasRecord() const
    {
        return address >= 0 || part >= 0;
    }
};

// Visits every record part that `count` values of a register touch from
// `start` on, value by value and, within a value, least significant part first.
template <class Visit> void walkRecords(const Register &reg, int start, int count, Visit &&visit)
{
    const int values = qMin(reg.doubleWord() ? count / 2 : count, MAX_VALUES_PER_CALL);
    for (int i = 0; i < values; ++i) {
        switch (reg.kind) {
        case MAP_WORD:
            visit(RecordSlot{i, addrAt(start, i), 0, 0, 2 * i, 2});
            break;
        case MAP_WORD_OF_BYTES:
            for (int k = 0; k < 2; ++k)
                visit(RecordSlot{i, addrAt(start, 2 * i + k), k, 1 + k, 2 * i + k, 1});
            break;
        case MAP_DWORD_OF_WORDS:
            for (int k = 0; k < 2; ++k)
                visit(RecordSlot{i, addrAt(start, 2 * i + k), k, 1 + k, 4 * i + 2 * k, 2});
            break;
        case MAP_DWORD_OF_BYTES:
            for (int k = 0; k < 4; ++k)
                visit(RecordSlot{i, addrAt(start, 4 * i + k), k, 3 + k, 4 * i + k, 1});
            break;
        case MAP_DWORD:
            visit(RecordSlot{i, addrAt(start, i), 0, 0, 4 * i, 4});
            break;
        case MAP_PER_BIT:
            visit(RecordSlot{i, addrAt(start, i), 0, 0, i, 1});
            break;
        case MAP_BIT_IN_WORD:
        case MAP_BIT_IN_BYTE: {
            const int a = addrAt(start, i);
            if (a < 0)
                visit(RecordSlot{i, -1, -1, -1, i, 0});
            else
                visit(RecordSlot{i, a / reg.unitBits, a % reg.unitBits, -1, i, 0});
            break;
        }
        case MAP_NONE:
            return;
        }
    }
}

int monitorFlagsFor(const Register &reg, int stationNo, int start, int count);

// The records of one station's area, for a run of lookups: the area is
// numbered once instead of once per record.
struct AreaRecords {
    int stationNo;
    QString name;
    int number;
};
AreaRecords areaRecords(int stationNo, const QString &name);
// Index of the record at `address`, created when absent.
int recordIndex(const AreaRecords &area, int address);
// The record itself, with its index in `index` when given.
_DATA_ &recordAt(const AreaRecords &area, int address, int *index = nullptr);
void clearDataAreas();
// Indices of the records (station, name, first + k) for k below count, created
// when absent.
QVector<int> dataAreaRun(int stationNo, const QString &name, int first, int count);
int _setBitValue(int value, int bit, int on);

void _bitDataChange(int index);
void _byteDataChange(unsigned char *oldValue, unsigned char *newValue, int index, int skipBits);
void _wordDataChange(int *oldValue, int *newValue, int index, int skipBits);
void _dwordDataChange(int *oldValue, int *newValue, int index, int skipBits);

void write_saveDataToArea(int stationNo, QString regName, int start, int count,
                          unsigned char *data);
void _write_FailOrSuc(int stationNo, QString regName, int start, int count, int success);

// --- request queues and the write queue (write_queue.cpp) ---
// Replaces an equal request (searched from the end down to index 1) or appends,
// never holding more than 513 entries: a full list loses its last request,
// which is copied to `displaced` (when given) and reported by returning true.
bool queueRequest(QList<VARIABLE> &list, const VARIABLE &request, VARIABLE *displaced = nullptr);
bool sameRequest(const VARIABLE &a, const VARIABLE &b);
// Queues the pieces of one write of the runtime's.
void queueWrite(const Register &reg, const KEY_ADDRESS &key, int tag);
void clearWrites();
// The head of the write list is done and leaves it.
void retireHeadWrite();
// The head cannot be framed: settled as failed, then it leaves the list.
void dropHeadWrite();
// The write frames on sendList are abandoned: each settles its piece as failed.
void failQueuedWrites();
// A record shows its written value. For a bit of word (area, address),
// `countRequests` also counts the bit writes left for that word.
void showWrittenValue(_DATA_ &record);
void showWrittenBits(const AreaRecords &area, _DATA_ &record, int address, bool countRequests);
// A polled value that differs from the image takes over a word or a contact,
// unless bit writes are left for the word.
void polledWordChanged(_DATA_ &record);
void polledContactChanged(_DATA_ &record);
// A new list of watched addresses forgets the counts of bit writes left.
void forgetBitWriteCount(_DATA_ &record);

#endif
