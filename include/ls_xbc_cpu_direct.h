/// @file
/// @brief Everything a runtime needs to load and drive the ls_xbc_cpu_direct driver.
///
/// The register tables, the protocol strings, the records that cross the
/// boundary with the runtime, the driver state object, the exported functions
/// and their result codes. A runtime loads the library by its path, resolves
/// the names of #XBC_FOR_EACH_EXPORTED_FUNCTION and calls them in this order:
/// intf_setAddrValueChangeCallBack(), intf_initProperty(), intf_addrMerge()
/// (and intf_setRcpAddress() for recipes), then the loop of intf_getSendFrame()
/// and intf_dealRcvFrame(), while the screens call intf_getData(),
/// intf_setData() and intf_addConditionRead(). The integration guide (the main
/// page) walks through it.
///
/// @par Threads
/// Every exported call takes the driver's own lock, so any call may come from
/// any thread; intf_getSendFrame() and intf_dealRcvFrame() belong to one loop
/// and are called alternately. Value-change notifications of a call are
/// delivered on the caller's thread after the driver has released its lock,
/// in order, before the call returns. Never call into the driver while holding
/// the lock passed to intf_initProperty(): the driver takes that lock inside
/// its own.
///
/// @par Rules this driver applies to input the runtime may hand it
/// Every case gives a defined result and never writes past a buffer; a write
/// that does not reach the PLC is reported through the notifications of the
/// watched values it shows:
/// - intf_setData of more than 512 words or 1024 bits does not fit the 1024-byte
///   data of a request: it is refused as a whole (nothing queued or shown, result
///   1). A count below 1 shows nothing; its request is queued as given but builds
///   no frame, and the send schedule drops it.
/// - A request no frame can carry (a register without a memory-area letter, a
///   count below 1) leaves its queue when its turn comes; a write among them is
///   settled as failed, so the screens fall back to the PLC's value.
/// - No frame is longer than the 1024 bytes of `frame` or than its one-pair byte
///   count can describe: reads and word writes of more than 127 words go out as
///   several frames of at most 127 words, each settled by its own reply. One read
///   request is read for at most 32768 words.
/// - Several TX or CX contacts written at once go out as single-bit frames, one
///   per contact in address order, each settling its own contact.
/// - maxPacketLen of 0 or below: write and condition-read keys are not cut
///   (the frame limit above still holds); merging joins only what the merge rule
///   and a span of at most maxPacketLen allow, so most keys stay blocks of their
///   own. An empty or short property string (fewer than five numbers) leaves the
///   five numbers as they were (0 after load).
/// - A bit byte other than 0 sets the bit, in the image as in every frame
///   (single-bit, read-modify-write, recipe: the low byte of the buffer word);
///   contacts then show 1. A recipe variable of a bit register takes one buffer
///   word per bit both ways: an upload writes 0 or 1 into each word.
/// - A record shows its written value while a write request for it (a word
///   write, or a write of any of its bits) is left on the write list; once none
///   is, it shows the PLC's value, and a failed write is taken back with a
///   notification. A full write list loses its last request: that write is
///   taken back the same way.
/// - Unknown register names use the fallback row: values live in one record per
///   address keyed by the whole name and are never sent.
/// - Monitor flags, reads and writes map at most 262144 values per call; a
///   condition read is cut into at most 512 pieces (what its queue can hold).
/// - Value-change notifications of one call are delivered after the driver has
///   released its own lock, in order, before the call returns; the callback may
///   call back into the driver. Do not call into the driver while holding the
///   lock passed to intf_initProperty.
#ifndef LS_XBC_CPU_DIRECT_H
#define LS_XBC_CPU_DIRECT_H

#include <QByteArray>
#include <QList>
#include <QMutex>
#include <QString>
#include <QStringList>
#include <QVector>

/// Marks an exported name: C linkage (plain, unmangled), visible from the library.
#define XBC_EXPORT extern "C" __attribute__((visibility("default")))

// ---------------------------------------------------------------------------
// Register tables and protocol strings (read-only after load). Built on the
// heap, not from literals: strings the runtime keeps stay valid after it has
// unloaded the library.

