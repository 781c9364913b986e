#include "Common/framework/mod.h"

#include "Common/OS/linux/lowmem.h"
#include "Common/OS/linux/oslinux.h"
#include "Common/OS/linux/psosapi/pthreadapi.h"
#include "Common/OS/linux/psosapi/semaphore.h"
#include "Common/OS/osassert.h"
#include "Common/framework/mod_inner.h"

#include <cstdio>
#include <pthread.h>
#include <strings.h>

SlotT gMods[kMaxMods];
std::atomic<Int32> numMods; // entered records; read by nothing

namespace
{

// Made once in the process and never destroyed.
void CreateSharedState()
{
    CreateDeferredQueues();
    sm_create("cb", 1, 2, &callbackSemaphore);
}

template <class Function> void SetIfEmpty(Function *&operation, Function *initial)
{
    if (operation == nullptr)
        operation = initial;
}

// Deliberate: if the table is full, the record works all the same and is not listed.
void EnterInTable(ModT *pMod)
{
    for (SlotT &slot : gMods) {
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
    for (SlotT &slot : gMods) {
        if (slot == pMod) {
            slot = nullptr;
            numMods--;
            return;
        }
    }
}

} // namespace

void NeedModState()
{
    static pthread_once_t once = PTHREAD_ONCE_INIT;
    pthread_once(&once, CreateSharedState);
}

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

void FillFullName(const ModT *pMod, char (&fullname)[kModFullNameSize])
{
    std::snprintf(fullname, sizeof fullname, "%s[%d]", pMod->name, pMod->instance);
}

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
    NeedModState();
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
