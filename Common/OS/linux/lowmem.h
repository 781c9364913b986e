// Memory with addresses that fit in a 32-bit identifier. Tasks, timers, semaphores, trees and devices are known by the
// 32-bit address of their record. On a 32-bit machine an identifier is a plain cast. On a 64-bit host the records come
// from one region below 4 GiB.
// Locking: any thread may call. No call is a cancellation point.
#pragma once

#include "Common/OS/linux/mutexhold.h"
#include "Common/types.h"

#include <utility>

// Returns size zeroed bytes, aligned for any type. The caller owns them and gives them to low_free.
// Returns null if there is no memory. A 64-bit host has 16 MiB in all, and at most 1 MiB less 16 bytes for one block.
void *low_calloc(UInt32 size);

// Gives a block back. Null does nothing.
void low_free(void *block);

// Returns the identifier of a record. An address that does not fit in 32 bits stops the program.
UInt32 low_id(const void *record);

// Returns the record of an identifier. The identifier is not checked.
template <class Record> Record *low_pointer(UInt32 id)
{
    return reinterpret_cast<Record *>(static_cast<std::uintptr_t>(id));
}

// Returns the low 32 bits of an address, for messages that print an address with "%x".
template <class Pointer> UInt32 AddressWord(Pointer *pointer)
{
    return static_cast<UInt32>(reinterpret_cast<std::uintptr_t>(pointer));
}

// Records that were given up while somebody may still hold their identifier. They come from low_calloc. Each record
// keeps its contents and its type. It is used again only after 1024 more were given up. Its memory is never freed.
// Record has a member next, which belongs to the list.
// Locking: any thread may call. No call is a cancellation point.
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
    // Returns the record that was given up first. Returns null if fewer than 1024 were given up after it.
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
