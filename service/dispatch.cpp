// Replies: checked against the frame in flight, retried or abandoned, and
// decoded into the image, a following write frame or the recipe buffer.
#include "service.h"

// Room for the three numbers and the punctuation of a request description.
constexpr int DESCRIPTION_NUMBERS_RESERVE = 40;

QString getErrorInfo(QByteArray reply)
{
    const VARIABLE &var = driver.sendList.first().var;
    if (driverPrivate.inFlight == nullptr)
        return QString();
    // "%1#%2%3(%4)(%5)", built by appending: it is made for every reply.
    const QString address = addressText(*driverPrivate.inFlight, var.address);
    QString text;
    text.reserve(var.regName.size() + address.size() + DESCRIPTION_NUMBERS_RESERVE);
    text.append(QString::number(var.stationNo))
        .append(QLatin1Char('#'))
        .append(var.regName)
        .append(address)
        .append(QLatin1Char('('))
        .append(QString::number(var.count))
        .append(QLatin1String(")("))
        .append(QString::number(reply.size()))
        .append(QLatin1Char(')'));
    return text;
}

// ---------------------------------------------------------------------------
// Decoding.

static void decodeWords(const Register &reg, const QByteArray &reply, int count, int start,
                        const VARIABLE &var)
{
    // A bit-addressed read (a recipe block of a bit register) reads the words
    // that hold its bits: its records are keyed by word number.
    const int firstWord = reg.bitInWord ? var.address / WIRE_WORD_BITS : var.address;
    const QVector<int> records = dataAreaRun(var.stationNo, reg.area, firstWord, count);
    for (int k = 0; k < count; ++k) {
        const quint16 word = replyWord(reply, start, k);
        const int index = records.at(k);
        _DATA_ &r = driver.dataAreas[index];
        int newValue = word;
        int oldValue = uchar2int16(r.value[0], r.value[1]);
        r.value[0] = (unsigned char)(word & 0xFF);
        r.value[1] = (unsigned char)(word >> 8);
        if (newValue != oldValue) {
            polledWordChanged(r);
            _wordDataChange(&oldValue, &newValue, index, 0);
        }
    }
}

static void decodeContacts(const QByteArray &reply, int count, int start, const VARIABLE &var)
{
    if (var.address < 0)
        return;
    const QVector<int> records = dataAreaRun(var.stationNo, var.regName, var.address, count);
    for (int k = 0; k < count; ++k) {
        // Counted from bit 0 of the first word read.
        const unsigned char bit = replyBit(reply, start, var.address % WIRE_WORD_BITS + k);
        const int index = records.at(k);
        _DATA_ &r = driver.dataAreas[index];
        const bool changed = r.value[0] != bit;
        r.value[0] = bit;
        if (changed) {
            polledContactChanged(r);
            _bitDataChange(index);
        }
    }
}

// The read half of a several-bit write completes the write frame that follows.
static void completeBitWrite(const QByteArray &reply, int count, int start, const VARIABLE &var)
{
    if (driver.sendList.size() < 2)
        return;
    completeReadModifyWrite(driver.sendList[1], reply, count, start, var);
}

// Copies the words of an uploaded recipe block into the runtime's buffer, each
// variable at its own buffer position.
// The bytes of one recipe unit in this frame's reply, false when another frame
// carries it. A bit register's unit is one bit, given as a whole buffer word
// holding 0 or 1, as its download takes it; a word register's unit is a word.
static bool recipeUnit(const Register &reg, const QByteArray &reply, int count, int start,
                       const VARIABLE &var, qint64 unit, unsigned char bytes[2])
{
    if (reg.wireBits()) {
        const qint64 bit = unit - qint64(var.address / WIRE_WORD_BITS) * WIRE_WORD_BITS;
        if (var.address < 0 || bit < 0 || bit >= qint64(count) * WIRE_WORD_BITS)
            return false;
        bytes[0] = replyBit(reply, start, int(bit));
        bytes[1] = 0;
        return true;
    }
    const qint64 rel = unit - var.address; // a block read as several frames
    if (rel < 0 || rel >= count)
        return false;
    const quint16 word = replyWord(reply, start, int(rel));
    bytes[0] = (unsigned char)(word & 0xFF);
    bytes[1] = (unsigned char)(word >> 8);
    return true;
}

