#include "Common/framework/mod.h"

#include "Common/OS/linux/lowmem.h"
#include "Common/OS/linux/oslinux.h"
#include "Common/OS/linux/psosapi/pthreadapi.h"
#include "Common/OS/linux/psosapi/ptimer.h"
#include "Common/OS/linux/psosapi/semaphore.h"
#include "Common/OS/osassert.h"

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <pthread.h>
#include <string_view>
#include <strings.h>

// ---- What all records share. For other units as well, by extern.

constexpr std::size_t kMaxMods = 4000;
constexpr std::size_t kNumDeferredCallbacks = 256;
constexpr std::size_t kNumDeferredFuncs = 384;
constexpr std::size_t kNumDFStats = 100;
constexpr std::size_t kNumTraceFilters = 10;
constexpr std::size_t kTraceFilterSize = 32;

const char *ModExceptionString[] = {"Mod Fatal Exception"};

// A slot goes from null to a record and back in one step, so that nobody needs a lock to enter one. It
// goes back under the interrupt lock: whoever looks at records under it does not see one go.
std::atomic<ModT *> gMods[kMaxMods];
std::atomic<Int32> numMods; // entered records; read by nothing

UInt32 callbackSemaphore; // every record's callback array

UInt32 deferredCallbackRegion; // the two lists below
ListT *gFreeDeferredCallbackList;
ListT *gPendDeferredCallbackList;
ModDeferredCallbackT gFreeDeferredCallbacks[kNumDeferredCallbacks];

UInt32 deferredFuncRegion; // the two lists below, and DFStats
ListT *gFreeDeferredFuncList;
ListT *gPendDeferredFuncList;
ModDeferredFuncT gFreeDeferredFuncs[kNumDeferredFuncs];
DeferredFuncStatsT DFStats[kNumDFStats];

// Under the interrupt lock. An empty one is free; one of 32 characters, as many as a record's name has, has no
// terminator.
char traceFilters[kNumTraceFilters][kTraceFilterSize];
std::atomic<Int32> NumTraceFilters;