/// Default serial line parameters: baud rate, data bits, parity, stop bits.
inline const QString PROCOTOL_DEFALT_COM_PAR = QString::fromLatin1("115200,8,NONE,1");
/// Default network parameters of a new project: PLC address and TCP port. Data
/// only: the driver never connects anywhere, the runtime owns the link.
inline const QString PROCOTOL_DEFALT_IP_PAR = QString::fromLatin1("192.168.1.10,8000");
/// The protocol name, "ls_xbc_cpu_direct".
inline const QString PROCOTOL_NAME = QString::fromLatin1("ls_xbc_cpu_direct");
/// The driver version intf_getVersion() returns.
inline const QString PROCOTOL_VERSION = QString::fromLatin1("2.0.0.0");
/// The property page text intf_getDriverPropertyPage() returns.
inline const QString PROCOTOL_PAR_HMI_SET_MODE = QString::fromLatin1("0_0");

/// Number of registers: the names of #REG_LIST.
constexpr int REG_COUNT = 18;
/// The row of #ADDRESS_RANGE_PRO that unknown register names use.
constexpr int REG_FALLBACK_ROW = REG_COUNT;

/// The register names, in table order: eleven word registers ("P_W" to "Z_W",
/// addressed by word number), five bit views of the first five areas ("P_bit"
/// to "F_bit", addressed as word.bit, numerically word * 16 + bit) and the two
/// contact registers "TX" and "CX" (addressed contact by contact). Names are
/// compared exactly, case included. A name's position is its row in the other
/// tables.
inline const QString REG_LIST[REG_COUNT] = {
    QString::fromLatin1("P_W"),   QString::fromLatin1("M_W"),   QString::fromLatin1("L_W"),
    QString::fromLatin1("K_W"),   QString::fromLatin1("F_W"),   QString::fromLatin1("D_W"),
    QString::fromLatin1("S_W"),   QString::fromLatin1("T_W"),   QString::fromLatin1("C_W"),
    QString::fromLatin1("N_W"),   QString::fromLatin1("Z_W"),   QString::fromLatin1("P_bit"),
    QString::fromLatin1("M_bit"), QString::fromLatin1("L_bit"), QString::fromLatin1("K_bit"),
    QString::fromLatin1("F_bit"), QString::fromLatin1("TX"),    QString::fromLatin1("CX")};

/// Columns of #ADDRESS_RANGE_PRO.
enum {
    COL_FORMAT,    ///< address format: D a decimal digit, "DDDD.DD" word.bit
    COL_MIN,       ///< lowest address text
    COL_MAX,       ///< highest address text
    COL_DATA_BITS, ///< bits of one value: 1 for bit registers, 16 for word registers
    COL_ACCESS,    ///< "R" read-only, "RW" read and write, "W" write-only
    COL_UNIT_BITS, ///< bits of one addressed unit: 16 for words and word.bit, 1 for contacts
};

/// Address format, range, width and access of each register of #REG_LIST, and
/// a last row for unknown names (#REG_FALLBACK_ROW). intf_getRegDiscription()
/// reports a row; intf_checkAddr() checks addresses against it.
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

/// The memory-area letter each register has in the frames.
inline const QString ADDRESS_RW_COMMAND[REG_COUNT] = {"h", "i", "j", "k", "n", "a", "o", "b", "c",
                                                      "p", "s", "h", "i", "j", "k", "n", "l", "m"};

// One row per register in every table, and the fallback row last.
static_assert(sizeof(REG_LIST) / sizeof(REG_LIST[0]) == REG_COUNT, "REG_LIST: one name a register");
static_assert(sizeof(ADDRESS_RANGE_PRO) / sizeof(ADDRESS_RANGE_PRO[0]) == REG_FALLBACK_ROW + 1,
              "ADDRESS_RANGE_PRO: one row a register and the fallback row");
static_assert(sizeof(ADDRESS_RW_COMMAND) / sizeof(ADDRESS_RW_COMMAND[0]) == REG_COUNT,
              "ADDRESS_RW_COMMAND: one letter a register");

/// @name Recipe request bytes of the status block
/// The status block is runtime memory of at least 60117 bytes, given to
/// intf_initProperty(). The runtime sets one of these two bytes to 1, holding
/// the lock it gave to intf_initProperty(), to start a recipe transfer of the
/// variables of intf_setRcpAddress(); the driver transfers the blocks before any
/// other work and sets the byte back to 0 when the transfer is over, or at once
/// when a block was abandoned after its tries (intf_dealRcvFrame() returned
/// #RECEIVE_ABANDONED) or when no recipe is described. Poll the byte, holding
/// the same lock, to know the transfer has ended; other bytes of the block are
/// not used.
///@{

