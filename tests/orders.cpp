// What two tasks do at once, in every order of one interruption: one of them is stopped at each of its steps in turn
// while the other one does all of its own, and then the other way round.
#include "bench/standin/schedule.h"

#include "Common/OS/dev.h"
#include "Common/OS/linux/oslinux.h"
#include "Common/OS/linux/psosapi/semaphore.h"
#include "Common/OS/logmsg.h"
#include "Common/OS/syslog.h"
#include "Common/framework/config.h"
#include "Common/framework/list.h"
#include "Common/framework/remmsg.h"
#include "bench/standin/folders.h"
#include "bench/standin/processor.h"
#include "bench/standin/ptyboard.h"
#include "devlib/serialapi.h"
#include "tests/tasks.h"

#include <array>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>

extern std::atomic<Int32> gsConfigWriteOutstanding;
extern std::atomic<UInt32> gstLastConfigWrite;

namespace
{

bool synced;         // the file systems
UInt32 ids[2];       // of the tasks that play the parts
std::string printed; // on standard output, during the run
const ConfigFolders *folders;

// What the parts leave for the check, and must keep apart themselves where both use it.
UInt32 results[2], shared, child;
char ignored[kConfigValueSize]; // what a part reads and nobody looks at

enum KindT {
    kTwoTasks,
    kWriter,     // the second player is the log writer's task
    kNewProcess, // each time, for what a process does once; the players are no tasks
    kNothingYet, // the same, and there was no log line yet, which reads settings
};

struct PairT {
    const char *name;
    schedule::PartT first, second;
    std::function<void()> setUp = nullptr, check = nullptr;
    KindT kind = kTwoTasks;
    unsigned stride = 1; // from one stop to the next
};

void PrintTo(const PairT &pair, std::ostream *stream)
{
    *stream << pair.name;
}

constexpr auto kOwn = schedule::Player::Own;
[[maybe_unused]] constexpr auto kTick = schedule::Player::Ticker;
constexpr auto Nothing = [] {};

// Pairs that have no set-up, no check or no kind of their own have these.
template <std::size_t count>
std::vector<PairT> Group(const PairT (&rows)[count], void (*setUp)(), void (*check)(), KindT kind = kTwoTasks)
{
    std::vector<PairT> pairs(rows, std::end(rows));
    for (PairT &pair : pairs) {
        pair.setUp = pair.setUp ? pair.setUp : setUp;
        pair.check = pair.check ? pair.check : check;
        pair.kind = pair.kind != kTwoTasks ? pair.kind : kind;
    }
    return pairs;
}

// Without any task.
void StartLog()
{
    schedule::refuseThreads = true;
    loginfo("test", "reads the settings\n");
    logmsg_set_format(kLogFormatLevel);
    schedule::refuseThreads = false;
}

void StartTasks(bool withWriter)
{
    schedule::refuseThreads = true;
    if (withWriter)
        InitSyslogInterface();
    schedule::refuseThreads = false;
    if (t_ident("logw", 0, &ids[1]) != 0)
        t_create("ordB", 10, 0, 0, 0, &ids[1]);
    ids[0] = StartTask("ordA", [] { schedule::Work(0); });
    StartBody(ids[1], [] { schedule::Work(1); });
    schedule::AwaitWorkers();
}

bool RunOnce(const PairT &pair, unsigned first, unsigned stop)
{
    testing::internal::CaptureStdout();
    fcntl(STDOUT_FILENO, F_SETFL, O_APPEND); // a set-up may cut the file
    pair.setUp();
    const schedule::PartT parts[] = {pair.first, pair.second};
    const bool more = schedule::Run(parts, first, stop);
    printed = testing::internal::GetCapturedStdout();
    SCOPED_TRACE(testing::Message() << "part " << first << " was stopped at its step " << stop << "\n" << printed);
    pair.check();
    return more;
}

bool RunInNewProcess(const PairT &pair, unsigned first, unsigned stop)
{
    std::fflush(stdout);
    const pid_t pid = fork();
    if (pid == 0) {
        for (unsigned i = 0; i < 2; i++)
            std::thread(schedule::Work, i).detach();
        schedule::AwaitWorkers();
        const bool more = RunOnce(pair, first, stop);
        std::fflush(stdout);
        syscall(SYS_exit_group, testing::Test::HasFailure() ? 1 : more ? 0 : 2); // a sanitizer's _exit takes a second
    }
    int status = 0;
    waitpid(pid, &status, 0);
    const int code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    EXPECT_TRUE(code == 0 || code == 2) << code << ", part " << first << " was stopped at its step " << stop;
    return code == 0;
}

using Orders = testing::TestWithParam<PairT>;

TEST_P(Orders, KeepTheirWord)
{
    const PairT &pair = GetParam();
    std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ); // as in the program: a line is written at once
    const auto own = std::make_unique<ConfigFolders>();
    folders = own.get();
    const bool fresh = pair.kind >= kNewProcess;
    gLibPThreadNPTL = 1;
    if (pair.kind != kNothingYet)
        StartLog();
    if (!fresh)
        StartTasks(pair.kind == kWriter);
    unsigned runs = 0;
    for (unsigned first = 0; first < 2; first++)
        for (unsigned stop = 1; (fresh ? RunInNewProcess : RunOnce)(pair, first, stop) && !HasFailure();
             stop += pair.stride)
            runs++;
    std::printf("orders: %u of %s\n", runs, pair.name);
}

std::string NameOf(const testing::TestParamInfo<PairT> &info)
{
    return info.param.name;
}

// Runs once in a process; each lambda has a type of its own.
template <class Function> void Once(Function function)
{
    static bool done;
    if (!std::exchange(done, true))
        function();
}

// ---- Tasks

constexpr auto MakeChild = [] { t_create("chld", 10, 0, 0, 0, &child); };
constexpr auto DeleteChild = [] { t_delete(child); };
void MakeAndDelete()
{
    UInt32 tid = 0;
    t_create("chld", 10, 0, 0, 0, &tid);
    t_delete(tid);
}
// Whoever of several does it: when the call returns, the task is gone.
template <unsigned index> void DeleteAndLook()
{
    char name[kTaskNameSize];
    t_delete(child);
    results[index] = t_copy_name(child, name);
}
constexpr auto SetPriority = [] { t_setpri(0, ++shared % 9, nullptr); };
constexpr auto OnlyPlayersAreLeft = [] { EXPECT_TRUE(Eventually([] { return NumTasks() == 2; })) << NumTasks(); };
TCB *Tcb(UInt32 tid)
{
    return low_pointer<TCB>(tid);
}
std::atomic<bool> starts;
void StartChild()
{
    starts = true;
    t_start(
        child, 0, [](auto...) {}, nullptr);
}
void AwaitEndOfChild()
{
    for (int i = 0; i < 30 && starts && NumTasks() > 2; i++)
        usleep(1000);
}
template <unsigned index> void StartWith()
{
    results[index] = t_start(
        child, 0, [](auto...) { shared = index; }, nullptr);
}

