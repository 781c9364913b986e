#include "Common/OS/linux/psosapi/ptimer.h"

#include "Common/OS/linux/lowmem.h"
#include "Common/OS/linux/mutexhold.h"
#include "Common/OS/linux/psosapi/pthreadapi.h"
#include "Common/OS/osassert.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <string_view>
#include <sys/mman.h>
#include <sys/select.h>
#include <unistd.h>

pthread_mutex_t tmcblistmutex = PTHREAD_MUTEX_INITIALIZER;
std::atomic<UInt32> gEpochMillisecs;
TMCB *TimerContBlocks; // the pool, kMaxTimers blocks
TMCB *freetimerList;   // a stack
TMCB *timerList;       // in the order the timers were started
std::atomic<UInt32> timerid;
Int32 timesrun;           // below 0: so many passes do nothing
volatile rtclk8349 *rtcp; // null: this machine has no such clock

namespace
{

constexpr UInt32 kMillisecondsPerTick = 10;
constexpr UInt32 kMicrosecondsPerTick = 1000 * kMillisecondsPerTick;
constexpr UInt32 kTicksPerSecond = 1000 / kMillisecondsPerTick;
constexpr UInt32 kMicrosecondsPerSecond = 1000000;
constexpr UInt32 kTimerTaskPriority = 66;

pthread_mutex_t startMutex = PTHREAD_MUTEX_INITIALIZER; // the first use
thread_local bool inCallback;

void SleepMicroseconds(UInt32 seconds, UInt32 microseconds)
{
    timeval time{static_cast<time_t>(seconds), static_cast<suseconds_t>(microseconds)};
    select(0, nullptr, nullptr, nullptr, &time);
}

// ---- The pool and the running list

void BuildPool()
{
    TimerContBlocks = static_cast<TMCB *>(low_calloc(kMaxTimers * sizeof(TMCB)));
    os_assert(TimerContBlocks != nullptr, "TimerContBlocks");
    for (UInt32 i = 0; i + 1 < kMaxTimers; i++)
        TimerContBlocks[i].next = &TimerContBlocks[i + 1];
    freetimerList = TimerContBlocks;
}

TMCB *AllocTimer()
{
    os_assert(!inCallback, "!inCallback");
    if (timerid == 0)
        StartSystemTimer();
    TMCB *pTimer = nullptr;
    {
        MutexHold hold(&tmcblistmutex);
        pTimer = freetimerList;
        if (pTimer != nullptr)
            freetimerList = pTimer->next;
    }
    os_assert(pTimer != nullptr, "pTimer");
    *pTimer = TMCB{};
    return pTimer;
}

void FreeTimer(TMCB *pTimer)
{
    MutexHold hold(&tmcblistmutex);
    os_assert(pTimer->next == nullptr, "pTimer->next == ((void *)0)");
    const TMCB *pList = freetimerList;
    while (pList != nullptr && pList != pTimer)
        pList = pList->next;
    os_assert(pList == nullptr, "pList == ((void *)0)"); // given back twice
    pTimer->next = freetimerList;
    freetimerList = pTimer;
}

void AddTimer(TMCB *pTimer)
{
    MutexHold hold(&tmcblistmutex);
    TMCB **link = &timerList;
    while (*link != nullptr)
        link = &(*link)->next;
    *link = pTimer;
    pTimer->next = nullptr;
}

// Takes a timer off the running list. Returns false if it is not there, or if same does not accept it.
template <class Same> bool UnlinkTimer(TMCB *pTimer, Same same)
{
    os_assert(!inCallback, "!inCallback");
    MutexHold hold(&tmcblistmutex);
    TMCB **link = &timerList;
    while (*link != nullptr && *link != pTimer)
        link = &(*link)->next;
    if (*link == nullptr || !same(*pTimer))
        return false;
    *link = pTimer->next;
    pTimer->next = nullptr;
    return true;
}

void RemoveTimer(TMCB *pTimer)
{
    if (UnlinkTimer(pTimer, [](const TMCB &) { return true; }))
        FreeTimer(pTimer);
    else
        std::printf("RemoveTimer: %p not found\n", static_cast<void *>(pTimer));
}

UInt32 StartTimer(UInt32 *tmid_out, const TMCB &settings)
{
    os_assert(tmid_out, "tmid_out");
    TMCB *pTimer = AllocTimer();
    *pTimer = settings;
    t_ident(nullptr, 0, &pTimer->taskID);
    AddTimer(pTimer);
    *tmid_out = low_id(pTimer);
    return 0;
}

UInt32 tm_ev(UInt32 ticks, UInt32 origTicks, UInt32 events, UInt32 *tmid_out)
{
    return StartTimer(tmid_out, {0, ticks, origTicks, events, nullptr, nullptr, nullptr});
}

// ---- The timer task

// A timer has reached 0. True: it is to run again.
bool Expire(TMCB *pTimer)
{
    bool again = pTimer->origTicks != 0;
    if (pTimer->cbptr != nullptr) {
        inCallback = true;
        again = pTimer->cbptr(pTimer->pArgs) != 0;
        inCallback = false;
    } else
        ev_send(pTimer->taskID, pTimer->events);
    if (again)
        pTimer->ticks = pTimer->origTicks;
    return again;
}

// Counts every running timer down. Returns those that have run out and do not repeat, in list order. A count of 0
// wraps, so in practice it never runs out.
TMCB *CountDown()
{
    MutexHold hold(&tmcblistmutex);
    TMCB *expired = nullptr;
    TMCB **expiredEnd = &expired;
    for (TMCB **link = &timerList; *link != nullptr;) {
        TMCB *pTimer = *link;
        if (--pTimer->ticks != 0 || Expire(pTimer)) {
            link = &pTimer->next;
            continue;
        }
        *link = pTimer->next;
        pTimer->next = nullptr;
        *expiredEnd = pTimer;
        expiredEnd = &pTimer->next;
    }
    return expired;
}

void timer_dispatch()
{
    if (++timesrun < 1)
        return;
    timesrun = 0;
    gEpochMillisecs += kMillisecondsPerTick;
    for (TMCB *pTimer = CountDown(); pTimer != nullptr;) {
        TMCB *next = pTimer->next;
        pTimer->next = nullptr;
        FreeTimer(pTimer);
        pTimer = next;
    }
}

// Deliberate: the period is a tick plus the time of a pass. Nothing makes up for the drift.
void TimerTask(UInt32, UInt32, UInt32, UInt32)
{
    for (;;) {
        timer_dispatch();
        SleepMicroseconds(0, kMicrosecondsPerTick);
    }
}

// ---- The millisecond clock

constexpr off_t kImmrBase = static_cast<off_t>(0xE0000000);
constexpr UInt32 kRtcOffset = 0x300;
constexpr UInt32 kRtcPrescaler = 266666; // one count per millisecond
constexpr UInt32 kRtcEnable = 0x80;

#ifdef __powerpc__
constexpr bool kPowerPc = true;
#else
constexpr bool kPowerPc = false;
#endif

pthread_once_t rtcpOnce = PTHREAD_ONCE_INIT;

// Whether a file of the kernel's names the processor's family, in capitals or not. Texts of the device tree end in
// zeros.
bool NamesMpc8349(const char *path)
{
    constexpr std::string_view kFamily = "mpc834";
    char text[4096];
    std::FILE *file = std::fopen(path, "r");
    if (file == nullptr)
        return false;
    char *end = text + std::fread(text, 1, sizeof text, file);
    std::fclose(file);
    return std::search(text, end, kFamily.begin(), kFamily.end(),
                       [](char a, char b) { return std::tolower(static_cast<UInt8>(a)) == b; }) != end;
}

bool ProcessorIsMpc8349()
{
    constexpr const char *kFiles[] = {
        "/proc/cpuinfo", "/proc/device-tree/compatible", "/proc/device-tree/model",
        "/proc/device-tree/pci@e0008500/compatible", // the processor's own bridge, whatever the board is called
    };
    return std::any_of(std::begin(kFiles), std::end(kFiles), NamesMpc8349);
}

// Maps the clock and starts it. On any other machine no physical memory is touched. rtcp then stays null, as it does if
// the mapping fails.
void init_rtcp()
{
    const CancelOffHold hold;
    if (!kPowerPc || !ProcessorIsMpc8349())
        return;
    const int fd = open("/dev/mem", O_RDWR);
    if (fd < 0)
        return;
    void *page = mmap(nullptr, static_cast<size_t>(getpagesize()), PROT_READ | PROT_WRITE, MAP_SHARED, fd, kImmrBase);
    close(fd);
    if (page == MAP_FAILED)
        return;
    os_assert(page != nullptr, "rtcp > 0");
    rtcp = reinterpret_cast<volatile rtclk8349 *>(static_cast<char *>(page) + kRtcOffset);
    rtcp->psr = kRtcPrescaler;
    rtcp->ldr = 0;
    rtcp->cnr = kRtcEnable;
}

} // namespace

