// The polling plan: watched addresses merged into read blocks, writes cut into
// pieces that fit a request, and the request queues.
#include "service.h"

#include <algorithm>
#include <vector>

namespace {
// One key as the merge passes see it; `source` is its position in the list.
struct MergeItem {
    MergeRun run;
    int source;
    quint32 weight;
};

// How keys of one register name are read: its model, the position of the
// register its reads go out as and whether that one is a contact register,
// worked out once per name.
struct NameRule {
    Register reg;
    int position;
    bool readAsContact;
};
} // namespace

static bool isContact(const QString &regName)
{
    const Register *reg = tableRegister(regName);
    return reg != nullptr && reg->contact;
}

static NameRule ruleFor(const QString &regName)
{
    const Register reg = registerOf(regName);
    return NameRule{reg, int(driver.regNameList.indexOf(reg.readName)), isContact(reg.readName)};
}

// Bit runs become the word runs that hold them; widths other than 16 bits are
// counted in 16-bit words.
static void normalise(MergeRun &run, const Register &reg)
{
    run.regName = reg.readName;
    if (reg.bitInWord && reg.unitBits > 0) {
        const UnitRun words = unitRunOfBits(run.address, run.count, reg.unitBits);
        run.address = words.address;
        run.count = words.count;
    }
    if (reg.dataBits != 1 && reg.dataBits > 0)
        run.count = int(run.count * (16.0 / reg.dataBits));
}

static std::vector<MergeItem> pollingItems(const QList<KEY_ADDRESS> &keys)
{
    QHash<QString, NameRule> rules;
    std::vector<MergeItem> items;
    items.reserve(size_t(keys.size()));
    for (int i = 0; i < keys.size(); ++i) {
        const KEY_ADDRESS &key = keys.at(i);
        auto rule = rules.constFind(key.regName);
        if (rule == rules.constEnd())
            rule = rules.insert(key.regName, ruleFor(key.regName));
        MergeItem item{MergeRun{key.stationNo, key.regName, key.address, key.count,
                                rule.value().readAsContact},
                       i, 0};
        normalise(item.run, rule.value().reg);
        item.weight = addressWeight(item.run.stationNo, rule.value().position, item.run.address,
                                    int(driver.regNameList.size()));
        items.push_back(item);
    }
    std::stable_sort(items.begin(), items.end(),
                     [](const MergeItem &a, const MergeItem &b) { return a.weight < b.weight; });
    return items;
}

// One merging pass: folds each item into the open block while the rule allows
// it and the block spans no more than maxPacketLen units. `starts`, when given,
// receives the index of the item that opens each new block.
static std::vector<MergeItem> mergePass(const std::vector<MergeItem> &items, int allowGap,
                                        QList<int> *starts)
{
    std::vector<MergeItem> blocks;
    MergeItem cur = items.front();
    for (size_t i = 1; i < items.size(); ++i) {
        const MergeRun &next = items[i].run;
        bool opensBlock = mergeRule(cur.run, next, allowGap ? driver.maxPacketLen : 0) == 1;
        if (!opensBlock) {
            const qint64 span = qint64(next.address) + next.count - cur.run.address;
            if (span > driver.maxPacketLen)
                opensBlock = true;
            else if (span > cur.run.count)
                cur.run.count = int(span);
        }
        if (opensBlock) {
            blocks.push_back(cur);
            cur = items[i];
            if (starts != nullptr)
                starts->append(int(i));
        }
    }
    blocks.push_back(cur);
    return blocks;
}

static std::vector<MergeItem> mergePolling(const QList<KEY_ADDRESS> &keys)
{
    return mergePass(mergePass(pollingItems(keys), 0, nullptr), 1, nullptr);
}

static std::vector<MergeItem> mergeRecipe(const QList<KEY_ADDRESS> &keys)
{
    std::vector<MergeItem> items;
    for (int i = 0; i < keys.size(); ++i) {
        const KEY_ADDRESS &key = keys.at(i);
        const Register *reg = tableRegister(key.regName);
        MergeItem item{MergeRun{key.stationNo, key.regName, key.address, key.count,
                                reg != nullptr && reg->contact},
                       i, 0};
        if (reg != nullptr && reg->dataBits != 1 && reg->unitBits > 0)
            item.run.count = int(item.run.count * (16.0 / reg->unitBits));
        items.push_back(item);
    }
    driver.blockStartList.append(0);
    return mergePass(items, 0, &driver.blockStartList);
}

// A block keeps every field of its first key but the normalised name, address
// and the merged count.
void addrMerge(QList<KEY_ADDRESS> &keys, int mergeMode)
{
    if (keys.isEmpty())
        return;
    const std::vector<MergeItem> blocks = mergeMode == 2 ? mergeRecipe(keys) : mergePolling(keys);
    QList<KEY_ADDRESS> merged;
    merged.reserve(int(blocks.size()));
    for (const MergeItem &block : blocks) {
        KEY_ADDRESS key = keys.at(block.source);
        key.regName = block.run.regName;
        key.address = block.run.address;
        key.count = block.run.count;
        merged.append(key);
    }
    keys.swap(merged);
}

int intf_addrMerge(QList<KEY_ADDRESS> *keys)
{
    DriverCall call;
    for (_DATA_ &record : driver.dataAreas) {
        record.valueMonitor = 0;
        record.bitMonitor = 0;
        forgetBitWriteCount(record);
    }
    driver.readList.clear();
    if (keys == nullptr || keys->isEmpty())
        return 0;
    QHash<QString, Register> models;
    for (const KEY_ADDRESS &key : *keys) {
        auto reg = models.constFind(key.regName);
        if (reg == models.constEnd())
            reg = models.insert(key.regName, registerOf(key.regName));
        monitorFlagsFor(reg.value(), key.stationNo, key.address, key.count);
    }
    for (const MergeItem &block : mergePolling(*keys)) {
        VARIABLE var;
        var.requestTag = POLLING_TAG;
        var.stationNo = block.run.stationNo;
        var.regName = block.run.regName;
        var.address = block.run.address;
        var.count = block.run.count;
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

VARIABLE requestOf(const KEY_ADDRESS &piece, int tag)
{
    VARIABLE request;
    request.requestTag = tag;
    request.stationNo = piece.stationNo;
    request.regName = piece.regName;
    request.address = piece.address;
    request.count = piece.count;
    return request;
}