const PairT kTasks[] = {
    {"TwoCreateAndDelete", MakeAndDelete, MakeAndDelete, Nothing},
    {"CreateAndFind", MakeAndDelete, [] { t_ident("chld", 0, &results[1]); }, Nothing},
    {"DeleteAndName", DeleteChild, [] { t_copy_name(child, ignored), t_name_from_pid(-2, ignored); }},
    {"DeleteAndReport", DeleteChild, [] { osTaskDump(), osTaskUsage(); }},
    {"DeleteAndSelf", DeleteChild, [] { FindTcbThread(pthread_self()), ev_send_listed(child, 1); }},
    {"TwoDeleteUnstarted", DeleteChild, DeleteChild},
    {"PriorityAndLookUp", SetPriority, [] { osTaskDump(), t_name_and_pri_from_pid(getpid(), ignored, &results[1]); },
     Nothing},
    {"TwoDelete", DeleteAndLook<0>, DeleteAndLook<1>, [] { child = StartTask("chld", [] { tm_wkafter(10000); }); },
     [] {
         EXPECT_EQ(results[0], kTaskNotFound);
         EXPECT_EQ(results[1], kTaskNotFound);
         OnlyPlayersAreLeft();
     }},
    {"StartAndEnd", StartChild, AwaitEndOfChild, [] { starts = false, MakeChild(); },
     [] {
         OnlyPlayersAreLeft();
         EXPECT_EQ(Tcb(child)->thread, pthread_t{});
     }},
    {"TwoStart", StartWith<0>, StartWith<1>, MakeChild,
     [] {
         OnlyPlayersAreLeft();
         EXPECT_EQ(results[shared], 0u);
         EXPECT_EQ(results[1 - shared], kTaskNotStarted);
     }},
    {"FirstTree", TreeStub, TreeStub, Nothing, [] { EXPECT_NE(gTCBTree, 0u); }, kNewProcess, 2},
};
INSTANTIATE_TEST_SUITE_P(Tasks, Orders, testing::ValuesIn(Group(kTasks, MakeChild, OnlyPlayersAreLeft)), NameOf);

// A task of its own that is deleted, or ends, while the second part does something to it.
void StartVictim(void (*body)())
{
    t_create("vict", 10, 0, 0, 0, &child);
    StartBody(child, [body] {
        schedule::Play(0);
        body();
    });
}
void WaitFor(UInt32 ticks)
{
    UInt32 events = 0;
    ev_receive(1, kEvAny, ticks, &events);
}
constexpr auto PrepareTicks = [] { Once([] { StartSystemTimer(), schedule::TakeTicks(); }); };
void NothingIsLeftOfTheVictim()
{
    EXPECT_TRUE(Eventually([] { return NumTasks() == 3; })) << NumTasks();
    TimersAreFree();
}
long NumEntries(const std::filesystem::path &folder)
{
    return std::distance(std::filesystem::directory_iterator(folder), {});
}
void NoVictimIsLeft()
{
    static const long descriptors = NumEntries("/proc/self/fd");
    OnlyPlayersAreLeft();
    EXPECT_EQ(NumEntries("/proc/self/fd"), descriptors);
}
pthread_t thread;

// The same with a thread that is no task, and is cancelled.
void StartThread(void (*body)())
{
    static void (*played)();
    played = body;
    const auto start = [](void *) -> void * {
        schedule::Play(0);
        played();
        return nullptr;
    };
    EXPECT_EQ(pthread_create(&thread, nullptr, start, nullptr), 0);
}
void EndThread()
{
    pthread_cancel(thread);
    pthread_join(thread, nullptr);
}
void StartAttached()
{
    results[1] = kTaskNotStarted;
    if (t_ident("atch", 0, &child) == 0)
        results[1] = t_start(
            child, 0, [](auto...) {}, nullptr);
}
constexpr auto FindThread = [] { FindTcbThread(thread); };

const PairT kEnds[] = {
    {"EndAndDelete", kOwn, DeleteChild, [] { StartVictim(Nothing); }},
    {"EndAndEvent", kOwn, [] { ev_send(child, 1); }, [] { StartVictim([] { WaitFor(0); }); }},
    {"AttachAndDump", kOwn, [] { osTaskDump(), FindThread(); },
     [] { StartThread([] { t_attach("atch", 10), t_attach("agin", 11), t_delete(0); }); }},
    {"AttachAndEnd", kOwn, FindThread, [] { StartThread([] { t_attach("atch", 10); }); },
     [] {
         pthread_join(thread, nullptr);
         EXPECT_EQ(FindTcbThread(thread), nullptr);
         OnlyPlayersAreLeft();
     }},
    {"AttachAndStart", kOwn, StartAttached, [] { StartThread([] { t_attach("atch", 10); }); },
     [] {
         pthread_join(thread, nullptr);
         EXPECT_EQ(results[1], kTaskNotStarted);
         OnlyPlayersAreLeft();
     }},
};
INSTANTIATE_TEST_SUITE_P(Ends, Orders, testing::ValuesIn(Group(kEnds, Nothing, OnlyPlayersAreLeft)), NameOf);

// ---- Events and timers

void Receive(UInt32 events, UInt32 flags, UInt32 ticks)
{
    results[0] = ev_receive(events, flags, ticks, &results[1]);
}
template <UInt32 events> constexpr auto Send = [] { ev_send(ids[0], events); };
template <UInt32 events> constexpr auto SendToChild = [] { ev_send(child, events); };
constexpr auto MakeChildOnce = [] { Once(MakeChild); };
UInt32 tmid, otherTmid;
template <int again> void StartOneTick()
{
    PrepareTicks();
    tm_callback_after(
        1, &tmid, [](void *) { return again; }, nullptr);
}

