// What fuzz_receive does with one input, shared with the seed generator so that
// seeds replay exactly: a varied setup (watched words, bits and contacts, queued
// writes, condition reads, a recipe transfer), then exchanges whose replies
// come off the input.
#ifndef RECEIVE_HARNESS_H
#define RECEIVE_HARNESS_H

#include "fuzz_input.h"

inline const char *const RECEIVE_PROPERTIES[] = {"1#0#0#3#64", "1#0#0#1#8",  "2#1#0#2#127",
                                                 "1#0#0#0#0",  "1#0#0#3#-5", "7#0#0#3#300"};
constexpr int RECEIVE_PROPERTY_COUNT = 6;
constexpr int MAX_KEYS = 6;
constexpr int MAX_PATTERN_BYTES = 16;
constexpr int MAX_RECIPE_VARS = 5;
constexpr int MAX_RECIPE_COUNT = 70;
constexpr int MAX_EXCHANGES = 16;
constexpr int MAX_REPLY_BYTES = 0x3FF;
// Values read back after each turn: a few, now and then many.
constexpr uint8_t READ_PICK_MANY = 248;
constexpr int FEW_VALUES = 8;
constexpr int MANY_VALUES = 200;
// Large-count builds also fill the write queue (513 requests) now and then.
#ifdef FUZZ_LARGE_COUNTS
constexpr int MAX_WRITES = 600;
#else
constexpr int MAX_WRITES = 3;
#endif

// How an exchange's reply is made (low two bits of its mode byte).
enum ReplyMode {
    REPLY_FRAMED = 0, // fuzzed body between ACK and a correct checksum and EOT
    REPLY_RAW = 1,    // the bytes as they are
    REPLY_SHAPED = 2, // the reply the frame in flight expects, data from the input
    REPLY_NAK = 3,    // an error reply
};

inline KEY_ADDRESS fuzzKey(FuzzInput &in)
{
    KEY_ADDRESS key;
    key.stationNo = in.byte() % 3;
    key.regName = in.regName();
    key.address = in.byte() < 240 ? in.int16() & 0x7FFF : in.int32();
    key.count = in.count();
    key.dataKind = in.byte() % 2 ? -1 : 0;
    return key;
}

// Write data: a short pattern off the input, repeated over the whole buffer.
inline void fuzzWriteData(FuzzInput &in, unsigned char (&values)[DATA_BYTES])
{
    const QByteArray pattern = in.bytes(size_t(in.byte() % MAX_PATTERN_BYTES) + 1);
    if (pattern.isEmpty()) {
        memset(values, 0, sizeof values);
        return;
    }
    // Doubling copies: a byte-by-byte fill would be most of a small input's cost.
    size_t filled = qMin(size_t(pattern.size()), sizeof values);
    memcpy(values, pattern.constData(), filled);
    while (filled < sizeof values) {
        const size_t n = qMin(filled, sizeof values - filled);
        memcpy(values + filled, values, n);
        filled += n;
    }
}

inline void fuzzWrite(FuzzInput &in)
{
    unsigned char values[DATA_BYTES];
    fuzzWriteData(in, values);
    const KEY_ADDRESS key = fuzzKey(in);
    intf_setData(key.stationNo, key.regName, key.address, key.count, values, in.byte());
}

// The runtime's recipe request bytes: bit 0 download, bit 1 upload.
inline void setRecipeRequest(uint8_t request)
{
    fuzzStatusBlock()[STATUS_RECIPE_WRITE] = request & 1;
    fuzzStatusBlock()[STATUS_RECIPE_READ] = (request >> 1) & 1;
}