/// Download: the recipe buffer's values are written to the PLC.
constexpr int STATUS_RECIPE_WRITE = 60115;
/// Upload: the PLC's values are read into the recipe buffer, each buffer word
/// notified as (0, -1, "RWI", word) through the callback.
constexpr int STATUS_RECIPE_READ = 60116;
///@}

// ---------------------------------------------------------------------------
// Records. Field order is part of the interface with the runtime.

/// Size of the data of a request: at most 512 words or 1024 bits a write.
constexpr int DATA_BYTES = 1024;
/// Size of a frame buffer; no frame is longer.
constexpr int FRAME_BYTES = 1024;

/// One request of the driver: a read block, a condition read, a piece of a
/// write or a recipe block. The runtime sees it as FRAME_PRO::var of the frame
/// that serves it. Addresses are in the register's own units: word number,
/// word * 16 + bit for "_bit" registers, contact number for "TX" and "CX".
struct VARIABLE {
    /// tag of intf_setData() or intf_addConditionRead(); 4 for polling reads
    int requestTag = 0;
    int stationNo = 0; ///< station of the address; keys the image, never sent
    QString regName;   ///< register name, as in #REG_LIST
    int address = 0;   ///< first unit, in the register's own units
    int count = 0;     ///< number of units
    /// values of a write: words two bytes, low byte first; bits one byte each
    unsigned char data[DATA_BYTES] = {};
};

/// One frame to send, as intf_getSendFrame() hands it to the runtime. The
/// runtime owns its record (about 2 KiB: keep it off small stacks) and may
/// reuse it for every call.
struct FRAME_PRO {
    /// the bytes to send, STX to ETX
    unsigned char frame[FRAME_BYTES] = {};
    int frameLen = 0; ///< bytes of #frame to send; 0 for the handshake: send nothing
    /// length of a good reply (count * 4 + 5 for reads, 5 for writes): stop reading there, at EOT
    /// (0x04) or at the timeout
    int replyLen = 0;
    int dataPos = 0;   ///< offset of the first data character in a read reply (2), else 0
    int wordCount = 0; ///< words the reply carries; 0 for writes and the handshake
    int reserved = 0;  ///< always 0
    VARIABLE var;      ///< the request the frame serves (its tag included)
};

/// An address run the runtime hands in: a watched range for intf_addrMerge(),
/// a condition read for intf_addConditionRead(). The runtime fills
/// #stationNo, #regName, #address, #count and #dataKind; the driver carries the
/// other fields unchanged.
struct KEY_ADDRESS {
    QString hostText;    ///< the runtime's own text; not read by the driver
    int hostValue = 0;   ///< the runtime's own number; not read by the driver
    int bufferIndex = 0; ///< the runtime's own number; not read by the driver
    int stationNo = 0;   ///< station of the address
    QString regName;     ///< register name, as in #REG_LIST
    QString hostText2;   ///< the runtime's own text; not read by the driver
    /// first unit: word number, word * 16 + bit for "_bit" registers, contact number for "TX", "CX"
    int address = 0;
    int dataKind = 0; ///< -1 for bit registers (one byte a unit), 0 for word registers
    int count = 0;    ///< number of units, in the units of #address
    /// not read for watched ranges and condition reads
    unsigned char data[DATA_BYTES] = {};
};

/// One record of the driver's image of PLC memory: one 16-bit word (of a word
/// register and its bit view) or one contact of one station. The runtime reads
/// the image through intf_getData(), never through these records.
struct _DATA_ {
    bool writePending = false;          ///< a write of this record is queued or in flight
    quint32 pendingBitWrites = 0;       ///< bit writes of this word queued or in flight
    quint32 valueMonitor = 0;           ///< bit 0: the value itself is watched
    quint32 bitMonitor = 0;             ///< bit b: bit b of the word is watched
    qint32 stationNo = 0;               ///< station
    QString name;                       ///< area name ("D" for "D_W") or contact register ("TX")
    qint32 address = 0;                 ///< word number or contact number
    unsigned char value[4] = {};        ///< the PLC's value as last read, low byte first
    unsigned char writtenValue[4] = {}; ///< the value shown while a write of it is left
};