const PairT kEvents[] = {
    {"ReceiveAndSend", [] { Receive(1, kEvAny, 0), shared++; }, // the event hands it over
     [] { shared = 1, ev_send(ids[0], 1); }, Nothing, [] { EXPECT_EQ(shared, 2u); }},
    {"ReceiveAllAndSend", [] { Receive(3, 0, 0); }, [] { Send<1>(), Send<2>(); }, Nothing,
     [] { EXPECT_EQ(results[1], 3u); }},
    {"TakeAndSend", [] { Receive(1, kEvAny | kEvNoWait, 0); }, Send<2>, Send<1>,
     [] { EXPECT_EQ(Tcb(ids[0])->events_captured.exchange(0), 2u); }},
    {"TwoSend", SendToChild<1>, SendToChild<2>, MakeChildOnce,
     [] { EXPECT_EQ(Tcb(child)->events_captured.exchange(0), 3u); }},
    {"SendAndTimeout", SendToChild<1>, [] { ev_receive_timeout(Tcb(child)); }, MakeChildOnce, Nothing},
    {"ReceiveAndTick", [] { Receive(1, kEvAny, 1); }, kTick, nullptr,
     [] {
         EXPECT_EQ(results[0], kEvTimedOut);
         EXPECT_EQ(printed, "");
         TimersAreFree();
     }},
    {"FirstReceiveAndTick", kOwn, kTick, [] { PrepareTicks(), StartVictim([] { WaitFor(1); }); },
     [] {
         EXPECT_EQ(printed, "");
         NothingIsLeftOfTheVictim();
     }},
    {"TimedReceiveAndSend", [] { Receive(1, kEvAny, 100000); }, Send<1>, nullptr,
     [] {
         EXPECT_EQ(results[0], 0u);
         TimersAreFree();
     }},
    {"StartAndTick", [] { tm_evafter(1, 1, &tmid), Receive(1, kEvAny, 0); }, kTick},
    {"CancelAndTick", [] { tm_cancel(tmid); }, kTick, StartOneTick<1>},
    {"CancelExpiredAndTick", [] { tm_cancel_callback(tmid, ev_receive_timeout, &shared); }, kTick, StartOneTick<0>,
     Nothing},
    {"CancelAnothersTimer", [] { tm_cancel_callback(tmid, ev_receive_timeout, &results[0]); },
     [] {
         tm_cancel_callback(tmid, ev_receive_timeout, &results[0]);
         tm_callback_after(100000, &otherTmid, ev_receive_timeout, &results[1]);
     },
     [] { PrepareTicks(), tm_callback_after(100000, &tmid, ev_receive_timeout, &results[0]); },
     [] { EXPECT_EQ(Printed([] { tm_cancel(otherTmid); }), ""); }},
    {"ClockAndTick", [] { results[0] = gEpochMillisecs; }, kTick, nullptr, Nothing},
    {"FirstTimers", [] { tm_callback_after(1000, &tmid, ev_receive_timeout, nullptr); },
     [] { tm_callback_after(1000, &otherTmid, ev_receive_timeout, nullptr); }, Nothing,
     [] {
         EXPECT_NE(tmid, otherTmid);
         EXPECT_EQ(NumTasks(), 1);
     },
     kNewProcess, 2},
};
INSTANTIATE_TEST_SUITE_P(Events, Orders, testing::ValuesIn(Group(kEvents, PrepareTicks, TimersAreFree)), NameOf);

// ---- Locks, lists, requests, memory

ListT *list, elements[6];
IORBList requests;
IORB blocks[3];
UInt32 semaphore;
DEVCB *device;

void UseList(unsigned own)
{
    ListT *const first = &elements[0], *const mine = &elements[own];
    ListEnqueue(&list, mine);
    ListExtract(&list, mine);
    ListPush(&list, mine);
    ListExtractIfPresent(&list, mine);
    ListInsertAfter(&list, first, mine);
    ListExtract(&list, mine);
    ListInsertBefore(&list, first, mine);
    ListExtract(&list, mine);
    ListEnqueueIfAbsent(&list, mine);
    ListExtractIfPresent(&list, mine);
}
void OneElement()
{
    list = nullptr;
    for (ListT &element : elements)
        ListInit(&element);
    ListEnqueue(&list, &elements[0]);
}
constexpr auto OneElementIsLeft = [] { EXPECT_EQ(ListLen(&list), 1); };
void InitRequests()
{
    requests = {};
    for (IORB &block : blocks)
        iorb_init(&block, nullptr, nullptr, 0, nullptr, 0);
    iorb_list_enqueue(&requests, &blocks[2]);
}
void MakeDevice()
{
    if (device != nullptr)
        return;
    device = static_cast<DEVCB *>(low_calloc(sizeof(DEVCB)));
    dev_init(device, "dev", 0, nullptr, nullptr, nullptr, nullptr, nullptr);
    dev_add(device);
}
constexpr auto AddDevice = [] { add_dev_to_comp_task(device); };
void CountWithSemaphore()
{
    const SemaphoreHold hold(semaphore);
    shared++;
}
void CountWithoutInterrupts()
{
    const InterruptsOffHold hold;
    shared++;
}
constexpr auto BothCounted = [] { EXPECT_EQ(shared, 2u); };
constexpr auto UseBlock = [] { low_free(std::memset(low_calloc(100), 1, 100)); };
// The relay takes commands.
void TellNobody()
{
    if (fake.commands[1] < 0)
        fake.commands[1] = open("/dev/null", O_WRONLY);
}
constexpr auto Command = [] { system_pthread("a"); };
constexpr auto Ask = [] { is_NFS(); };