bool tm_in_callback()
{
    return inCallback;
}

void StartSystemTimer()
{
    MutexHold hold(&startMutex);
    if (timerid != 0)
        return;
    if (TimerContBlocks == nullptr)
        BuildPool();
    static UInt32 tid; // created, and to be started by the next use if it could not be by this one
    if (tid == 0 && t_create("tmtk", kTimerTaskPriority, 0, 0, 0, &tid) != 0)
        return;
    if (t_start(tid, 0, TimerTask, nullptr) == 0)
        timerid = tid;
}

UInt32 tm_wkafter(UInt32 ticks)
{
    if (ticks != 0)
        SleepMicroseconds(ticks / kTicksPerSecond, ticks % kTicksPerSecond * kMicrosecondsPerTick);
    return 0;
}

void udelay(UInt32 microseconds)
{
    SleepMicroseconds(microseconds / kMicrosecondsPerSecond, microseconds % kMicrosecondsPerSecond);
}

UInt32 tm_callback_after(UInt32 ticks, UInt32 *tmid_out, tm_callback_ptr callback, void *arg)
{
    os_assert(callback, "callback");
    return StartTimer(tmid_out, {0, ticks, ticks, 0, callback, arg, nullptr});
}

UInt32 tm_evafter(UInt32 ticks, UInt32 events, UInt32 *tmid_out)
{
    return tm_ev(ticks, 0, events, tmid_out);
}

