// Recipe variables: the ones of this driver, sorted and merged into blocks.
#include "service.h"

#include <algorithm>

// What a recipe variable and its merge key share.
template <class From, class To> static void copyRecipeRun(const From &from, To &to)
{
    to.stationNo = from.stationNo;
    to.regName = from.regName;
    to.address = from.address;
    to.count = from.count;
    to.bufferIndex = from.bufferIndex;
}

int intf_setRcpAddress(QVector<_RCP_VAR_PRO> *vars)
{
    DriverCall call;
    driver.rcpVarList.clear();
    if (vars != nullptr) {
        for (const _RCP_VAR_PRO &var : *vars) {
            if (var.driverId == driver.driverId)
                driver.rcpVarList.append(var);
        }
    }
    // Blocks of a previous set would describe variables that are gone.
    driver.blockStartList.clear();
    driver.rcpBlockList.clear();
    driver.rcpIndex = 0;
    if (driver.rcpVarList.isEmpty())
        return 0;
    std::stable_sort(driver.rcpVarList.begin(), driver.rcpVarList.end(),
                     [](const _RCP_VAR_PRO &a, const _RCP_VAR_PRO &b) {
                         return getRegAddressWeight(a.stationNo, a.regName, a.address) <
                                getRegAddressWeight(b.stationNo, b.regName, b.address);
                     });
    QList<KEY_ADDRESS> keys;
    for (const _RCP_VAR_PRO &var : driver.rcpVarList) {
        KEY_ADDRESS key;
        copyRecipeRun(var, key);
        keys.append(key);
    }
    addrMerge(keys, 2);
    for (const KEY_ADDRESS &block : keys) {
        _RCP_VAR_PRO record;
        copyRecipeRun(block, record);
        driver.rcpBlockList.append(record);
    }
    return driver.rcpVarList.size();
}

unsigned int getRegAddressWeight(int station, const QString &regName, int value)
{
    return addressWeight(station, int(driver.regNameList.indexOf(regName)), value,
                         int(driver.regNameList.size()));
}

void rcpAddrToVar(const Register *reg, _RCP_VAR_PRO block, VARIABLE &var, int withData)
{
    var.stationNo = block.stationNo;
    var.regName = block.regName;
    var.address = block.address;
    var.count = block.count;
    memset(var.data, 0, sizeof var.data);
    // A name outside the register table has no known unit size: nothing to copy.
    if (!withData || reg == nullptr || driver.rcpBuffer == nullptr || block.bufferIndex < 0)
        return;
    // The buffer holds one 16-bit word per bit of a bit register; the request
    // one byte per bit, as a write from the screens: the word's low byte.
    if (reg->wireBits()) {
        const unsigned char *words = driver.rcpBuffer + 2 * qint64(block.bufferIndex);
        for (int i = 0; i < block.count && i < DATA_BYTES; ++i)
            var.data[i] = words[2 * i];
        return;
    }
    const int unitBytes = reg->unitBits / 8;
    const qint64 bytes = qMin(qint64(block.count) * unitBytes, qint64(DATA_BYTES));
    if (bytes > 0)
        memcpy(var.data, driver.rcpBuffer + 2 * qint64(block.bufferIndex), size_t(bytes));
}
