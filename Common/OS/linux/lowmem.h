// Memory that a 32-bit identifier can designate. Tasks, timers, semaphores, trees and devices are
// known by the 32-bit address of their record. On a 32-bit machine that is a plain cast; on a
// 64-bit host such records come from one region below 4 GiB.
// Locking: safe from any thread; no call here is a cancellation point.
#pragma once

#include "Common/OS/linux/mutexhold.h"
#include "Common/types.h"

#include <utility>

// Returns size zeroed bytes, aligned for any type, or null when there is no memory left (64-bit
// hosts: when the region of 16 MiB is used up, or for more than 1 MiB less 16 bytes). The caller owns
// the block and gives it to low_free.
void *low_calloc(UInt32 size);

// Gives a block back; null is ignored.
void low_free(void *block);

// The identifier of a record. An address that does not fit in 32 bits stops the program.
UInt32 low_id(const void *record);

// The record that an identifier designates. Identifiers are not checked.
template <class Record> Record *low_pointer(UInt32 id)
{
    return reinterpret_cast<Record *>(static_cast<std::uintptr_t>(id));
}

// The low 32 bits of an address, for messages that print one with "%x".
template <class Pointer> UInt32 AddressWord(Pointer *pointer)
{
    return static_cast<UInt32>(reinterpret_cast<std::uintptr_t>(pointer));
}

// Records from low_calloc that were given up while somebody may still hold their identifier. Each stays what it was,
// and is taken for another one only when 1024 more were given up after it. Their memory is never freed.
// Record has a member next, which is the list's.
// Locking: safe from any thread; no call is a cancellation point.
template <class Record> class RetiredRecords
{
public:
    void Add(Record *record)
    {
        const MutexHold hold(&mutex_);
        record->next = nullptr;
        *end_ = record;
        end_ = &record->next;
        count_++;
    }
    // The record that was given up first, or null when it is too early for it.
    Record *Take()
    {
        const MutexHold hold(&mutex_);
        if (count_ <= kKept)
            return nullptr;
        count_--;
        return std::exchange(first_, first_->next);
    }

private:
    static constexpr UInt32 kKept = 1024;
    pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
    UInt32 count_ = 0;
    Record *first_ = nullptr;
    Record **end_ = &first_;
};
