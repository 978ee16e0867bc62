// Shared header of the ls_xbc_cpu_direct driver: register tables, protocol
// strings, the records that cross the boundary with the runtime, the driver
// state object and the exported functions.
//
// Rules this driver applies to input the runtime may hand it. Every case gives
// a defined result and never writes past a buffer; a write that does not reach
// the PLC is reported through the notifications of the watched values it shows:
// - intf_setData of more than 512 words or 1024 bits does not fit the 1024-byte
//   data of a request: it is refused as a whole (nothing queued or shown, result
//   1). A count below 1 shows nothing; its request is queued as given but builds
//   no frame, and the send schedule drops it.
// - A request no frame can carry (a register without a memory-area letter, a
//   count below 1) leaves its queue when its turn comes; a write among them is
//   settled as failed, so the screens fall back to the PLC's value.
// - No frame is longer than the 1024 bytes of `frame` or than its one-pair byte
//   count can describe: reads and word writes of more than 127 words go out as
//   several frames of at most 127 words, each settled by its own reply. One read
//   request is read for at most 32768 words.
// - Several TX or CX contacts written at once go out as single-bit frames, one
//   per contact in address order, each settling its own contact.
// - maxPacketLen of 0 or below: write and condition-read keys are not cut
//   (the frame limit above still holds); merging joins only what the merge rule
//   and a span of at most maxPacketLen allow, so most keys stay blocks of their
//   own. An empty or short property string (fewer than five numbers) leaves the
//   five numbers as they were (0 after load).
// - A bit byte other than 0 sets the bit, in the image as in every frame
//   (single-bit, read-modify-write, recipe: the low byte of the buffer word);
//   contacts then show 1. A recipe variable of a bit register takes one buffer
//   word per bit both ways: an upload writes 0 or 1 into each word.
// - A record shows its written value while a write request for it (a word
//   write, or a write of any of its bits) is left on the write list; once none
//   is, it shows the PLC's value, and a failed write is taken back with a
//   notification. A full write list loses its last request: that write is
//   taken back the same way.
// - Unknown register names use the fallback row: values live in one record per
//   address keyed by the whole name and are never sent.
// - Monitor flags, reads and writes map at most 262144 values per call; a
//   condition read is cut into at most 512 pieces (what its queue can hold).
// - Value-change notifications of one call are delivered after the driver has
//   released its own lock, in order, before the call returns; the callback may
//   call back into the driver. Do not call into the driver while holding the
//   lock passed to intf_initProperty.
#ifndef LS_XBC_CPU_DIRECT_H
#define LS_XBC_CPU_DIRECT_H

#include <QByteArray>
#include <QList>
#include <QMutex>
#include <QString>
#include <QStringList>
#include <QVector>

#define XBC_EXPORT extern "C" __attribute__((visibility("default")))

// ---------------------------------------------------------------------------
// Register tables and protocol strings (read-only after load). Built on the
// heap, not from literals: strings the runtime keeps stay valid after it has
// unloaded the library.

inline const QString PROCOTOL_DEFALT_COM_PAR = QString::fromLatin1("115200,8,NONE,1");
// Data only: the PLC address a new project starts from. Never contacted by us.
inline const QString PROCOTOL_DEFALT_IP_PAR = QString::fromLatin1("192.168.1.10,8000");
inline const QString PROCOTOL_NAME = QString::fromLatin1("ls_xbc_cpu_direct");
inline const QString PROCOTOL_VERSION = QString::fromLatin1("2.0.0.0");
inline const QString PROCOTOL_PAR_HMI_SET_MODE = QString::fromLatin1("0_0");

constexpr int REG_COUNT = 18;
// The row of ADDRESS_RANGE_PRO that unknown register names use.
constexpr int REG_FALLBACK_ROW = REG_COUNT;

inline const QString REG_LIST[REG_COUNT] = {
    QString::fromLatin1("P_W"),   QString::fromLatin1("M_W"),   QString::fromLatin1("L_W"),
    QString::fromLatin1("K_W"),   QString::fromLatin1("F_W"),   QString::fromLatin1("D_W"),
    QString::fromLatin1("S_W"),   QString::fromLatin1("T_W"),   QString::fromLatin1("C_W"),
    QString::fromLatin1("N_W"),   QString::fromLatin1("Z_W"),   QString::fromLatin1("P_bit"),
    QString::fromLatin1("M_bit"), QString::fromLatin1("L_bit"), QString::fromLatin1("K_bit"),
    QString::fromLatin1("F_bit"), QString::fromLatin1("TX"),    QString::fromLatin1("CX")};

