#include "Common/OS/linux/psosapi/ptimer.h"

#include "bench/standin/mpc8349.h"
#include "tests/tasks.h"

#include <ctime>

extern UInt32 timerid;
extern Int32 timesrun;
extern TMCB *TimerContBlocks, *freetimerList, *timerList;
extern volatile rtclk8349 *rtcp;

namespace
{

#ifdef __powerpc__
constexpr bool kPowerPc = true;
#else
constexpr bool kPowerPc = false;
#endif
std::atomic<int> calls[2];
int zeroth = 0;

int CountOnce(void *which)
{
    calls[*static_cast<int *>(which)]++;
    return 0;
}

TEST(Sleep, LastsAtLeastItsTicks)
{
    EXPECT_GE(MillisecondsOf([] { tm_wkafter(125); }), 1250);
    EXPECT_EQ(MillisecondsOf([] { udelay(1030000); }) / 1015, 1) << "the second counts once";
    EXPECT_LT(MillisecondsOf([] { tm_wkafter(0); }), 1000);
}

TEST(Timers, OneShotFiresOnceInOrderAndIsBackInThePool)
{
    static std::vector<int> fired;
    static int first = 1, second = 2;
    const auto append = [](void *which) { return fired.push_back(*static_cast<int *>(which)), 0; };
    UInt32 tmid = 0;
    for (int round = 1; round <= 3; round++) { // more than the pool holds in all
        const UInt32 now = gEpochMillisecs;
        fired.clear();
        tm_callback_after(3, &tmid, append, &first);
        for (UInt32 i = 0; i < kMaxTimers - 2; i++)
            tm_callback_after(4, &tmid, CountOnce, &zeroth);
        tm_callback_after(3, &tmid, append, &second);
        ASSERT_TRUE(Eventually([=] { return calls[0] == round * static_cast<int>(kMaxTimers - 2); }));
        EXPECT_GE(gEpochMillisecs - now, 30u);
        const UInt32 after = gEpochMillisecs;
        ASSERT_TRUE(Eventually([=] { return gEpochMillisecs - after >= 20; })); // blocks go back after the pass
        EXPECT_EQ(fired, (std::vector{1, 2}));
    }
}

TEST(Timers, RepeatUntilCancelledAndZeroTicksNeverFire)
{
    static std::atomic<int> runs = 0;
    static int never = 1;
    UInt32 repeating = 0, zero = 0;
    tm_callback_after(0, &zero, CountOnce, &never);
    tm_callback_after(
        2, &repeating, [](void *) { return runs++, 1; }, nullptr);
    EXPECT_TRUE(Eventually([] { return runs >= 5; }));
    EXPECT_EQ(tm_cancel(repeating), 0u);
    const int after = runs;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(runs, after);
    EXPECT_EQ(calls[never], 0);
    EXPECT_EQ(tm_cancel(zero), 0u);
    char text[64];
    std::snprintf(text, sizeof text, "RemoveTimer: %p not found\n", low_pointer<void>(repeating));
    EXPECT_EQ(Printed([=] { tm_cancel(repeating); }), text);
}

TEST(Timers, KeepTheirStateInReach)
{
    UInt32 tmid = 0;
    EXPECT_EQ(timerid, 0u);
    timesrun = -5; // passes in which nothing happens
    EXPECT_GE(MillisecondsOf([&] {
                  tm_callback_after(1, &tmid, CountOnce, &zeroth);
                  EXPECT_TRUE(Eventually([] { return calls[0] == 1; }));
              }),
              50);
    tm_callback_after(100000, &tmid, CountOnce, &zeroth);
    const MutexHold hold(&tmcblistmutex);
    EXPECT_EQ(low_id(timerList), tmid);
    EXPECT_STREQ(task_name(timerid), "tmtk");
    EXPECT_LT(freetimerList - TimerContBlocks, 50);
}

TEST(TimersDeathTest, ThePoolEndsAtFifty)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto start = [](UInt32 count) {
        UInt32 tmid = 0;
        for (UInt32 i = 0; i < count; i++)
            tm_callback_after(100000, &tmid, CountOnce, &zeroth);
    };
    start(kMaxTimers);
    EXPECT_DEATH(start(kMaxTimers + 1), "Assertion failed: pTimer, file Common/OS/linux/psosapi/ptimer.cpp");
}

UInt32 stored;