const PairT kLists[] = {
    {"Lists", [] { UseList(1); }, [] { UseList(2); }, OneElement, OneElementIsLeft},
    {"QueueAndCount", [] { ListEnqueue(&list, &elements[1]), ListDequeue(&list); },
     [] { ListIsEmpty(&list), ListLen(&list), ListDequeue(&list), ListEnqueue(&list, &elements[2]); }, OneElement,
     OneElementIsLeft},
    {"Requests", [] { iorb_list_enqueue(&requests, &blocks[0]), iorb_list_extract(&requests, &blocks[0]); },
     [] { iorb_list_enqueue(&requests, &blocks[1]), iorb_list_avail(&requests), iorb_list_dequeue(&requests); },
     InitRequests, [] { EXPECT_LE(iorb_list_avail(&requests), 2); }},
    {"OpenAndRequest", [] { dev_open("dev", 0, &results[0]); },
     [] { iorb_list_enqueue(&device->readIORBs, &blocks[0]); },
     [] { MakeDevice(), InitRequests(), device->readIORBs = {}; },
     [] { EXPECT_LE(iorb_list_avail(&device->readIORBs), 1); }},
    {"Semaphore", CountWithSemaphore, [] { rsm_p(semaphore, 0), shared++, rsm_v(semaphore); },
     [] {
         Once([] { sm_create("test", 1, 0, &semaphore); });
         shared = 0;
     },
     BothCounted},
    {"Interrupts", CountWithoutInterrupts, CountWithoutInterrupts, [] { shared = 0; }, BothCounted},
    {"Blocks", UseBlock, UseBlock},
    {"FirstCommands", Command, Command, nullptr, nullptr, kNewProcess, 2},
    {"FirstQuestions", Ask, Ask, nullptr, nullptr, kNewProcess, 2},
    {"TwoCommands", Command, Command, TellNobody},
    {"FirstPolls", AddDevice, AddDevice, MakeDevice, [] { EXPECT_EQ(NumTasks(), 1); }, kNewProcess, 2},
};
INSTANTIATE_TEST_SUITE_P(Lists, Orders, testing::ValuesIn(Group(kLists, Nothing, Nothing)), NameOf);

// ---- Log: the second player is the writer's task

void EmptyRing()
{
    syslogDrainQueue();
    std::fflush(stdout);
    EXPECT_EQ(ftruncate(STDOUT_FILENO, 0), 0);
}
std::string Drained()
{
    return Printed(syslogDrainQueue);
}
std::string Line(char fill, std::size_t size)
{
    return "INFO  pc[0]: " + std::string(size - 14, fill) + "\n";
}
constexpr std::size_t kHalf = 262200, kFill = 130000;
const std::string lineA = Line('a', 40), lineB = Line('b', 50), bigA = Line('A', 150000),
                  lapping = Line('A', kHalf + kFill + 100); // over the beginnings of both

// Two lines that fill the second half of the ring: the next one goes to its front.
void FillRing()
{
    for (int i = 0; i < 2; i++) { // wherever the first of these ends, the second one is at the front
        EmptyRing();
        syslogAdd(Line('0', kHalf).c_str(), 0);
    }
    EmptyRing();
    for (const char fill : {'1', '2'})
        syslogAdd(Line(fill, kFill).c_str(), 0);
}
void AddBoth()
{
    syslogAdd(lineA.c_str(), 0);
    syslogAdd(lineB.c_str(), 0);
}
// Until so much is printed.
void PrintAll(std::size_t expected)
{
    struct stat status = {};
    for (syslogDrainQueue(); fstat(STDOUT_FILENO, &status) == 0 && status.st_size < static_cast<off_t>(expected);) {
        UInt32 events = 0;
        ev_receive(0xFFFF, kEvAny, 0, &events);
        syslogDrainQueue();
    }
}

#ifdef __SANITIZE_THREAD__
extern "C" void AnnotateIgnoreReadsBegin(const char *file, int line);
extern "C" void AnnotateIgnoreReadsEnd(const char *file, int line);
#else
void AnnotateIgnoreReadsBegin(const char * /*file*/, int /*line*/) {}
void AnnotateIgnoreReadsEnd(const char * /*file*/, int /*line*/) {}
#endif
std::atomic<bool> laps;
void PrepareLap()
{
    FillRing();
    laps = false;
}
void PrepareLapOfTheFront()
{
    PrepareLap();
    EmptyRing();
    syslogAdd(Line('1', kHalf + 100).c_str(), 0);
    syslogAdd(Line('2', kFill).c_str(), 0);
}
void Lap()
{
    laps = true;
    syslogAdd(lapping.c_str(), 0);
}
// What is copied while a lap overwrites it is thrown away, on purpose. A lap that has begun before does not.
void PrintDuringLap()
{
    if (laps)
        return syslogDrainQueue();
    AnnotateIgnoreReadsBegin(__FILE__, __LINE__);
    syslogDrainQueue();
    AnnotateIgnoreReadsEnd(__FILE__, __LINE__);
}
// Whole lines in their order, and one of the new ones.
void NoLineIsTorn()
{
    std::string text = printed + Drained(), before;
    for (std::size_t end; (end = text.find('\n') + 1) > 0; text.erase(0, end)) {
        const std::string line = text.substr(0, end);
        if (line == "WARN   pc[0]: SYSLOG QUEUE OVERFLOW\n")
            continue;
        ASSERT_TRUE(line == Line(line[20], end) && line > before) << end;
        before = line;
    }
    EXPECT_GT(before[20], '2');
}
constexpr auto LogTwo = [] { loginfo("b", "two\n"); };

const PairT kLog[] = {
    {"TwoLines", [] { loginfo("a", "one\n"); }, LogTwo, nullptr,
     [] {
         const std::string a = "INFO  pc[0]: a: one\n", b = "INFO  pc[0]: b: two\n", text = Drained();
         EXPECT_TRUE(text == a + b || text == b + a) << text;
     }},
    {"LineInPieces", [] { loginfo("a", "o"), loginfo("a", "ne\n"); }, LogTwo, nullptr,
     [] {
         const std::string text = Drained();
         EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 2) << text;
         EXPECT_NE(text.find("two\n"), std::string::npos) << text;
         EXPECT_NE(text.find("ne\n"), std::string::npos) << text;
     }},
    {"RepeatedLines", [] { loginfo("a", "same\n"), loginfo("a", "same\n"); }, [] { loginfo("a", "same\n"); },
     [] {
         Once([] { logmsg_set_spewfilter(1); });
         loginfo("a", "another\n");
         EmptyRing();
     },
     [] {
         loginfo("a", "last\n");
         EXPECT_EQ(Drained(),
                   "INFO  pc[0]: a: same\nDEBUG pc[0]: ...last line repeated 3 times\nINFO  pc[0]: a: last\n");
     }},
    {"TwoAdd", AddBoth, AddBoth, nullptr, [] { EXPECT_EQ(Drained().size(), 180u); }},
    {"AddAndPrint", AddBoth, [] { PrintAll(90); }, nullptr, [] { EXPECT_EQ(printed, lineA + lineB); }},
    {"WrapAndPrint", [] { syslogAdd(bigA.c_str(), 0); }, [] { PrintAll(150000); }, [] { FillRing(), EmptyRing(); },
     [] { EXPECT_TRUE(printed == bigA); }},
    {"LapAndPrint", Lap, PrintDuringLap, PrepareLap, NoLineIsTorn},
    {"LapOfTheFrontAndPrint", Lap, PrintDuringLap, PrepareLapOfTheFront, NoLineIsTorn},
    {"OverwriteAndPrint", // the second line goes where the first of the two was, if that has been taken
     [] { syslogAdd(Line('A', 100000).c_str(), 0), syslogAdd(Line('B', 200000).c_str(), 0); }, syslogDrainQueue,
     FillRing, NoLineIsTorn},
    {"FilterAndLine", // which finds characters of the one before
     [] { logmsg_cullfilter_add("axx"), logmsg_cullfilter_delete("axx"); }, [] { logmsg_print(lineA.c_str(), 40); },
     [] {
         Once([] { logmsg_cullfilter_add("another"); }); // without one they are not looked at
         logmsg_cullfilter_add("xa"), logmsg_cullfilter_delete("xa");
         EmptyRing();
     },
     [] { EXPECT_EQ(Drained(), lineA); }},
    {"FormatAndLine", [] { logmsg_set_format(kLogFormatLevel); }, syslogDrainQueue,
     [] { EmptyRing(), syslogAdd(lineA.c_str(), 0); }, [] { EXPECT_EQ(printed, lineA); }},
    {"StartAndLine", InitSyslogInterface, LogTwo, Nothing, Nothing, kNewProcess, 2},
    {"SwitchesAndLine", [] { syslogSetLogLevel(kLogDebug), logmsg_set_syslog_echo(0), logmsg_set_spewfilter(0); },
     [] { loginfo("a", "line\n"), syslogDrainQueue(); }, nullptr, [] { EXPECT_EQ(printed, "INFO  pc[0]: a: line\n"); }},
};
INSTANTIATE_TEST_SUITE_P(Log, Orders, testing::ValuesIn(Group(kLog, EmptyRing, Nothing, kWriter)), NameOf);