/// A recipe variable, as the runtime hands it to intf_setRcpAddress() (the
/// driver also keeps its transfer blocks in this form).
struct _RCP_VAR_PRO {
    int driverId = 0;  ///< the driver it belongs to: the first number of the property string
    int stationNo = 0; ///< station
    QString regName;   ///< register name, as in #REG_LIST
    int address = 0;   ///< first unit, in the register's own units
    int count = 0;     ///< number of units
    /// first 16-bit word of its values in the recipe buffer; one word a value, also one a bit
    int bufferIndex = 0;
    int spareValue = 0; ///< not read by the driver
};

/// The runtime's callback, set with intf_setAddrValueChangeCallBack(). It has
/// three forms, told apart by the register name:
/// - (driverId, station, register, address): the value at that address may
///   have changed (a reply, a write, a write taken back); read it with
///   intf_getData(). driverId is the first number of the property string; the
///   address is in the register's own units, so bit 3 of "M" word 35 comes as
///   ("M_bit", 35 * 16 + 3).
/// - (-1, -1, "-1", code): the last condition read has ended; code 0 when
///   every piece was read, -1 when one failed after its tries.
/// - (0, -1, "RWI", word): a recipe upload wrote buffer word `word` (counted in
///   16-bit words from the start of the recipe buffer).
///
/// It is called on the thread of the driver call that caused it, after the
/// driver has released its lock and before that call returns; it may call the
/// driver (intf_getData()). The name is valid during the call only. The result
/// is ignored.
typedef void (*AddrValueChangeCallBack)(int, int, const QString &, int);

// ---------------------------------------------------------------------------
/// The driver state, its fields in interface order; the library's one instance
/// is the exported object #driver. The driver's own bookkeeping (lookup index,
/// its lock, pending notifications) is kept apart, so that this record is
/// exactly what the runtime knows. A runtime changes none of it except
/// #handShakeRequest; everything else is set through the exported functions.

class Protocol {
  public:
    /// Built when the library is loaded: empty lists, no callback, all numbers 0.
    Protocol();
    /// Runs when the library is unloaded; frees nothing of the runtime's.
    ~Protocol();
    Protocol(const Protocol &) = delete;            ///< one state a library
    Protocol &operator=(const Protocol &) = delete; ///< one state a library

    /// the callback of intf_setAddrValueChangeCallBack()
    AddrValueChangeCallBack addrValueChangeCallBack = nullptr;
    int driverId = 0;       ///< property string, 1st number: first argument of notifications
    int localWriteOnly = 0; ///< property string, 2nd number: non-zero sends no writes
    int spareParam = 0;     ///< property string, 3rd number: not used
    /// property string, 4th number: tries of a frame (0 and 1: one try)
    int retryTimes = 0;
    int maxPacketLen = 0; ///< property string, 5th number: words a request
    /// the runtime's status block (#STATUS_RECIPE_WRITE, #STATUS_RECIPE_READ)
    unsigned char *hmiStatusBlock = nullptr;
    int hmiParam = 0; ///< the runtime's number given to intf_initProperty(); not used
    unsigned char *rcpBuffer = nullptr; ///< the runtime's recipe buffer
    QMutex *hmiMutex = nullptr;         ///< the runtime's lock over the status block
    QList<VARIABLE> readList;           ///< read blocks of the watched addresses, polled in turn
    QList<VARIABLE> writeList;          ///< queued writes (at most 513)
    QList<VARIABLE> conditionReadList;  ///< queued condition reads (at most 513)
    QList<_DATA_> dataAreas;            ///< the image of PLC memory
    QVector<_RCP_VAR_PRO> rcpVarList;   ///< the recipe variables kept, sorted
    QVector<_RCP_VAR_PRO> rcpBlockList; ///< the recipe transfer blocks
    QList<int> blockStartList;          ///< first variable of each recipe block
    VARIABLE lastConditionRead;         ///< last piece of the latest condition read
    QList<QString> regNameList;         ///< the names of #REG_LIST
    VARIABLE curVar;                    ///< the request of the frame being built
    QList<VARIABLE> curReadVars;        ///< the read in flight
    int sendState = 0;                  ///< kind of the frame in flight
    int burstCount = 0;                 ///< writes and condition reads since the last poll read
    /// set by the runtime: every frame offered is the zero-length handshake until it is cleared;
    /// intf_initProperty() clears it
    int handShakeRequest = 0;
    int failCount = 0;         ///< tries of the frame in flight that failed
    int maxPacketBits = 0;     ///< bits a request: 8 * #maxPacketLen
    int maxPacketWords = 0;    ///< words a request: #maxPacketLen
    int commError = 0;         ///< 1 from an abandoned request to the next good reply
    int initDone = 0;          ///< 1 once intf_initProperty() has run
    QList<FRAME_PRO> sendList; ///< frames of the request in flight
    QMutex dataMutex;          ///< guards the write list between the screens and the loop
    int rcpIndex = 0;          ///< recipe block in transfer
    QString propertyPage;      ///< the text of intf_SetDriverPropertyPage()
};

