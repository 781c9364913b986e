// This file is compiled without ThreadSanitizer. It must not use code that is compiled with it in other files, such as
// the C++ library's templates: ThreadSanitizer would see the turns there.
#include "bench/standin/schedule.h"

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <linux/futex.h>
#include <poll.h>
#include <pthread.h>
#include <sys/select.h>
#include <sys/syscall.h>
#include <unistd.h>

#ifdef SCHEDULE_ACCESSES
#include <sanitizer/tsan_interface.h>
#endif

// Of the linker and of the C library. NOLINTNEXTLINE(bugprone-reserved-identifier)
extern "C" char __executable_start, __data_start;

namespace schedule
{

bool refuseThreads;

namespace
{

// Whose turn it is. A part that goes alone hands over to the next phase.
enum PhaseT : int { kNoRun, kFirst, kOther, kBoth };

struct PlayerT {
    unsigned index;
    unsigned order; // 0: goes first
    unsigned stops; // passed in this run
    char *stackEnd;
    unsigned char seen[4096]; // how often, by a hash of the place
};

// Words of a run; the ones that threads wait on are changed by atomic operations.
struct RunT {
    PartT parts[2];
    unsigned first;
    unsigned limit;  // the stop at which the first part waits
    void *places[2]; // by index: the last stop
    const char *calls[2];
    bool waited;
    int phase;
    int number; // of the run
    int over;   // parts that have ended
    int workers;
    int arrived[2]; // by index: who plays an Own part has called Play
} run;

struct TickerT {
    pthread_t thread;
    bool taken;
    int parked;
} ticker;

thread_local PlayerT *player;
thread_local PlayerT own;
constexpr int kSecond = 1000, kRunLimit = 10 * kSecond; // milliseconds

int Load(int *word)
{
    return __atomic_load_n(word, __ATOMIC_SEQ_CST);
}

void Store(int *word, int value)
{
    __atomic_store_n(word, value, __ATOMIC_SEQ_CST);
    syscall(SYS_futex, word, FUTEX_WAKE_PRIVATE, INT_MAX, nullptr, nullptr, 0);
}

// Sleeps until the word is likely to have changed; a millisecond at most.
void Await(int *word, int value)
{
    const timespec limit = {0, 1000000};
    syscall(SYS_futex, word, FUTEX_WAIT_PRIVATE, value, &limit, nullptr, 0);
}

int Milliseconds()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int>(now.tv_sec % 1000000 * kSecond + now.tv_nsec / 1000000);
}

// The thread that calls Take next sees everything that was done before. This is for the ends of a run, where
// ThreadSanitizer may see the order.
void Give()
{
#ifdef SCHEDULE_ACCESSES
    __tsan_release(&run);
#endif
}

void Take()
{
#ifdef SCHEDULE_ACCESSES
    __tsan_acquire(&run);
#endif
}

// Prints addresses for addr2line -e.
void PrintPlace(unsigned index)
{
    std::fprintf(stderr, "schedule: part %u was last at %s, 0x%lx\n", index,
                 run.calls[index] != nullptr ? run.calls[index] : "its start",
                 static_cast<unsigned long>(static_cast<char *>(run.places[index]) - &__executable_start));
}

[[noreturn]] void GiveUp()
{
    std::fprintf(stderr, "schedule: deadlock, part %u first, to its stop %u\n", run.first, run.limit);
    PrintPlace(0);
    PrintPlace(1);
    std::abort();
}

int AlonePhase(unsigned order)
{
    return order == 0 ? kFirst : kOther;
}

bool IsAlone(const PlayerT &self)
{
    return Load(&run.phase) == AlonePhase(self.order);
}

// Ends a phase, unless the other thread has ended it.
void EndPhase(int phase)
{
    if (__atomic_compare_exchange_n(&run.phase, &phase, phase + 1, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST))
        syscall(SYS_futex, &run.phase, FUTEX_WAKE_PRIVATE, INT_MAX, nullptr, nullptr, 0);
}

void AwaitTurn(const PlayerT &self)
{
    for (int phase; (phase = Load(&run.phase)) < AlonePhase(self.order);)
        Await(&run.phase, phase);
}

// Ticks go on while the first part waits.
bool MayTimeOut()
{
    return ticker.taken && run.parts[0].player != Player::Ticker && run.parts[1].player != Player::Ticker;
}

// The part that goes alone cannot go on without the other one.
void CannotGoOn(bool forGood)
{
    if (player == nullptr || !IsAlone(*player))
        return;
    if (player->order == 0 && !forGood)
        return; // the other part has not begun: it waits for a third thread, which will come; else Run ends the phase
    if (player->order == 0)
        run.waited = true;
    EndPhase(AlonePhase(player->order));
}

bool IsNobodyElses(const volatile void *address, const PlayerT &self)
{
    const auto *at = static_cast<const volatile char *>(address);
    return (at >= static_cast<char *>(__builtin_frame_address(0)) && at < self.stackEnd) ||
           (at >= &__executable_start && at < &__data_start);
}

// Whether a place was a stop often enough: the first rounds of a loop are enough. caller called the function with
// place.
bool IsWornOut(void *place, void *caller, PlayerT &self)
{
    constexpr unsigned char kRounds = 3;
    const auto hash = (reinterpret_cast<uintptr_t>(place) * 31 + reinterpret_cast<uintptr_t>(caller)) * 0x9E3779B1u;
    unsigned char &seen = self.seen[hash >> 16 & (sizeof self.seen - 1)];
    return seen == kRounds || ++seen == kRounds;
}

void Stop(const char *call, void *place)
{
    PlayerT *self = player;
    if (self == nullptr)
        return;
    run.places[self->index] = place;
    run.calls[self->index] = call;
    if (self->order != 0 || Load(&run.phase) != kFirst || ++self->stops != run.limit)
        return;
    EndPhase(kFirst);
    while (Load(&run.phase) == kOther)
        Await(&run.phase, kOther);
}

[[maybe_unused]] void StopAtAccess(const char *call, const volatile void *address, void *place, void *caller)
{
    if (player != nullptr && IsAlone(*player) && !IsNobodyElses(address, *player) && !IsWornOut(place, caller, *player))
        Stop(call, place);
}

void Enter(unsigned index)
{
    if (own.stackEnd == nullptr) {
        pthread_attr_t attributes;
        void *stack = nullptr;
        size_t size = 0;
        pthread_getattr_np(pthread_self(), &attributes);
        pthread_attr_getstack(&attributes, &stack, &size);
        pthread_attr_destroy(&attributes);
        own.stackEnd = static_cast<char *>(stack) + size;
    }
    own.index = index;
    own.order = index == run.first ? 0 : 1;
    own.stops = 0;
    __builtin_memset(own.seen, 0, sizeof own.seen);
    AwaitTurn(own);
    Take();
    player = &own;
}

void Leave()
{
    if (player == nullptr)
        return;
    const PlayerT &self = *player;
    player = nullptr;
    Give();
    if (IsAlone(self)) {
        run.waited = run.waited || self.order == 0;
        EndPhase(AlonePhase(self.order));
    }
    __atomic_fetch_add(&run.over, 1, __ATOMIC_SEQ_CST);
    syscall(SYS_futex, &run.over, FUTEX_WAKE_PRIVATE, INT_MAX, nullptr, nullptr, 0);
}

struct LeaveAtEndT {
    bool used;
    ~LeaveAtEndT() { Leave(); }
};
thread_local LeaveAtEndT leaveAtEnd;

void AwaitRun(unsigned index, Player who, int before)
{
    for (int number; (number = Load(&run.number)) == before || run.parts[index].player != who;)
        Await(&run.number, number);
    while (Load(&run.phase) == kNoRun)
        Await(&run.phase, kNoRun);
}

// Between two passes of the timer task.
void AwaitTick()
{
    thread_local int playedIn = 0;
    Leave();
    Give();
    Store(&ticker.parked, 1);
    for (;;) {
        if (Load(&run.phase) == kNoRun) {
            Await(&run.phase, kNoRun);
            continue;
        }
        Store(&ticker.parked, 0);
        if (Load(&run.phase) != kNoRun)
            break;
        Store(&ticker.parked, 1);
    }
    Take();
    const int number = Load(&run.number);
    for (unsigned index = 0; index < 2; index++)
        if (run.parts[index].player == Player::Ticker && playedIn != number) {
            playedIn = number;
            Enter(index);
            return;
        }
    const timespec pace = {0, 100000};
    syscall(SYS_nanosleep, &pace, nullptr);
}

void EndRun()
{
    Store(&run.phase, kNoRun);
    while (ticker.taken && Load(&ticker.parked) == 0)
        Await(&ticker.parked, 0);
    Take();
}

} // namespace

