// Runs pieces of a test as tasks.
#pragma once

#include "Common/OS/linux/mutexhold.h"
#include "Common/OS/linux/psosapi/pthreadapi.h"
#include "Common/OS/linux/psosapi/ptimer.h"
#include "bench/standin/fullpipe.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <deque>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <thread>

// Starts a created task that runs body. Only the test's own thread calls this.
inline void StartBody(UInt32 tid, std::function<void()> body)
{
    // Tasks may outlive the test, so their bodies are never freed. Two words carry the address.
    static auto *bodies = new std::deque<std::function<void()>>;
    bodies->push_back(std::move(body));
    const UInt64 address = reinterpret_cast<std::uintptr_t>(&bodies->back());
    const UInt32 args[4] = {static_cast<UInt32>(address >> 32), static_cast<UInt32>(address), 0, 0};
    const auto run = [](UInt32 high, UInt32 low, UInt32, UInt32) {
        (*reinterpret_cast<std::function<void()> *>(static_cast<std::uintptr_t>(UInt64{high} << 32 | low)))();
    };
    EXPECT_EQ(t_start(tid, 0, run, args), 0u);
}

// Creates a task that is not started.
inline UInt32 NewTask(const char *name, UInt32 priority = 1)
{
    UInt32 tid = 0;
    EXPECT_EQ(t_create(name, priority, 0, 0, 0, &tid), 0u);
    return tid;
}

// Creates and starts a task that runs body.
inline UInt32 StartTask(const char *name, std::function<void()> body)
{
    const UInt32 tid = NewTask(name, 10);
    StartBody(tid, std::move(body));
    return tid;
}

// Waits until a condition holds, ten seconds at most.
inline bool Eventually(const std::function<bool()> &condition)
{
    for (int i = 0; i < 10000 && !condition(); i++)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return condition();
}

// The number of tasks without the flush task, which starts with the first log line.
inline int NumTasks()
{
    pthread_mutex_lock(&tcblistmutex);
    int count = 0;
    for (const TCB *tcb = tcblist; tcb != nullptr; tcb = tcb->next)
        count += std::strcmp(tcb->taskname, "csyn") != 0 ? 1 : 0;
    pthread_mutex_unlock(&tcblistmutex);
    return count;
}

// A timer that is not in the pool stops the program.
inline void TimersAreFree()
{
    UInt32 pool[kMaxTimers];
    for (UInt32 &tmid : pool)
        tm_callback_after(
            100000, &tmid, [](void *) { return 0; }, nullptr);
    std::for_each(pool, std::end(pool), tm_cancel);
}

// What work prints on standard output.
inline std::string Printed(const std::function<void()> &work)
{
    testing::internal::CaptureStdout();
    work();
    return testing::internal::GetCapturedStdout();
}

// A thread that prints waits for a pipe that is full. Nobody else waits for that thread.
inline void PrintWhileOthersWork(int output, void (*print)(), const std::function<void()> &work)
{
    std::fflush(stdout);
    const bench::FullPipe full(output);
    std::atomic<bool> printed = false, worked = false;
    const std::jthread printing([&] { print(), printed = true; });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    const std::jthread working([&] { work(), worked = true; });
    EXPECT_TRUE(Eventually([&] { return worked.load(); })) << output;
    EXPECT_FALSE(printed);
    EXPECT_TRUE(Eventually([&] { return full.Drain(), printed.load(); }));
    std::fflush(stdout);
}

inline std::chrono::milliseconds::rep MillisecondsOf(const std::function<void()> &work)
{
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count();
}