// ---- Configuration

void Put(const char *name)
{
    DeleteItemFromCache(name, 0);
    folders->Put("dat/" + std::string(name) + ".dat", "old\n");
}
void PutItem()
{
    Put("item");
    folders->Put("choice/item.choice", "default\n");
}
void NoItem()
{
    DeleteItemFromCache("item", 0);
    std::filesystem::remove(folders->root() / "dat/item.dat");
    std::filesystem::remove(folders->root() / "choice/item.choice");
}
std::string ReadItem()
{
    char value[kConfigValueSize];
    return ConfigRead("item", 0, value) == kNoError ? value : "missing";
}
constexpr auto Read = [] { ReadItem(); };
constexpr auto Write = [] { ConfigWrite("item", 0, "new"); };
constexpr auto Delete = [] { ConfigDelete("item", 0); };
constexpr auto Cache = [] { WriteItemToCache("item", 0, "mine"); };
constexpr auto Drop = [] { DeleteItemFromCache("item", 0); };
constexpr auto CacheIsFile = [] { EXPECT_EQ(folders->Get("dat/item.dat"), ReadItem() + "\n"); };
constexpr auto ItemIsMine = [] { EXPECT_EQ(ReadItem(), "mine"); };
void ItemIsNew()
{
    EXPECT_EQ(ReadItem(), "new");
    CacheIsFile();
}
void Heard(ModT * /*pMod*/, UInt32 /*funcIndex*/, void * /*userDefined*/, void *pArgs)
{
    EXPECT_STREQ(static_cast<ConfigNotifyT *>(pArgs)->value, "new");
}
constexpr auto Watch = [] { ConfigAddImmediateCallback("item", 0, Heard, nullptr); };
constexpr auto Unwatch = [] { ConfigDeleteCallback("item", 0, Heard, nullptr); };
constexpr auto CacheItem = [] { PutItem(), ReadItem(); };
constexpr auto PutFilter = [] { folders->Put("dat/cullfilter.dat", "nothing\n"); };
void FilterIsReadOnce()
{
    EXPECT_EQ(Printed([] { logmsg_cullfilter_dump(); }), "cull filters:\n  \"nothing\"\n");
}
void FoldersAreFoundOnce()
{
    EXPECT_EQ(printed, "Config Folder data initialized successfully(Choice dir: ../choice/, Dat Dir: ../dat/)\n");
}

const PairT kConfig[] = {
    {"ReadAndWrite", Read, Write, nullptr, ItemIsNew},
    {"ReadAndDelete", Read, Delete, nullptr, [] { EXPECT_EQ(ReadItem(), "default"); }},
    {"ReadAndRestore", Read, [] { ConfigRestore("item", 0); }},
    {"ReadAndCache", Read, Cache, nullptr, ItemIsMine},
    {"ReadAndCacheOnly", Read, [] { ConfigWriteCacheOnly("item", 0, "mine"); }, nullptr, ItemIsMine},
    {"WriteAndCache", Write, Cache, nullptr, [] { EXPECT_EQ(folders->Get("dat/item.dat"), "new\n"); }},
    {"WriteAndFlushTask", // which looks how old the last write is
     [] { ConfigStoreWrite("item", 0, "new"); },
     [] { results[1] = gsConfigWriteOutstanding != 0 ? RealTime() - gstLastConfigWrite : 0; },
     [] { gsConfigWriteOutstanding = 0, gstLastConfigWrite = 0; }, [] { EXPECT_LT(results[1], 4u); }},
    {"ReadAndDrop", Read, Drop},
    {"TwoRead", Read, Read},
    {"WriteAndDelete", Write, Delete, nullptr,
     [] { EXPECT_EQ(folders->Get("dat/item.dat"), ReadItem() == "new" ? "new\n" : "missing"); }},
    {"WriteAndDrop", Write, Drop, nullptr, ItemIsNew},
    {"TwoWrite", Write, [] { ConfigWrite("item", 0, "other"); }},
    {"TwoWriteNew", Write, Write, NoItem, ItemIsNew},
    {"WriteAndWatch", Write, Watch, nullptr, ItemIsNew},
    {"ReadAndWatch", Read, Watch},
    {"WriteAndUnwatch", Write, Unwatch, [] { PutItem(), Watch(); }, ItemIsNew},
    {"DropAndWatch", Drop, Watch, CacheItem,
     [] { EXPECT_EQ(ConfigDeleteCallback("item", 0, Heard, nullptr), kNoError); }},
    {"DropAndUnwatch", Drop, Unwatch, CacheItem},
    {"DropAndLookUp", Drop, [] { LookupItemInCache("item", 0), ConfigDumpAll(); }, CacheItem},
    {"WriteAndReadAnother", // of the same bucket
     Write, [] { ConfigRead("iota", 0, ignored); }, [] { PutItem(), Put("iota"); }, ItemIsNew},
    {"WriteAndDump", Write, [] { ConfigDumpByName("item"); }, CacheItem, ItemIsNew},
    {"FirstReadAndWrite", Read, Write, Nothing, [] { FoldersAreFoundOnce(), ItemIsNew(); }, kNothingYet, 2},
    {"FirstStores", ConfigStoreInit, ConfigStoreInit, Nothing, FoldersAreFoundOnce, kNothingYet, 2},
    {"FirstLines", [] { loginfo("a", "one\n"); }, LogTwo, PutFilter, FilterIsReadOnce, kNothingYet, 4},
};
INSTANTIATE_TEST_SUITE_P(Config, Orders, testing::ValuesIn(Group(kConfig, PutItem, CacheIsFile)), NameOf);

