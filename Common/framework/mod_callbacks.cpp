#include "Common/OS/linux/oslinux.h"
#include "Common/OS/linux/psosapi/pthreadapi.h"
#include "Common/OS/linux/psosapi/semaphore.h"
#include "Common/OS/osassert.h"
#include "Common/framework/mod_inner.h"

#include <algorithm>
#include <cstdlib>

const char *ModExceptionString[] = {"Mod Fatal Exception"};

UInt32 callbackSemaphore;

namespace
{

constexpr Int32 kCallbackStep = 10; // entries by which an array grows

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

// A free entry. If there is none, the array grows. Null: there is no memory for that.
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

} // namespace

const ModCallbackT *CopyEntry(const ModT *pMod, Int32 index, ModCallbackT *pCopy, const SlotT *pSlot)
{
    const InterruptsOffHold hold;
    if ((pSlot != nullptr && *pSlot != pMod) || index >= pMod->numCallbacks)
        return nullptr;
    *pCopy = pMod->pCallbacks[index];
    return pCopy;
}

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
