#include "Common/OS/linux/psosapi/ptimer.h"

#include "tests/tasks.h"

#include <ctime>

namespace
{

std::atomic<int> calls[2];
std::atomic<int> order;

int CountOnce(void *which)
{
    calls[*static_cast<int *>(which)]++;
    return 0;
}

TEST(Sleep, LastsAtLeastItsTicks)
{
    EXPECT_GE(MillisecondsOf([] { tm_wkafter(125); }), 1250);
    EXPECT_GE(MillisecondsOf([] { udelay(1030000); }), 1030);
    EXPECT_LT(MillisecondsOf([] { tm_wkafter(0); }), 1000);
}

TEST(Timers, OneShotFiresOnceInOrderAndIsBackInThePool)
{
    static int first = 0, second = 1;
    const auto append = [](void *which) {
        order = order * 10 + *static_cast<int *>(which) + 1;
        return 0;
    };
    UInt32 tmid = 0;
    for (int round = 0; round < 3; round++) { // more than the pool holds in all
        const UInt32 now = gEpochMillisecs;
        order = 0;
        tm_callback_after(3, &tmid, append, &first);
        for (UInt32 i = 0; i < kMaxTimers - 2; i++)
            tm_callback_after(4, &tmid, CountOnce, &first);
        tm_callback_after(3, &tmid, append, &second);
        ASSERT_TRUE(Eventually([&] { return calls[0] == (round + 1) * static_cast<int>(kMaxTimers - 2); }));
        EXPECT_TRUE(Eventually([] { return order == 12; })) << order;
        EXPECT_GE(gEpochMillisecs - now, 30u);
        const UInt32 fired = gEpochMillisecs;
        ASSERT_TRUE(Eventually([&] { return gEpochMillisecs - fired >= 20; })); // blocks go back after the pass
    }
}

TEST(Timers, RepeatUntilCancelledAndZeroTicksNeverFire)
{
    static std::atomic<int> runs = 0;
    static int never = 1;
    UInt32 repeating = 0, zero = 0;
    tm_callback_after(0, &zero, CountOnce, &never);
    tm_callback_after(
        2, &repeating,
        [](void *) {
            runs++;
            return 1;
        },
        nullptr);
    EXPECT_TRUE(Eventually([] { return runs >= 5; }));
    EXPECT_EQ(tm_cancel(repeating), 0u);
    const int after = runs;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(runs, after);
    EXPECT_EQ(calls[never], 0);
    EXPECT_EQ(tm_cancel(zero), 0u);
    testing::internal::CaptureStdout();
    EXPECT_EQ(tm_cancel(repeating), 0u);
    char text[64];
    std::snprintf(text, sizeof text, "RemoveTimer: %p not found\n", low_pointer<void>(repeating));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), text);
}

TEST(Timers, SendEventsToTheirTask)
{
    std::atomic<int> every = 0, once = 0;
    std::atomic<bool> done = false;
    StartTask("evnt", [&] {
        UInt32 tmid = 0, events = 0, repeating = 0;
        tm_evafter(4, 0x10, &tmid);
        tm_evevery(2, 0x20, &repeating);
        while (every < 5 && ev_receive(0x30, kEvAny, 200, &events) == 0) {
            every += (events & 0x20) != 0;
            once += (events & 0x10) != 0;
        }
        tm_cancel(repeating);
        done = true;
    });
    EXPECT_TRUE(Eventually([&] { return done.load(); }));
    EXPECT_EQ(every, 5);
    EXPECT_EQ(once, 1);
}

TEST(Timers, FirstUseBySeveralThreadsStartsOneTimerTask)
{
    static int index = 0;
    std::atomic<bool> go = false;
    std::thread threads[8];
    for (std::thread &thread : threads)
        thread = std::thread([&] {
            while (!go)
                std::this_thread::yield();
            UInt32 tmid = 0;
            tm_callback_after(1, &tmid, CountOnce, &index);
        });
    go = true;
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_TRUE(Eventually([] { return calls[0] == 8; }));
    EXPECT_EQ(NumTasks(), 1);
    EXPECT_STREQ(task_name(low_id(tcblist)), "tmtk");
}

TEST(TimersDeathTest, ThePoolEndsAtFifty)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto start = [](UInt32 count) {
        static int index = 0;
        UInt32 tmid = 0;
        for (UInt32 i = 0; i < count; i++)
            tm_callback_after(100000, &tmid, CountOnce, &index);
    };
    start(kMaxTimers);
    EXPECT_DEATH(start(kMaxTimers + 1), "Assertion failed: pTimer, file Common/OS/linux/psosapi/ptimer.cpp");
}

TEST(Clock, CountsMonotonicMilliseconds)
{
    timespec before{}, after{};
    clock_gettime(CLOCK_MONOTONIC, &before);
    const UInt32 cycles = CYCLES();
    UInt32 stored = 0;
    const UInt32 now = millitime(&stored);
    clock_gettime(CLOCK_MONOTONIC, &after);
    const auto milliseconds = [](const timespec &time) {
        return static_cast<UInt32>(static_cast<UInt64>(time.tv_sec) * 1000 +
                                   static_cast<UInt64>(time.tv_nsec) / 1000000);
    };
    EXPECT_TRUE(stored == now && millitime(nullptr) >= now);
    EXPECT_LE(now - milliseconds(before), milliseconds(after) - milliseconds(before));
    EXPECT_LE(GetTickCountLinux() - now / 10, 100u);
    EXPECT_LE(RealTime() - now / 1000, 2u);
    EXPECT_NE(CYCLES(), cycles);
    EXPECT_EQ(GetMillisecondsPerTick(), 10u);
    EXPECT_EQ(GetProcessorFrequency(), 66666664.0);
}

} // namespace