// ---- Reads through the master

RemMsgRspT answerTo;
void *answerContext;
std::mutex sendMutex; // of the transport

Int32 SendToMaster(RemMsgPathT * /*pPath*/, const char * /*command*/, RemMsgRspT completion, void *context)
{
    const std::scoped_lock lock(sendMutex);
    answerTo = completion;
    answerContext = context;
    return 0;
}
Int32 AnswerAtOnce(RemMsgPathT *pPath, const char *command, RemMsgRspT completion, void *context)
{
    completion(pPath, (std::string(command) + " answer").c_str(), context);
    return 0;
}
RemMsgPathT master = {kRemMsgPathOpen, SendToMaster};

template <decltype(RemMsgPathT::SendCmd) send> void BeRemote()
{
    PrepareTicks();
    processor = 1;
    gRemMsgPaths[kMasterProcessor] = &master;
    master.SendCmd = send;
    answerTo = nullptr;
}
void Answer()
{
    const std::unique_lock lock(sendMutex);
    if (answerTo != nullptr)
        answerTo(&master, "config item 0 answer", answerContext);
}
std::string answers[2];
template <unsigned index> void ReadRemotely()
{
    char value[kConfigValueSize];
    ConfigStoreRead("item", index, value, sizeof value);
    answers[index] = value;
}

const PairT kRemote[] = {
    {"ReadAndAnswer", ReadRemotely<0>, Answer, nullptr,
     [] { EXPECT_TRUE(answers[0].empty() || answers[0] == "answer") << answers[0]; }},
    {"TwoRead", ReadRemotely<0>, ReadRemotely<1>, BeRemote<AnswerAtOnce>,
     [] {
         EXPECT_EQ(answers[0], "answer");
         EXPECT_EQ(answers[1], "answer");
     }},
};
INSTANTIATE_TEST_SUITE_P(Remote, Orders, testing::ValuesIn(Group(kRemote, BeRemote<SendToMaster>, Nothing)), NameOf);

// ---- Modules

ModT mods[2];

template <unsigned index> constexpr auto InitMod = [] { ModInit(&mods[index], "ordr", index, nullptr); };
template <unsigned index> void ExitMod()
{
    ModExit(&mods[index]);
    mods[index] = {};
}
constexpr auto InitModOnce = [] { Once(InitMod<0>); };
void CountCall(ModT * /*pMod*/, UInt32 /*funcIndex*/, void *counter, void * /*pArgs*/)
{
    ++*static_cast<UInt32 *>(counter);
}
template <unsigned index> void AddCounter()
{
    ModAddCallback(&mods[0], 7, CountCall, &results[index], 0);
}
void InitModWithCounter()
{
    InitMod<0>();
    results[0] = 0;
    AddCounter<0>();
}
void AddMany()
{
    static UInt32 counters[11];
    for (UInt32 &counter : counters)
        ModAddCallback(&mods[0], 7, CountCall, &counter, 0);
}
constexpr auto CallMod = [] { ModCallCallbacks(&mods[0], 7, &shared, sizeof shared); };
constexpr auto DeleteAll = [] { ModDeleteAllCallbacks(&mods[0]); };
void DoNothing(void * /*pArgs*/, Int32 /*argLen*/) {}
void DeferToSelf()
{
    ModDeferFunctionCall(0, DoNothing, nullptr, 0);
    ModProcessDeferredFunctions();
}
void DeferTwo()
{
    for (int i = 0; i < 2; i++)
        ModDeferFunctionCall(
            ids[1], [](void *, Int32) { results[1]++; }, nullptr, 0);
}
void ProcessTwo()
{
    UInt32 events = 0;
    for (ModProcessDeferredFunctions(); results[1] < 2; ModProcessDeferredFunctions())
        ev_receive(kModDeferredEvent, kEvAny, 0, &events);
}
void LookAtDeferred()
{
    DeferredFuncStatsT stats;
    ModDumpDeferredFunctions();
    ModSearchDeferredFunction(ids[0], DoNothing);
    ModGetDeferredFunctionStats(ids[0], &stats);
}
bool registered;
void CallRegistered(ModT * /*pMod*/, UInt32 /*funcIndex*/, void * /*userDefined*/, void *pArgs)
{
    EXPECT_TRUE(registered);
    EXPECT_EQ(*static_cast<UInt32 *>(pArgs), shared) << "it is of the run before";
}
void Unregister()
{
    ModProcessDeferredCallbacks();
    ModDeleteCallback(&mods[0], 7, CallRegistered, nullptr);
    registered = false;
    ModProcessDeferredCallbacks();
}