// Columns of ADDRESS_RANGE_PRO.
enum { COL_FORMAT, COL_MIN, COL_MAX, COL_DATA_BITS, COL_ACCESS, COL_UNIT_BITS };

inline const QString ADDRESS_RANGE_PRO[REG_COUNT + 1][6] = {
    {"DDDD", "0", "2047", "16", "RW", "16"},          // P_W
    {"DDDD", "0", "2047", "16", "RW", "16"},          // M_W
    {"DDDDD", "0", "11263", "16", "RW", "16"},        // L_W
    {"DDDD", "0", "2559", "16", "RW", "16"},          // K_W
    {"DDDD", "0", "2047", "16", "RW", "16"},          // F_W
    {"DDDDD", "0", "32767", "16", "RW", "16"},        // D_W
    {"DDD", "0", "127", "16", "RW", "16"},            // S_W
    {"DDDD", "0", "2047", "16", "RW", "16"},          // T_W
    {"DDDD", "0", "2047", "16", "RW", "16"},          // C_W
    {"DDDDD", "0", "21503", "16", "RW", "16"},        // N_W
    {"DDDD", "0", "127", "16", "RW", "16"},           // Z_W
    {"DDDD.DD", "0.0", "2047.15", "1", "RW", "16"},   // P_bit
    {"DDDD.DD", "0.0", "2047.15", "1", "RW", "16"},   // M_bit
    {"DDDDD.DD", "0.0", "11263.15", "1", "RW", "16"}, // L_bit
    {"DDDD.DD", "0.0", "4095.15", "1", "RW", "16"},   // K_bit
    {"DDDD.DD", "0.0", "2047.15", "1", "RW", "16"},   // F_bit
    {"DDDD", "0", "2047", "1", "RW", "1"},            // TX
    {"DDDD", "0", "2047", "1", "RW", "1"},            // CX
    {"DDDD", "0", "2047", "1", "RW", "1"},            // fallback, no name
};

inline const QString ADDRESS_RW_COMMAND[REG_COUNT] = {"h", "i", "j", "k", "n", "a", "o", "b", "c",
                                                      "p", "s", "h", "i", "j", "k", "n", "l", "m"};

// One row per register in every table, and the fallback row last.
static_assert(sizeof(REG_LIST) / sizeof(REG_LIST[0]) == REG_COUNT, "REG_LIST: one name a register");
static_assert(sizeof(ADDRESS_RANGE_PRO) / sizeof(ADDRESS_RANGE_PRO[0]) == REG_FALLBACK_ROW + 1,
              "ADDRESS_RANGE_PRO: one row a register and the fallback row");
static_assert(sizeof(ADDRESS_RW_COMMAND) / sizeof(ADDRESS_RW_COMMAND[0]) == REG_COUNT,
              "ADDRESS_RW_COMMAND: one letter a register");

// Offsets of the recipe request bytes in the runtime's status block.
constexpr int STATUS_RECIPE_WRITE = 60115;
constexpr int STATUS_RECIPE_READ = 60116;

// ---------------------------------------------------------------------------
// Records. Field order is part of the interface with the runtime.

constexpr int DATA_BYTES = 1024;
constexpr int FRAME_BYTES = 1024;

struct VARIABLE {
    int requestTag = 0;
    int stationNo = 0;
    QString regName;
    int address = 0;
    int count = 0;
    unsigned char data[DATA_BYTES] = {};
};

struct FRAME_PRO {
    unsigned char frame[FRAME_BYTES] = {};
    int frameLen = 0;
    int replyLen = 0;
    int dataPos = 0;
    int wordCount = 0;
    int reserved = 0;
    VARIABLE var;
};

struct KEY_ADDRESS {
    QString hostText;
    int hostValue = 0;
    int bufferIndex = 0;
    int stationNo = 0;
    QString regName;
    QString hostText2;
    int address = 0;
    int dataKind = 0;
    int count = 0;
    unsigned char data[DATA_BYTES] = {};
};