namespace
{

constexpr Int32 kCallbackStep = 10; // entries by which an array grows
constexpr std::size_t kFormatSize = 256;

// Blocks of one kind, under the lock of their region.
struct DeferredQueueT {
    UInt32 &region;
    ListT *&pFree;
    ListT *&pPending;
};
constexpr DeferredQueueT kCallbackQueue = {deferredCallbackRegion, gFreeDeferredCallbackList,
                                           gPendDeferredCallbackList};
constexpr DeferredQueueT kFuncQueue = {deferredFuncRegion, gFreeDeferredFuncList, gPendDeferredFuncList};

// ---- Records

void CheckSignature(const ModT *pMod)
{
    if (pMod->initializedSig == kModSignature)
        return;
    std::printf("ERROR, bad module ptr 0x%x\n", AddressWord(pMod));
    os_assert(false, "0");
}

void CheckRecord(const ModT *pMod)
{
    os_assert(pMod, "pMod");
    CheckSignature(pMod);
}

// The calling task, 0 for a thread that is none.
UInt32 CallingTask()
{
    UInt32 taskID = 0;
    t_ident(nullptr, 0, &taskID);
    return taskID;
}

bool IsNamed(const ModT *pMod, const char *pName)
{
    return strcasecmp(pMod->name, pName) == 0;
}

// Without memory for the lock there are no blocks either. Nobody else has the queue yet.
template <class Block, std::size_t Count> void FillFreeList(const DeferredQueueT &queue, Block (&blocks)[Count])
{
    if (sm_create("#region", 1, 2, &queue.region) != 0)
        return;
    for (Block &block : blocks)
        ListEnqueueUnprot(&queue.pFree, &block.list);
}

// What all records share, made once in the process and never destroyed.
void CreateSharedState()
{
    FillFreeList(kFuncQueue, gFreeDeferredFuncs);
    FillFreeList(kCallbackQueue, gFreeDeferredCallbacks);
    for (DeferredFuncStatsT &stats : DFStats)
        stats = {.taskID = 0, .minTime = UINT32_MAX, .maxTime = 0, .totalTime = 0, .runCount = 0};
    sm_create("cb", 1, 2, &callbackSemaphore);
}

void NeedSharedState()
{
    static pthread_once_t once = PTHREAD_ONCE_INIT;
    pthread_once(&once, CreateSharedState);
}

template <class Function> void SetIfEmpty(Function *&operation, Function *initial)
{
    if (operation == nullptr)
        operation = initial;
}

void EnterInTable(ModT *pMod)
{
    for (std::atomic<ModT *> &slot : gMods) {
        ModT *pFree = nullptr;
        if (slot == nullptr && slot.compare_exchange_strong(pFree, pMod)) {
            numMods++;
            return;
        }
    }
}

void TakeOutOfTable(ModT *pMod)
{
    const InterruptsOffHold hold;
    for (std::atomic<ModT *> &slot : gMods) {
        if (slot == pMod) {
            slot = nullptr;
            numMods--;
            return;
        }
    }
}

// ---- Callback arrays

using SlotT = std::atomic<ModT *>;

// The entry at an index, or null behind the last one. A copy, because the array may move. With a slot also null when
// the record is not there any more.
const ModCallbackT *CopyEntry(const ModT *pMod, Int32 index, ModCallbackT *pCopy, const SlotT *pSlot = nullptr)
{
    const InterruptsOffHold hold;
    if ((pSlot != nullptr && *pSlot != pMod) || index >= pMod->numCallbacks)
        return nullptr;
    *pCopy = pMod->pCallbacks[index];
    return pCopy;
}

void SetEntry(ModCallbackT *pEntry, const ModCallbackT &value)
{
    const InterruptsOffHold hold;
    *pEntry = value;
}

// Puts an array in place of the record's, which is freed.
void SetArray(ModT *pMod, ModCallbackT *pCallbacks, Int32 count)
{
    ModCallbackT *pOld = pMod->pCallbacks;
    {
        const InterruptsOffHold hold;
        pMod->pCallbacks = pCallbacks;
        pMod->numCallbacks = count;
    }
    std::free(pOld);
}

// Function, user pointer and index tell one callback from another; a null function is a free entry.
// FindEntry and FreeEntry run under callbackSemaphore.
bool IsSame(const ModCallbackT &left, const ModCallbackT &right)
{
    return left.pFunc == right.pFunc && left.userDefined == right.userDefined && left.funcIndex == right.funcIndex;
}

ModCallbackT *FindEntry(const ModT *pMod, const ModCallbackT &wanted)
{
    ModCallbackT *pEnd = pMod->pCallbacks + pMod->numCallbacks;
    ModCallbackT *pFound =
        std::find_if(pMod->pCallbacks, pEnd, [&wanted](const ModCallbackT &entry) { return IsSame(entry, wanted); });
    return pFound != pEnd ? pFound : nullptr;
}

// A free entry, in a bigger array if need be; null when there is no memory for one.
ModCallbackT *FreeEntry(ModT *pMod)
{
    const Int32 count = pMod->numCallbacks;
    const Int32 grown = count + kCallbackStep;
    ModCallbackT *pEnd = pMod->pCallbacks + count;
    ModCallbackT *pFree =
        std::find_if(pMod->pCallbacks, pEnd, [](const ModCallbackT &entry) { return entry.pFunc == nullptr; });
    if (pFree != pEnd)
        return pFree;
    auto *pGrown = static_cast<ModCallbackT *>(std::calloc(static_cast<std::size_t>(grown), sizeof(ModCallbackT)));
    if (pGrown == nullptr)
        return nullptr;
    std::copy(pMod->pCallbacks, pEnd, pGrown);
    SetArray(pMod, pGrown, grown);
    return pGrown + count;
}

eErrorT ModAddCallbackCommon(ModT *pMod, const ModCallbackT &callback)
{
    os_assert(pMod, "pMod");
    os_assert(callback.pFunc, "pFunc");
    CheckSignature(pMod);
    {
        const SemaphoreHold hold(callbackSemaphore);
        if (FindEntry(pMod, callback) != nullptr)
            return kNoError;
        if (ModCallbackT *pEntry = hold.result() == 0 ? FreeEntry(pMod) : nullptr) {
            SetEntry(pEntry, callback);
            return kNoError;
        }
    }
    ModLog(pMod, kLogWarning, "can't add callback, out of memory\n");
    os_assert(false, "0");
}

// ---- Deferred calls

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

// Takes a block off the pending list, unless its task ran it and then ended. (That somebody else has
// queued it again by then, after all the other free blocks, is left out of account.)
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

// Blocks outlive the registration they were made from, and the record, unless they are withdrawn.
void DropPendingCallbacks(ModT *pMod, ModCallbackT *pCallback)
{
    while (ListT *pElem = TakePending(kCallbackQueue, IsCallbackOfMod, pMod, pCallback))
        GiveBack(kCallbackQueue, pElem);
}

// A callback that was removed while it was being looked at is not queued any more: its task may count
// on that after removing it.
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

// ---- Log lines

// A name counts up to as many characters as a filter has.
bool IsFilter(const char *filter, const char *pName)
{
    return strncasecmp(filter, pName, kTraceFilterSize) == 0;
}

// Without a filter all modules' lines are wanted.
bool WantsLines(const ModT *pMod, const char *format)
{
    os_assert(pMod, "pMod");
    os_assert(format, "format");
    CheckSignature(pMod);
    if (NumTraceFilters == 0)
        return true;
    const InterruptsOffHold hold;
    return std::any_of(std::begin(traceFilters), std::end(traceFilters),
                       [pMod](const char *filter) { return IsFilter(filter, pMod->name); });
}

// Who logs: "name[instance]", or "owner[instance].name[instance]".
void FillComponent(const ModT *pMod, char (&component)[kFormatSize])
{
    const ModT *pOwner = (pMod->flags & kModFlagLogOwner) != 0 ? pMod->pOwner : nullptr;
    if (pOwner != nullptr)
        std::snprintf(component, sizeof component, "%s[%d].%s[%d]", pOwner->name, pOwner->instance, pMod->name,
                      pMod->instance);
    else
        std::snprintf(component, sizeof component, "%s[%d]", pMod->name, pMod->instance);
}

// The length of the conversion that text begins with; 0 when text ends within it.
std::size_t ConversionLength(const char *text)
{
    const std::size_t length = 1 + std::strspn(text + 1, "0123456789#- +'I.*$hlLqjzt");
    return text[length] != '\0' ? length + 1 : 0;
}

// A format that is put together from pieces. Half a conversion never gets into it: not by a cut, and not by a piece
// that ends in one, which is printed as it is written.
struct FormatT {
    char text[kFormatSize] = "";
    std::size_t length = 0;