const PairT kMods[] = {
    {"TwoInit", InitMod<0>, InitMod<1>, Nothing,
     [] {
         EXPECT_EQ(ModFindByName("ordr", 0), &mods[0]);
         EXPECT_EQ(ModFindByName("ordr", 1), &mods[1]);
         ExitMod<0>(), ExitMod<1>();
     }},
    {"ExitAndFind", ExitMod<0>, [] { EXPECT_EQ(ModFindByName("ordr", 1), &mods[1]); },
     [] { InitMod<0>(), InitMod<1>(); }, ExitMod<1>},
    {"CallAndAdd", CallMod, AddMany, InitModWithCounter,
     [] {
         EXPECT_EQ(results[0], 1u);
         ExitMod<0>();
     }},
    {"TwoAdd", AddCounter<0>, AddCounter<1>, nullptr,
     [] {
         for (UInt32 &result : results)
             EXPECT_EQ(ModDeleteCallback(&mods[0], 7, CountCall, &result), kNoError);
         ExitMod<0>();
     }},
    {"CallAndDelete", CallMod, Unregister,
     [] {
         shared++, registered = true, InitMod<0>();
         ModAddCallbackToTask(&mods[0], 7, CallRegistered, nullptr, kModOnTask, ids[1]);
     }},
    {"AddAndDeleteAll", AddMany, DeleteAll},
    {"InitAndFind", InitMod<0>, [] { ModFindByName("ordr", 0); }, Nothing},
    {"CallAndDeleteAll", CallMod, DeleteAll, InitModWithCounter},
    {"DumpAndAdd", [] { ModDump(&mods[0], 0); }, AddMany},
    {"DeferAndProcess", DeferTwo, ProcessTwo, [] { results[1] = 0; }, Nothing},
    {"TwoDefer", DeferToSelf, DeferToSelf, InitModOnce, Nothing},
    {"DeferAndLook", DeferToSelf, LookAtDeferred, InitModOnce, Nothing},
    {"FilterAndTrace", [] { ModTraceFilterAdd("other"), ModTraceFilterDelete("other"); },
     [] { ModTraceFilterAdd("another"), ModTrace(&mods[0], "line\n"), ModTraceFilterDelete("another"); }, InitModOnce,
     [] { EXPECT_EQ(ModTraceFilterDelete("other"), kBadParameter); }},
    {"FirstInits", InitMod<0>, InitMod<1>, Nothing, [] { EXPECT_EQ(ModFindByName("ordr", 1), &mods[1]); }, kNothingYet,
     2},
    {"TooManyAndProcess", [] { ModDeferFunctionCall(ids[1], DoNothing, nullptr, 0); }, ModProcessDeferredFunctions,
     [] {
         InitModOnce();
         while (ModDeferFunctionCall(ids[1], DoNothing, nullptr, 0) == kNoError)
             continue;
     },
     Nothing, kTwoTasks, 16},
};
INSTANTIATE_TEST_SUITE_P(Mods, Orders, testing::ValuesIn(Group(kMods, InitMod<0>, ExitMod<0>)), NameOf);

// ---- Ports

constexpr RS232Cfg kFormat = {SERIAL_BAUDRATE_115200, SERIAL_DATABITS_8, SERIAL_PARITY_NO, SERIAL_STOPBITS_1, 0, 0, 0},
                   kNoFormat = {
                       SERIAL_BAUDRATE_115200, SERIAL_DATABITS_8, SERIAL_PARITY_NONE, SERIAL_STOPBITS_1, 0, 0, 0};
eErrorT opened[2], closed[2];