struct _DATA_ {
    bool writePending = false;
    quint32 pendingBitWrites = 0;
    quint32 valueMonitor = 0;
    quint32 bitMonitor = 0;
    qint32 stationNo = 0;
    QString name;
    qint32 address = 0;
    unsigned char value[4] = {};
    unsigned char writtenValue[4] = {};
};

struct _RCP_VAR_PRO {
    int driverId = 0;
    int stationNo = 0;
    QString regName;
    int address = 0;
    int count = 0;
    int bufferIndex = 0;
    int spareValue = 0;
};

// The runtime's value-change callback: (driverId, station, register, address).
typedef void (*AddrValueChangeCallBack)(int, int, const QString &, int);

// ---------------------------------------------------------------------------
// The driver state, its fields in interface order. The driver's own
// bookkeeping (lookup index, its lock, pending notifications) is kept apart,
// so that this record is exactly what the runtime knows.

class Protocol {
  public:
    Protocol();
    ~Protocol();
    Protocol(const Protocol &) = delete;
    Protocol &operator=(const Protocol &) = delete;

    AddrValueChangeCallBack addrValueChangeCallBack = nullptr;
    int driverId = 0;
    int localWriteOnly = 0;
    int spareParam = 0;
    int retryTimes = 0;
    int maxPacketLen = 0;
    unsigned char *hmiStatusBlock = nullptr;
    int hmiParam = 0;
    unsigned char *rcpBuffer = nullptr;
    QMutex *hmiMutex = nullptr;
    QList<VARIABLE> readList;
    QList<VARIABLE> writeList;
    QList<VARIABLE> conditionReadList;
    QList<_DATA_> dataAreas;
    QVector<_RCP_VAR_PRO> rcpVarList;
    QVector<_RCP_VAR_PRO> rcpBlockList;
    QList<int> blockStartList;
    VARIABLE lastConditionRead;
    QList<QString> regNameList;
    VARIABLE curVar;
    QList<VARIABLE> curReadVars;
    int sendState = 0;
    int burstCount = 0;
    int handShakeRequest = 0;
    int failCount = 0;
    int maxPacketBits = 0;
    int maxPacketWords = 0;
    int commError = 0;
    int initDone = 0;
    QList<FRAME_PRO> sendList;
    QMutex dataMutex;
    int rcpIndex = 0;
    QString propertyPage;
};

XBC_EXPORT Protocol driver;

// ---------------------------------------------------------------------------
// Result codes. Their values are part of the interface.

// Results of intf_dealRcvFrame.
enum ReceiveResult {
    RECEIVE_NO_FRAME = 0,  // nothing was in flight; the reply is ignored
    RECEIVE_DONE = 1,      // a good reply retired the frame
    RECEIVE_ABANDONED = 2, // the tries are used up: the frame and its request are dropped
    RECEIVE_RETRY = 8,     // a bad or missing reply: the same frame goes again
};

// Results of intf_checkAddrValidity (0 to 4) and intf_checkAddr (0 to 6).
enum AddressCheck {
    ADDR_VALID = 0,        // the numeric address has been stored
    ADDR_WRONG_KIND = 1,   // a bit register asked for as a word, or a word register as a bit
    ADDR_OUT_OF_RANGE = 2, // below the minimum, or the run passes the maximum
    ADDR_UNKNOWN_REG = 3,  // the name is not in REG_LIST
    ADDR_BAD_FORMAT = 4,   // the text does not parse in the register's format
    ADDR_WRONG_TYPE = 5,   // a data type a 32-bit register does not take
    ADDR_READ_ONLY = 6,    // a write asked of a read-only register
};

// ---------------------------------------------------------------------------
// The property string of intf_initProperty:
// "driverId#localWriteOnly#spare#retryTimes#maxPacketLen".

