// One-off reads of a run of addresses, served ahead of polling.
#include "service.h"

constexpr int MAX_CONDITION_PIECES = 512;

// Bits of a "_bit" register are read through the words that hold them, so that
// watched bits are notified from the word reply.
static void toWordRun(KEY_ADDRESS &piece)
{
    const int w = 16;
    const qint64 bits = qint64(piece.address) % w + piece.count;
    piece.regName = areaPrefix(piece.regName) + QLatin1String("_W");
    piece.address = piece.address / w;
    piece.count = int((bits + w - 1) / w);
}

int intf_addConditionRead(KEY_ADDRESS key, int requestTag)
{
    DriverCall call;
    const int w = regUnitBits(key.regName);
    const int limit = key.dataKind == -1 ? driver.maxPacketBits : driver.maxPacketWords;
    // The queue holds 513 requests: a read cut into more pieces than that could
    // never be served whole, so it is cut at 512 pieces.
    if (limit >= 1 && qint64(key.count) > qint64(limit) * MAX_CONDITION_PIECES)
        key.count = int(qint64(limit) * MAX_CONDITION_PIECES);
    QList<KEY_ADDRESS> pieces;
    groupingKey(key, limit, pieces, 0);
    for (KEY_ADDRESS &piece : pieces) {
        int factor = w > 0 ? 16 / w : 1;
        if (isBitRegName(piece.regName)) {
            toWordRun(piece);
            factor = 1;
        }
        VARIABLE request;
        request.requestTag = requestTag;
        request.stationNo = piece.stationNo;
        request.regName = piece.regName;
        request.address = piece.address;
        request.count = int(qint64(piece.count) * factor);
        queueRequest(driver.conditionReadList, request);
        driver.lastConditionRead = request;
    }
    return 1;
}
