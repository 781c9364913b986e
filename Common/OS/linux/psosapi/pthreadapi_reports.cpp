#include "Common/OS/linux/mutexhold.h"
#include "Common/OS/linux/oslinux.h"
#include "Common/OS/linux/psosapi/pthreadapi_inner.h"

#include <cstdio>
#include <cstring>

namespace
{

constexpr UInt32 kMaxTasksDumped = 200;

// Processor time in clock ticks, from a stat file of /proc; zeros when it cannot be read.
void ReadProcessorTime(Int32 kernelId, Int32 *user, Int32 *system)
{
    const CancelOffHold hold;
    char path[64];
    char text[1024];
    std::snprintf(path, sizeof path, gLibPThreadNPTL == 1 ? "/proc/self/task/%d/stat" : "/proc/%d/stat", kernelId);
    *user = *system = 0;
    std::FILE *file = std::fopen(path, "r");
    if (file == nullptr)
        return;
    text[std::fread(text, 1, sizeof text - 1, file)] = '\0';
    std::fclose(file);
    // Fields 14 and 15. Field 2 is a name in parentheses. It may hold parentheses itself, so the last one counts.
    const char *end = std::strrchr(text, ')');
    if (end == nullptr || std::sscanf(end, ") %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %d %d", user, system) != 2)
        *user = *system = 0;
}

Int32 KernelId(const TCB *tcb)
{
    return gLibPThreadNPTL == 1 ? tcb->tid : tcb->pid;
}

// The data of a task in the usage report.
struct UsageT {
    UInt32 serial, id, priority;
    char name[4];
    Int32 kernelId, user, system;
};

// Goes on to the next task; false when there is none. No lock is held between two tasks.
bool NextUsage(UsageT *usage)
{
    const MutexHold hold(&tcblistmutex);
    const TCB *tcb = FindFromLocked(usage->serial + 1);
    if (tcb == nullptr)
        return false;
    *usage = {tcb->serial, low_id(tcb), tcb->priority, {}, KernelId(tcb), tcb->usrtime, tcb->systime};
    std::memcpy(usage->name, tcb->taskname, sizeof usage->name);
    return true;
}

} // namespace

void osTaskDump()
{
    struct RowT {
        UInt32 id;
        char name[5];
        UInt32 priority;
        Int32 kernelId;
    } rows[kMaxTasksDumped];
    UInt32 count = 0;
    {
        const MutexHold hold(&tcblistmutex);
        for (const TCB *tcb = tcblist; tcb != nullptr && count < kMaxTasksDumped; tcb = tcb->next, count++) {
            rows[count] = {low_id(tcb), {}, tcb->priority, KernelId(tcb)};
            std::memcpy(rows[count].name, tcb->taskname, sizeof tcb->taskname);
        }
    }
    std::printf("T[%d] Task:  ID    Name  Priority PID\n", static_cast<Int32>(GetProcessorNum()));
    for (UInt32 i = 0; i < count; i++)
        std::printf("T[%d]    %08x  %4s    %3d    %3d\n", static_cast<Int32>(GetProcessorNum()), rows[i].id,
                    rows[i].name, static_cast<Int32>(rows[i].priority), rows[i].kernelId);
}

void osTaskUsage()
{
    std::puts("TaskID     Name  Pri Usage");
    std::puts("--------------------------");
    UsageT usage = {};
    while (NextUsage(&usage)) {
        Int32 user = 0;
        Int32 system = 0;
        ReadProcessorTime(usage.kernelId, &user, &system);
        std::printf("%08x   %4.4s  %3u %5d\n", usage.id, usage.name, usage.priority,
                    user - usage.user + system - usage.system);
        const MutexHold hold(&tcblistmutex);
        if (TCB *tcb = FindSerialLocked(usage.serial); tcb != nullptr) {
            tcb->usrtime = user;
            tcb->systime = system;
        }
    }
}
