#include "Common/OS/linux/lowmem.h"
#include "Common/OS/linux/oslinux.h"
#include "Common/OS/linux/psosapi/pthreadapi.h"
#include "Common/OS/linux/psosapi/ptimer.h"
#include "Common/OS/linux/psosapi/semaphore.h"
#include "Common/OS/osassert.h"
#include "Common/framework/mod_inner.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

constexpr std::size_t kNumDeferredCallbacks = 256;
constexpr std::size_t kNumDeferredFuncs = 384;
constexpr std::size_t kNumDFStats = 100;

UInt32 deferredCallbackRegion; // the two lists below
ListT *gFreeDeferredCallbackList;
ListT *gPendDeferredCallbackList;
ModDeferredCallbackT gFreeDeferredCallbacks[kNumDeferredCallbacks];

UInt32 deferredFuncRegion; // the two lists below, and DFStats
ListT *gFreeDeferredFuncList;
ListT *gPendDeferredFuncList;
ModDeferredFuncT gFreeDeferredFuncs[kNumDeferredFuncs];
DeferredFuncStatsT DFStats[kNumDFStats];

namespace
{

// Blocks of one kind, under the lock of their region.
struct DeferredQueueT {
    UInt32 &region;
    ListT *&pFree;
    ListT *&pPending;
};
constexpr DeferredQueueT kCallbackQueue = {deferredCallbackRegion, gFreeDeferredCallbackList,
                                           gPendDeferredCallbackList};
constexpr DeferredQueueT kFuncQueue = {deferredFuncRegion, gFreeDeferredFuncList, gPendDeferredFuncList};

// If there is no memory for the lock, there are no blocks. No other task uses the queue yet.
template <class Block, std::size_t Count> void FillFreeList(const DeferredQueueT &queue, Block (&blocks)[Count])
{
    if (sm_create("#region", 1, 2, &queue.region) != 0)
        return;
    for (Block &block : blocks)
        ListEnqueueUnprot(&queue.pFree, &block.list);
}

ListT *TakeFree(const DeferredQueueT &queue)
{
    const SemaphoreHold hold(queue.region);
    return ListDequeueUnprot(&queue.pFree);
}

void AppendPending(const DeferredQueueT &queue, ListT *pElem)
{
    const SemaphoreHold hold(queue.region);
    ListEnqueueUnprot(&queue.pPending, pElem);
}

// Takes the first pending block that pMatches accepts off its list; null when there is none.
ListT *TakePending(const DeferredQueueT &queue, ListCompareT pMatches, void *pUser1, void *pUser2)
{
    const SemaphoreHold hold(queue.region);
    ListT *pElem = ListSearch(queue.pPending, pMatches, pUser1, pUser2);
    ListExtractUnprot(&queue.pPending, pElem);
    return pElem;
}

void GiveBack(const DeferredQueueT &queue, ListT *pElem)
{
    const SemaphoreHold hold(queue.region);
    ListEnqueueUnprot(&queue.pFree, pElem);
}

// Takes a block off the pending list, unless its task ran it and then ended. (Another task may have queued the block
// again by then, but only after it used all other free blocks. This is ignored.)
void Withdraw(const DeferredQueueT &queue, ListT *pElem)
{
    const auto isElem = [](ListT *pListed, void *pWanted, void *) -> Int32 { return pListed == pWanted ? 1 : 0; };
    if (TakePending(queue, isElem, pElem, nullptr) != nullptr)
        GiveBack(queue, pElem);
}

ModDeferredCallbackT *AsCallback(ListT *pElem)
{
    return reinterpret_cast<ModDeferredCallbackT *>(pElem);
}

ModDeferredFuncT *AsFunc(ListT *pElem)
{
    return reinterpret_cast<ModDeferredFuncT *>(pElem);
}

Int32 IsCallbackForTask(ListT *pElem, void *pTaskID, void * /*unused*/)
{
    return AsCallback(pElem)->callback.destTaskID == *static_cast<UInt32 *>(pTaskID) ? 1 : 0;
}

Int32 IsFuncForTask(ListT *pElem, void *pTaskID, void *pFunc)
{
    const ModDeferredFuncT *pDeferred = AsFunc(pElem);
    const bool wanted = pFunc == nullptr || pDeferred->pFunc == *static_cast<DeferredFuncPtrT *>(pFunc);
    return wanted && pDeferred->destTaskID == *static_cast<UInt32 *>(pTaskID) ? 1 : 0;
}

// pCallback null: any callback of the record.
Int32 IsCallbackOfMod(ListT *pElem, void *pMod, void *pCallback)
{
    const ModDeferredCallbackT *pDeferred = AsCallback(pElem);
    const bool wanted =
        pCallback == nullptr || IsSame(pDeferred->callback, *static_cast<const ModCallbackT *>(pCallback));
    return wanted && pDeferred->pMod == pMod ? 1 : 0;
}

// A callback may be removed while it is looked at. It is not queued then: the task that removed it counts on that.
bool AppendIfRegistered(ModDeferredCallbackT *pDeferred)
{
    const SemaphoreHold hold(callbackSemaphore);
    const ModCallbackT *pEntry = FindEntry(pDeferred->pMod, pDeferred->callback);
    if (pEntry == nullptr || pEntry->destTaskID != pDeferred->callback.destTaskID)
        return false;
    AppendPending(kCallbackQueue, &pDeferred->list);
    return true;
}

// Returns false when there is no such task.
bool NotifyTask(UInt32 taskID)
{
    return ev_send_listed(taskID, kModDeferredEvent) == 0;
}

// A block for the length of the call that it carries, which may end in the deletion of the task.
class BlockHold
{
public:
    BlockHold(const DeferredQueueT &queue, ListT *pElem) : queue_(queue), pElem_(pElem) {}
    ~BlockHold() { GiveBack(queue_, pElem_); }
    BlockHold(const BlockHold &) = delete;
    BlockHold &operator=(const BlockHold &) = delete;

private:
    const DeferredQueueT &queue_;
    ListT *pElem_;
};

void CopyArgs(UInt8 (&args)[kModMaxArgs], const void *pArgs, Int32 argLen)
{
    const Int32 length = std::clamp<Int32>(argLen, 0, kModMaxArgs);
    if (length > 0 && pArgs != nullptr)
        std::memcpy(args, pArgs, static_cast<std::size_t>(length));
}

UInt32 TaskOf(const ModDeferredCallbackT *pDeferred)
{
    return pDeferred->callback.destTaskID;
}

UInt32 TaskOf(const ModDeferredFuncT *pDeferred)
{
    return pDeferred->destTaskID;
}

// What was asked for longest ago and has not been run.
struct OldestT {
    bool waits; // false: everything has been run
    char task[kTaskNameSize];
    Int32 waited; // milliseconds
};

template <class Block> OldestT FindOldest(const DeferredQueueT &queue)
{
    UInt32 taskID = 0, time = 0;
    {
        const SemaphoreHold hold(queue.region);
        const auto *pOldest = reinterpret_cast<const Block *>(ListFirstElement(queue.pPending));
        if (pOldest == nullptr)
            return {};
        taskID = TaskOf(pOldest);
        time = pOldest->time;
    }
    OldestT oldest = {true, "", static_cast<Int32>(RealTimeMilliSeconds() - time)};
    t_copy_name(taskID, oldest.task);
    return oldest;
}

[[noreturn]] void StopOutOfBlocks(ModT *pMod, UInt32 funcIndex)
{
    ModLog(pMod, kLogWarning, "can't call callback for func %d, out of callback blocks\n", funcIndex);
    if (const auto oldest = FindOldest<ModDeferredCallbackT>(kCallbackQueue); oldest.waits)
        std::printf("ERROR, task %4.4s has not responded to deferred callbacks for %dmS\n", oldest.task, oldest.waited);
    osTaskDump();
    tm_wkafter(5); // for the log to get out
    os_assert(false, "0");
}

// ---- Function calls: statistics under deferredFuncRegion, and the report

DeferredFuncStatsT *FindStats(UInt32 taskID)
{
    DeferredFuncStatsT *pFound = std::find_if(std::begin(DFStats), std::end(DFStats),
                                              [taskID](const auto &stats) { return stats.taskID == taskID; });
    return pFound != std::end(DFStats) ? pFound : nullptr;
}

// Tasks that come when all entries are in use go uncounted.
void CountRun(UInt32 taskID, UInt32 waited)
{
    const SemaphoreHold hold(deferredFuncRegion);
    DeferredFuncStatsT *pStats = FindStats(taskID);
    if (pStats == nullptr)
        pStats = FindStats(0);
    if (pStats == nullptr)
        return;
    pStats->taskID = taskID;
    pStats->minTime = std::min(pStats->minTime, waited);
    pStats->maxTime = std::max(pStats->maxTime, waited);
    pStats->totalTime += waited;
    pStats->runCount++;
}

void ReportOutOfFuncBlocks(UInt32 taskID, DeferredFuncPtrT pFunc)
{
    char from[kTaskNameSize], to[kTaskNameSize];
    t_copy_name(0, from);
    t_copy_name(taskID, to);
    logwarn("MOD", "can't defer function call from %4.4s to task %4.4s func 0x%x, out of deferred function blocks\n",
            from, to, AddressWord(pFunc));
    if (const auto oldest = FindOldest<ModDeferredFuncT>(kFuncQueue); oldest.waits)
        logwarn("MOD", "task %4.4s has not responded to deferred func calls for %dmS\n", oldest.task, oldest.waited);
}

} // namespace

