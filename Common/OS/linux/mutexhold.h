// Holds a mutex for the length of a scope. Deleting a task cancels its thread, and a cancelled
// thread unwinds through its scopes: the destructor is the cancellation clean-up as well as the
// ordinary release.
#pragma once

#include <pthread.h>

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