/// The driver state of this copy of the library, exported as "driver"
/// (#XBC_EXPORTED_OBJECT). Each loaded copy has its own.
XBC_EXPORT Protocol driver;

// ---------------------------------------------------------------------------
// Result codes. Their values are part of the interface.

/// Results of intf_dealRcvFrame().
enum ReceiveResult {
    RECEIVE_NO_FRAME = 0,  ///< nothing was in flight; the reply is ignored
    RECEIVE_DONE = 1,      ///< a good reply retired the frame
    RECEIVE_ABANDONED = 2, ///< the tries are used up: the frame and its request are dropped
    RECEIVE_RETRY = 8,     ///< a bad or missing reply: the same frame goes again
};

/// Results of intf_checkAddrValidity() (0 to 4) and intf_checkAddr() (0 to 6).
enum AddressCheck {
    ADDR_VALID = 0,        ///< the numeric address has been stored
    ADDR_WRONG_KIND = 1,   ///< a bit register asked for as a word, or a word register as a bit
    ADDR_OUT_OF_RANGE = 2, ///< below the minimum, or the run passes the maximum
    ADDR_UNKNOWN_REG = 3,  ///< the name is not in #REG_LIST
    ADDR_BAD_FORMAT = 4,   ///< the text does not parse in the register's format
    ADDR_WRONG_TYPE = 5,   ///< a data type a 32-bit register does not take
    ADDR_READ_ONLY = 6,    ///< a write asked of a read-only register
};

// ---------------------------------------------------------------------------
/// The five numbers of the property string of intf_initProperty(), in order:
/// "driverId#localWriteOnly#spare#retryTimes#maxPacketLen", for example
/// "1#0#0#3#64". A part that is not a number counts as 0; parts after the fifth
/// are ignored; a string of fewer than five parts leaves all five as they were
/// (0 after loading).
struct PropertyNumbers {
    int driverId = 0;       ///< first argument of value notifications; picks recipe variables
    int localWriteOnly = 0; ///< non-zero: writes change only the image, nothing is sent
    int spare = 0;          ///< not used
    /// The number of tries of a frame, first send included: after this many bad
    /// or missing replies in a row its request is abandoned (#RECEIVE_ABANDONED).
    /// 0 and 1 both mean one try; 3 means the first send and up to two more.
    int retryTimes = 0;
    /// Words a request carries (1 to 127): reads, writes and condition reads are
    /// cut to it and read blocks merged up to it (bits: 8 times as many).
    int maxPacketLen = 0;
};
/// Results of parsePropertyString().
enum PropertyParse {
    PROPERTIES_SHORT = 0,     ///< fewer than five parts: nothing taken
    PROPERTIES_MALFORMED = 1, ///< not exactly five whole numbers (a part that is none reads as 0)
    PROPERTIES_OK = 2,        ///< five whole numbers
};
/// Reads a property string as the driver does. The driver takes the numbers
/// whenever there are five parts; a tool that checks what a user typed wants
/// #PROPERTIES_OK.
/// @param text the property string, e.g. "1#0#0#3#64"
/// @param out receives the five numbers unless the text is short
/// @return #PROPERTIES_SHORT, #PROPERTIES_MALFORMED or #PROPERTIES_OK
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

/// @name Identity: what the driver is
/// Constant answers, at any time after loading (also before
/// intf_initProperty()), from any thread.
///@{