constexpr auto InitPorts = [] { Once([] { SetSystemHardwareType(kKora), DevMgrSerial_Init(); }); };
template <unsigned index> void Open()
{
    opened[index] = Serial_Open(0, nullptr, nullptr, nullptr, &kFormat);
}
template <unsigned index> constexpr auto OpenScript = [] { opened[index] = Serial_Open_PSH(0, &kFormat); };
template <unsigned index> constexpr auto Close = [] { closed[index] = Serial_Close(0); };
constexpr auto Enable = [] { Serial_Enable(0, SERIAL_DIRECTION_TX); };
void OpenPort()
{
    InitPorts();
    Open<0>();
}
void ClosePort()
{
    Serial_Close(0);
    close(fake.master);
}
// Whoever comes second gets the other result.
void OneDidIt(const eErrorT (&done)[2], eErrorT otherwise)
{
    EXPECT_EQ(std::max(done[0], done[1]), kNoError);
    EXPECT_EQ(std::min(done[0], done[1]), otherwise);
    ClosePort();
}
void OneOpenedIt()
{
    OneDidIt(opened, kAlreadyInUse);
    Serial_Close_PSH(0);
}
void InitScript()
{
    InitPorts();
    TellNobody();
}
void InitScriptToFile()
{
    fake.commands[1] = open((folders->root() / "relay").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    InitPorts();
}
void ScriptIsAsThePort()
{
    const std::string commands = folders->Get("relay");
    const bool isOpen = commands.rfind(" open ") > commands.rfind(" close ");
    EXPECT_EQ(Serial_GetCfg(0, &kFormat), isOpen ? kNoError : kItemNotFound) << commands;
    EXPECT_EQ(opened[0], kNoError);
    EXPECT_EQ(closed[1], kNoError);
    ClosePort();
    Serial_Close_PSH(0);
    close(fake.commands[1]);
}

// Two sets of callbacks, of which each knows its own context; the second call ends the loop of the port's task.
UInt32 sent;
template <unsigned index> void Sent(void *context)
{
    EXPECT_EQ(context, &results[index]);
    if (++sent == 2)
        CBList->devCB.fd = -1;
}
void SetCallbacks(DevmgrSerial_CBInfo_t callbacks)
{
    DevmgrSerial_CBInfo_t *pCallbacks = &callbacks;
    IORB iorb{};
    iorb.pBuffer = reinterpret_cast<char *>(&pCallbacks);
    iorb.ctlCode = kSerialSetCallbacks;
    DevMgrFPGASerial_Ioctl(&CBList->devCB, &iorb);
}
const DevmgrSerial_CBInfo_t kCallbacksA = {Sent<0>, nullptr, &results[0]},
                            kCallbacksB = {Sent<1>, nullptr, &results[1]};
int portFd;

const PairT kPorts[] = {
    {"TwoOpen", Open<0>, Open<1>, nullptr, [] { OneDidIt(opened, kAlreadyInUse); }},
    {"TwoClose", Close<0>, Close<1>, OpenPort, [] { OneDidIt(closed, kItemNotFound); }},
    {"CloseAndOpen", Close<0>, Open<1>, OpenPort,
     [] {
         EXPECT_EQ(closed[0], kNoError);
         EXPECT_EQ(Serial_Close(0), opened[1] == kNoError ? kNoError : kItemNotFound);
         close(fake.master);
     }},
    {"OpenAndEnable", Open<0>, Enable},
    {"TwoOpenScript", OpenScript<0>, OpenScript<1>, InitScript, OneOpenedIt},
    {"OpenAndOpenScript", Open<0>, OpenScript<1>, InitScript, OneOpenedIt},
    {"OpenAndCloseScript", OpenScript<0>, [] { closed[1] = Serial_Close_PSH(0); }, InitScriptToFile, ScriptIsAsThePort},
    {"FailToOpenAndClose", // each open one once
     [] { Serial_Open(0, nullptr, nullptr, nullptr, &kNoFormat); }, Close<1>, nullptr,
     [] {
         EXPECT_EQ(CBList->devCB.numCloses, CBList->devCB.numOpens);
         EXPECT_EQ(Serial_Close(0), kItemNotFound);
         close(fake.master);
     }},
    {"EnableAndStop", // which a callback does
     kOwn, Enable,
     [] {
         const auto stop = [](void *) { Serial_Disable(0, SERIAL_DIRECTION_RX); }; // and transmission
         OpenPort();
         Enable();
         SetCallbacks({nullptr, nullptr, nullptr});
         StartVictim([] { DevMgrSerial_asyncDataSendRecv(low_id(CBList), child, 0, 0); });
         CBList->asyncThread_running = 1;
         CBList->threadID = child;
         SetCallbacks({stop, nullptr, nullptr});
     },
     [] { ClosePort(), OnlyPlayersAreLeft(); }},
    {"CallbacksAndTask", [] { SetCallbacks(kCallbacksB), Enable(), SetCallbacks(kCallbacksA); },
     [] { DevMgrSerial_asyncDataSendRecv(low_id(CBList), 0, 0, 0); },
     [] {
         OpenPort();
         Enable();
         sent = 0;
         portFd = CBList->devCB.fd;
         CBList->asyncThread_running = 1; // it is the second player
         SetCallbacks(kCallbacksA);
     },
     [] {
         CBList->devCB.fd = portFd;
         CBList->asyncThread_running = 0;
         ClosePort();
     }},
};
INSTANTIATE_TEST_SUITE_P(Ports, Orders, testing::ValuesIn(Group(kPorts, InitPorts, ClosePort)), NameOf);

// ---- Tasks that are deleted in the middle of something

// What a task does that is deleted meanwhile.
PairT Deleted(const char *name, void (*work)(), void (*setUp)() = Nothing, void (*check)() = nullptr)
{
    return {name, kOwn, DeleteChild, [=] { setUp(), StartVictim(work); }, check};
}

UInt32 twins[2];
void StartTwins()
{
    for (UInt32 &tid : twins)
        t_create("twin", 10, 0, 0, 0, &tid);
    for (unsigned i = 0; i < 2; i++)
        StartBody(twins[i], [i] {
            schedule::Play(i);
            t_delete(twins[1 - i]);
        });
}
void ConfigurationRuns()
{
    EXPECT_EQ(ConfigRead("none", 0, ignored), kItemNotFound);
    pthread_mutex_lock(&tcblistmutex);
    EXPECT_TRUE(tcblist != nullptr && tcblist->next == nullptr) << "one flush task";
    pthread_mutex_unlock(&tcblistmutex);
}
void ItemIsWhole()
{
    OnlyPlayersAreLeft();
    const std::string value = ReadItem();
    EXPECT_EQ(folders->Get("dat/item.dat"), value + (value != "missing" ? "\n" : ""));
    EXPECT_EQ(NumEntries(folders->root() / "dat"), value != "missing" ? 1 : 0);
}
void FillRingForGood()
{
    Once([] {
        ConfigStoreExit(); // the task of the first log line
        FillRing();
        while (syslogQueue(lineA.c_str()))
            continue;
    });
    synced = false;
    gsConfigWriteOutstanding = 1;
}

[[maybe_unused]] const PairT kCancels[] = {
    Deleted(
        "WaitAndDelete", [] { WaitFor(0); }, Nothing,
        [] {
            OnlyPlayersAreLeft();
            ev_send(child, 1); // by somebody who does not know yet
        }),
    Deleted(
        "TimedWaitAndDelete", [] { WaitFor(100000); }, PrepareTicks, NothingIsLeftOfTheVictim),
    {"TwoDeleteEachOther", kOwn, kOwn, StartTwins},
    Deleted(
        "DeletionAndDelete", [] { t_delete(twins[0]); }, [] { twins[0] = StartTask("twin", [] { WaitFor(0); }); }),
    Deleted(
        "LogAndDelete", [] { loginfo("test", "on its way\n"); }, Nothing,
        [] {
            OnlyPlayersAreLeft();
            loginfo("test", "there is no lock left held\n");
        }),
    Deleted("CommandAndDelete", Command, TellNobody),
    Deleted(
        "ReadsAndDelete",
        [] {
            read_command("echo", ignored, sizeof ignored);
            find_pid("");
            osTaskUsage();
            ConfigStoreRead("item", 0, ignored, 8);
        },
        PutItem, NoVictimIsLeft),
    Deleted(
        "WriteAndDelete", [] { ConfigWrite("item", 0, shared++ % 2 == 0 ? "even" : "odd"); }, Nothing, ItemIsWhole),
    Deleted(
        "CloseAndDelete", [] { Serial_Close(0); }, OpenPort,
        [] {
            OnlyPlayersAreLeft();
            EXPECT_EQ(Serial_Close(0), kItemNotFound);
            close(fake.master);
        }),
    {"FirstReadAndCancel", kOwn, EndThread, [] { StartThread([] { ConfigRead("none", 0, ignored); }); },
     ConfigurationRuns, kNothingYet, 2},
    {"FirstLineAndCancel", kOwn, EndThread,
     [] {
         PutFilter();
         folders->Put("dat/logformat.dat", "level\n");
         StartThread([] { loginfo("a", "one\n"); });
     },
     [] {
         LogTwo();
         EXPECT_EQ(logmsg_get_format(), kLogFormatLevel);
         FilterIsReadOnce();
         ConfigurationRuns();
     },
     kNothingYet, 4},
    {"PollAndAdd", kOwn, [] { AddDevice(), EndThread(); },
     [] { MakeDevice(), StartThread([] { io_comp_task(0, 0, 0, 0); }); }, Nothing},
    {"FlushAndDelete", // when the ring is full, which is reported
     kOwn, DeleteChild, [] { FillRingForGood(), StartVictim(ConfigStoreExit); },
     [] {
         OnlyPlayersAreLeft();
         EXPECT_TRUE(synced);
     },
     kWriter},
};
#ifndef __SANITIZE_ADDRESS__ // it cannot follow a cancelled thread through its scopes
INSTANTIATE_TEST_SUITE_P(Cancels, Orders, testing::ValuesIn(Group(kCancels, Nothing, OnlyPlayersAreLeft)), NameOf);
#endif

} // namespace

void sync() noexcept
{
    synced = true;
}
