#include "Common/OS/linux/psosapi/semaphore.h"

#include "Common/OS/linux/lowmem.h"
#include "Common/OS/linux/mutexhold.h"
#include "Common/OS/osassert.h"

#include <cstring>

namespace
{

constexpr UInt32 kSignature = FourCharacters("SEMA");

// Null when the identifier does not designate a semaphore.
SMCB *FindSemaphore(UInt32 smid)
{
    auto *smcb = low_pointer<SMCB>(smid);
    return smcb != nullptr && smcb->signature == kSignature ? smcb : nullptr;
}

} // namespace

UInt32 sm_create(const char *name, UInt32 count, UInt32 /*flags*/, UInt32 *smid_out)
{
    auto *smcb = static_cast<SMCB *>(low_calloc(sizeof(SMCB)));
    if (smcb == nullptr)
        return kSmNoMemory;
    if (name != nullptr)
        std::memcpy(smcb->name, name, sizeof(smcb->name));
    smcb->thread = pthread_self();
    smcb->reentercount = 0;
    const int result = InitPriorityMutex(&smcb->mutex);
    if (count == 0)
        os_assert(pthread_mutex_lock(&smcb->mutex) == 0, "pthread_mutex_lock(&smcb->mutex) == 0");
    // Deliberately only a negative result: the (positive) error numbers of the C library do not count.
    if (result < 0) {
        low_free(smcb);
        return kSmNoMemory;
    }
    smcb->signature = kSignature;
    if (smid_out != nullptr)
        *smid_out = low_id(smcb);
    return 0;
}

UInt32 sm_p(UInt32 smid, UInt32 opt, UInt32 /*max_wait*/)
{
    SMCB *smcb = FindSemaphore(smid);
    if (smcb == nullptr)
        return kSmNotFound;
    if ((opt & kSmNoWait) != 0)
        return pthread_mutex_trylock(&smcb->mutex) == 0 ? 0 : kSmNotAvailable;
    os_assert(pthread_mutex_lock(&smcb->mutex) == 0, "pthread_mutex_lock(&smcb->mutex) == 0");
    return 0;
}

UInt32 sm_v(UInt32 smid)
{
    SMCB *smcb = FindSemaphore(smid);
    if (smcb == nullptr)
        return kSmNotFound;
    os_assert(pthread_mutex_unlock(&smcb->mutex) == 0, "pthread_mutex_unlock(&smcb->mutex) == 0");
    return 0;
}

UInt32 sm_delete(UInt32 smid)
{
    SMCB *smcb = FindSemaphore(smid);
    if (smcb == nullptr)
        return kSmNotFound;
    os_assert(pthread_mutex_destroy(&smcb->mutex) == 0, "pthread_mutex_destroy(&smcb->mutex) == 0");
    low_free(smcb);
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
