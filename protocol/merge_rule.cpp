// Whether the next address key may be read in the same request as a block.
#include "xbc_protocol.h"

int judgeAddrMerge(KEY_ADDRESS block, KEY_ADDRESS next, int allowGap)
{
    return mergeRule(MergeRun{block.stationNo, block.regName, block.address, block.count},
                     MergeRun{next.stationNo, next.regName, next.address, next.count}, allowGap);
}

int mergeRule(const MergeRun &block, const MergeRun &next, int allowGap)
{
    if (block.stationNo != next.stationNo)
        return 1;
    if (block.regName != next.regName)
        return 1;
    // Signed 32-bit arithmetic that wraps, as the merge passes expect.
    const int gap = int(quint32(next.address) - (quint32(block.address) + quint32(block.count)));
    const int allowance = allowGap ? driver.maxPacketLen : 0;
    if (gap > allowance)
        return 1;
    // Contacts share a request only as exact repeats of the block's first one.
    const Register *reg = tableRegister(block.regName);
    if (reg != nullptr && reg->contact)
        return block.address != next.address ? 1 : 0;
    return 0;
}