void CreateDeferredQueues()
{
    FillFreeList(kFuncQueue, gFreeDeferredFuncs);
    FillFreeList(kCallbackQueue, gFreeDeferredCallbacks);
    for (DeferredFuncStatsT &stats : DFStats)
        stats = {.taskID = 0, .minTime = UINT32_MAX, .maxTime = 0, .totalTime = 0, .runCount = 0};
}

void DeferCallback(ModT *pMod, const ModCallbackT &callback, const void *pArgs, Int32 argLen)
{
    ListT *pElem = TakeFree(kCallbackQueue);
    if (pElem == nullptr)
        StopOutOfBlocks(pMod, callback.funcIndex); // a task that no longer answers is fatal on purpose
    ModDeferredCallbackT *pDeferred = AsCallback(pElem);
    pDeferred->callback = callback;
    pDeferred->pMod = pMod;
    pDeferred->funcIndex = callback.funcIndex;
    pDeferred->time = RealTimeMilliSeconds();
    CopyArgs(pDeferred->args, pArgs, argLen);
    os_assert(callback.destTaskID != 0, "destTaskID");
    if (!AppendIfRegistered(pDeferred))
        GiveBack(kCallbackQueue, pElem);
    else if (!NotifyTask(callback.destTaskID))
        Withdraw(kCallbackQueue, pElem);
}