/// The protocol type of the driver.
/// @param type set to 0
XBC_EXPORT void intf_getProtocolType(int &type);
/// The driver version.
/// @return #PROCOTOL_VERSION, "2.0.0.0"
XBC_EXPORT QString intf_getVersion();
/// The default parameters of a new project, as one comma-separated text: 0,
/// the serial line ("115200,8,NONE,1"), 0, 1, the PLC address and port
/// ("192.168.1.10,8000"), the protocol name and the 18 register names of
/// #REG_LIST: 28 items. The same text on every call.
/// @param param replaced by the text
XBC_EXPORT void intf_getDriverParameter(QString &param);
/// The property page text of the driver.
/// @param page replaced by #PROCOTOL_PAR_HMI_SET_MODE ("0_0")
XBC_EXPORT void intf_getDriverPropertyPage(QString &page);
/// Stores the runtime's property page text (Protocol::propertyPage); nothing
/// else reads it. Kept by intf_initProperty().
/// @param page the text to store (copied)
XBC_EXPORT void intf_SetDriverPropertyPage(const QString &page);
///@}

/// @name A run: set-up, in this order
///@{

/// Sets the callback through which the driver reports changed values, the end
/// of a condition read and recipe upload words (the three forms are described
/// at #AddrValueChangeCallBack). First call of a run: a change reported before
/// it is lost. nullptr stops the notifications. Any thread; the pointer is
/// kept until the next call, for this copy of the library.
/// @param callBack the runtime's function, or nullptr
XBC_EXPORT void intf_setAddrValueChangeCallBack(AddrValueChangeCallBack callBack);
/// Lists the registers of one kind, in table order. Any time, any thread.
/// @param type 0 for the bit registers ("P_bit" ... "F_bit", "TX", "CX"); any
///        other value for the eleven word registers ("P_W" ... "Z_W")
/// @param names the names are appended (not cleared first)
/// @return 1 for type 0 or 1, 0 for any other type (the word registers are
///         appended all the same)
XBC_EXPORT int intf_getRegListByType(int type, QList<QString> &names);
/// Describes one register for the runtime's address editors: appends five
/// texts, its address format ("DDDDD", "DDDD.DD"), lowest and highest address
/// ("0", "32767"; "0.0", "2047.15"), width code ("0" bit, "1" 16-bit, "2"
/// 32-bit) and access code ("0" read-only, "1" read and write, "2" write-only).
/// Any time, any thread.
/// @param regName a name of #REG_LIST (exact, case-sensitive); any other
///        appends nothing
/// @param items the five texts are appended (not cleared first)
/// @return always 0
XBC_EXPORT int intf_getRegDiscription(const QString &regName, QList<QString> &items);
/// Starts a run: takes the property string and the runtime's memory and lock,
/// and empties the watched blocks, the queued writes and condition reads, the
/// frame in flight and the image. The recipe variables and the property page
/// stay. Call it after intf_setAddrValueChangeCallBack() and before any call
/// that reads, writes or polls; calling it again starts a new run.
///
/// The driver keeps the three pointers until the next call and never frees
/// them: the status block, the recipe buffer and the lock must outlive the run.
/// @param statusBlock runtime memory of at least 60117 bytes: bytes
///        #STATUS_RECIPE_WRITE and #STATUS_RECIPE_READ start recipe transfers;
///        nullptr: no recipes
/// @param hostValue a number of the runtime's, stored and not used
/// @param recipeBuffer the recipe buffer, 16-bit words, low byte first, large
///        enough for every variable of intf_setRcpAddress(); nullptr: nothing is
///        copied
/// @param status set to 0 (may be nullptr)
/// @param properties the property string (Latin-1), five numbers separated by
///        '#': see #PropertyNumbers; retryTimes is the number of tries of a frame
/// @param hostLock the runtime's lock over the status block: the driver holds it
///        while it reads or clears the recipe bytes, inside its own lock, so never
///        call the driver while holding it (nullptr: no lock)
/// @return always 1
XBC_EXPORT int intf_initProperty(unsigned char *statusBlock, int hostValue,
                                 unsigned char *recipeBuffer, int *status, const char *properties,
                                 QMutex *hostLock);

///@}

/// @name Address tools for the runtime's editors
/// They read only the register tables: any time, any thread.
///@{