UInt32 tm_evevery(UInt32 ticks, UInt32 events, UInt32 *tmid_out)
{
    return tm_ev(ticks, ticks, events, tmid_out);
}

UInt32 tm_cancel(UInt32 tmid)
{
    RemoveTimer(low_pointer<TMCB>(tmid));
    return 0;
}

void tm_cancel_callback(UInt32 tmid, tm_callback_ptr callback, const void *arg)
{
    TMCB *pTimer = low_pointer<TMCB>(tmid);
    if (UnlinkTimer(pTimer, [=](const TMCB &timer) { return timer.cbptr == callback && timer.pArgs == arg; }))
        FreeTimer(pTimer);
}

UInt32 RealTimeMilliSeconds()
{
    pthread_once(&rtcpOnce, init_rtcp);
    if (rtcp != nullptr)
        return rtcp->ctr;
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<UInt32>(static_cast<UInt64>(now.tv_sec) * 1000 + static_cast<UInt64>(now.tv_nsec) / 1000000);
}

UInt32 millitime(UInt32 *out)
{
    const UInt32 now = RealTimeMilliSeconds();
    if (out != nullptr)
        *out = now;
    return now;
}

UInt32 GetTickCountLinux()
{
    return RealTimeMilliSeconds() / kMillisecondsPerTick;
}

UInt32 RealTime()
{
    return RealTimeMilliSeconds() / 1000;
}

UInt32 GetMillisecondsPerTick()
{
    return kMillisecondsPerTick;
}

double GetProcessorFrequency()
{
    return 66666664.0;
}

UInt32 CYCLES()
{
#if defined(__powerpc__)
    return static_cast<UInt32>(__builtin_ppc_get_timebase());
#elif defined(__x86_64__) || defined(__i386__)
    return static_cast<UInt32>(__builtin_ia32_rdtsc());
#else
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<UInt32>(now.tv_nsec);
#endif
}