    // Adds what there is room for. What a piece without conversions has of them is printed as it is written, but for
    // "%%", which prints one sign.
    void Add(const char *piece, bool hasConversions)
    {
        while (*piece != '\0') {
            std::size_t whole = 1;
            if (*piece == '%')
                whole = hasConversions || piece[1] == '%' ? ConversionLength(piece) : 0;
            const std::string_view added = whole != 0 ? std::string_view(piece, whole) : "%%";
            if (length + added.size() >= sizeof text)
                return;
            added.copy(text + length, added.size());
            length += added.size();
            text[length] = '\0';
            piece += std::max<std::size_t>(whole, 1);
        }
    }
};

// ---- Dump

void FillFullName(const ModT *pMod, char (&fullname)[kModFullNameSize])
{
    std::snprintf(fullname, sizeof fullname, "%s[%d]", pMod->name, pMod->instance);
}

// What the dump shows of a record besides its callbacks: a copy, because it may be gone when it is printed.
struct RowT {
    ModT *pMod;
    eErrorT (*Dump)(ModT *pMod, Int32 verbose);
    char fullname[kModFullNameSize];
    UInt32 taskID, flags, initializedSig;
};

RowT RowOf(ModT *pMod)
{
    RowT row = {pMod, pMod->Dump, "", pMod->taskID, pMod->flags, pMod->initializedSig};
    FillFullName(pMod, row.fullname);
    return row;
}

// With a slot the callbacks end where the record goes.
void PrintRow(const RowT &row, const SlotT *pSlot)
{
    char task[kTaskNameSize] = "";
    if (row.taskID != 0)
        t_copy_name(row.taskID, task);
    std::printf("%-20.20s %8x %4.4s %c%c   \n", row.fullname, AddressWord(row.pMod), task,
                (row.flags & kModFlagA) != 0 ? 'A' : ' ', row.initializedSig == kModSignature ? 'I' : ' ');
    bool any = false;
    ModCallbackT entry;
    for (Int32 i = 0; CopyEntry(row.pMod, i, &entry, pSlot) != nullptr; i++) {
        if (entry.pFunc == nullptr)
            continue;
        std::printf("%s%d:0x%x ", any ? "" : "  callbacks: ", static_cast<Int32>(entry.funcIndex),
                    AddressWord(entry.pFunc));
        any = true;
    }
    if (any)
        std::puts("");
}

// pName null: whatever its name is.
void DumpSlot(const SlotT &slot, const char *pName)
{
    RowT row = {};
    {
        const InterruptsOffHold hold;
        ModT *pMod = slot;
        if (pMod == nullptr || (pName != nullptr && !IsNamed(pMod, pName)))
            return;
        row = RowOf(pMod);
    }
    if (row.Dump == ModDump)
        PrintRow(row, &slot);
    else
        row.Dump(row.pMod, 0);
}

// ---- Statistics, under deferredFuncRegion

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

// ---- Records

eErrorT ModInit(ModT *pMod, const char *pName, Int32 instance, ModT *pOwner)
{
    os_assert(pMod, "pMod");
    os_assert(pName, "pName");
    pMod->instance = instance;
    pMod->pOwner = pOwner;
    std::snprintf(pMod->name, sizeof pMod->name, "%s", pName);
    pMod->initializedSig = kModSignature;
    pMod->taskID = CallingTask();
    if (pMod->processorNum == 0)
        pMod->processorNum = GetProcessorNum();
    pMod->numCallbacks = 0;
    pMod->pCallbacks = nullptr;
    pMod->Exit = ModExit;
    SetIfEmpty(pMod->CallCallbacks, ModCallCallbacks);
    SetIfEmpty(pMod->ThrowException, ModThrowException);
    pMod->Dump = ModDump;
    pMod->DumpHeading = ModDumpHeading;
    SetIfEmpty(pMod->SetOwner, ModSetOwner);
    SetIfEmpty(pMod->GetOwner, ModGetOwner);
    NeedSharedState();
    pMod->flags |= kModFlagListed; // also when the table is full
    EnterInTable(pMod);
    return kNoError;
}

eErrorT ModExit(ModT *pMod)
{
    CheckSignature(pMod);
    ModDeleteAllCallbacks(pMod);
    TakeOutOfTable(pMod);
    pMod->flags &= ~kModFlagListed;
    return kNoError;
}

const char *ModName(ModT *pMod)
{
    if (pMod == nullptr)
        return "none";
    FillFullName(pMod, pMod->fullname);
    return pMod->fullname;
}

ModT *ModGetOwner(ModT *pMod)
{
    CheckRecord(pMod);
    return pMod->pOwner;
}

eErrorT ModSetOwner(ModT *pMod, ModT *pOwner)
{
    CheckRecord(pMod);
    pMod->pOwner = pOwner;
    return kNoError;
}

UInt32 ModGetProcNum(ModT *pMod)
{
    CheckRecord(pMod);
    return pMod->processorNum;
}

UInt32 ModID(ModT *pMod)
{
    CheckRecord(pMod);
    return pMod->id;
}

ModT *ModFindByName(const char *pName, Int32 instance)
{
    os_assert(pName, "pName");
    const InterruptsOffHold hold;
    for (const SlotT &slot : gMods) {
        ModT *pMod = slot;
        if (pMod != nullptr && pMod->instance == instance && IsNamed(pMod, pName))
            return pMod;
    }
    return nullptr;
}

// ---- Dump

void ModDumpHeading()
{
    std::puts("Module               address  task flags");
    std::puts("-------------------- -------- ---- -----");
}

eErrorT ModDump(ModT *pMod, Int32 verbose)
{
    os_assert(pMod, "pMod");
    if (verbose != 0)
        ModDumpHeading();
    PrintRow(RowOf(pMod), nullptr);
    return kNoError;
}

void ModDumpByName(const char *pName)
{
    os_assert(pName, "pName");
    ModDumpHeading();
    for (const SlotT &slot : gMods)
        DumpSlot(slot, pName);
}

void ModDumpAll()
{
    ModDumpRange(0, kMaxMods - 1);
}

void ModDumpRange(Int32 first, Int32 last)
{
    ModDumpHeading();
    for (Int32 i = std::max<Int32>(first, 0); i <= std::min<Int32>(last, kMaxMods - 1); i++)
        DumpSlot(gMods[i], nullptr);
}

// ---- Log

void ModLog(ModT *pMod, LogLevelT level, const char *format, ...)
{
    if (!WantsLines(pMod, format))
        return;
    char component[kFormatSize];
    FillComponent(pMod, component);
    FormatT whole;
    whole.Add(component, false);
    whole.Add(": ", false);
    whole.Add(format, true);
    va_list arguments;
    va_start(arguments, format);
    va_logmsg(arguments, level, nullptr, whole.text);
    va_end(arguments);
}

void ModTrace(ModT *pMod, const char *format, ...)
{
    if (!WantsLines(pMod, format))
        return;
    char component[kFormatSize];
    FillComponent(pMod, component);
    va_list arguments;
    va_start(arguments, format);
    va_logmsg(arguments, kLogDebug, component, format);
    va_end(arguments);
}

eErrorT ModTraceFilterAdd(const char *pName)
{
    os_assert(pName, "pName");
    if (pName[0] == '\0')
        return kBadParameter;
    {
        const InterruptsOffHold hold;
        for (char(&filter)[kTraceFilterSize] : traceFilters) {
            if (filter[0] != '\0')
                continue;
            std::strncpy(filter, pName, sizeof filter);
            NumTraceFilters++;
            return kNoError;
        }
    }
    logwarn("MOD", "can't add trace, out of filter entries\n");
    return kOutOfMemory;
}

eErrorT ModTraceFilterDelete(const char *pName)
{
    os_assert(pName, "pName");
    {
        const InterruptsOffHold hold;
        const bool all = pName[0] == '*';
        for (char(&filter)[kTraceFilterSize] : traceFilters) {
            if (filter[0] == '\0' || !(all || IsFilter(filter, pName)))
                continue;
            filter[0] = '\0';
            NumTraceFilters--;
            if (!all)
                return kNoError;
        }
        if (all)
            return kNoError;
    }
    logwarn("MOD", "can't delete trace filter, name not found\n");
    return kBadParameter;
}

// ---- Callbacks

eErrorT ModCallCallbacks(ModT *pMod, UInt32 funcIndex, const void *pArgs, Int32 argLen)
{
    CheckRecord(pMod);
    ModCallbackT entry;
    for (Int32 i = 0; CopyEntry(pMod, i, &entry) != nullptr; i++) {
        if (entry.pFunc == nullptr || entry.funcIndex != funcIndex)
            continue;
        UInt32 caller = 0;
        if (t_ident(nullptr, 0, &caller) != 0)
            return kItemNotFound;
        const bool onCaller = entry.destTaskID == caller && ExecutionLevel() != 1;
        if ((entry.whenFlags & kModOnTask) == 0 || onCaller)
            entry.pFunc(pMod, funcIndex, entry.userDefined, const_cast<void *>(pArgs));
        else
            DeferCallback(pMod, entry, pArgs, argLen);
    }
    return kNoError;
}

eErrorT ModThrowException(ModT *pMod, UInt32 ExceptionIndex, const char *description, const void *pArgs, Int32 argLen)
{
    os_assert(description, "description");
    ModTrace(pMod, "exception:%s (%s)\n", ModExceptionString[ExceptionIndex], description);
    ModCallCallbacks(pMod, kModExceptionFunc, pArgs, argLen);
    return kNoError;
}

eErrorT ModAddCallback(ModT *pMod, UInt32 funcIndex, CallbackFuncPtrT pFunc, void *userDefined, UInt32 whenFlags)
{
    return ModAddCallbackToTask(pMod, funcIndex, pFunc, userDefined, whenFlags, 0);
}

eErrorT ModAddCallbackToTask(ModT *pMod, UInt32 funcIndex, CallbackFuncPtrT pFunc, void *userDefined, UInt32 whenFlags,
                             UInt32 taskID)
{
    const bool onGivenTask = (whenFlags & kModOnTask) != 0 && taskID != 0;
    return ModAddCallbackCommon(pMod, {pFunc, userDefined, whenFlags, onGivenTask ? taskID : CallingTask(), funcIndex});
}

eErrorT ModAddExceptionHandler(ModT *pMod, CallbackFuncPtrT pHandlerFunc, void *userDefined)
{
    return ModAddCallback(pMod, kModExceptionFunc, pHandlerFunc, userDefined, kModOnTask);
}

eErrorT ModDeleteCallback(ModT *pMod, UInt32 funcIndex, CallbackFuncPtrT pFunc, void *userDefined)
{
    CheckRecord(pMod);
    os_assert(pFunc, "pFunc");
    ModCallbackT wanted = {pFunc, userDefined, 0, 0, funcIndex};
    const SemaphoreHold hold(callbackSemaphore);
    ModCallbackT *pEntry = FindEntry(pMod, wanted);
    if (pEntry == nullptr)
        return kItemNotFound;
    SetEntry(pEntry, {});
    DropPendingCallbacks(pMod, &wanted); // under the semaphore: a new registration keeps its own
    return kNoError;
}

eErrorT ModDeleteExceptionHandler(ModT *pMod, CallbackFuncPtrT pHandlerFunc, void *userDefined)
{
    return ModDeleteCallback(pMod, kModExceptionFunc, pHandlerFunc, userDefined);
}

eErrorT ModDeleteAllCallbacks(ModT *pMod)
{
    CheckRecord(pMod);
    const SemaphoreHold hold(callbackSemaphore);
    SetArray(pMod, nullptr, 0);
    DropPendingCallbacks(pMod, nullptr);
    return kNoError;
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
    NeedSharedState();
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
