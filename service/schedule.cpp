// The send schedule: which request goes on the line next, and the bookkeeping
// when the frames of a request are done.
#include "service.h"

#include <QMutexLocker>

namespace {
struct RecipeRequests {
    bool write;
    bool read;
};
} // namespace

static RecipeRequests readRecipeRequests()
{
    if (driver.hmiStatusBlock == nullptr)
        return {false, false};
    QMutexLocker lock(driver.hmiMutex);
    return {driver.hmiStatusBlock[STATUS_RECIPE_WRITE] == 1,
            driver.hmiStatusBlock[STATUS_RECIPE_READ] == 1};
}

static void clearRecipeRequest(int offset)
{
    if (driver.hmiStatusBlock == nullptr)
        return;
    QMutexLocker lock(driver.hmiMutex);
    driver.hmiStatusBlock[offset] = 0;
}

// The frames of the request in curVar. `reg` is its register, resolved once
// by the caller and kept for the description and decoding of the replies;
// null (a name outside the table) builds no frame.
static int buildRead(const Register *reg)
{
    driver.curReadVars.clear();
    driver.curReadVars.append(driver.curVar);
    driverPrivate.inFlight = reg;
    return reg != nullptr ? getReadFrame(*reg, driver.curVar, driver.sendList) : 0;
}

static int buildWrite(const Register *reg)
{
    driverPrivate.inFlight = reg;
    return reg != nullptr ? getWriteFrame(*reg, driver.curVar, driver.sendList) : 0;
}

// A request at the head of a list that could not be put into a frame (no area
// letter, no units) leaves the list so that the rest of the work goes on.

static void dropUnsendableConditionRead()
{
    if (driver.conditionReadList.isEmpty())
        return;
    if (sameRequest(driver.conditionReadList.first(), driver.lastConditionRead))
        notifyHost(-1, -1, QString::fromLatin1("-1"), -1);
    driver.conditionReadList.removeFirst();
}

// A recipe block that cannot be framed counts as transferred.
static void skipRecipeBlock()
{
    const int saved = driver.commError;
    driver.commError = 0;
    dealListWhenFinish();
    driver.commError = saved;
}

// Queues the frames of the next request; leaves sendList empty when there is
// nothing to send. Every turn of the loop either queues frames or removes one
// request, so it ends.
static void planNextFrame()
{
    for (;;) {
        const RecipeRequests recipe = readRecipeRequests();
        const bool blocksLeft = driver.rcpIndex < driver.rcpBlockList.size();
        if (driver.handShakeRequest) {
            driver.sendState = SEND_HANDSHAKE;
            driverPrivate.inFlight = nullptr;
            driver.sendList.append(handShakeFrame());
            return;
        }
        if ((recipe.write || recipe.read) && blocksLeft) {
            const _RCP_VAR_PRO block = driver.rcpBlockList.at(driver.rcpIndex);
            const Register *reg = tableRegister(block.regName);
            rcpAddrToVar(reg, block, driver.curVar, recipe.write ? 1 : 0);
            driver.sendState = recipe.write ? SEND_RECIPE_WRITE : SEND_RECIPE_READ;
            if ((recipe.write ? buildWrite(reg) : buildRead(reg)) > 0)
                return;
            skipRecipeBlock();
            continue;
        }
        // A request byte with no block left would otherwise block all other
        // work for as long as it stays set.
        if (recipe.write || recipe.read) {
            driver.rcpIndex = 0;
            if (recipe.write)
                clearRecipeRequest(STATUS_RECIPE_WRITE);
            if (recipe.read)
                clearRecipeRequest(STATUS_RECIPE_READ);
        }
        if (!driver.writeList.isEmpty() && driver.burstCount <= WRITE_BURST_LIMIT) {
            driver.curVar = driver.writeList.first();
            driver.sendState = SEND_WRITE;
            driver.burstCount++;
            if (buildWrite(tableRegister(driver.curVar.regName)) > 0)
                return;
            dropHeadWrite();
            continue;
        }
        if (!driver.conditionReadList.isEmpty() &&
            driver.burstCount <= CONDITION_READ_BURST_LIMIT) {
            driver.curVar = driver.conditionReadList.first();
            driver.sendState = SEND_CONDITION_READ;
            driver.burstCount++;
            if (buildRead(tableRegister(driver.curVar.regName)) > 0)
                return;
            dropUnsendableConditionRead();
            continue;
        }
        if (!driver.readList.isEmpty()) {
            driver.curVar = driver.readList.first();
            driver.sendState = SEND_POLLING_READ;
            driver.burstCount = 0;
            if (buildRead(tableRegister(driver.curVar.regName)) > 0)
                return;
            driver.readList.removeFirst(); // a block no frame can read
            continue;
        }
        driver.burstCount = 0;
        driver.sendState = SEND_NONE;
        driver.sendList.clear();
        return;
    }
}

static void copyFrame(const FRAME_PRO &from, FRAME_PRO *out)
{
    memcpy(out->frame, from.frame, sizeof out->frame);
    out->frameLen = from.frameLen;
    out->replyLen = from.replyLen;
    out->dataPos = from.dataPos;
    out->wordCount = from.wordCount;
    out->reserved = from.reserved;
    out->var.requestTag = from.var.requestTag;
    out->var.stationNo = from.var.stationNo;
    out->var.regName = from.var.regName;
    out->var.address = from.var.address;
    out->var.count = from.var.count;
    memcpy(out->var.data, from.var.data, sizeof out->var.data);
}

int intf_getSendFrame(FRAME_PRO *out)
{
    DriverCall call;
    if (out == nullptr)
        return 0;
    // The head stays until a reply retires it, so an unanswered frame goes again.
    if (driver.sendList.isEmpty())
        planNextFrame();
    if (driver.sendList.isEmpty())
        return 0;
    copyFrame(driver.sendList.first(), out);
    return 1;
}

static bool lastConditionReadQueued()
{
    for (const VARIABLE &request : driver.conditionReadList) {
        if (sameRequest(request, driver.lastConditionRead))
            return true;
    }
    return false;
}

static void finishRecipeBlock(int requestOffset)
{
    if (driver.commError == 0) {
        driver.rcpIndex++;
        if (driver.rcpIndex < driver.rcpBlockList.size())
            return;
    }
    driver.rcpIndex = 0;
    clearRecipeRequest(requestOffset);
}

void dealListWhenFinish()
{
    switch (driver.sendState) {
    case SEND_WRITE:
        retireHeadWrite();
        break;
    case SEND_CONDITION_READ:
        if (!driver.conditionReadList.isEmpty() &&
            sameRequest(driver.conditionReadList.first(), driver.lastConditionRead)) {
            notifyHost(-1, -1, QString::fromLatin1("-1"), driver.commError ? -1 : 0);
        } else if (driver.commError && lastConditionReadQueued()) {
            // A failed piece drops the rest of the condition read with it: its
            // end is reported now, or the runtime would wait for it for ever.
            notifyHost(-1, -1, QString::fromLatin1("-1"), -1);
        }
        if (driver.commError)
            driver.conditionReadList.clear();
        else if (!driver.conditionReadList.isEmpty())
            driver.conditionReadList.removeFirst();
        break;
    case SEND_POLLING_READ:
        if (driver.readList.size() >= 2)
            driver.readList.move(0, driver.readList.size() - 1);
        break;
    case SEND_RECIPE_WRITE:
        finishRecipeBlock(STATUS_RECIPE_WRITE);
        break;
    case SEND_RECIPE_READ:
        finishRecipeBlock(STATUS_RECIPE_READ);
        break;
    default:
        break;
    }
}
