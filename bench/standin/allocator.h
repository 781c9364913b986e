// An allocator that fails when it is asked to. It stands before the calls of our code to malloc, calloc, low_calloc,
// fopen, popen, opendir, pthread_create and pthread_mutex_init, and before those that give back what these returned.
// What the C library allocates within its own calls does not come here.
//
// Owner:   the process. A program that links this library has it from its start on.
#pragma once

#include <atomic>
#include <pthread.h>

namespace allocator
{

extern std::atomic<int> live; // blocks and streams that nobody has given back yet; records that are kept do not count
extern int made, failing;     // number of counted allocations so far, and the ordinal of the one that fails
extern thread_local bool counted; // whether this thread's allocations count now

// pthread_create as the C library has it. It neither counts nor fails.
int CreateThread(pthread_t *thread, void *(*start)(void *));

} // namespace allocator