TEST(TimersDeathTest, StopOnWhatACallbackMustNotDo)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto run = [](tm_callback_ptr callback) {
        tm_callback_after(1, &stored, callback, nullptr);
        tm_wkafter(200);
    };
    EXPECT_DEATH(run([](void *) { return tm_evafter(1, 1, &stored), 0; }),
                 "failed: !inCallback, .*function AllocTimer");
    EXPECT_DEATH(run([](void *) { return tm_cancel(0), 0; }), "failed: !inCallback, .*function UnlinkTimer");
    EXPECT_DEATH(run([](void *) { return ev_receive(1, 0, 1, &stored), 0; }),
                 "failed: !inCallback, .*function AllocTimer");
    EXPECT_DEATH(run([](void *) { return t_delete(1), 0; }), "failed: !tm_in_callback\\(\\), .*function t_delete");
    EXPECT_DEATH(run(nullptr), "failed: callback,");
    EXPECT_DEATH(tm_evafter(1, 1, nullptr), "failed: tmid_out,");
}

struct MachineCase {
    const char *name, *path;
    std::string text;
    bool isMpc8349;
};

using Machine = testing::TestWithParam<MachineCase>;

// Its memory is touched on a PowerPC that is one, and nowhere else.
TEST_P(Machine, HasAClockOrNot)
{
    const bool hasClock = kPowerPc && GetParam().isMpc8349;
    rtclk8349 &clock = mpc8349::registers[0x300 / sizeof(rtclk8349)];
    clock.ctr = 4711;
    clock.ldr = 7;
    mpc8349::files = {{GetParam().path, GetParam().text}};
    const UInt32 now = RealTimeMilliSeconds();
    mpc8349::files.clear();
    EXPECT_EQ(mpc8349::mapped, hasClock ? 1 : 0);
    EXPECT_EQ(mpc8349::mappedAt, static_cast<off_t>(hasClock ? 0xE0000000 : 0));
    EXPECT_EQ(clock.psr, hasClock ? 266666u : 0u);
    EXPECT_EQ(clock.ldr, hasClock ? 0u : 7u);
    EXPECT_EQ(clock.cnr, hasClock ? 128u : 0u);
    EXPECT_EQ(rtcp, hasClock ? &clock : nullptr);
    EXPECT_EQ(now == 4711, hasClock);
    clock.ctr = 4800;
    EXPECT_EQ(RealTimeMilliSeconds() == 4800, hasClock);
}

using namespace std::string_literals;
const MachineCase kMachines[] = {
    {"ByItsProcessor", "/proc/cpuinfo", "processor\t: 0\ncpu\t\t: e300c4\nplatform\t: MPC834x SYS\n", true},
    {"ByItsCompatibles", "/proc/device-tree/compatible", "maker,kora\0fsl,mpc8349ea\0"s, true},
    {"ByItsBridge", "/proc/device-tree/pci@e0008500/compatible", "fsl,mpc8349-pci\0"s, true},
    {"ByItsModel", "/proc/device-tree/model", "MPC8349EMDS\0"s, true},
    {"NotAnother", "/proc/cpuinfo", "machine\t\t: PowerMac1,1\n", false},
};
INSTANTIATE_TEST_SUITE_P(Named, Machine, testing::ValuesIn(kMachines), [](auto &i) { return i.param.name; });

TEST(Clock, CountsMonotonicMilliseconds)
{
    timespec before{}, after{};
    clock_gettime(CLOCK_MONOTONIC, &before);
    const UInt32 cycles = CYCLES();
    const UInt32 now = millitime(&stored);
    clock_gettime(CLOCK_MONOTONIC, &after);
    const auto milliseconds = [](const timespec &time) {
        return static_cast<UInt32>(static_cast<UInt64>(time.tv_sec) * 1000 +
                                   static_cast<UInt64>(time.tv_nsec) / 1000000);
    };
    EXPECT_EQ(stored, now);
    EXPECT_GE(millitime(nullptr), now);
    EXPECT_LE(now - milliseconds(before), milliseconds(after) - milliseconds(before));
    EXPECT_LE(GetTickCountLinux() - now / 10, 100u);
    EXPECT_LE(RealTime() - now / 1000, 2u);
    EXPECT_NE(CYCLES(), cycles);
    EXPECT_EQ(GetMillisecondsPerTick(), 10u);
    EXPECT_EQ(GetProcessorFrequency(), 66666664.0);
}

} // namespace