static void fillRecipeBuffer(const Register &reg, const QByteArray &reply, int count, int start,
                             const VARIABLE &var)
{
    const int block = driver.rcpIndex;
    if (driver.rcpBuffer == nullptr || block < 0 || block >= driver.blockStartList.size())
        return;
    const int first = driver.blockStartList.at(block);
    const int end = block + 1 < driver.blockStartList.size() ? driver.blockStartList.at(block + 1)
                                                             : driver.rcpVarList.size();
    for (int v = qMax(first, 0); v < end && v < driver.rcpVarList.size(); ++v) {
        const _RCP_VAR_PRO &r = driver.rcpVarList.at(v);
        for (int j = 0; j < r.count; ++j) {
            const qint64 word = qint64(r.bufferIndex) + j;
            unsigned char bytes[2];
            if (word < 0 ||
                !recipeUnit(reg, reply, count, start, var, qint64(r.address) + j, bytes))
                continue;
            driver.rcpBuffer[word * 2] = bytes[0];
            driver.rcpBuffer[word * 2 + 1] = bytes[1];
            notifyHost(0, -1, QString::fromLatin1("RWI"), int(word));
        }
    }
}

void analyzeFrameOfVal(const Register &reg, const QByteArray &reply, int count, int start,
                       const VARIABLE &var)
{
    const bool bitWrite = driver.sendState == SEND_WRITE || driver.sendState == SEND_RECIPE_WRITE;
    if (bitWrite && reg.bitInWord) {
        completeBitWrite(reply, count, start, var);
        return;
    }
    if (reg.unitBits == 16)
        decodeWords(reg, reply, count, start, var);
    else if (reg.unitBits == 1)
        decodeContacts(reply, count, start, var);
    if (driver.sendState == SEND_RECIPE_READ)
        fillRecipeBuffer(reg, reply, count, start, var);
}

int dealReadFrameReturnSaveData(const QByteArray &reply)
{
    const FRAME_PRO &head = driver.sendList.first();
    // Only frames of a register of the table carry data.
    if (driverPrivate.inFlight != nullptr)
        analyzeFrameOfVal(*driverPrivate.inFlight, reply, head.wordCount, head.dataPos, head.var);
    return 0;
}

// ---------------------------------------------------------------------------
// Receiving.

static int retireHead()
{
    driver.sendList.removeFirst();
    if (driver.sendList.isEmpty())
        dealListWhenFinish();
    driver.failCount = 0;
    return RECEIVE_DONE;
}

int intf_dealRcvFrame(QByteArray &reply, QString &errorText)
{
    DriverCall call;
    errorText = QLatin1String("");
    if (driver.sendList.isEmpty())
        return RECEIVE_NO_FRAME;
    errorText = getErrorInfo(reply);
    const int r = check_rcv_data(reinterpret_cast<const unsigned char *>(reply.constData()),
                                 &driver.sendList.first(), reply.size());
    if (r == REPLY_READ_DATA) {
        driver.commError = 0;
        dealReadFrameReturnSaveData(reply);
        return retireHead();
    }
    if (r == REPLY_WRITE_ACK) {
        if (driver.sendState == SEND_WRITE) {
            const VARIABLE &var = driver.sendList.first().var;
            _write_FailOrSuc(var.stationNo, var.regName, var.address, var.count, 1);
        }
        driver.commError = 0;
        return retireHead();
    }
    driver.failCount++;
    if (driver.failCount < driver.retryTimes)
        return RECEIVE_RETRY;
    driver.commError = 1;
    if (driver.sendState == SEND_WRITE)
        failQueuedWrites();
    driver.sendList.clear();
    driver.failCount = 0;
    dealListWhenFinish();
    return RECEIVE_ABANDONED;
}
