#include "Common/OS/linux/mutexhold.h"
#include "Common/OS/linux/oslinux.h"
#include "Common/OS/linux/psosapi/pthreadapi.h"
#include "Common/OS/linux/psosapi/ptimer.h"

extern pthread_mutex_t intsoffmutex; // in oslinux.cpp

namespace
{

void RecreateMutex(pthread_mutex_t *mutex, int type)
{
    pthread_mutex_destroy(mutex);
    InitPriorityMutex(mutex, type);
}

} // namespace

void os_init()
{
    RecreateMutex(&intsoffmutex, PTHREAD_MUTEX_RECURSIVE);
    RecreateMutex(&tmcblistmutex, PTHREAD_MUTEX_DEFAULT);
    RecreateMutex(&tcblistmutex, PTHREAD_MUTEX_DEFAULT);
}
