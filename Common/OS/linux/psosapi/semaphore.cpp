#include "Common/OS/linux/psosapi/semaphore.h"

#include "Common/OS/linux/mutexhold.h"

#include <cstring>

namespace
{

constinit RetiredRecords<SMCB> retiredSemaphores;

} // namespace

UInt32 sm_create(const char *name, UInt32 count, UInt32 /*flags*/, UInt32 *smid_out)
{
    SMCB *smcb = retiredSemaphores.Take();
    if (smcb == nullptr)
        smcb = static_cast<SMCB *>(low_calloc(sizeof(SMCB)));
    if (smcb == nullptr)
        return kSmNoMemory;
    *smcb = SMCB{};
    if (name != nullptr)
        std::memcpy(smcb->name, name, strnlen(name, sizeof(smcb->name)));
    smcb->thread = pthread_self();
    const int result = InitPriorityMutex(&smcb->mutex);
    if (count == 0)
        os_assert(pthread_mutex_lock(&smcb->mutex) == 0, "pthread_mutex_lock(&smcb->mutex) == 0");
    // Deliberate: only a negative result is a failure. The error numbers of the C library are positive and do not
    // count.
    if (result < 0) {
        low_free(smcb);
        return kSmNoMemory;
    }
    smcb->signature = kSmSignature;
    if (smid_out != nullptr)
        *smid_out = low_id(smcb);
    return 0;
}

UInt32 sm_delete(UInt32 smid)
{
    SMCB *smcb = FindSemaphore(smid);
    if (smcb == nullptr)
        return kSmNotFound;
    os_assert(pthread_mutex_destroy(&smcb->mutex) == 0, "pthread_mutex_destroy(&smcb->mutex) == 0");
    smcb->signature = 0; // not earlier: one that could not be destroyed is still a semaphore
    retiredSemaphores.Add(smcb);
    return 0;
}

UInt32 rsm_p(UInt32 smid, UInt32 opt)
{
    return sm_p(smid, opt, 0);
}

UInt32 rsm_v(UInt32 smid)
{
    return sm_v(smid);
}
