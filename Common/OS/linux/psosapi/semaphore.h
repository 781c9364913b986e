// pSOS-style binary semaphores, on mutexes with priority inheritance: the task that takes one gives it back.
// Owner:   sm_create makes the record, and sm_delete gives it up. 1024 more semaphores must be deleted before a new one
//          gets the record, and with it the identifier. Until then no semaphore has the identifier.
#pragma once

#include "Common/OS/linux/lowmem.h"
#include "Common/OS/osassert.h"
#include "Common/types.h"

#include <pthread.h>

constexpr UInt32 kSmNotFound = 9;      // the identifier does not carry the "SEMA" signature
constexpr UInt32 kSmNoMemory = 65;     // no memory for a new semaphore
constexpr UInt32 kSmNotAvailable = 66; // kSmNoWait, and somebody has the semaphore

constexpr UInt32 kSmNoWait = 1; // sm_p option bit 0

// The record that a semaphore identifier designates.
struct SMCB {
    UInt32 signature; // the four characters "SEMA" once the semaphore is valid
    char name[4];
    pthread_t thread;   // the thread that created it
    Int32 reentercount; // always 0; nothing reads it
    pthread_mutex_t mutex;
    SMCB *next; // of the deleted ones
};

constexpr UInt32 kSmSignature = FourCharacters("SEMA");

// Returns the record of a semaphore, or null if the identifier belongs to no semaphore.
inline SMCB *FindSemaphore(UInt32 smid)
{
    auto *smcb = low_pointer<SMCB>(smid);
    return smcb != nullptr && smcb->signature == kSmSignature ? smcb : nullptr;
}

// Creates a semaphore. With count 0 the caller has it already; with any other count it is free. Four characters of name
// are kept; name may be null. flags are ignored.
// 0            created. The identifier is in *smid_out, unless smid_out is null.
// kSmNoMemory  no memory. Nothing has changed.
UInt32 sm_create(const char *name, UInt32 count, UInt32 flags, UInt32 *smid_out);

// Takes the semaphore. With kSmNoWait in opt it does not wait. Otherwise it waits without limit, whatever max_wait
// says.
// 0                the caller has it.
// kSmNotFound      there is no such semaphore.
// kSmNotAvailable  kSmNoWait, and somebody has it.
// Taking and giving back are inline, because another call costs a quarter of an uncontended lock.
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

// Gives the semaphore back. Returns 0, or kSmNotFound if there is no such semaphore.
inline UInt32 sm_v(UInt32 smid)
{
    SMCB *smcb = FindSemaphore(smid);
    if (smcb == nullptr)
        return kSmNotFound;
    os_assert(pthread_mutex_unlock(&smcb->mutex) == 0, "pthread_mutex_unlock(&smcb->mutex) == 0");
    return 0;
}

// Destroys the semaphore. Nobody may have it or wait for it. Returns 0. Returns kSmNotFound if there is no such
// semaphore, also when it was deleted before.
UInt32 sm_delete(UInt32 smid);

// The same as sm_p without a limit of the wait, and as sm_v.
UInt32 rsm_p(UInt32 smid, UInt32 opt);
UInt32 rsm_v(UInt32 smid);

// Takes a semaphore for the length of a scope. The destructor is also the cancellation clean-up.
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
    UInt32 result() const { return result_; } // of sm_p. Not 0: the semaphore is not held

private:
    UInt32 smid_;
    UInt32 result_;
};
