// Mutexes with priority inheritance, and a mutex that is held for the length of a scope. The deletion of a task cancels
// its thread. A cancelled thread unwinds through its scopes. So the destructor is also the cancellation clean-up.
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

// Puts off the cancellation of the calling thread for the length of a scope. There are two uses: work that has to be
// done whole, and cancellation points in a destructor, where a cancellation would end the program.
class CancelOffHold
{
public:
    CancelOffHold() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }
    ~CancelOffHold() { pthread_setcancelstate(before_, nullptr); }
    CancelOffHold(const CancelOffHold &) = delete;
    CancelOffHold &operator=(const CancelOffHold &) = delete;

private:
    int before_ = 0;
};
