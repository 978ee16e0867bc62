// The polling plan: watched addresses merged into read blocks, writes cut into
// pieces that fit a request, and the request queues.
#include "service.h"

#include <algorithm>
#include <vector>

// Bit runs become the word runs that hold them; widths other than 16 bits are
// counted in 16-bit words.
static void normaliseKey(KEY_ADDRESS &key)
{
    const int row = regRowOf(key.regName);
    const QStringList parts = key.regName.split(QLatin1Char('_'));
    if (parts.size() == 2) {
        const int w = ADDRESS_RANGE_PRO[row][COL_UNIT_BITS].toInt();
        if (parts.at(1) == QLatin1String("bit") && w > 0) {
            const qint64 bits = qint64(key.count) + key.address % w;
            key.count = int(bits / w + (bits % w ? 1 : 0));
            key.address = key.address / w;
        }
        const char *suffix = w == 8 ? "_B" : w == 16 ? "_W" : w == 32 ? "_D" : "";
        key.regName = parts.at(0) + QLatin1String(suffix);
    }
    const int d = ADDRESS_RANGE_PRO[row][COL_DATA_BITS].toInt();
    if (d != 1 && d > 0)
        key.count = int(key.count * (16.0 / d));
}

static void sortByAddressWeight(QList<KEY_ADDRESS> &keys)
{
    std::vector<std::pair<quint32, int>> order;
    order.reserve(size_t(keys.size()));
    for (int i = 0; i < keys.size(); ++i) {
        const KEY_ADDRESS &k = keys.at(i);
        order.emplace_back(getRegAddressWeight(k.stationNo, k.regName, k.address), i);
    }
    std::stable_sort(order.begin(), order.end(),
                     [](const auto &a, const auto &b) { return a.first < b.first; });
    QList<KEY_ADDRESS> sorted;
    sorted.reserve(keys.size());
    for (const auto &entry : order)
        sorted.append(keys.at(entry.second));
    keys.swap(sorted);
}

// One merging pass: folds each key into the open block while the rule allows
// it and the block spans no more than maxPacketLen units. `starts`, when given,
// receives the index of the key that opens each new block.
static QList<KEY_ADDRESS> mergePass(const QList<KEY_ADDRESS> &keys, int allowGap,
                                    QList<int> *starts)
{
    QList<KEY_ADDRESS> blocks;
    KEY_ADDRESS cur = keys.first();
    for (int i = 1; i < keys.size(); ++i) {
        const KEY_ADDRESS &next = keys.at(i);
        bool opensBlock = mergeRule(cur, next, allowGap) == 1;
        if (!opensBlock) {
            const qint64 span = qint64(next.address) + next.count - cur.address;
            if (span > driver.maxPacketLen)
                opensBlock = true;
            else if (span > cur.count)
                cur.count = int(span);
        }
        if (opensBlock) {
            blocks.append(cur);
            cur = next;
            if (starts != nullptr)
                starts->append(i);
        }
    }
    blocks.append(cur);
    return blocks;
}

void addrMerge(QList<KEY_ADDRESS> &keys, int mergeMode)
{
    if (keys.isEmpty())
        return;
    if (mergeMode == 2) {
        for (KEY_ADDRESS &key : keys) {
            const int index = getIndexFromRegName(key.regName);
            if (index < 0)
                continue;
            const int dataBits = ADDRESS_RANGE_PRO[index][COL_DATA_BITS].toInt();
            const int unitBits = ADDRESS_RANGE_PRO[index][COL_UNIT_BITS].toInt();
            if (dataBits != 1 && unitBits > 0)
                key.count = int(key.count * (16.0 / unitBits));
        }
        driver.blockStartList.append(0);
        keys = mergePass(keys, 0, &driver.blockStartList);
        return;
    }
    for (KEY_ADDRESS &key : keys)
        normaliseKey(key);
    sortByAddressWeight(keys);
    keys = mergePass(mergePass(keys, 0, nullptr), 1, nullptr);
}

int intf_addrMerge(QList<KEY_ADDRESS> *keys)
{
    DriverCall call;
    for (_DATA_ &record : driver.dataAreas) {
        record.valueMonitor = 0;
        record.bitMonitor = 0;
        record.pendingBitWrites = 0;
    }
    QList<KEY_ADDRESS> work;
    if (keys != nullptr) {
        for (const KEY_ADDRESS &key : *keys) {
            _setDataAreaMonitorFlag(key.stationNo, key.regName, key.address, key.count);
            work.append(key);
        }
    }
    driver.readList.clear();
    if (work.isEmpty())
        return 0;
    addrMerge(work, 1);
    for (const KEY_ADDRESS &block : work) {
        VARIABLE var;
        var.requestTag = 4;
        var.stationNo = block.stationNo;
        var.regName = block.regName;
        var.address = block.address;
        var.count = block.count;
        driver.readList.append(var);
    }
    return driver.readList.size();
}

static void copyPieceData(const KEY_ADDRESS &key, KEY_ADDRESS &piece, int firstUnit)
{
    const int unitBytes = key.dataKind == -1 ? 1 : 2;
    const qint64 from = qint64(firstUnit) * unitBytes;
    const qint64 bytes = qMin(qint64(piece.count) * unitBytes, qint64(DATA_BYTES) - from);
    if (from >= 0 && from < DATA_BYTES && bytes > 0)
        memcpy(piece.data, key.data + from, size_t(bytes));
}

void groupingKey(KEY_ADDRESS &key, int maxLen, QList<KEY_ADDRESS> &pieces, int withData)
{
    // A limit below 1 cuts nothing: the frame builders keep every frame within
    // what one frame can carry.
    if (key.count <= maxLen || maxLen < 1) {
        pieces.append(key);
        return;
    }
    const int n = key.count / maxLen;
    const int r = key.count % maxLen;
    const int total = r != 0 ? n + 1 : n;
    KEY_ADDRESS piece = key;
    for (int i = 0; i < total; ++i) {
        piece.address = addrAt(key.address, i * maxLen);
        piece.count = (i == total - 1 && r != 0) ? r : maxLen;
        if (withData == 1)
            copyPieceData(key, piece, i * maxLen);
        pieces.append(piece);
    }
}

bool sameRequest(const VARIABLE &a, const VARIABLE &b)
{
    return a.stationNo == b.stationNo && a.regName == b.regName && a.address == b.address &&
           a.count == b.count;
}

void queueRequest(QList<VARIABLE> &list, const VARIABLE &request)
{
    // The head is never replaced: its frame may be on the line.
    for (int i = list.size() - 1; i >= 1; --i) {
        if (sameRequest(list.at(i), request)) {
            list[i] = request;
            return;
        }
    }
    if (list.size() <= 512)
        list.append(request);
    else
        list[512] = request;
}
