// pSOS-style binary semaphores on priority-inheritance mutexes: whoever takes one gives it back.
// Owner: sm_create makes the record, sm_delete gives it up. Another semaphore gets its memory, and with it the
// identifier,
//        only after 1024 more were deleted. Until then the identifier designates no semaphore.
#pragma once

#include "Common/OS/linux/lowmem.h"
#include "Common/OS/osassert.h"
#include "Common/types.h"

#include <pthread.h>

constexpr UInt32 kSmNotFound = 9;      // the identifier does not carry the "SEMA" signature
constexpr UInt32 kSmNoMemory = 65;     // no memory for a new semaphore
constexpr UInt32 kSmNotAvailable = 66; // no-wait take of a semaphore that is held

constexpr UInt32 kSmNoWait = 1; // sm_p option bit 0

// The record that a semaphore identifier designates.
struct SMCB {
    UInt32 signature; // the four characters "SEMA" once the semaphore is valid
    char name[4];
    pthread_t thread;   // the thread that created it
    Int32 reentercount; // 0, read by nothing
    pthread_mutex_t mutex;
    SMCB *next; // of the deleted ones
};

constexpr UInt32 kSmSignature = FourCharacters("SEMA");

// The record of a semaphore, or null when the identifier does not designate one.
inline SMCB *FindSemaphore(UInt32 smid)
{
    auto *smcb = low_pointer<SMCB>(smid);
    return smcb != nullptr && smcb->signature == kSmSignature ? smcb : nullptr;
}

// Creates a semaphore; count 0 creates it taken by the caller, any other count creates it free. The
// first four characters of name count; it may be null. flags are ignored. Returns 0 and stores the
// identifier in smid_out (unless null), or kSmNoMemory with nothing changed.
UInt32 sm_create(const char *name, UInt32 count, UInt32 flags, UInt32 *smid_out);

// Takes the semaphore. With kSmNoWait in opt it does not wait; otherwise it waits without limit,
// whatever max_wait says. Returns 0, kSmNotFound, or kSmNotAvailable.
// Taking and giving back are inline: a call more costs a quarter of an uncontended lock.
inline UInt32 sm_p(UInt32 smid, UInt32 opt, UInt32 /*max_wait*/)
{
    SMCB *smcb = FindSemaphore(smid);
    if (smcb == nullptr)
        return kSmNotFound;
    if ((opt & kSmNoWait) != 0)
        return pthread_mutex_trylock(&smcb->mutex) == 0 ? 0 : kSmNotAvailable;
    os_assert(pthread_mutex_lock(&smcb->mutex) == 0, "pthread_mutex_lock(&smcb->mutex) == 0");
    return 0;
}

// Gives the semaphore back. Returns 0 or kSmNotFound.
inline UInt32 sm_v(UInt32 smid)
{
    SMCB *smcb = FindSemaphore(smid);
    if (smcb == nullptr)
        return kSmNotFound;
    os_assert(pthread_mutex_unlock(&smcb->mutex) == 0, "pthread_mutex_unlock(&smcb->mutex) == 0");
    return 0;
}

// Destroys the semaphore, which nobody may hold or wait for. Returns 0, or kSmNotFound, also the second time.
UInt32 sm_delete(UInt32 smid);

// The same as sm_p without a wait limit, and as sm_v.
UInt32 rsm_p(UInt32 smid, UInt32 opt);
UInt32 rsm_v(UInt32 smid);

// Takes a semaphore for the length of a scope; the destructor is also the cancellation clean-up.
class SemaphoreHold
{
public:
    explicit SemaphoreHold(UInt32 smid) : smid_(smid), result_(sm_p(smid, 0, 0)) {}
    ~SemaphoreHold()
    {
        if (result_ == 0)
            sm_v(smid_);
    }
    SemaphoreHold(const SemaphoreHold &) = delete;
    SemaphoreHold &operator=(const SemaphoreHold &) = delete;
    UInt32 result() const { return result_; } // what sm_p returned; not 0: nothing is held

private:
    UInt32 smid_;
    UInt32 result_;
};
