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
void notifyHost(int id, int stationNo, const QString &name, int address);
// The same with a name from sharedName(), which is not copied.
void notifyHostShared(int id, int stationNo, const QString *name, int address);
// A long-lived copy of a name, or nullptr once too many distinct names were
// asked for (then callers pass their own copy).
const QString *sharedName(const QString &name);
void deliverPendingNotes();

// --- identity and properties ---
void resetRun();

// --- address tools ---
int multiCp(const QString &regName, const QString &format, int start, int copies, int step,
            QVector<QString> &texts, QVector<int> &values, int maxValue, const QString &maxText);

// --- polling plan ---
void addrMerge(QList<KEY_ADDRESS> &keys, int mergeMode);
void groupingKey(KEY_ADDRESS &key, int maxLen, QList<KEY_ADDRESS> &pieces, int withData);
void rcpAddrToVar(_RCP_VAR_PRO block, VARIABLE &var, int withData);
// Replaces an equal request (searched from the end down to index 1) or appends,
// never holding more than 513 entries: a full list loses its last request,
// which is copied to `displaced` (when given) and reported by returning true.
bool queueRequest(QList<VARIABLE> &list, const VARIABLE &request, VARIABLE *displaced = nullptr);
bool sameRequest(const VARIABLE &a, const VARIABLE &b);

// --- send schedule and dispatch ---
void dealListWhenFinish();
QString getErrorInfo(QByteArray reply);
int dealReadFrameReturnSaveData(QByteArray reply);
void analyzeFrameOfVal(QByteArray reply, int count, int start, VARIABLE var);

// --- data area cache ---
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
struct RegisterView {
    MappingKind kind;
    QString area;
};
RegisterView registerViewOf(const QString &regName);
RegisterView registerViewFor(const QString &regName, int dataBits, int unitBits);
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
int monitorFlagsFor(const RegisterView &view, int stationNo, int start, int count);

int getIndexOfDataArea(int stationNo, QString name, int address, QList<_DATA_> &list);
void clearDataAreas();
// Indices of the records (station, name, first + k) for k below count, created
// when absent.
QVector<int> dataAreaRun(int stationNo, const QString &name, int first, int count);
int _setDataAreaMonitorFlag(int stationNo, QString regName, int start, int count);
int _setBitValue(int value, int bit, int on);

void _bitDataChange(int index);
void _byteDataChange(unsigned char *oldValue, unsigned char *newValue, int index, int skipBits);
void _wordDataChange(int *oldValue, int *newValue, int index, int skipBits);
void _dwordDataChange(int *oldValue, int *newValue, int index, int skipBits);

void write_saveDataToArea(int stationNo, QString regName, int start, int count,
                          unsigned char *data);
void _write_FailOrSuc(int stationNo, QString regName, int start, int count, int success);

#endif