inline void receiveSetUp(FuzzInput &in)
{
    fuzzResetDriver(RECEIVE_PROPERTIES[in.byte() % RECEIVE_PROPERTY_COUNT]);
    QList<KEY_ADDRESS> keys;
    for (int n = in.byte() % MAX_KEYS; n > 0; --n)
        keys.append(fuzzKey(in));
    intf_addrMerge(&keys);

    for (int n = quint16(in.int16()) % (MAX_WRITES + 1); n > 0 && !in.atEnd(); --n)
        fuzzWrite(in);
    for (int n = in.byte() % 3; n > 0; --n)
        intf_addConditionRead(fuzzKey(in), in.byte());

    QVector<_RCP_VAR_PRO> recipe;
    for (int n = in.byte() % MAX_RECIPE_VARS; n > 0; --n) {
        _RCP_VAR_PRO var;
        var.driverId = driver.driverId;
        var.stationNo = in.byte() % 2;
        var.regName = in.regName();
        var.address = in.int16() & 0x7FFF;
        var.count = in.byte() % MAX_RECIPE_COUNT;
        var.bufferIndex = in.byte() * 16;
        recipe.append(var);
    }
    intf_setRcpAddress(&recipe);
    const uint8_t recipeRequest = in.byte();
    setRecipeRequest(recipeRequest);
    driver.handShakeRequest = (recipeRequest & 0xF0) == 0xF0;
}

// The command letter, then as many data bytes as the frame reads, in hex.
inline QByteArray shapedBody(FuzzInput &in, const FRAME_PRO &frame)
{
    QByteArray body(1, char(frame.frame[1]));
    const int bytes = qBound(0, 2 * frame.wordCount, MAX_REPLY_BYTES / 2);
    const QByteArray data = in.bytes(size_t(bytes)).leftJustified(bytes, '\0');
    return body + data.toHex().toUpper();
}

inline QByteArray receiveReply(FuzzInput &in, const FRAME_PRO &frame)
{
    const uint8_t mode = in.byte();
    switch (mode & 3) {
    case REPLY_SHAPED:
        return framedReply(shapedBody(in, frame));
    case REPLY_NAK:
        return framedReply(QByteArray(1, char(frame.frame[1])) + in.bytes(in.byte() % 4),
                           char(NAK));
    default:
        break;
    }
    const size_t length = in.byte() % 2 ? in.byte() : size_t(in.int16() & MAX_REPLY_BYTES);
    const QByteArray body = in.bytes(length);
    return (mode & 3) == REPLY_RAW ? body : framedReply(body);
}

// What the screens do before a turn (low three bits of its action byte):
// writes and condition reads arrive between exchanges, as they do at runtime.
enum TurnAction { ACT_NONE, ACT_WRITE, ACT_CONDITION_READ, ACT_RECIPE_REQUEST };

inline void receiveAction(FuzzInput &in)
{
    switch (in.byte() & 7) {
    case ACT_WRITE:
        fuzzWrite(in);
        break;
    case ACT_CONDITION_READ:
        intf_addConditionRead(fuzzKey(in), in.byte());
        break;
    case ACT_RECIPE_REQUEST:
        setRecipeRequest(in.byte());
        break;
    default:
        break;
    }
}

// One turn of the runtime's loop: the next frame, a reply, a read of values.
inline void receiveTurn(FuzzInput &in)
{
    FRAME_PRO frame;
    intf_getSendFrame(&frame);
    QByteArray reply = receiveReply(in, frame);
    QString errorText;
    intf_dealRcvFrame(reply, errorText);
    unsigned char out[2 * DATA_BYTES];
    const uint8_t station = in.byte();
    const QString regName = in.regName();
    const int start = in.int16();
    const uint8_t pick = in.byte();
    intf_getData(station % 3, regName, start,
                 pick < READ_PICK_MANY ? pick % FEW_VALUES : MANY_VALUES, out);
}

inline void receiveOneInput(FuzzInput &in)
{
    receiveSetUp(in);
    for (int turn = 0; turn < MAX_EXCHANGES && !in.atEnd(); ++turn) {
        receiveAction(in);
        receiveTurn(in);
    }
    fuzzReleaseDriver();
}

#endif
