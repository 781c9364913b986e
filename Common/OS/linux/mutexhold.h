// Mutexes with priority inheritance, and a mutex held for the length of a scope. Deleting a task cancels its thread,
// and a cancelled thread unwinds through its scopes: the destructor is the cancellation clean-up as well as the
// ordinary release.
#pragma once

#include <pthread.h>

// Creates a mutex with priority inheritance. Returns the result of pthread_mutex_init.
inline int InitPriorityMutex(pthread_mutex_t *mutex, int type = PTHREAD_MUTEX_DEFAULT)
{
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, type);
    pthread_mutexattr_setprotocol(&attributes, PTHREAD_PRIO_INHERIT);
    const int result = pthread_mutex_init(mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
    return result;
}

class MutexHold
{
public:
    explicit MutexHold(pthread_mutex_t *mutex) : mutex_(mutex) { pthread_mutex_lock(mutex_); }
    ~MutexHold() { pthread_mutex_unlock(mutex_); }
    MutexHold(const MutexHold &) = delete;
    MutexHold &operator=(const MutexHold &) = delete;

private:
    pthread_mutex_t *mutex_;
};
