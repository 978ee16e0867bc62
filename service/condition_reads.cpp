// One-off reads of a run of addresses, served ahead of polling.
#include "service.h"

constexpr int MAX_CONDITION_PIECES = 512;

int intf_addConditionRead(KEY_ADDRESS key, int requestTag)
{
    DriverCall call;
    const Register reg = registerOf(key.regName);
    const int limit = key.dataKind == -1 ? driver.maxPacketBits : driver.maxPacketWords;
    // The queue holds 513 requests: a read cut into more pieces than that could
    // never be served whole, so it is cut at 512 pieces.
    if (limit >= 1 && qint64(key.count) > qint64(limit) * MAX_CONDITION_PIECES)
        key.count = int(qint64(limit) * MAX_CONDITION_PIECES);
    QList<KEY_ADDRESS> pieces;
    groupingKey(key, limit, pieces, 0);
    for (const KEY_ADDRESS &piece : pieces) {
        VARIABLE request = requestOf(piece, requestTag);
        request.count = int(qint64(piece.count) * (reg.unitBits > 0 ? 16 / reg.unitBits : 1));
        // Bits of a "_bit" register are read through the words that hold them,
        // so that watched bits are notified from the word reply.
        if (reg.bitInWord) {
            const UnitRun words = unitRunOfBits(piece.address, piece.count, WIRE_WORD_BITS);
            request.regName = reg.readName;
            request.address = words.address;
            request.count = words.count;
        }
        queueRequest(driver.conditionReadList, request);
        driver.lastConditionRead = request;
    }
    return 1;
}
