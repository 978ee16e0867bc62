// Whether the next address key may be read in the same request as a block.
#include "xbc_protocol.h"

int mergeRule(const MergeRun &block, const MergeRun &next, int allowance)
{
    if (block.stationNo != next.stationNo)
        return 1;
    if (block.regName != next.regName)
        return 1;
    // Signed 32-bit arithmetic that wraps, as the merge passes expect.
    const int gap = int(quint32(next.address) - (quint32(block.address) + quint32(block.count)));
    if (gap > allowance)
        return 1;
    // Contacts share a request only as exact repeats of the block's first one.
    if (block.contact)
        return block.address != next.address ? 1 : 0;
    return 0;
}
