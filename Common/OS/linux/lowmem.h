// Memory that a 32-bit identifier can designate. Tasks, timers, semaphores, trees and devices are
// known by the 32-bit address of their record. On a 32-bit machine that is a plain cast; on a
// 64-bit host such records come from one region below 4 GiB.
// Locking: safe from any thread; no call here is a cancellation point.
#pragma once

#include "Common/types.h"

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
