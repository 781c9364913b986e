// Tasks, events, timers, semaphores and deferred calls all at once, then the log's ring at its ends: each for
// STRESS_SECONDS or 1, from STRESS_SEED or the clock.
#include "Common/OS/linux/psosapi/semaphore.h"
#include "Common/framework/config.h"
#include "bench/standin/folders.h"
#include "tests/logwriter.h"

#include <ctime>
#include <sstream>
#include <utility>

namespace
{

UInt32 Setting(const char *name, std::time_t initial)
{
    const char *text = std::getenv(name);
    return static_cast<UInt32>(text != nullptr ? std::atoi(text) : initial);
}
const UInt32 seed = Setting("STRESS_SEED", std::time(nullptr));
const std::chrono::milliseconds length(1000 * Setting("STRESS_SECONDS", 1));

constexpr UInt32 kWorkers = 5;
constexpr UInt32 kOnce = 0x1, kAlso = 0x2, kEvery = 0x4, kNever = 0x8, kGo = 0x20, kDone = 0x40, kNoise = 0x80;
constexpr UInt32 kPing = 0x100, kPolled = kPing * 31 | kNoise | kNever | kModDeferredEvent;

struct WorkerT {
    UInt32 tid;
    std::atomic<UInt32> sent[kWorkers], got[kWorkers]; // pings, by sender, one at a time
} workers[kWorkers];
UInt32 semaphore, taken; // taken is the semaphore's
std::atomic<UInt32> takes, busy, calls, ran, events, timers, timeouts, tasks;
std::atomic<bool> over;

// ev_receive, and the events that came.
UInt32 Receive(UInt32 expected, UInt32 wanted, UInt32 flags, UInt32 ticks = 0)
{
    UInt32 came = 0;
    const UInt32 result = ev_receive(wanted, flags, ticks, &came);
    EXPECT_TRUE(result == expected || (result == 0 && (flags & kEvAny) != 0)) << result;
    timeouts += result == kEvTimedOut ? 1 : 0;
    return came;
}

void Poll(UInt32 self, UInt32 flags, UInt32 ticks)
{
    const UInt32 came = Receive(ticks != 0 ? kEvTimedOut : kEvNotPending, kPolled, flags | kEvAny, ticks);
    EXPECT_EQ(came & kNever, 0u) << "a cancelled timer";
    for (UInt32 i = 0; i < kWorkers; i++)
        workers[self].got[i] += came / (kPing << i) & 1;
    if ((came & kModDeferredEvent) != 0)
        ModProcessDeferredFunctions();
}

void TakeSemaphore()
{
    const SemaphoreHold hold(semaphore);
    taken++;
    takes++;
}

void Call(UInt32 self, WorkerT &peer)
{
    TakeSemaphore();
    if (peer.sent[self] == peer.got[self]) {
        peer.sent[self]++;
        events++;
        ev_send(peer.tid, kPing << self);
    }
    if (calls - ran > 300) // there are 384 blocks
        return;
    calls++;
    EXPECT_EQ(ModDeferFunctionCall(
                  peer.tid, [](void *, Int32) { ran++; }, nullptr, 0),
              kNoError);
}

void RunTimers(UInt32 ticks)
{
    UInt32 once = 0, also = 0, every = 0, never = 0;
    Receive(kEvNotPending, kEvery, kEvNoWait); // of the run before
    tm_evafter(1000, kNever, &never);
    tm_evafter(ticks, kOnce, &once);
    tm_evafter(1, kAlso, &also);
    tm_evevery(1, kEvery, &every);
    EXPECT_EQ(Receive(0, kOnce | kAlso, 0), kOnce | kAlso);
    Receive(0, kEvery, 0);
    tm_cancel(never);
    tm_cancel(every);
    Receive(kEvNotPending, kEvery, kEvNoWait | kEvAny); // one more may have come
    timers += 4;
}

void EndByItself(UInt32 parent, UInt32, UInt32, UInt32)
{
    Receive(0, kGo, 0);
    ev_send(parent, kDone);
}

void NeverEnd(UInt32 parent, UInt32, UInt32, UInt32)
{
    for (;; Receive(kEvTimedOut, kGo, 0, 1)) {
        ev_send(parent, kNoise);
        TakeSemaphore();
        logdebug("test", "child\n");
    }
}

void RunChild(UInt32 parent, UInt32 kind)
{
    UInt32 tid = 0;
    const UInt32 args[4] = {parent};
    EXPECT_EQ(t_create("chld", 10, 0, 0, 0, &tid), 0u);
    EXPECT_EQ(kind == 0 ? 0 : t_start(tid, 0, kind == 1 ? EndByItself : NeverEnd, args), 0u);
    tasks++;
    if (kind == 1) {
        ev_send(tid, kGo);
        Receive(0, kDone, 0);
    } else {
        tm_wkafter(kind / 3); // in its start, or later
    }
    t_delete(tid); // which may have ended
}

void Work(UInt32 self)
{
    UInt32 random = seed + self;
    while (!over && !testing::Test::HasFailure()) {
        const auto number = static_cast<UInt32>(rand_r(&random)) / 8;
        const UInt32 detail = number / 256 % 6;
        if (number % 256 == 0)
            RunTimers(1 + detail % 3);
        else if (number % 256 == 1)
            Poll(self, 0, 1 + detail % 2);
        else if (number % 256 < 4)
            RunChild(workers[self].tid, detail);
        else
            Call(self, workers[detail % kWorkers]);
        Poll(self, kEvNoWait, 0);
    }
    busy--;
    WorkerT &own = workers[self];
    const auto settled = [&] { return calls == ran && std::equal(own.sent, std::end(own.sent), own.got); };
    EXPECT_TRUE(Eventually([&] { return Poll(self, kEvNoWait, 0), busy == 0 && settled(); }));
}

long NumThreads()
{
    return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
}

TEST(TaskStress, LosesNothing)
{
    const ConfigFolders folders;
    gLibPThreadNPTL = 1;
    ConfigInit();
    StartSystemTimer();
    sm_create("strs", 1, 0, &semaphore);
    const long before = NumThreads();
    busy = kWorkers;
    for (WorkerT &worker : workers)
        t_create("wrkr", 10, 0, 0, 0, &worker.tid);
    for (UInt32 i = 0; i < kWorkers; i++)
        StartBody(workers[i].tid, [i] { Work(i); });
    std::this_thread::sleep_for(length);
    over = true;
    EXPECT_TRUE(Eventually([=] { return NumTasks() == 1 && NumThreads() == before; })) << "the timers' task stays";
    EXPECT_EQ(taken, takes);
    TimersAreFree();
    std::printf("taskstress: seed %u, %u events, %u timers, %u time-outs, %u tasks, %u takes, %u calls\n", seed,
                events.load(), timers.load(), timeouts.load(), tasks.load(), takes.load(), ran.load());
}

constexpr UInt32 kRing = 0x80000, kAdders = 4;

struct RingStress {
    LogWriter writer{kLogFormatLevel};
    UInt32 longest = 400, at = 0, marks = 0; // at: about where the ring's tail is
    UInt32 added[kAdders] = {}, next[kAdders] = {};
    UInt32 lines = 0, missing = 0, announced = 0; // announced: on standard error