// Blocks outlive the registration they were made from, and the record, unless they are withdrawn.
void DropPendingCallbacks(ModT *pMod, ModCallbackT *pCallback)
{
    while (ListT *pElem = TakePending(kCallbackQueue, IsCallbackOfMod, pMod, pCallback))
        GiveBack(kCallbackQueue, pElem);
}

void ModProcessDeferredCallbacks()
{
    UInt32 caller = CallingTask();
    while (ListT *pElem = TakePending(kCallbackQueue, IsCallbackForTask, &caller, nullptr)) {
        ModDeferredCallbackT *pDeferred = AsCallback(pElem);
        const BlockHold block(kCallbackQueue, pElem);
        pDeferred->callback.pFunc(pDeferred->pMod, pDeferred->funcIndex, pDeferred->callback.userDefined,
                                  pDeferred->args);
    }
}

// ---- Deferred function calls

eErrorT ModDeferFunctionCall(UInt32 taskID, DeferredFuncPtrT pFunc, const void *pArgs, Int32 argLen)
{
    if (pFunc == nullptr || argLen < 0 || static_cast<std::size_t>(argLen) > kModMaxArgs)
        return kBadParameter;
    NeedModState();
    if (taskID == 0)
        taskID = CallingTask();
    ListT *pElem = TakeFree(kFuncQueue);
    if (pElem == nullptr) {
        ReportOutOfFuncBlocks(taskID, pFunc);
        return kOutOfResources;
    }
    ModDeferredFuncT *pDeferred = AsFunc(pElem);
    pDeferred->pFunc = pFunc;
    pDeferred->destTaskID = taskID;
    pDeferred->time = RealTimeMilliSeconds();
    pDeferred->argLen = argLen;
    CopyArgs(pDeferred->args, pArgs, argLen);
    AppendPending(kFuncQueue, pElem);
    if (NotifyTask(taskID))
        return kNoError;
    Withdraw(kFuncQueue, pElem);
    logwarn("MOD", "can't defer function call to task %4.4s, it doesn't exist\n", "????");
    return kItemNotFound;
}