/// Checks an address text and turns it into the driver's number.
/// @param regName register name, as in #REG_LIST
/// @param addrText the address in the register's notation ("100", "35.3")
/// @param address receives the number (word number, word * 16 + bit, contact
///        number); read as the address when the register is unknown
/// @param count values the runtime will access from there (checked against the
///        end of the register)
/// @param wordMode non-zero asks for a word value, 0 for a bit
/// @return an #AddressCheck code from #ADDR_VALID to #ADDR_BAD_FORMAT
XBC_EXPORT int intf_checkAddrValidity(const QString &regName, const QString &addrText, int *address,
                                      int count, int wordMode);
/// Checks an address text as intf_checkAddrValidity() does, and also the data
/// type and the access the runtime asks for.
/// @param regName register name, as in #REG_LIST
/// @param addrText the address in the register's notation ("100", "35.3")
/// @param address receives the number (word number, word * 16 + bit, contact
///        number); read as the address when the register is unknown
/// @param dataType -1 asks for a bit; any other value is the runtime's data type
///        of a word value (a 32-bit register takes only 1, 3, 5, 6 and 9)
/// @param count values the runtime will access from there
/// @param accessMode 1 or 2 asks to write (refused on a read-only register);
///        other values to read
/// @return an #AddressCheck code, any of the seven
XBC_EXPORT int intf_checkAddr(const QString &regName, const QString &addrText, int *address,
                              int dataType, int count, int accessMode);
/// Makes the addresses of copied screen objects: `copies` addresses from `start`
/// on, `step` apart, with their texts; an address past the register's end is
/// replaced by the highest address.
/// @param regName register name, as in #REG_LIST
/// @param start the first address, as a number (see intf_checkAddr())
/// @param copies how many addresses to make
/// @param step distance in the register's units; -1 one 16-bit value, -2 one
///        32-bit value (one element for bit registers); 0 and other negatives: 1
/// @param texts the texts are appended ("100", "2.1")
/// @param values the numbers are appended
/// @return 0 unknown register (nothing appended), 1 every address fits, 2 at
///         least one was replaced by the highest address
XBC_EXPORT int intf_multiCopy(const QString &regName, int start, int copies, int step,
                              QVector<QString> &texts, QVector<int> &values);

///@}

/// @name A run: what is polled
///@{

/// Sets what the screens watch: every address of the list is polled, and its
/// changes notified. Neighbouring runs of one station and register are merged
/// into read blocks of at most maxPacketLen words, polled in turn. The list
/// replaces the previous one; values already read stay in the image. Call it
/// after intf_initProperty(), and again whenever the screens change.
/// @param keys the watched runs (#KEY_ADDRESS: station, register, address,
///        count, dataKind -1 for bit registers); read only, may be nullptr
/// @return the number of read blocks (0 for none)
XBC_EXPORT int intf_addrMerge(QList<KEY_ADDRESS> *keys);
/// Describes the recipe: the variables whose driverId is this driver's (the first
/// number of the property string) are kept, sorted and merged into transfer
/// blocks; the others are skipped. A transfer starts when the runtime sets a
/// recipe byte of its status block (#STATUS_RECIPE_WRITE, #STATUS_RECIPE_READ).
/// Each variable's values lie in the recipe buffer from its bufferIndex on, one
/// 16-bit word a value, also one word a bit for bit registers (a download sets a
/// bit when the word's low byte is non-zero; an upload writes 0 or 1). Call it
/// after intf_initProperty(), while no transfer runs.
/// @param vars the runtime's variables; read only, may be nullptr
/// @return the number of variables kept; 0 also empties the blocks
XBC_EXPORT int intf_setRcpAddress(QVector<_RCP_VAR_PRO> *vars);
/// Queues a one-off read of a run of addresses (a condition read): cut into
/// pieces of maxPacketLen words (8 * maxPacketLen bits), served before polling
/// reads, its values landing in the image like any read (watched ones are
/// notified). When its last piece is done the callback reports
/// (-1, -1, "-1", 0), or (-1, -1, "-1", -1) as soon as a piece fails. Only the
/// latest condition read reports its end. Any thread, typically a screen's.
/// @param key the run (#KEY_ADDRESS: station, register, address, count;
///        dataKind -1 for bit registers, whose address and count are in bits)
/// @param requestTag the runtime's tag, carried in FRAME_PRO::var of the frames
/// @return always 1
XBC_EXPORT int intf_addConditionRead(KEY_ADDRESS key, int requestTag);

