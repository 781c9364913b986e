// Every allocation that a call of the run-time makes fails in turn, in a process of its own each time: the call
// says so, leaves no lock and no memory behind, and works the next time. Left out: what the C library allocates
// within its own calls, and the region of low_calloc, which is tried for at one address after the other.
#include "Common/OS/dev.h"
#include "Common/OS/linux/oslinux.h"
#include "Common/OS/linux/psosapi/semaphore.h"
#include "Common/OS/syslog.h"
#include "Common/framework/config.h"
#include "bench/standin/allocator.h"
#include "bench/standin/folders.h"
#include "devlib/serialapi.h"
#include "tests/tasks.h"

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

extern "C" const char *
__tsan_default_options() // a second at every exit otherwise: NOLINT(bugprone-reserved-identifier)
{
    return "atexit_sleep_ms=0";
}

namespace
{

using namespace allocator;

// What the rows work with. Every process has its own.
UInt32 id, tmid, events;
std::atomic<int> fired, counts;
ModT mod;
IORBList iorbs;
char text[kConfigValueSize];

void Run(void * /*pArgs*/, Int32 /*argLen*/) {}
void Nothing(ModT * /*pMod*/, UInt32 /*funcIndex*/, void * /*userDefined*/, void * /*pArgs*/) {}

// The rest of a call, which only looks at what it did.
Int32 Look(auto look)
{
    counted = false;
    return static_cast<Int32>(look());
}

Int32 Write(eErrorT (*write)(const char *, Int32, const char *))
{
    const eErrorT result = write("item", 0, "value");
    return Look(
        [=] { return result != kNoError ? result : ConfigRead("item", 0, text) - (std::strcmp(text, "value") != 0); });
}

// On a thread of its own, which ends as a task: becomes one, deletes another, and finds itself or does not.
Int32 Attach(bool deletes)
{
    static std::atomic<UInt32> result;
    static bool attachCounts, deleteCounts;
    attachCounts = counted && !deletes;
    deleteCounts = std::exchange(counted, false) && deletes;
    result = UINT32_MAX;
    id = UINT32_MAX; // nobody
    if (deletes)
        t_create("othr", 1, 0, 0, 0, &id);
    const auto body = [](void *) -> void * {
        counted = attachCounts;
        UInt32 attached = t_attach("atta", 1), self = 0;
        counted = deleteCounts;
        t_delete(id);
        counted = false;
        t_ident("atta", 0, &self);
        result = attached != 0 ? attached : ev_receive(0, kEvNoWait, 0, &events);
        self != 0 ? t_delete(self) : static_cast<UInt32>(pthread_detach(pthread_self()));
        return nullptr;
    };
    pthread_t thread;
    CreateThread(&thread, body);
    EXPECT_TRUE(Eventually([] { return result != UINT32_MAX && t_ident("atta", 0, &id) != 0; }));
    return Look([] { return +result; });
}

struct RowT {
    const char *name;
    std::function<Int32()> call; // 0: it worked
    std::function<void()> undo;  // what worked
    // Of each failure in turn, dots for more of the same. Behind a slash: of the next call, if it fails. Behind a
    // mark: the assertion that stops the program.
    const char *results;
    bool first = false; // nothing was logged before, so that no settings were read
    std::function<void()> prepare = [] {};
};

const RowT kRows[] = {
    {"sm_create", [] { return sm_create("test", 1, 0, &id); }, [] { sm_delete(id); }, "65 0"},
    {"t_create", [] { return t_create("test", 1, 0, 0, 0, &id); }, [] { t_delete(id); }, "14.."},
    {"t_start",
     [] {
         return t_start(
             id, 0, [](auto...) { tm_wkafter(100000); }, nullptr);
     },
     [] { t_delete(id), t_create("test", 1, 0, 0, 0, &id); }, "1", false, [] { t_create("test", 1, 0, 0, 0, &id); }},
    {"t_attach", [] { return Attach(false); }, [] {}, "14.. !pTree 6 0..", true},
    {"t_delete", [] { return Attach(true); }, [] {}, "0"},
    {"tm_callback_after",
     [] {
         return tm_callback_after(
             1, &tmid, [](void *) { return fired++, 0; }, nullptr);
     },
     [] { EXPECT_TRUE(counts++ == 0 || Eventually([] { return fired == counts; })); }, "!TimerContBlocks 0.."},
    {"InsertItem",
     [] {
         if ((id = CreateTree()) == 0)
             return -1;
         InsertItem(id, 1, text);
         return SearchTree(id, 1) == text ? 0 : (low_free(low_pointer<void>(id)), -2);
     },
     [] { DestroyTree(id), low_free(low_pointer<void>(id)); }, "-1 -2"},
    {"iorb_list_alloc", [] { return iorb_list_alloc(&iorbs, 3); }, [] { iorb_list_free(&iorbs); }, "8"},
    {"add_dev_to_comp_task", [] { return add_dev_to_comp_task(&CBList->devCB), t_ident("devc", 0, &id); }, [] {}, "9..",
     false, [] { DevMgrSerial_Init(); }},
    {"DevMgrSerial_Init", [] { return DevMgrSerial_Init(), Look([] { return Serial_Close(0) - kItemNotFound; }); },
     [] {}, "!CBList 2/2 0", false, [] { SetSystemHardwareType(kKora); }},
    {"DevMgrSerial_Start_AsyncThread",
     [] { return DevMgrSerial_Start_AsyncThread(CBList, &id), CBList->asyncThread_running != 0 ? 0 : id; },
     [] { DevMgrSerial_Stop_AsyncThread(CBList); }, "9..", false, [] { DevMgrSerial_Init(); }},
    {"read_command", [] { return read_command("echo x", text, sizeof text); }, [] {}, "-1"},
    {"find_pid", [] { return find_pid("test_allocation") < 0 ? -1 : 0; }, [] {}, "-1"},
    {"osTaskUsage", [] { return osTaskUsage(), 0; }, [] {}, "0"},
    {"ModInit",
     [] {
         return ModInit(&mod, "mod", 0, nullptr),
                Look([] { return loginfo("test", "a line\n"), ModDeferFunctionCall(id, Run, "", 0); });
     },
     [] {}, "-5/-5 0..", true, [] { t_create("test", 1, 0, 0, 0, &id); }},
    {"ModAddCallback",
     [] {
         for (UInt32 i = 0; i < 11; i++) // more than the array has room for at first
             ModAddCallback(&mod, i, Nothing, nullptr, 0);
         return 0;
     },
     [] { ModDeleteAllCallbacks(&mod); }, "!0..", false, [] { ModInit(&mod, "mod", 0, nullptr); }},
    {"ConfigInit", [] { return ConfigInit(), Look([] { return Write(ConfigWrite); }); },
     [] { ConfigDelete("item", 0); }, "-23/-23 0 -23/-23 0..", true},
    {"ConfigWrite", [] { return Write(ConfigWrite); }, [] { ConfigDelete("item", 0); }, "0 -3"},
    {"ConfigWriteCacheOnly", [] { return Write(ConfigWriteCacheOnly); }, [] { DeleteItemFromCache("item", 0); }, "-2"},
    {"ConfigRead", [] { return ConfigRead("choice", 0, text); }, [] { DeleteItemFromCache("choice", 0); }, "0 -25 0"},
    {"ConfigRestore", [] { return ConfigRestore("choice", 0); }, [] { ConfigDelete("choice", 0); }, "-25 0 -3"},
    {"ConfigDumpAll", [] { return ConfigDumpAll(), 0; }, [] {}, "0", false,
     [] { ConfigWriteCacheOnly("item", 0, ""); }},
    {"ConfigAddImmediateCallback", [] { return ConfigAddImmediateCallback("item", 0, Nothing, nullptr); },
     [] { ConfigDeleteCallback("item", 0, Nothing, nullptr); }, "-2 !0"},
    {"InitSyslogInterface",
     [] {
         counts++ == 0 ? InitSyslogInterface() : void();
         loginfo("test", "a line\n");
         return t_ident("logw", 0, &id);
     },
     [] {}, "0.. 9/9.. 0"},
};

// What the process of a call tells the test.
struct ReportT {
    bool reached; // the failure
    Int32 result, next;
    int live;
};

// Started tasks are in the tree, for which they allocate.
bool HaveEntered()
{
    const MutexHold hold(&tcblistmutex);
    const TCB *tcb = tcblist;
    while (tcb != nullptr && (tcb->thread == pthread_t{} || tcb->pid != 0))
        tcb = tcb->next;
    return tcb == nullptr;
}

[[noreturn]] void RunCall(const RowT &row, int number, int clean, ReportT *pReport)
{
    const bool failedBefore = testing::Test::HasFailure();
    alarm(30);
    gLibPThreadNPTL = 1;
    RealTimeMilliSeconds(); // finds its clock
    if (!row.first) {
        loginfo("test", "starts the flush task\n");
        EXPECT_TRUE(Eventually(HaveEntered));
    }
    row.prepare();
    failing = number;
    for (Int32 *pResult : {&pReport->result, &pReport->next}) {
        counted = pResult == &pReport->result;
        *pResult = row.call();
        counted = false;
        if (*pResult == 0)
            row.undo();
        const MutexHold tasks(&tcblistmutex), timers(&tmcblistmutex);
        const InterruptsOffHold hold;
    }
    pReport->reached = made >= failing;
    EXPECT_TRUE(Eventually([=] { return HaveEntered() && (number == 0 || live <= clean); })) << live - clean << " left";
    pReport->live = live;
    std::exit(testing::Test::HasFailure() && !failedBefore ? 1 : 0); // with a look for leaks in some builds
}

// The call with that failure; 0: with none. Returns the result as the rows have it, empty when nothing failed.
std::string Fail(const RowT &row, int number, int clean, ReportT *pReport)
{
    *pReport = {};
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const pid_t child = fork();
    if (child == 0)
        RunCall(row, number, clean, pReport);
    int status = 0;
    waitpid(child, &status, 0);
    const std::string said = testing::internal::GetCapturedStderr(), start = "Assertion failed: ";
    const std::string output = testing::internal::GetCapturedStdout() + said;
    const std::size_t at = said.find(start);
    if (at != std::string::npos)
        return "!" + said.substr(at + start.size(), said.find(", file", at) - at - start.size());
    EXPECT_EQ(status, 0) << row.name << " " << number << ": " << output;
    const std::string next = pReport->next != 0 ? "/" + std::to_string(pReport->next) : "";
    return pReport->reached ? std::to_string(pReport->result) + next : "";
}

TEST(Allocation, FailsAtEachPlaceInTurn)
{
    const ConfigFolders folders;
    folders.Put("choice/choice.choice", "value\n");
    auto *pReport = static_cast<ReportT *>(
        mmap(nullptr, sizeof(ReportT), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    int failures = 0;
    for (const RowT &row : kRows) {
        EXPECT_EQ(Fail(row, 0, 0, pReport), "0") << row.name;
        const int clean = pReport->live;
        std::string results, last;
        for (int number = 1, run = 1; last != "" || number == 1; number++, failures++) {
            const std::string result = Fail(row, number, clean, pReport);
            run = result == last ? run + 1 : 1;
            if (run == 2)
                results += "..";
            if (run == 1 && result != "")
                results += (number > 1 ? " " : "") + result;
            last = result;
        }
        EXPECT_EQ(results, row.results) << row.name;
    }
    std::printf("allocation: %d failures in %zu calls\n", failures, std::size(kRows));
}

} // namespace