void ModProcessDeferredFunctions()
{
    UInt32 caller = CallingTask();
    while (ListT *pElem = TakePending(kFuncQueue, IsFuncForTask, &caller, nullptr)) {
        ModDeferredFuncT *pDeferred = AsFunc(pElem);
        const BlockHold block(kFuncQueue, pElem);
        CountRun(caller, RealTimeMilliSeconds() - pDeferred->time);
        pDeferred->pFunc(pDeferred->args, pDeferred->argLen);
    }
}

eErrorT ModSearchDeferredFunction(UInt32 taskID, DeferredFuncPtrT pFunc)
{
    const SemaphoreHold hold(deferredFuncRegion);
    return ListSearch(gPendDeferredFuncList, IsFuncForTask, &taskID, &pFunc) != nullptr ? kNoError : kItemNotFound;
}

eErrorT ModGetDeferredFunctionStats(UInt32 taskID, DeferredFuncStatsT *pStats)
{
    os_assert(pStats, "pStats");
    const SemaphoreHold hold(deferredFuncRegion);
    const DeferredFuncStatsT *pFound = taskID != 0 ? FindStats(taskID) : nullptr;
    if (pFound == nullptr)
        return kItemNotFound;
    *pStats = *pFound;
    return kNoError;
}

void ModDumpDeferredFunctions()
{
    struct WaitingT {
        UInt32 taskID;
        DeferredFuncPtrT pFunc;
        UInt32 time;
    } waiting[kNumDeferredFuncs];
    DeferredFuncStatsT allStats[kNumDFStats];
    std::size_t count = 0;
    {
        const SemaphoreHold hold(deferredFuncRegion);
        for (ListT *pElem = gPendDeferredFuncList; pElem != nullptr;
             pElem = ListNextElement(gPendDeferredFuncList, pElem))
            waiting[count++] = {AsFunc(pElem)->destTaskID, AsFunc(pElem)->pFunc, AsFunc(pElem)->time};
        std::copy(std::begin(DFStats), std::end(DFStats), allStats);
    }
    char name[kTaskNameSize];
    const UInt32 now = RealTimeMilliSeconds();
    for (const WaitingT *pCall = waiting; pCall != waiting + count; pCall++) {
        t_copy_name(pCall->taskID, name);
        std::printf("%4.4s func 0x%x waiting %ums\n", name, AddressWord(pCall->pFunc), now - pCall->time);
    }
    for (const DeferredFuncStatsT &stats : allStats) {
        if (stats.taskID == 0)
            continue;
        t_copy_name(stats.taskID, name);
        std::printf("%4.4s runs %u min %ums max %ums total %ums\n", name, stats.runCount, stats.minTime, stats.maxTime,
                    stats.totalTime);
    }
}