void AwaitWorkers()
{
    for (int workers; (workers = Load(&run.workers)) < 2;)
        Await(&run.workers, workers);
}

bool Run(const PartT (&parts)[2], unsigned first, unsigned stop)
{
    AwaitWorkers();
    for (unsigned index = 0; index < 2; index++)
        while (parts[index].player == Player::Own && Load(&run.arrived[index]) == 0)
            Await(&run.arrived[index], 0);
    run.parts[0] = parts[0];
    run.parts[1] = parts[1];
    run.first = first;
    run.limit = stop;
    run.waited = false;
    run.over = 0;
    run.places[0] = run.places[1] = nullptr;
    run.calls[0] = run.calls[1] = nullptr;
    Give();
    Store(&run.number, run.number + 1);
    Store(&run.phase, kFirst);
    const int started = Milliseconds();
    for (int over; (over = Load(&run.over)) < 2;) {
        Await(&run.over, over);
        if (Milliseconds() - started > kRunLimit)
            GiveUp();
        if (Milliseconds() - started > kSecond && Load(&run.phase) == kFirst) {
            run.waited = true;
            EndPhase(kFirst);
        }
    }
    EndRun();
    run.arrived[0] = run.arrived[1] = 0;
    return !run.waited;
}

void Work(unsigned index)
{
    __atomic_fetch_add(&run.workers, 1, __ATOMIC_SEQ_CST);
    for (int played = 0;;) {
        AwaitRun(index, Player::Worker, played);
        played = Load(&run.number);
        Enter(index);
        run.parts[index].body();
        Leave();
    }
}

