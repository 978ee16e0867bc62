// Arbitrary replies handed to the receive side after a varied setup: watched
// words, bits and contacts, queued writes, condition reads, a recipe transfer.
#include "fuzz_input.h"

static KEY_ADDRESS keyFrom(FuzzInput &in)
{
    KEY_ADDRESS key;
    key.stationNo = in.byte() % 3;
    key.regName = in.regName();
    key.address = in.byte() < 240 ? in.int16() & 0x7FFF : in.int32();
    key.count = in.count();
    key.dataKind = in.byte() % 2 ? -1 : 0;
    return key;
}

static void setUp(FuzzInput &in)
{
    static const char *const properties[] = {"1#0#0#3#64", "1#0#0#1#8",  "2#1#0#2#127",
                                             "1#0#0#0#0",  "1#0#0#3#-5", "7#0#0#3#300"};
    fuzzResetDriver(properties[in.byte() % 6]);
    QList<KEY_ADDRESS> keys;
    for (int n = in.byte() % 8; n > 0; --n)
        keys.append(keyFrom(in));
    intf_addrMerge(&keys);

    for (int n = in.byte() % 6; n > 0; --n) {
        unsigned char values[DATA_BYTES];
        for (unsigned char &v : values)
            v = in.byte() % 3;
        const KEY_ADDRESS key = keyFrom(in);
        intf_setData(key.stationNo, key.regName, key.address, key.count, values, in.byte());
    }
    for (int n = in.byte() % 3; n > 0; --n)
        intf_addConditionRead(keyFrom(in), in.byte());

    QVector<_RCP_VAR_PRO> recipe;
    for (int n = in.byte() % 5; n > 0; --n) {
        _RCP_VAR_PRO var;
        var.driverId = driver.driverId;
        var.stationNo = in.byte() % 2;
        var.regName = in.regName();
        var.address = in.int16() & 0x7FFF;
        var.count = in.byte() % 70;
        var.bufferIndex = in.byte() * 16;
        recipe.append(var);
    }
    intf_setRcpAddress(&recipe);
    const uint8_t recipeRequest = in.byte();
    fuzzStatusBlock()[STATUS_RECIPE_WRITE] = recipeRequest & 1;
    fuzzStatusBlock()[STATUS_RECIPE_READ] = (recipeRequest >> 1) & 1;
    driver.handShakeRequest = (recipeRequest & 0xF0) == 0xF0;
}

// Half of the replies are framed with a correct checksum around fuzzed content,
// so that decoding is reached, not only the reply check.
static QByteArray replyFrom(FuzzInput &in)
{
    const uint8_t mode = in.byte();
    QByteArray body = in.bytes(in.byte() % 2 ? in.byte() : size_t(in.int16() & 0x3FF));
    if (mode % 2)
        return body;
    QByteArray reply;
    reply.append(char(ACK));
    reply.append(body);
    unsigned char pair[2];
    putHexPair(pair,
               (unsigned char)(computate_check(
                                   reinterpret_cast<const unsigned char *>(reply.constData()) + 1,
                                   quint16(reply.size() - 1)) &
                               0xFF));
    reply.append(char(pair[0]));
    reply.append(char(pair[1]));
    reply.append(char(EOT));
    return reply;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzInput in{data, size};
    setUp(in);
    for (int exchange = 0; exchange < 64 && !in.empty(); ++exchange) {
        FRAME_PRO frame;
        intf_getSendFrame(&frame);
        QByteArray reply = replyFrom(in);
        QString errorText;
        intf_dealRcvFrame(reply, errorText);
        unsigned char out[2 * DATA_BYTES];
        intf_getData(in.byte() % 3, in.regName(), in.int16(), in.byte() % 200, out);
    }
    return 0;
}