struct PropertyNumbers {
    int driverId = 0;
    int localWriteOnly = 0;
    int spare = 0;
    int retryTimes = 0; // tries per frame before its request is abandoned
    int maxPacketLen = 0;
};
enum PropertyParse {
    PROPERTIES_SHORT = 0,     // fewer than five parts: nothing taken
    PROPERTIES_MALFORMED = 1, // not exactly five whole numbers (a part that is none reads as 0)
    PROPERTIES_OK = 2,        // five whole numbers
};
// Reads the five numbers into out unless the text is short. The driver takes
// them whenever there are five parts; a tool that checks what a user typed
// wants PROPERTIES_OK.
inline PropertyParse parsePropertyString(const QString &text, PropertyNumbers &out)
{
    const QStringList parts = text.split(QLatin1Char('#'));
    constexpr int FIELDS = 5;
    if (parts.size() < FIELDS)
        return PROPERTIES_SHORT;
    bool ok[FIELDS] = {};
    out.driverId = parts.at(0).toInt(&ok[0]);
    out.localWriteOnly = parts.at(1).toInt(&ok[1]);
    out.spare = parts.at(2).toInt(&ok[2]);
    out.retryTimes = parts.at(3).toInt(&ok[3]);
    out.maxPacketLen = parts.at(4).toInt(&ok[4]);
    for (bool fine : ok)
        if (!fine)
            return PROPERTIES_MALFORMED;
    return parts.size() == FIELDS ? PROPERTIES_OK : PROPERTIES_MALFORMED;
}

// ---------------------------------------------------------------------------
// Exported functions.

XBC_EXPORT void intf_getProtocolType(int &type);
XBC_EXPORT QString intf_getVersion();
XBC_EXPORT void intf_getDriverParameter(QString &param);
XBC_EXPORT void intf_getDriverPropertyPage(QString &page);
XBC_EXPORT void intf_SetDriverPropertyPage(const QString &page);
XBC_EXPORT void intf_setAddrValueChangeCallBack(AddrValueChangeCallBack callBack);
XBC_EXPORT int intf_getRegListByType(int type, QList<QString> &names);
XBC_EXPORT int intf_getRegDiscription(const QString &regName, QList<QString> &items);
XBC_EXPORT int intf_initProperty(unsigned char *statusBlock, int hostValue,
                                 unsigned char *recipeBuffer, int *status, const char *properties,
                                 QMutex *hostLock);

XBC_EXPORT int intf_checkAddrValidity(const QString &regName, const QString &addrText, int *address,
                                      int count, int wordMode);
XBC_EXPORT int intf_checkAddr(const QString &regName, const QString &addrText, int *address,
                              int dataType, int count, int accessMode);
XBC_EXPORT int intf_multiCopy(const QString &regName, int start, int copies, int step,
                              QVector<QString> &texts, QVector<int> &values);

XBC_EXPORT int intf_addrMerge(QList<KEY_ADDRESS> *keys);
XBC_EXPORT int intf_setRcpAddress(QVector<_RCP_VAR_PRO> *vars);
XBC_EXPORT int intf_addConditionRead(KEY_ADDRESS key, int requestTag);

XBC_EXPORT int intf_getSendFrame(FRAME_PRO *out);
XBC_EXPORT int intf_dealRcvFrame(QByteArray &reply, QString &errorText);

XBC_EXPORT int intf_getData(int stationNo, QString regName, int start, int count,
                            unsigned char *out);
XBC_EXPORT int intf_setData(int stationNo, QString regName, int start, int count,
                            unsigned char *data, int tag);

// Every exported function, by its name after "intf_", in the order above. A
// runtime that resolves the driver by name walks this list, and so does the
// check of the library's exports; the object is XBC_EXPORTED_OBJECT.
#define XBC_FOR_EACH_EXPORTED_FUNCTION(X)                                                          \
    X(getProtocolType)                                                                             \
    X(getVersion)                                                                                  \
    X(getDriverParameter)                                                                          \
    X(getDriverPropertyPage)                                                                       \
    X(SetDriverPropertyPage)                                                                       \
    X(setAddrValueChangeCallBack)                                                                  \
    X(getRegListByType)                                                                            \
    X(getRegDiscription)                                                                           \
    X(initProperty)                                                                                \
    X(checkAddrValidity)                                                                           \
    X(checkAddr)                                                                                   \
    X(multiCopy)                                                                                   \
    X(addrMerge)                                                                                   \
    X(setRcpAddress)                                                                               \
    X(addConditionRead)                                                                            \
    X(getSendFrame)                                                                                \
    X(dealRcvFrame)                                                                                \
    X(getData)                                                                                     \
    X(setData)
#define XBC_EXPORTED_OBJECT "driver"

#endif