    // A line that tells itself.
    std::string Line(UInt32 adder, UInt32 number) const
    {
        const std::string text = "INFO  pc[0]: " + std::to_string(adder) + " " + std::to_string(number) + " ";
        return text + std::string((number * 31 + adder) % longest, static_cast<char>('a' + number % 26)) + "\n";
    }
    void Add(UInt32 adder, UInt32 bytes)
    {
        for (std::size_t done = 0; done < bytes; added[adder]++) {
            const std::string line = Line(adder, added[adder]);
            syslogAdd(line.c_str(), 0);
            done += line.size();
        }
    }
    bool Mark() // false when the ring was full
    {
        testing::internal::CaptureStderr();
        loginfo(nullptr, "mark %u\n", ++marks);
        return testing::internal::GetCapturedStderr().empty();
    }
    void Check(const std::string &line)
    {
        UInt32 adder = 0, number = 0;
        const auto size = static_cast<UInt32>(line.size() + 2);
        at = at + size > kRing - 2 ? size : at + size;
        if (line == "WARN   pc[0]: SYSLOG QUEUE OVERFLOW" || line == "INFO  pc[0]: mark " + std::to_string(marks))
            return;
        ASSERT_EQ(std::sscanf(line.c_str(), "INFO  pc[0]: %1u %u ", &adder, &number), 2) << line;
        ASSERT_TRUE(line + "\n" == Line(adder % kAdders, number) && number >= next[adder]) << line;
        missing += number - std::exchange(next[adder], number + 1);
        lines++;
    }
    // The adders add so much in all, while the writer is held up at every line, or at one for all the time.
    void Round(UInt32 bytes, bool stopped)
    {
        std::atomic<UInt32> adding = kAdders;
        std::deque<std::jthread> threads;
        testing::internal::CaptureStderr();
        for (UInt32 i = 0; i < kAdders; i++)
            threads.emplace_back([&, i] { Add(i, bytes / kAdders), adding--; });
        for (; adding != 0; funlockfile(stdout)) {
            flockfile(stdout);
            do
                usleep(100);
            while (stopped && adding != 0);
        }
        threads.clear();
        const std::string said = testing::internal::GetCapturedStderr();
        announced += static_cast<UInt32>(std::count(said.begin(), said.end(), '\n'));
        EXPECT_TRUE(Eventually([this, marked = false]() mutable { return marked || (marked = Mark()); }));
        std::istringstream text(writer.Until("mark " + std::to_string(marks) + "\n"));
        EXPECT_EQ(ftruncate(STDOUT_FILENO, 0), 0); // it has been read
        for (std::string line; !testing::Test::HasFailure() && std::getline(text, line);)
            Check(line);
        for (UInt32 i = 0; i < kAdders; i++)
            missing += added[i] - std::exchange(next[i], added[i]);
    }
};

TEST(TaskStress, RingTearsNoLine)
{
    const ConfigFolders folders;
    UInt32 rounds = 0, random = seed;
    RingStress ring;
    const auto goesOn = [end = std::chrono::steady_clock::now()](auto time) {
        return std::chrono::steady_clock::now() < end + time && !testing::Test::HasFailure();
    };
    for (; goesOn(length / 2) || ring.announced == 0; rounds++) {
        const bool overflow = ring.at > kRing / 4 && ring.at < kRing / 4 * 3; // elsewhere it might lap the writer
        ring.Round(overflow ? kRing / 4 * 5 : static_cast<UInt32>(rand_r(&random)) % (kRing / 2), overflow);
        EXPECT_EQ(ring.missing, ring.announced);
    }
#ifndef __SANITIZE_THREAD__ // what the writer copies during a lap is overwritten meanwhile, and thrown away
    ring.longest = kRing / 5;
    for (; goesOn(length) || ring.missing == ring.announced; rounds++)
        ring.Round(kRing * 3, rounds % 2 != 0);
#endif
    std::fprintf(stderr, "ringstress: seed %u, %u rounds, %u lines, %u lost, %u of them without a word\n", seed, rounds,
                 ring.lines, ring.missing, ring.missing - ring.announced);
}

} // namespace
