#include "tests/tasks.h"

#include "Common/framework/config.h"

#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/times.h>
#include <utility>
#include <vector>

extern Int32 sched_policy;

namespace
{

// Runs body as a task, to its end.
void RunTask(std::function<void()> body)
{
    std::atomic<bool> done = false;
    StartTask("test", [&] {
        body();
        done = true;
    });
    ASSERT_TRUE(Eventually([&] { return done.load(); }));
}

UInt32 Self()
{
    UInt32 tid = 0;
    t_ident(nullptr, 0, &tid);
    return tid;
}

TEST(Events, AreMatchedAndTakenOneByOne)
{
    constexpr UInt32 kNothing = 0xAAAA; // a receive that fails stores nothing
    const struct {
        UInt32 sent, wanted, flags, result, received;
    } rows[] = {
        {0, 0x3, kEvNoWait | kEvAny, kEvNotPending, kNothing},
        {0x1, 0x3, kEvNoWait, kEvNotPending, kNothing},
        {0, 0, 0, 0, 0x1},            // reports and takes nothing
        {0x80000006, 0x3, 0, 0, 0x3}, // all of them, and only those
        {0, 0xFFFFFFFF, kEvAny, 0, 0x80000004},
        {0, 0, 0, 0, 0},
    };
    RunTask([&] {
        for (const auto &row : rows) {
            UInt32 events = kNothing;
            ev_send(Self(), row.sent);
            EXPECT_EQ(ev_receive(row.wanted, row.flags, 0, &events), row.result) << &row - rows;
            EXPECT_EQ(events, row.received) << &row - rows;
        }
    });
}

TEST(Events, TimedWaits)
{
    RunTask([] {
        UInt32 events = 0xAAAA;
        UInt32 result = 0;
        const auto waited = MillisecondsOf([&] { result = ev_receive(0x1, 0, 5, &events); });
        EXPECT_EQ(result, kEvTimedOut);
        EXPECT_EQ(events, 0xAAAAu);
        EXPECT_GE(waited, 40) << "5 ticks, the first of which may be under way";
        ev_send(Self(), 0x1);
        EXPECT_EQ(ev_receive(0x1, 0, 500, &events), 0u) << "events come before the time-out";
        EXPECT_EQ(ev_receive(0x1, 0, 3, &events), kEvTimedOut) << "the cancelled timer does not count";
    });
}

TEST(Events, ATimeoutOfATaskThatNeverWaitedIsReported)
{
    const UInt32 tid = NewTask("lazy");
    low_pointer<TCB>(tid)->timedwait = 1;
    EXPECT_EQ(Printed([=] { EXPECT_EQ(ev_receive_timeout(low_pointer<TCB>(tid)), 0); }),
              "ev timed out without task waiting lazy\n");
    EXPECT_EQ(low_pointer<TCB>(tid)->timedout, 1);
}

TEST(Events, NeedATask)
{
    UInt32 value = 7;
    EXPECT_EQ(ev_receive(0x1, 0, 0, &value), kNoCallerTask);
    EXPECT_EQ(t_ident(nullptr, 0, &value), kTaskNotFound);
    EXPECT_EQ(value, 0u);
    EXPECT_EQ(t_name(0), 0u);
    EXPECT_EQ(ev_send(0, 0x1), 0u);
    EXPECT_EQ(t_setRefCon(0, 1), kTaskNotFound);
    EXPECT_EQ(t_getRefCon(0, &value), kTaskNotFound);
    EXPECT_EQ(t_setpri(0, 1, nullptr), kTaskNotFound);
    EXPECT_EQ(FindTcbThread(pthread_self()), nullptr) << "there is not even a tree";
    EXPECT_EQ(t_delete(0), 0u); // and does not end the thread
}

TEST(Tasks, AreFoundByTheirFourNameBytes)
{
    const char shortName[4] = {'a', 'b', 0, 0};
    const char sameStart[4] = {'a', 'b', 0, 'x'};
    const UInt32 first = NewTask(shortName), second = NewTask(shortName), nameless = NewTask(nullptr);
    UInt32 found = 0;
    EXPECT_EQ(t_ident(shortName, 0, &found), 0u);
    EXPECT_EQ(found, first) << "the first in creation order";
    EXPECT_EQ(t_ident(sameStart, 0, &found), kTaskNotFound);
    EXPECT_EQ(found, 0u);
    EXPECT_STREQ(task_name(first), "ab");
    EXPECT_EQ(t_name(second), second);
    t_delete(first);
    EXPECT_EQ(t_ident(shortName, 0, &found), 0u);
    EXPECT_EQ(found, second);
    t_delete(second);
    t_delete(nameless);
    EXPECT_EQ(NumTasks(), 0) << "tasks that were never started are freed";
}

TEST(Tasks, GetTheirArgumentsAndEndThemselves)
{
    static std::vector<UInt32> got;
    const TaskStartT ends[] = {[](UInt32 a, UInt32 b, UInt32 c, UInt32 d) {
                                   got = {a, b, c, d}, pthread_exit(nullptr), got = {};
                               },
                               [](UInt32 a, UInt32 b, UInt32 c, UInt32 d) {
                                   got = {a, b, c, d}, t_delete(0), got = {};
                               }};
    for (const TaskStartT end : ends) {
        UInt32 args[4] = {1, 2, 3, 4};
        EXPECT_EQ(t_start(NewTask("args"), 9, end, args), 0u);
        args[0] = 0; // was copied
        EXPECT_TRUE(Eventually([] { return NumTasks() == 0; }));
        EXPECT_EQ(got, (std::vector<UInt32>{1, 2, 3, 4}));
    }
}

TEST(Tasks, AnIdentifierComesBackAfterAThousandOthersHaveEnded)
{
    const UInt32 stale = StartTask("gone", [] {});
    ASSERT_TRUE(Eventually([] { return NumTasks() == 0; }));
    for (int i = 0; i < 1024; i++) {
        const UInt32 stranger = NewTask("strg");
        ASSERT_NE(stranger, stale);
        ev_send(stale, 0x1);
        t_setRefCon(stale, 1);
        EXPECT_EQ(ev_send_listed(stale, 0x1), kTaskNotFound);
        EXPECT_EQ(t_delete(stale), 0u);
        ASSERT_EQ(NumTasks(), 1);
        t_delete(stranger);
    }
    const UInt32 next = NewTask("next");
    UInt32 refcon = 7;
    EXPECT_EQ(next, stale);
    EXPECT_EQ(t_getRefCon(next, &refcon), 0u);
    EXPECT_EQ(refcon, 0u);
    EXPECT_EQ(low_pointer<TCB>(next)->events_captured, 0u);
}

// With the value of gLibPThreadNPTL: whether a task still finds itself after another was deleted.
class Deletion : public testing::TestWithParam<Int32>
{
    void SetUp() override { gLibPThreadNPTL = GetParam(); }
};

TEST_P(Deletion, DecidesWhoFindsItself)
{
    std::atomic<UInt32> found = 77, received = 77;
    std::atomic<bool> ready = false, go = false;
    StartTask("stay", [&] {
        UInt32 value = 0;
        EXPECT_EQ(t_ident(nullptr, 0, &value), 0u); // which it does not remember for good
        ready = true;
        while (!go)
            tm_wkafter(1);
        received = ev_receive(0x1, kEvNoWait, 0, &value);
        found = t_ident(nullptr, 0, &value);
    });
    const UInt32 gone = StartTask("gone", [] { tm_wkafter(100000); });
    ASSERT_TRUE(Eventually([&] { return ready.load(); }));
    EXPECT_EQ(t_delete(gone), 0u);
    EXPECT_EQ(t_delete(gone), 0u) << "already gone: nothing is touched";
    go = true;
    EXPECT_TRUE(Eventually([] { return NumTasks() == 0; }));
    EXPECT_EQ(received, GetParam() == 1 ? kEvNotPending : kNoCallerTask);
    EXPECT_EQ(found, GetParam() == 1 ? 0u : kTaskNotFound);
}

// Deleters that are deleted by their target, one of which waits for the other, are spared, and see it end.
TEST_P(Deletion, OfADeleterLetsItFinish)
{
    std::atomic<bool> spared = false, ended = false;
    std::atomic<UInt32> deleters[2] = {};
    const UInt32 target = StartTask("slow", [&] {
        const CancelOffHold hold;
        for (std::atomic<UInt32> &deleter : deleters) {
            const auto waits = [&] {
                const MutexHold tasks(&tcblistmutex);
                return deleter != 0 && low_pointer<TCB>(deleter)->waitsFor != 0;
            };
            EXPECT_TRUE(Eventually(waits));
            t_delete(deleter);
        }
        spared = true;
        tm_wkafter(10);
        ended = true;
    });
    for (std::atomic<UInt32> &deleter : deleters)
        deleter = StartTask("dltr", [&] {
            t_delete(target);
            EXPECT_TRUE(ended);
        });
    ASSERT_TRUE(Eventually([&] { return spared.load(); }));
    t_delete(deleters[0]);
    EXPECT_TRUE(ended);
    t_delete(deleters[1]);
    EXPECT_EQ(NumTasks(), 0);
}

// Starts a child and deletes it on the way out, which takes a while.
struct ParentT {
    std::atomic<UInt32> child = 0;
    std::atomic<bool> left = false;
    void Run(bool deletesItself)
    {
        struct ScopeT {
            ParentT *parent;
            ~ScopeT()
            {
                tm_wkafter(3);
                EXPECT_EQ(t_delete(parent->child), 0u);
                EXPECT_EQ(NumTasks(), 1) << "the child is gone, the parent is not";
                parent->left = true;
            }
        } scope{this};
        child = StartTask("chld", [] { tm_wkafter(100000); });
        deletesItself ? t_delete(0) : tm_wkafter(100000);
    }
};

TEST_P(Deletion, OfAParentWaitsForTheEndOfItsScopes)
{
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "AddressSanitizer cannot follow a cancelled thread through its scopes";
#endif
    for (const bool deletesItself : {false, true}) {
        ParentT parent;
        const UInt32 tid = StartTask("prnt", [&] { parent.Run(deletesItself); });
        ASSERT_TRUE(Eventually([&] { return parent.child != 0; }));
        t_delete(tid);
        EXPECT_TRUE(parent.left);
        EXPECT_EQ(NumTasks(), 0);
    }
}

// A task that was joined may still be listed when another thread has got its handle already.
TEST(Tasks, AreDeletedByAThreadWithTheHandleOfAnEndedOne)
{
    const UInt32 ended = NewTask("endd"), target = NewTask("trgt");
    low_pointer<TCB>(ended)->thread = pthread_self();
    low_pointer<TCB>(ended)->claimed = kJoinedByAnother;
    EXPECT_EQ(t_delete(target), 0u);
    EXPECT_EQ(NumTasks(), 1);
}

TEST(Tasks, ThatAreDetachedAreDeletedAtTheirEnd)
{
    std::atomic<UInt32> tid = 0;
    std::atomic<bool> ended = false;
    const auto run = [&] {
        const CancelOffHold hold;
        tid = Self();
        tm_wkafter(5);
        ended = true;
    };
    const std::function<void()> starts[] = {[&] { StartTask("self", [&] { pthread_detach(pthread_self()), run(); }); },
                                            [&] { std::thread([&] { t_attach("free", 5), run(); }).detach(); }};
    for (const auto &start : starts) {
        tid = 0, ended = false;
        start();
        ASSERT_TRUE(Eventually([&] { return tid != 0; }));
        t_delete(tid);
        EXPECT_TRUE(ended);
        EXPECT_EQ(NumTasks(), 0);
    }
}

// A thread on a block that is not a new task's would end up in a list that it is not in.
TEST(Tasks, AreStartedOnceAndNotAfterTheirEnd)
{
    std::atomic<bool> over = false;
    const UInt32 tid = StartTask("once", [&] {
        while (!over)
            tm_wkafter(1);
    });
    const auto start = [tid] {
        return t_start(
            tid, 0, [](auto...) { ADD_FAILURE(); }, nullptr);
    };
    EXPECT_EQ(start(), kTaskNotStarted);
    over = true;
    ASSERT_TRUE(Eventually([] { return NumTasks() == 0; }));
    EXPECT_EQ(start(), kTaskNotStarted);
}

INSTANTIATE_TEST_SUITE_P(ThreadLibrary, Deletion, testing::Values(0, 1));

// A task that is not started, and is taken for a thread of this process.
struct Report : testing::Test {
    Report() { low_pointer<TCB>(tid)->pid = getpid(); }
    const UInt32 tid = NewTask("dump", 42);
};

TEST_F(Report, ListsTheTasks)
{
    char row[64];
    low_pointer<TCB>(tid)->pid = 4711;
    std::snprintf(row, sizeof row, "T[0]    %08x  dump     42    4711\n", tid);
    EXPECT_EQ(Printed(osTaskDump), std::string("T[0] Task:  ID    Name  Priority PID\n") + row);
}

TEST_F(Report, CountsTheTimeSinceTheLastOne)
{
    const auto usage = [] {
        const std::string text = Printed(osTaskUsage);
        EXPECT_EQ(text.find("TaskID     Name  Pri Usage\n--------------------------\n"), 0u);
        return std::stoi(text.substr(text.rfind(' ')));
    };
    prctl(PR_SET_NAME, "odd) R 1 2");          // in the file that the times come from
    for (tms spent = {}; spent.tms_stime < 4;) // system time, mostly
        times(&spent);
    EXPECT_GE(usage(), 4);
    EXPECT_LE(usage(), 2);
}

TEST_F(Report, FindsTheTaskOfAKernelThreadAndWhatWasSet)
{
    char name[5] = "";
    UInt32 priority = 0;
    EXPECT_EQ(t_name_from_pid(4711, name), kTaskNotFound);
    EXPECT_EQ(t_name_from_pid(getpid(), name), 0u);
    EXPECT_STREQ(name, "dump");
    EXPECT_EQ(t_name_and_pri_from_pid(getpid(), name, &priority), 0u);
    EXPECT_EQ(priority, 42u);
    UInt32 previous = 0, refcon = 0;
    EXPECT_EQ(t_setpri(tid, 99, &previous), 0u);
    EXPECT_EQ(t_setpri(tid, 99, nullptr), 0u);
    EXPECT_EQ(previous, 42u);
    EXPECT_EQ(low_pointer<TCB>(tid)->prv_pri.sched_priority, 99);
    EXPECT_EQ(t_setRefCon(tid, 99), 0u);
    EXPECT_EQ(t_getRefCon(tid, &refcon), 0u);
    EXPECT_EQ(refcon, 99u);
}

// The unrelated task notices an empty tree, as gLibPThreadNPTL is 0.
TEST(Tasks, AttachingTwiceAndReturningLeaveOthersAlone)
{
    std::atomic<bool> go = false;
    std::atomic<UInt32> found = 0;
    const UInt32 other = StartTask("othr", [&] {
        while (!go)
            tm_wkafter(1);
        found = Self();
        tm_wkafter(100000);
    });
    pthread_t handle{};
    for (int i = 0; i < 3; i++) // the handle comes back
        std::thread([&handle] {
            handle = pthread_self();
            EXPECT_EQ(t_attach("once", 5), 0u);
            const UInt32 self = Self();
            EXPECT_EQ(t_attach("more", 6), 0u);
            EXPECT_EQ(Self(), self);
            EXPECT_STREQ(task_name(self), "more");
            EXPECT_EQ(low_pointer<TCB>(self)->priority, 6u);
            EXPECT_EQ(NumTasks(), 2);
            EXPECT_EQ(t_attach(nullptr, 7), 0u);
            EXPECT_STREQ(task_name(self), "");
        }).join();
    EXPECT_EQ(NumTasks(), 1) << "returning is an end, too";
    EXPECT_EQ(FindTcbThread(handle), nullptr);
    go = true;
    EXPECT_TRUE(Eventually([&] { return found == other; }));
    t_delete(other);
}

TEST(Tasks, AreStartedWhileAReportStalls)
{
    for (int i = 0; i < 300; i++) // more than a buffer holds
        t_create("many", 1, 0, 0, 0, nullptr);
    PrintWhileOthersWork(STDOUT_FILENO, osTaskUsage, [] { NewTask("new "); });
}

TEST(Tasks, WithoutMemoryNothingChanges)
{
    const rlimit limit = {64 << 20, 64 << 20};
    if (sizeof(void *) == 4) { // the whole address space is the region
        ASSERT_EQ(setrlimit(RLIMIT_AS, &limit), 0);
    }
    void **blocks = nullptr; // each points to the one before
    while (auto **block = static_cast<void **>(low_calloc(sizeof(TCB))))
        *block = std::exchange(blocks, block);
    UInt32 tid = 7;
    EXPECT_EQ(t_create("none", 1, 0, 0, 0, &tid), kTaskNoMemory);
    EXPECT_EQ(tid, 7u);
    EXPECT_EQ(NumTasks(), 0);
    while (blocks != nullptr)
        low_free(std::exchange(blocks, static_cast<void **>(*blocks)));
    EXPECT_EQ(t_create("some", 1, 0, 0, 0, &tid), 0u);
}

TEST(TasksDeathTest, RefuseNullArguments)
{
    const UInt32 tid = NewTask("null");
    EXPECT_DEATH(t_start(0, 0, nullptr, nullptr), "failed: tcb,");
    EXPECT_DEATH(t_start(tid, 0, nullptr, nullptr), "failed: start,");
    EXPECT_DEATH(t_ident("null", 0, nullptr), "failed: tid_out,");
    EXPECT_DEATH(t_copy_name(tid, nullptr), "failed: name_out,");
    EXPECT_DEATH(t_getRefCon(tid, nullptr), "failed: refcon_out,");
    EXPECT_DEATH(t_name_from_pid(getpid(), nullptr), "failed: name_out,");
    EXPECT_DEATH(ev_receive_timeout(nullptr), "failed: pTask,");
    EXPECT_DEATH((t_attach("null", 1), ev_receive(0, 0, 0, nullptr)), "failed: events_out,");
}

TEST(TasksDeathTest, RefuseImpossiblePriorities)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const UInt32 tid = NewTask("prio", 100);
    EXPECT_DEATH(t_setpri(tid, 101, nullptr), "Assertion failed: tcb->prv_pri.__sched_priority <= 99, file Common/OS/");
    EXPECT_DEATH(t_attach("prio", 0), "\\(\\(int\\) tcb->prv_pri.__sched_priority > 0\\)");
    EXPECT_DEATH(
        {
            dup2(STDERR_FILENO, STDOUT_FILENO);
            set_sched_policy(SCHED_FIFO);
            EXPECT_EQ(sched_policy, SCHED_FIFO);
            t_start(tid, 0, nullptr, nullptr);
        },
        "tpri 100 prio\n.*\\(\\(int\\) tcb->prv_pri.__sched_priority >= 0\\) && "
        "tcb->prv_pri.__sched_priority <= 99");
}

} // namespace