///@}

/// @name A run: the communication loop
/// On the runtime's communication thread, alternately: ask for a frame, send
/// it, collect the reply, hand it back.
///@{

/// Gives the next frame to send. The frame in flight is given again until
/// intf_dealRcvFrame() retires or abandons it; otherwise the next work is
/// chosen: a handshake while Protocol::handShakeRequest is set, a recipe
/// transfer, up to ten queued writes, up to three condition reads, then one
/// poll read. Send FRAME_PRO::frameLen bytes of FRAME_PRO::frame (nothing when
/// it is 0), collect the reply up to EOT (0x04), FRAME_PRO::replyLen bytes or
/// your timeout, and pass it to intf_dealRcvFrame().
/// @param out the runtime's record, filled when the result is 1
/// @return 1 when `out` holds a frame, 0 when there is nothing to send (wait a
///         little and ask again)
XBC_EXPORT int intf_getSendFrame(FRAME_PRO *out);
/// Judges the reply to the frame in flight (ACK to EOT, checksum) and acts on
/// it: a good reply is decoded into the image, notified, and retires the
/// frame; a bad or missing one counts a try. After retryTimes tries (the number
/// of tries: 0 and 1 mean one) the request is abandoned: a write is taken back
/// with a notification, a condition read ends with -1, a recipe transfer stops.
/// On a timeout, pass what arrived, even nothing: the frame stays in flight
/// until this call settles it. Changes are notified before it returns.
/// @param reply the bytes received for the frame of the last intf_getSendFrame()
/// @param errorText set to the request the reply belongs to, e.g.
///        "1#D_W100(4)(21)": station, register, address, count, bytes received;
///        empty when nothing was in flight
/// @return a #ReceiveResult: #RECEIVE_DONE, #RECEIVE_RETRY (the same frame comes
///         again), #RECEIVE_ABANDONED, or #RECEIVE_NO_FRAME
XBC_EXPORT int intf_dealRcvFrame(QByteArray &reply, QString &errorText);

///@}

/// @name Values, for the screens
/// Any thread: the driver's lock orders them with the loop.
///@{

/// Reads values from the driver's image, never from the line: what the PLC
/// last answered, or a written value while its write is queued or in flight. A
/// value never read is 0. Typically called from the callback or a screen.
/// @param stationNo station
/// @param regName register name, as in #REG_LIST
/// @param start first address, in the register's units (see intf_checkAddr())
/// @param count number of values
/// @param out receives them: two bytes a word, low byte first; one byte (0 or
///        1) a bit of a "_bit" register or a contact; nullptr reads nothing
/// @return always 1
XBC_EXPORT int intf_getData(int stationNo, QString regName, int start, int count,
                            unsigned char *out);
/// Writes values: the image shows them at once (a notification comes from this
/// call when a shown value changed) and the write is queued, cut into requests
/// of maxPacketLen words. When the PLC acknowledges it the value stays; when its
/// tries are used up it falls back to the PLC's value, with a notification. A
/// later write to the same place goes after it, so the last write made is the
/// one the PLC keeps. With localWriteOnly set nothing is sent.
/// @param stationNo station
/// @param regName register name, as in #REG_LIST
/// @param start first address, in the register's units
/// @param count number of values; more than 512 words or 1024 bits is refused
///        whole (nothing queued or shown)
/// @param data the values: two bytes a word, low byte first; one byte a bit
///        (non-zero sets it); copied before the call returns
/// @param tag the runtime's tag, carried in FRAME_PRO::var of its frames
/// @return always 1
XBC_EXPORT int intf_setData(int stationNo, QString regName, int start, int count,
                            unsigned char *data, int tag);
///@}

/// Every exported function, by its name after "intf_", in the order above. A
/// runtime that resolves the driver by name walks this list, and so does the
/// check of the library's exports; the object is #XBC_EXPORTED_OBJECT.
/// examples/minimal_runtime.cpp resolves every function with it into a
/// pointer of the declared type, `decltype(&intf_##name)`.
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
/// The name of the exported driver state (#driver), for dlsym() or QLibrary::resolve().
#define XBC_EXPORTED_OBJECT "driver"

#endif