void Play(unsigned index)
{
    leaveAtEnd.used = true;
    Store(&run.arrived[index], 1);
    AwaitRun(index, Player::Own, 0);
    Enter(index);
}

void TakeTicks()
{
    ticker.taken = true;
    while (Load(&ticker.parked) == 0)
        Await(&ticker.parked, 0);
}

} // namespace schedule

// ---- What the linker leads here. NOLINTBEGIN(bugprone-reserved-identifier): the linker makes these names

using schedule::CannotGoOn;
using schedule::Stop;
#ifdef SCHEDULE_ACCESSES
using schedule::StopAtAccess;
#endif

#define WRAPPED(result, name, parameters)                                                                              \
    result __real_##name parameters;                                                                                   \
    result __wrap_##name parameters;                                                                                   \
    result __wrap_##name parameters
#define STOPS(result, name, parameters, arguments)                                                                     \
    WRAPPED(result, name, parameters)                                                                                  \
    {                                                                                                                  \
        Stop(#name, __builtin_return_address(0));                                                                      \
        return __real_##name arguments;                                                                                \
    }
// Calls in which a thread may be cancelled, though not in every C library.
#define STOPS_AND_ENDS(name, parameters, arguments)                                                                    \
    WRAPPED(int, name, parameters)                                                                                     \
    {                                                                                                                  \
        Stop(#name, __builtin_return_address(0));                                                                      \
        pthread_testcancel();                                                                                          \
        return __real_##name arguments;                                                                                \
    }
// There is a stop behind the call, too: the next call may be a read, where a thread can be cancelled.
#define STOPS_TWICE(name)                                                                                              \
    WRAPPED(FILE *, name, (const char *path, const char *mode))                                                        \
    {                                                                                                                  \
        Stop(#name, __builtin_return_address(0));                                                                      \
        FILE *file = __real_##name(path, mode);                                                                        \
        Stop("the end of " #name, __builtin_return_address(0));                                                        \
        return file;                                                                                                   \
    }

extern "C" {

WRAPPED(int, pthread_mutex_lock, (pthread_mutex_t * mutex))
{
    Stop("pthread_mutex_lock", __builtin_return_address(0));
    if (schedule::player == nullptr || !schedule::IsAlone(*schedule::player))
        return __real_pthread_mutex_lock(mutex);
    const int result = pthread_mutex_trylock(mutex);
    if (result != EBUSY)
        return result;
    CannotGoOn(false);
    return __real_pthread_mutex_lock(mutex);
}

WRAPPED(int, pthread_mutex_unlock, (pthread_mutex_t * mutex))
{
    Stop("pthread_mutex_unlock", __builtin_return_address(0));
    const int result = __real_pthread_mutex_unlock(mutex);
    Stop("the end of pthread_mutex_unlock", __builtin_return_address(0));
    return result;
}

WRAPPED(int, pthread_cond_wait, (pthread_cond_t * condition, pthread_mutex_t *mutex))
{
    Stop("pthread_cond_wait", __builtin_return_address(0));
    CannotGoOn(!schedule::MayTimeOut());
    return __real_pthread_cond_wait(condition, mutex);
}

WRAPPED(int, pthread_join, (pthread_t thread, void **result))
{
    Stop("pthread_join", __builtin_return_address(0));
    CannotGoOn(false);
    return __real_pthread_join(thread, result);
}

// The second thread that needs it waits for the first one, which may be at a stop inside.
WRAPPED(int, pthread_once, (pthread_once_t * once, void (*function)()))
{
    static pthread_once_t *volatile underWay[2];
    Stop("pthread_once", __builtin_return_address(0));
    if (schedule::player == nullptr)
        return __real_pthread_once(once, function);
    const unsigned index = schedule::player->index;
    if (underWay[1 - index] == once)
        CannotGoOn(false);
    underWay[index] = once;
    const int result = __real_pthread_once(once, function);
    underWay[index] = nullptr;
    return result;
}

WRAPPED(int, pthread_create, (pthread_t * thread, const pthread_attr_t *attributes, void *(*start)(void *), void *arg))
{
    Stop("pthread_create", __builtin_return_address(0));
    if (schedule::refuseThreads)
        return EAGAIN;
    const int result = __real_pthread_create(thread, attributes, start, arg);
    if (arg != nullptr && __builtin_memcmp(arg, "tmtk", 4) == 0) // a task's record, which begins with its name
        schedule::ticker.thread = *thread;
    return result;
}

WRAPPED(int, select, (int count, fd_set *read, fd_set *write, fd_set *except, timeval *time))
{
    if (schedule::ticker.taken && pthread_equal(pthread_self(), schedule::ticker.thread) != 0) {
        schedule::AwaitTick();
        return 0;
    }
    Stop("select", __builtin_return_address(0));
    CannotGoOn(false);
    return __real_select(count, read, write, except, time);
}

WRAPPED(int, poll, (pollfd * entries, nfds_t count, int limit))
{
    Stop("poll", __builtin_return_address(0));
    CannotGoOn(false);
    return __real_poll(entries, count, limit);
}

WRAPPED(int, open, (const char *path, int flags, ...))
{
    va_list args;
    va_start(args, flags);
    const unsigned mode = (flags & O_CREAT) != 0 ? va_arg(args, unsigned) : 0;
    va_end(args);
    Stop("open", __builtin_return_address(0));
    const int fd = __real_open(path, flags, mode);
    Stop("the end of open", __builtin_return_address(0));
    return fd;
}

STOPS(int, pthread_cond_signal, (pthread_cond_t * condition), (condition))
STOPS(int, pthread_cancel, (pthread_t thread), (thread))
STOPS(int, close, (int fd), (fd))
STOPS_AND_ENDS(pclose, (FILE * file), (file))
STOPS_AND_ENDS(closedir, (DIR * directory), (directory))
STOPS_TWICE(fopen)
STOPS_TWICE(fopen64)
STOPS(int, fclose, (FILE * file), (file))
STOPS(int, rename, (const char *from, const char *to), (from, to))
STOPS(int, unlink, (const char *path), (path))
STOPS(size_t, strlen, (const char *text), (text))
STOPS(void *, memcpy, (void *to, const void *from, size_t size), (to, from, size))

#ifdef SCHEDULE_ACCESSES
#define ACCESS(result, name, parameters, arguments)                                                                    \
    WRAPPED(result, __tsan_##name, parameters)                                                                         \
    {                                                                                                                  \
        StopAtAccess(#name, at, __builtin_return_address(0), __builtin_return_address(1));                             \
        return __real___tsan_##name arguments;                                                                         \
    }
#define ACCESSES(size)                                                                                                 \
    ACCESS(void, read##size, (void *at), (at))                                                                         \
    ACCESS(void, write##size, (void *at), (at))
#define CHANGES(bits, act, result, word)                                                                               \
    ACCESS(result, atomic##bits##_##act, (volatile word * at, word value, int order), (at, value, order))
#define EXCHANGES(bits, act, word)                                                                                     \
    ACCESS(int, atomic##bits##_##act, (volatile word * at, word * expected, word value, int order, int failed),        \
           (at, expected, value, order, failed))
#define ATOMICS(bits, word)                                                                                            \
    ACCESS(word, atomic##bits##_load, (const volatile word *at, int order), (at, order))                               \
    CHANGES(bits, store, void, word)                                                                                   \
    CHANGES(bits, exchange, word, word)                                                                                \
    CHANGES(bits, fetch_add, word, word)                                                                               \
    CHANGES(bits, fetch_sub, word, word)                                                                               \
    CHANGES(bits, fetch_and, word, word)                                                                               \
    CHANGES(bits, fetch_or, word, word)                                                                                \
    EXCHANGES(bits, compare_exchange_strong, word)                                                                     \
    EXCHANGES(bits, compare_exchange_weak, word)

ACCESSES(1)
ACCESSES(2)
ACCESSES(4)
ACCESSES(8)
ACCESSES(16)
ACCESS(void, read_range, (void *at, size_t size), (at, size))
ACCESS(void, write_range, (void *at, size_t size), (at, size))
ATOMICS(8, unsigned char)
ATOMICS(32, unsigned)
ATOMICS(64, unsigned long)
#endif

} // extern "C"
// NOLINTEND(bugprone-reserved-identifier)
