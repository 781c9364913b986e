// What two tasks do at once, in every order of one interruption: one of them is stopped at each of its steps in turn
// while the other one does all of its own, and then the other way round.
#include "bench/standin/schedule.h"

#include "Common/OS/dev.h"
#include "Common/OS/linux/oslinux.h"
#include "Common/OS/linux/psosapi/ptimer.h"
#include "Common/OS/linux/psosapi/semaphore.h"
#include "Common/OS/logmsg.h"
#include "Common/OS/syslog.h"
#include "Common/framework/config.h"
#include "Common/framework/list.h"
#include "Common/framework/remmsg.h"
#include "bench/standin/ptyboard.h"
#include "devlib/serialapi.h"
#include "tests/folders.h"
#include "tests/tasks.h"

#include <array>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>

extern "C" UInt32 __wrap__Z15GetProcessorNumv(); // NOLINT(bugprone-reserved-identifier): the linker's name for it

extern std::atomic<Int32> gsConfigWriteOutstanding;
extern std::atomic<UInt32> gstLastConfigWrite;

namespace
{

std::atomic<UInt32> processor;
bool synced;         // the file systems
UInt32 ids[2];       // of the tasks that play the parts
std::string printed; // on standard output, during the run
const ConfigFolders *folders;

// What the parts leave for the check, and must keep apart themselves where both use it.
UInt32 results[2], shared, child;

// Standard output in a file, but for the lines of the tests.
class OutputHold
{
public:
    OutputHold()
    {
        std::fflush(stdout);
        fcntl(fileno(file_), F_SETFL, O_APPEND);
        dup2(fileno(file_), STDOUT_FILENO);
    }
    ~OutputHold()
    {
        std::fflush(stdout);
        dup2(terminal_, STDOUT_FILENO);
        close(terminal_);
        char chunk[4096];
        printed.clear();
        for (ssize_t got, at = 0; (got = pread(fileno(file_), chunk, sizeof chunk, at)) > 0; at += got)
            printed.append(chunk, static_cast<std::size_t>(got));
        std::fclose(file_);
    }
    OutputHold(const OutputHold &) = delete;
    OutputHold &operator=(const OutputHold &) = delete;

private:
    std::FILE *file_ = std::tmpfile();
    int terminal_ = dup(STDOUT_FILENO);
};

struct PairT {
    const char *name;
    schedule::PartT parts[2];
    void (*setUp)();
    void (*check)();
    enum KindT {
        kTasks,
        kWriter,     // the second player is the log writer's task
        kNewProcess, // each time, for what a process does once; the players are no tasks
        kNothingYet, // the same, and there was no log line yet, which reads settings
    } kind = kTasks;
    unsigned stride = 1; // from one stop to the next
};

void PrintTo(const PairT &pair, std::ostream *stream)
{
    *stream << pair.name;
}

schedule::PartT Task(void (*body)())
{
    return {schedule::Player::Worker, body};
}
[[maybe_unused]] constexpr schedule::PartT kTick = {schedule::Player::Ticker, nullptr};
[[maybe_unused]] constexpr schedule::PartT kOwn = {schedule::Player::Own, nullptr};

// Without any task.
void StartLog()
{
    schedule::refuseThreads = true;
    loginfo("test", "reads the settings\n");
    logmsg_set_format(kLogFormatLevel);
    schedule::refuseThreads = false;
}

void StartThreads()
{
    for (unsigned i = 0; i < 2; i++)
        std::thread(schedule::Work, i).detach();
    schedule::AwaitWorkers();
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
    bool more = false;
    {
        const OutputHold hold;
        pair.setUp();
        more = schedule::Run(pair.parts, first, stop);
    }
    SCOPED_TRACE(testing::Message() << "part " << first << " was stopped at its step " << stop << "\n" << printed);
    pair.check();
    return more;
}

bool RunInNewProcess(const PairT &pair, unsigned first, unsigned stop)
{
    std::fflush(stdout);
    const pid_t pid = fork();
    if (pid == 0) {
        StartThreads();
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

class Orders : public testing::TestWithParam<PairT>
{
};

TEST_P(Orders, KeepTheirWord)
{
    const PairT &pair = GetParam();
    std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ); // as in the program: a line is written at once
    const auto own = std::make_unique<ConfigFolders>();
    folders = own.get();
    const bool fresh = pair.kind >= PairT::kNewProcess;
    gLibPThreadNPTL = 1;
    if (pair.kind != PairT::kNothingYet)
        StartLog();
    if (!fresh)
        StartTasks(pair.kind == PairT::kWriter);
    unsigned runs = 0;
    for (unsigned first = 0; first < 2; first++)
        for (unsigned stop = 1; (fresh ? RunInNewProcess : RunOnce)(pair, first, stop) && !HasFailure();
             stop += pair.stride)
            runs++;
    std::printf("orders: %u of %s\n", runs, pair.name);
}

void NoSetUp() {}

void NoCheck() {}

// Runs once in a process; each lambda has a type of its own.
template <class Function> void Once(Function function)
{
    static bool done;
    if (!std::exchange(done, true))
        function();
}

// ---- Tasks

constexpr auto MakeChild = [] { t_create("chld", 10, 0, 0, 0, &child); };
void MakeAndDelete()
{
    UInt32 tid = 0;
    t_create("chld", 10, 0, 0, 0, &tid);
    t_delete(tid);
}
constexpr auto DeleteChild = [] { t_delete(child); };
// Whoever of several does it: when the call returns, the task is gone.
void DeleteAndLook(unsigned index)
{
    char name[kTaskNameSize];
    t_delete(child);
    results[index] = t_copy_name(child, name);
}
void OnlyPlayersAreLeft()
{
    EXPECT_TRUE(Eventually([] { return NumTasks() == 2; })) << NumTasks();
}

TCB *Tcb(UInt32 tid)
{
    return low_pointer<TCB>(tid);
}
std::atomic<bool> starts;

const PairT kTasks[] = {
    {"TwoCreateAndDelete", {Task(MakeAndDelete), Task(MakeAndDelete)}, NoSetUp, OnlyPlayersAreLeft},
    {"CreateAndFind",
     {Task(MakeAndDelete), Task([] { t_ident("chld", 0, &results[1]); })},
     NoSetUp,
     OnlyPlayersAreLeft},
    {"DeleteAndName",
     {Task(DeleteChild), Task([] {
          char name[kTaskNameSize];
          t_copy_name(child, name);
      })},
     MakeChild,
     OnlyPlayersAreLeft},
    {"DeleteAndLookUp",
     {Task(DeleteChild), Task([] {
          char name[kTaskNameSize];
          t_name_from_pid(-2, name);
      })},
     MakeChild,
     OnlyPlayersAreLeft},
    {"DeleteAndDump", {Task(DeleteChild), Task(osTaskDump)}, MakeChild, OnlyPlayersAreLeft},
    {"DeleteAndUsage", {Task(DeleteChild), Task(osTaskUsage)}, MakeChild, OnlyPlayersAreLeft},
    {"PriorityAndDump", {Task([] { t_setpri(0, ++shared % 9, nullptr); }), Task(osTaskDump)}, NoSetUp, NoCheck},
    {"PriorityAndLookUp",
     {Task([] { t_setpri(0, ++shared % 9, nullptr); }), Task([] {
          char name[kTaskNameSize];
          t_name_and_pri_from_pid(getpid(), name, &results[1]);
      })},
     NoSetUp,
     NoCheck},
    {"DeleteAndSelf", {Task(DeleteChild), Task([] { FindTcbThread(pthread_self()); })}, MakeChild, OnlyPlayersAreLeft},
    {"DeleteAndListedEvent",
     {Task(DeleteChild), Task([] { results[1] = ev_send_listed(child, 1); })},
     MakeChild,
     OnlyPlayersAreLeft},
    {"TwoDelete",
     {Task([] { DeleteAndLook(0); }), Task([] { DeleteAndLook(1); })},
     [] { child = StartTask("chld", [] { tm_wkafter(10000); }); },
     [] {
         EXPECT_EQ(results[0], kTaskNotFound);
         EXPECT_EQ(results[1], kTaskNotFound);
         OnlyPlayersAreLeft();
     }},
    {"TwoDeleteUnstarted", {Task(DeleteChild), Task(DeleteChild)}, MakeChild, OnlyPlayersAreLeft},
    {"StartAndEnd",
     {Task([] {
          starts = true;
          t_start(
              child, 0, [](UInt32, UInt32, UInt32, UInt32) {}, nullptr);
      }),
      Task([] {
          for (int i = 0; i < 30 && starts && NumTasks() > 2; i++)
              usleep(1000);
      })},
     [] { starts = false, MakeChild(); },
     [] {
         OnlyPlayersAreLeft();
         EXPECT_EQ(Tcb(child)->thread, pthread_t{});
     }},
    {"FirstTree", {Task(TreeStub), Task(TreeStub)}, NoSetUp, [] { EXPECT_NE(gTCBTree, 0u); }, PairT::kNewProcess, 2},
};

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
void PrepareTicks()
{
    Once([] { StartSystemTimer(), schedule::TakeTicks(); });
}
void TimersAreFree()
{
    UInt32 pool[kMaxTimers];
    for (UInt32 &tmid : pool) // one that is not there stops the program
        tm_callback_after(
            100000, &tmid, [](void *) { return 0; }, nullptr);
    std::for_each(pool, std::end(pool), tm_cancel);
}
void NothingIsLeftOfTheVictim()
{
    EXPECT_TRUE(Eventually([] { return NumTasks() == 3; })) << NumTasks();
    TimersAreFree();
}
long NumDescriptors()
{
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}
void NoVictimIsLeft()
{
    static const long descriptors = NumDescriptors();
    OnlyPlayersAreLeft();
    EXPECT_EQ(NumDescriptors(), descriptors);
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
void ConfigurationRuns()
{
    EXPECT_EQ(ConfigRead("none", 0, std::array<char, kConfigValueSize>().data()), kItemNotFound);
    pthread_mutex_lock(&tcblistmutex);
    EXPECT_TRUE(tcblist != nullptr && tcblist->next == nullptr) << "one flush task";
    pthread_mutex_unlock(&tcblistmutex);
}
constexpr auto PutFilter = [] { folders->Put("dat/cullfilter.dat", "nothing\n"); };
void FilterIsReadOnce()
{
    {
        const OutputHold hold;
        logmsg_cullfilter_dump();
    }
    EXPECT_EQ(printed, "cull filters:\n  \"nothing\"\n");
}
// The relay takes commands.
void TellNobody()
{
    if (fake.commands[1] < 0)
        fake.commands[1] = open("/dev/null", O_WRONLY);
}
UInt32 twins[2];

const PairT kEnds[] = {
    {"EndAndDelete", {kOwn, Task(DeleteChild)}, [] { StartVictim([] {}); }, OnlyPlayersAreLeft},
    {"AttachAndDump",
     {kOwn, Task([] { osTaskDump(), FindTcbThread(thread); })},
     [] { StartThread([] { t_attach("atch", 10), t_attach("agin", 11), t_delete(0); }); },
     OnlyPlayersAreLeft},
    {"AttachAndEnd",
     {kOwn, Task([] { FindTcbThread(thread); })},
     [] { StartThread([] { t_attach("atch", 10); }); },
     [] {
         pthread_join(thread, nullptr);
         EXPECT_EQ(FindTcbThread(thread), nullptr);
         OnlyPlayersAreLeft();
     }},
    {"EndAndEvent",
     {kOwn, Task([] { ev_send(child, 1); })},
     [] { StartVictim([] { WaitFor(0); }); },
     OnlyPlayersAreLeft},
};

DEVCB *device;

void MakeDevice()
{
    if (device != nullptr)
        return;
    device = static_cast<DEVCB *>(low_calloc(sizeof(DEVCB)));
    dev_init(device, "dev", 0, nullptr, nullptr, nullptr, nullptr, nullptr);
    dev_add(device);
}

// ---- Events and timers

void Receive(UInt32 events, UInt32 flags, UInt32 ticks)
{
    results[0] = ev_receive(events, flags, ticks, &results[1]);
}
UInt32 tmid, otherTmid;

const PairT kEvents[] = {
    {"ReceiveAndSend",
     {Task([] {
          Receive(1, kEvAny, 0);
          shared++; // the event hands it over
      }),
      Task([] { shared = 1, ev_send(ids[0], 1); })},
     NoSetUp,
     [] { EXPECT_EQ(shared, 2u); }},
    {"ReceiveAllAndSend",
     {Task([] { Receive(3, 0, 0); }), Task([] { ev_send(ids[0], 1), ev_send(ids[0], 2); })},
     NoSetUp,
     [] { EXPECT_EQ(results[1], 3u); }},
    {"TakeAndSend",
     {Task([] { Receive(1, kEvAny | kEvNoWait, 0); }), Task([] { ev_send(ids[0], 2); })},
     [] { ev_send(ids[0], 1); },
     [] { EXPECT_EQ(Tcb(ids[0])->events_captured.exchange(0), 2u); }},
    {"TwoSend",
     {Task([] { ev_send(child, 1); }), Task([] { ev_send(child, 2); })},
     [] { Once([] { MakeChild(); }); },
     [] { EXPECT_EQ(Tcb(child)->events_captured.exchange(0), 3u); }},
    {"ReceiveAndTick",
     {Task([] { Receive(1, kEvAny, 1); }), kTick},
     PrepareTicks,
     [] {
         EXPECT_EQ(results[0], kEvTimedOut);
         EXPECT_EQ(printed, "");
         TimersAreFree();
     }},
    {"FirstReceiveAndTick",
     {kOwn, kTick},
     [] { PrepareTicks(), StartVictim([] { WaitFor(1); }); },
     [] {
         EXPECT_EQ(printed, "");
         NothingIsLeftOfTheVictim();
     }},
    {"TimedReceiveAndSend",
     {Task([] { Receive(1, kEvAny, 100000); }), Task([] { ev_send(ids[0], 1); })},
     PrepareTicks,
     [] {
         EXPECT_EQ(results[0], 0u);
         TimersAreFree();
     }},
    {"SendAndTimeout",
     {Task([] { ev_send(child, 1); }), Task([] { ev_receive_timeout(Tcb(child)); })},
     [] { Once([] { MakeChild(); }); },
     NoCheck},
    {"StartAndTick",
     {Task([] { tm_evafter(1, 1, &tmid), Receive(1, kEvAny, 0); }), kTick},
     PrepareTicks,
     TimersAreFree},
    {"CancelAndTick",
     {Task([] { tm_cancel(tmid); }), kTick},
     [] {
         PrepareTicks();
         tm_callback_after(
             1, &tmid, [](void *) { return 1; }, nullptr);
     },
     TimersAreFree},
    {"CancelExpiredAndTick",
     {Task([] { tm_cancel_callback(tmid, ev_receive_timeout, &shared); }), kTick},
     [] {
         PrepareTicks();
         tm_callback_after(
             1, &tmid, [](void *) { return 0; }, nullptr);
     },
     [] {}},
    {"CancelAnothersTimer",
     {Task([] { tm_cancel_callback(tmid, ev_receive_timeout, &results[0]); }), Task([] {
          tm_cancel_callback(tmid, ev_receive_timeout, &results[0]),
              tm_callback_after(100000, &otherTmid, ev_receive_timeout, &results[1]);
      })},
     [] { PrepareTicks(), tm_callback_after(100000, &tmid, ev_receive_timeout, &results[0]); },
     [] {
         {
             const OutputHold hold;
             tm_cancel(otherTmid);
         }
         EXPECT_EQ(printed, "");
     }},
    {"ClockAndTick", {Task([] { results[0] = gEpochMillisecs; }), kTick}, PrepareTicks, NoCheck},
    {"FirstTimers",
     {Task([] { tm_callback_after(1000, &tmid, ev_receive_timeout, nullptr); }),
      Task([] { tm_callback_after(1000, &otherTmid, ev_receive_timeout, nullptr); })},
     NoSetUp,
     [] {
         EXPECT_NE(tmid, otherTmid);
         EXPECT_EQ(NumTasks(), 1);
     },
     PairT::kNewProcess,
     2},
};

// ---- Locks, lists, requests, memory

ListT *list, elements[6];
IORBList requests;
IORB blocks[3];
UInt32 semaphore;

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

const PairT kLists[] = {
    {"Lists",
     {Task([] { UseList(1); }), Task([] { UseList(2); })},
     [] {
         list = nullptr;
         for (ListT &element : elements)
             ListInit(&element);
         ListEnqueue(&list, &elements[0]);
     },
     [] { EXPECT_EQ(ListLen(&list), 1); }},
    {"QueueAndCount",
     {Task([] { ListEnqueue(&list, &elements[1]), results[0] = ListDequeue(&list) == nullptr ? 1 : 0; }), Task([] {
          results[1] = ListIsEmpty(&list), ListLen(&list), ListDequeue(&list), ListEnqueue(&list, &elements[2]);
      })},
     [] {
         list = nullptr;
         for (ListT &element : elements)
             ListInit(&element);
         ListEnqueue(&list, &elements[0]);
     },
     [] { EXPECT_EQ(ListLen(&list), 1); }},
    {"Requests",
     {Task([] { iorb_list_enqueue(&requests, &blocks[0]), iorb_list_extract(&requests, &blocks[0]); }), Task([] {
          iorb_list_enqueue(&requests, &blocks[1]), results[1] = static_cast<UInt32>(iorb_list_avail(&requests)),
                                                    iorb_list_dequeue(&requests);
      })},
     [] {
         requests = {};
         for (IORB &block : blocks)
             iorb_init(&block, nullptr, nullptr, 0, nullptr, 0);
         iorb_list_enqueue(&requests, &blocks[2]);
     },
     [] { EXPECT_LE(iorb_list_avail(&requests), 2); }},
    {"OpenAndRequest",
     {Task([] {
          UInt32 devid = 0;
          dev_open("dev", 0, &devid);
      }),
      Task([] { iorb_list_enqueue(&device->readIORBs, &blocks[0]); })},
     [] {
         MakeDevice();
         device->readIORBs = {};
         iorb_init(&blocks[0], nullptr, nullptr, 0, nullptr, 0);
     },
     [] { EXPECT_LE(iorb_list_avail(&device->readIORBs), 1); }},
    {"Semaphore",
     {Task([] {
          const SemaphoreHold hold(semaphore);
          shared++;
      }),
      Task([] { rsm_p(semaphore, 0), shared++, rsm_v(semaphore); })},
     [] {
         Once([] { sm_create("test", 1, 0, &semaphore); });
         shared = 0;
     },
     [] { EXPECT_EQ(shared, 2u); }},
    {"Interrupts",
     {Task([] {
          const InterruptsOffHold hold;
          shared++;
      }),
      Task([] {
          const InterruptsOffHold hold;
          shared++;
      })},
     [] { shared = 0; },
     [] { EXPECT_EQ(shared, 2u); }},
    {"Blocks",
     {Task([] { low_free(std::memset(low_calloc(100), 1, 100)); }),
      Task([] { low_free(std::memset(low_calloc(100), 2, 100)); })},
     NoSetUp,
     NoCheck},
    {"FirstCommands",
     {Task([] { system_pthread("a"); }), Task([] { system_pthread("b"); })},
     NoSetUp,
     NoCheck,
     PairT::kNewProcess,
     2},
    {"FirstQuestions", {Task([] { is_NFS(); }), Task([] { is_NFS(); })}, NoSetUp, NoCheck, PairT::kNewProcess, 2},
    {"TwoCommands", {Task([] { system_pthread("a"); }), Task([] { system_pthread("b"); })}, TellNobody, NoCheck},
    {"FirstPolls",
     {Task([] { add_dev_to_comp_task(device); }), Task([] { add_dev_to_comp_task(device); })},
     MakeDevice,
     [] { EXPECT_EQ(NumTasks(), 1); },
     PairT::kNewProcess,
     2},
};

// ---- Log: the second player is the writer's task

void EmptyRing()
{
    syslogDrainQueue();
    std::fflush(stdout);
    EXPECT_EQ(ftruncate(STDOUT_FILENO, 0), 0);
}
std::string Drained()
{
    {
        const OutputHold hold;
        syslogDrainQueue();
    }
    return printed;
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
void TakeAll()
{
    FillRing();
    EmptyRing();
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
    std::string text = printed, before;
    text += Drained();
    for (std::size_t end; (end = text.find('\n') + 1) > 0; text.erase(0, end)) {
        const std::string line = text.substr(0, end);
        if (line == "WARN   pc[0]: SYSLOG QUEUE OVERFLOW\n")
            continue;
        ASSERT_TRUE(line == Line(line[20], end) && line > before) << end;
        before = line;
    }
    EXPECT_GT(before[20], '2');
}

const PairT kLog[] = {
    {"TwoLines",
     {Task([] { loginfo("a", "one\n"); }), Task([] { loginfo("b", "two\n"); })},
     EmptyRing,
     [] {
         const std::string a = "INFO  pc[0]: a: one\n", b = "INFO  pc[0]: b: two\n", text = Drained();
         EXPECT_TRUE(text == a + b || text == b + a) << text;
     },
     PairT::kWriter},
    {"LineInPieces",
     {Task([] { loginfo("a", "o"), loginfo("a", "ne\n"); }), Task([] { loginfo("b", "two\n"); })},
     EmptyRing,
     [] {
         const std::string text = Drained();
         EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 2) << text;
         EXPECT_NE(text.find("two\n"), std::string::npos) << text;
         EXPECT_NE(text.find("ne\n"), std::string::npos) << text;
     },
     PairT::kWriter},
    {"RepeatedLines",
     {Task([] { loginfo("a", "same\n"), loginfo("a", "same\n"); }), Task([] { loginfo("a", "same\n"); })},
     [] {
         Once([] { logmsg_set_spewfilter(1); });
         loginfo("a", "another\n");
         EmptyRing();
     },
     [] {
         loginfo("a", "last\n");
         EXPECT_EQ(Drained(),
                   "INFO  pc[0]: a: same\nDEBUG pc[0]: ...last line repeated 3 times\nINFO  pc[0]: a: last\n");
     },
     PairT::kWriter},
    {"TwoAdd", {Task(AddBoth), Task(AddBoth)}, EmptyRing, [] { EXPECT_EQ(Drained().size(), 180u); }, PairT::kWriter},
    {"AddAndPrint",
     {Task(AddBoth), Task([] { PrintAll(90); })},
     EmptyRing,
     [] { EXPECT_EQ(printed, lineA + lineB); },
     PairT::kWriter},
    {"WrapAndPrint",
     {Task([] { syslogAdd(bigA.c_str(), 0); }), Task([] { PrintAll(150000); })},
     TakeAll,
     [] { EXPECT_TRUE(printed == bigA); },
     PairT::kWriter},
    {"LapAndPrint", {Task(Lap), Task(PrintDuringLap)}, PrepareLap, NoLineIsTorn, PairT::kWriter},
    {"LapOfTheFrontAndPrint",
     {Task(Lap), Task(PrintDuringLap)},
     [] {
         PrepareLap();
         EmptyRing();
         syslogAdd(Line('1', kHalf + 100).c_str(), 0), syslogAdd(Line('2', kFill).c_str(), 0);
     },
     NoLineIsTorn,
     PairT::kWriter},
    {"OverwriteAndPrint", // the second line goes where the first of the two was, if that has been taken
     {Task([] { syslogAdd(Line('A', 100000).c_str(), 0), syslogAdd(Line('B', 200000).c_str(), 0); }),
      Task(syslogDrainQueue)},
     FillRing,
     NoLineIsTorn,
     PairT::kWriter},
    {"FilterAndLine", // which finds characters of the one before
     {Task([] { logmsg_cullfilter_add("axx"), logmsg_cullfilter_delete("axx"); }),
      Task([] { logmsg_print(lineA.c_str(), 40); })},
     [] {
         Once([] { logmsg_cullfilter_add("another"); }); // without one they are not looked at
         logmsg_cullfilter_add("xa"), logmsg_cullfilter_delete("xa");
         EmptyRing();
     },
     [] { EXPECT_EQ(Drained(), lineA); },
     PairT::kWriter},
    {"FormatAndLine",
     {Task([] { logmsg_set_format(kLogFormatLevel); }), Task([] { syslogDrainQueue(); })},
     [] { EmptyRing(), syslogAdd(lineA.c_str(), 0); },
     [] { EXPECT_EQ(printed, lineA); },
     PairT::kWriter},
    {"StartAndLine",
     {Task(InitSyslogInterface), Task([] { loginfo("b", "two\n"); })},
     NoSetUp,
     NoCheck,
     PairT::kNewProcess,
     2},
    {"SwitchesAndLine",
     {Task([] { syslogSetLogLevel(kLogDebug), logmsg_set_syslog_echo(0), logmsg_set_spewfilter(0); }),
      Task([] { loginfo("a", "line\n"), syslogDrainQueue(); })},
     EmptyRing,
     [] { EXPECT_EQ(printed, "INFO  pc[0]: a: line\n"); },
     PairT::kWriter},
};

// ---- Configuration

void PutItem()
{
    DeleteItemFromCache("item", 0);
    folders->Put("dat/item.dat", "old\n");
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
constexpr auto DropFromCache = [] { DeleteItemFromCache("item", 0); };
constexpr auto CacheIsFile = [] { EXPECT_EQ(folders->Get("dat/item.dat"), ReadItem() + "\n"); };
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
void PutWatchedItem()
{
    PutItem();
    Watch();
}

constexpr char kFoldersAreThere[] =
    "Config Folder data initialized successfully(Choice dir: ../choice/, Dat Dir: ../dat/)\n";

const PairT kConfig[] = {
    {"ReadAndWrite", {Task(Read), Task(Write)}, PutItem, ItemIsNew},
    {"ReadAndDelete", {Task(Read), Task(Delete)}, PutItem, [] { EXPECT_EQ(ReadItem(), "default"); }},
    {"ReadAndRestore", {Task(Read), Task([] { ConfigRestore("item", 0); })}, PutItem, CacheIsFile},
    {"ReadAndCache",
     {Task(Read), Task([] { WriteItemToCache("item", 0, "mine"); })},
     PutItem,
     [] { EXPECT_EQ(ReadItem(), "mine"); }},
    {"ReadAndCacheOnly",
     {Task(Read), Task([] { ConfigWriteCacheOnly("item", 0, "mine"); })},
     PutItem,
     [] { EXPECT_EQ(ReadItem(), "mine"); }},
    {"WriteAndCache",
     {Task(Write), Task([] { WriteItemToCache("item", 0, "mine"); })},
     PutItem,
     [] { EXPECT_EQ(folders->Get("dat/item.dat"), "new\n"); }},
    {"WriteAndFlushTask", // which looks how old the last write is
     {Task([] { ConfigStoreWrite("item", 0, "new"); }),
      Task([] { results[1] = gsConfigWriteOutstanding != 0 ? RealTime() - gstLastConfigWrite : 0; })},
     [] { gsConfigWriteOutstanding = 0, gstLastConfigWrite = 0; },
     [] { EXPECT_LT(results[1], 4u); }},
    {"ReadAndDrop", {Task(Read), Task(DropFromCache)}, PutItem, CacheIsFile},
    {"TwoRead", {Task(Read), Task(Read)}, PutItem, CacheIsFile},
    {"WriteAndDelete",
     {Task(Write), Task(Delete)},
     PutItem,
     [] { EXPECT_EQ(folders->Get("dat/item.dat"), ReadItem() == "new" ? "new\n" : "missing"); }},
    {"WriteAndDrop", {Task(Write), Task(DropFromCache)}, PutItem, ItemIsNew},
    {"TwoWrite", {Task(Write), Task([] { ConfigWrite("item", 0, "other"); })}, PutItem, CacheIsFile},
    {"TwoWriteNew", {Task(Write), Task(Write)}, NoItem, ItemIsNew},
    {"WriteAndWatch", {Task(Write), Task(Watch)}, PutItem, ItemIsNew},
    {"ReadAndWatch", {Task(Read), Task(Watch)}, PutItem, CacheIsFile},
    {"WriteAndUnwatch", {Task(Write), Task(Unwatch)}, PutWatchedItem, ItemIsNew},
    {"DropAndWatch",
     {Task(DropFromCache), Task(Watch)},
     CacheItem,
     [] { EXPECT_EQ(ConfigDeleteCallback("item", 0, Heard, nullptr), kNoError); }},
    {"DropAndUnwatch", {Task(DropFromCache), Task(Unwatch)}, CacheItem, CacheIsFile},
    {"DropAndLookUp", {Task(DropFromCache), Task([] { LookupItemInCache("item", 0); })}, CacheItem, CacheIsFile},
    {"DropAndDump", {Task(DropFromCache), Task(ConfigDumpAll)}, CacheItem, CacheIsFile},
    {"WriteAndReadAnother", // of the same bucket
     {Task(Write), Task([] { ConfigRead("iota", 0, std::array<char, kConfigValueSize>().data()); })},
     [] {
         PutItem();
         DeleteItemFromCache("iota", 0);
         folders->Put("dat/iota.dat", "old\n");
     },
     ItemIsNew},
    {"WriteAndDump", {Task(Write), Task([] { ConfigDumpByName("item"); })}, CacheItem, ItemIsNew},
    {"FirstReadAndWrite",
     {Task(Read), Task(Write)},
     NoSetUp,
     [] {
         EXPECT_EQ(printed, kFoldersAreThere);
         ItemIsNew();
     },
     PairT::kNothingYet,
     2},
    {"FirstStores",
     {Task(ConfigStoreInit), Task(ConfigStoreInit)},
     NoSetUp,
     [] { EXPECT_EQ(printed, kFoldersAreThere); },
     PairT::kNothingYet,
     2},
    {"FirstLines",
     {Task([] { loginfo("a", "one\n"); }), Task([] { loginfo("b", "two\n"); })},
     PutFilter,
     FilterIsReadOnce,
     PairT::kNothingYet,
     4},
};

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

void BeRemote(decltype(RemMsgPathT::SendCmd) send)
{
    PrepareTicks();
    processor = 1;
    gRemMsgPaths[kMasterProcessor] = &master;
    master.SendCmd = send;
    answerTo = nullptr;
}
std::string answers[2];
void ReadRemotely(unsigned index)
{
    char value[kConfigValueSize];
    ConfigStoreRead("item", static_cast<Int32>(index), value, sizeof value);
    answers[index] = value;
}

const PairT kRemote[] = {
    {"ReadAndAnswer",
     {Task([] { ReadRemotely(0); }), Task([] {
          const std::unique_lock lock(sendMutex);
          if (answerTo != nullptr)
              answerTo(&master, "config item 0 answer", answerContext);
      })},
     [] { BeRemote(SendToMaster); },
     [] { EXPECT_TRUE(answers[0].empty() || answers[0] == "answer") << answers[0]; }},
    {"WaitForAnswer",
     {Task([] { ReadRemotely(0); }), Task([] {})},
     [] { BeRemote(SendToMaster), shared = schedule::Ticks(); },
     [] {
         EXPECT_GE(schedule::Ticks() - shared, 300u);
         EXPECT_LE(schedule::Ticks() - shared, 350u);
     },
     PairT::kTasks,
     16},
    {"TwoRead",
     {Task([] { ReadRemotely(0); }), Task([] { ReadRemotely(1); })},
     [] { BeRemote(AnswerAtOnce); },
     [] {
         EXPECT_EQ(answers[0], "answer");
         EXPECT_EQ(answers[1], "answer");
     }},
};

// ---- Modules

ModT mods[2];

void InitMod(unsigned index)
{
    ModInit(&mods[index], "ordr", static_cast<Int32>(index), nullptr);
}
void ExitMod(unsigned index)
{
    ModExit(&mods[index]);
    mods[index] = {};
}
void CountCall(ModT * /*pMod*/, UInt32 /*funcIndex*/, void *counter, void * /*pArgs*/)
{
    ++*static_cast<UInt32 *>(counter);
}
void AddMany()
{
    static UInt32 counters[11];
    for (UInt32 &counter : counters)
        ModAddCallback(&mods[0], 7, CountCall, &counter, 0);
}
constexpr auto CallMod = [] { ModCallCallbacks(&mods[0], 7, nullptr, 0); };
void DoNothing(void * /*pArgs*/, Int32 /*argLen*/) {}
void DeferToSelf()
{
    ModDeferFunctionCall(0, DoNothing, nullptr, 0);
    ModProcessDeferredFunctions();
}
bool registered;
void CallRegistered(ModT * /*pMod*/, UInt32 /*funcIndex*/, void * /*userDefined*/, void *pArgs)
{
    EXPECT_TRUE(registered);
    EXPECT_EQ(*static_cast<UInt32 *>(pArgs), shared) << "it is of the run before";
}

const PairT kMods[] = {
    {"TwoInit",
     {Task([] { InitMod(0); }), Task([] { InitMod(1); })},
     NoSetUp,
     [] {
         for (unsigned i = 0; i < 2; i++) {
             EXPECT_EQ(ModFindByName("ordr", static_cast<Int32>(i)), &mods[i]);
             ExitMod(i);
         }
     }},
    {"ExitAndFind",
     {Task([] { ExitMod(0); }), Task([] { EXPECT_EQ(ModFindByName("ordr", 1), &mods[1]); })},
     [] { InitMod(0), InitMod(1); },
     [] { ExitMod(1); }},
    {"CallAndAdd",
     {Task(CallMod), Task(AddMany)},
     [] { InitMod(0), results[0] = 0, ModAddCallback(&mods[0], 7, CountCall, &results[0], 0); },
     [] {
         EXPECT_EQ(results[0], 1u);
         ExitMod(0);
     }},
    {"TwoAdd",
     {Task([] { ModAddCallback(&mods[0], 7, CountCall, &results[0], 0); }),
      Task([] { ModAddCallback(&mods[0], 7, CountCall, &results[1], 0); })},
     [] { InitMod(0); },
     [] {
         for (UInt32 &result : results)
             EXPECT_EQ(ModDeleteCallback(&mods[0], 7, CountCall, &result), kNoError);
         ExitMod(0);
     }},
    {"CallAndDelete",
     {Task([] { ModCallCallbacks(&mods[0], 7, &shared, sizeof shared); }), Task([] {
          ModProcessDeferredCallbacks(), ModDeleteCallback(&mods[0], 7, CallRegistered, nullptr),
              registered = false, ModProcessDeferredCallbacks();
      })},
     [] {
         shared++, registered = true, InitMod(0),
                   ModAddCallbackToTask(&mods[0], 7, CallRegistered, nullptr, kModOnTask, ids[1]);
     },
     [] { ExitMod(0); }},
    {"AddAndDeleteAll",
     {Task(AddMany), Task([] { ModDeleteAllCallbacks(&mods[0]); })},
     [] { InitMod(0); },
     [] { ExitMod(0); }},
    {"InitAndFind", {Task([] { InitMod(0); }), Task([] { ModFindByName("ordr", 0); })}, NoSetUp, [] { ExitMod(0); }},
    {"CallAndDeleteAll",
     {Task(CallMod), Task([] { ModDeleteAllCallbacks(&mods[0]); })},
     [] { InitMod(0), ModAddCallback(&mods[0], 7, CountCall, &results[0], 0); },
     [] { ExitMod(0); }},
    {"DumpAndAdd", {Task([] { ModDump(&mods[0], 0); }), Task(AddMany)}, [] { InitMod(0); }, [] { ExitMod(0); }},
    {"DeferAndProcess",
     {Task([] {
          for (int i = 0; i < 2; i++)
              ModDeferFunctionCall(
                  ids[1], [](void *, Int32) { results[1]++; }, nullptr, 0);
      }),
      Task([] {
          UInt32 events = 0;
          for (ModProcessDeferredFunctions(); results[1] < 2; ModProcessDeferredFunctions())
              ev_receive(kModDeferredEvent, kEvAny, 0, &events);
      })},
     [] { results[1] = 0; },
     NoCheck},
    {"TwoDefer", {Task(DeferToSelf), Task(DeferToSelf)}, [] { Once([] { InitMod(0); }); }, NoCheck},
    {"DeferAndDump", {Task(DeferToSelf), Task(ModDumpDeferredFunctions)}, [] { Once([] { InitMod(0); }); }, NoCheck},
    {"DeferAndSearch",
     {Task(DeferToSelf), Task([] {
          ModSearchDeferredFunction(ids[0], DoNothing);
          DeferredFuncStatsT stats;
          ModGetDeferredFunctionStats(ids[0], &stats);
      })},
     [] { Once([] { InitMod(0); }); },
     NoCheck},
    {"FilterAndTrace",
     {Task([] { ModTraceFilterAdd("other"), ModTraceFilterDelete("other"); }),
      Task([] { ModTraceFilterAdd("another"), ModTrace(&mods[0], "line\n"), ModTraceFilterDelete("another"); })},
     [] { Once([] { InitMod(0); }); },
     [] { EXPECT_EQ(ModTraceFilterDelete("other"), kBadParameter); }},
    {"FirstInits",
     {Task([] { InitMod(0); }), Task([] { InitMod(1); })},
     NoSetUp,
     [] { EXPECT_EQ(ModFindByName("ordr", 1), &mods[1]); },
     PairT::kNothingYet,
     2},
    {"TooManyAndProcess",
     {Task([] { ModDeferFunctionCall(ids[1], DoNothing, nullptr, 0); }), Task(ModProcessDeferredFunctions)},
     [] {
         Once([] { InitMod(0); });
         while (ModDeferFunctionCall(ids[1], DoNothing, nullptr, 0) == kNoError)
             continue;
     },
     NoCheck,
     PairT::kTasks,
     16},
};

// ---- Ports

constexpr RS232Cfg kFormat = {SERIAL_BAUDRATE_115200, SERIAL_DATABITS_8, SERIAL_PARITY_NO, SERIAL_STOPBITS_1, 0, 0, 0},
                   kNoFormat = {
                       SERIAL_BAUDRATE_115200, SERIAL_DATABITS_8, SERIAL_PARITY_NONE, SERIAL_STOPBITS_1, 0, 0, 0};

void InitPorts()
{
    Once([] { SetSystemHardwareType(kKora), DevMgrSerial_Init(); });
}
void Open(unsigned index)
{
    results[index] = static_cast<UInt32>(Serial_Open(0, nullptr, nullptr, nullptr, &kFormat));
}
void Close(unsigned index)
{
    results[index] = static_cast<UInt32>(Serial_Close(0));
}
void ClosePort()
{
    Serial_Close(0);
    close(fake.master);
}
void OneDidIt(eErrorT otherwise)
{
    EXPECT_EQ(results[0] + results[1], static_cast<UInt32>(otherwise)) << "one of them 0";
    ClosePort();
}

void OpenScript(unsigned index)
{
    results[index] = static_cast<UInt32>(Serial_Open_PSH(0, &kFormat));
}
constexpr auto InitScript = [] { InitPorts(), TellNobody(); };

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
    {"TwoOpen", {Task([] { Open(0); }), Task([] { Open(1); })}, InitPorts, [] { OneDidIt(kAlreadyInUse); }},
    {"TwoClose",
     {Task([] { Close(0); }), Task([] { Close(1); })},
     [] { InitPorts(), Open(0); },
     [] { OneDidIt(kItemNotFound); }},
    {"CloseAndOpen",
     {Task([] { Close(0); }), Task([] { Open(1); })},
     [] { InitPorts(), Open(0); },
     [] {
         EXPECT_EQ(results[0], 0u);
         EXPECT_EQ(Serial_Close(0), results[1] == 0 ? kNoError : kItemNotFound);
         close(fake.master);
     }},
    {"OpenAndEnable",
     {Task([] { Open(0); }), Task([] { Serial_Enable(0, SERIAL_DIRECTION_TX); })},
     InitPorts,
     ClosePort},
    {"TwoOpenScript",
     {Task([] { OpenScript(0); }), Task([] { OpenScript(1); })},
     InitScript,
     [] {
         OneDidIt(kAlreadyInUse);
         Serial_Close_PSH(0);
     }},
    {"OpenAndOpenScript",
     {Task([] { Open(0); }), Task([] { OpenScript(1); })},
     InitScript,
     [] {
         OneDidIt(kAlreadyInUse);
         Serial_Close_PSH(0);
     }},
    {"OpenAndCloseScript",
     {Task([] { OpenScript(0); }), Task([] { results[1] = static_cast<UInt32>(Serial_Close_PSH(0)); })},
     [] {
         fake.commands[1] = open((folders->root() / "relay").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
         InitScript();
     },
     [] {
         const std::string commands = folders->Get("relay");
         const bool isOpen = commands.rfind(" open ") > commands.rfind(" close ");
         EXPECT_EQ(Serial_GetCfg(0, &kFormat), isOpen ? kNoError : kItemNotFound) << commands;
         OneDidIt(kNoError);
         Serial_Close_PSH(0);
         close(fake.commands[1]);
     }},
    {"FailToOpenAndClose", // each open one once
     {Task([] { Serial_Open(0, nullptr, nullptr, nullptr, &kNoFormat); }), Task([] { Serial_Close(0); })},
     InitPorts,
     [] {
         EXPECT_EQ(CBList->devCB.numCloses, CBList->devCB.numOpens);
         EXPECT_EQ(Serial_Close(0), kItemNotFound);
         close(fake.master);
     }},
    {"EnableAndStop", // which a callback does
     {kOwn, Task([] { Serial_Enable(0, SERIAL_DIRECTION_TX); })},
     [] {
         InitPorts();
         const auto stop = [](void *) { Serial_Disable(0, SERIAL_DIRECTION_RX); }; // and transmission
         Serial_Open(0, nullptr, nullptr, nullptr, &kFormat);
         Serial_Enable(0, SERIAL_DIRECTION_TX);
         SetCallbacks({nullptr, nullptr, nullptr});
         StartVictim([] { DevMgrSerial_asyncDataSendRecv(low_id(CBList), child, 0, 0); });
         CBList->asyncThread_running = 1;
         CBList->threadID = child;
         SetCallbacks({stop, nullptr, nullptr});
     },
     [] {
         ClosePort();
         OnlyPlayersAreLeft();
     }},
    {"CallbacksAndTask",
     {Task([] { SetCallbacks(kCallbacksB), Serial_Enable(0, SERIAL_DIRECTION_TX), SetCallbacks(kCallbacksA); }),
      Task([] { DevMgrSerial_asyncDataSendRecv(low_id(CBList), 0, 0, 0); })},
     [] {
         InitPorts();
         Open(0);
         Serial_Enable(0, SERIAL_DIRECTION_TX);
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

// ---- Tasks that are deleted in the middle of something

[[maybe_unused]] const PairT kCancels[] = {
    {"WaitAndDelete",
     {kOwn, Task(DeleteChild)},
     [] { StartVictim([] { WaitFor(0); }); },
     [] {
         OnlyPlayersAreLeft();
         ev_send(child, 1); // by somebody who does not know yet
     }},
    {"TimedWaitAndDelete",
     {kOwn, Task(DeleteChild)},
     [] {
         PrepareTicks();
         StartVictim([] { WaitFor(100000); });
     },
     NothingIsLeftOfTheVictim},
    {"TwoDeleteEachOther",
     {kOwn, kOwn},
     [] {
         for (UInt32 &tid : twins)
             t_create("twin", 10, 0, 0, 0, &tid);
         for (unsigned i = 0; i < 2; i++)
             StartBody(twins[i], [i] {
                 schedule::Play(i);
                 t_delete(twins[1 - i]);
             });
     },
     OnlyPlayersAreLeft},
    {"DeletionAndDelete",
     {kOwn, Task(DeleteChild)},
     [] {
         twins[0] = StartTask("twin", [] { WaitFor(0); });
         StartVictim([] { t_delete(twins[0]); });
     },
     OnlyPlayersAreLeft},
    {"LogAndDelete",
     {kOwn, Task(DeleteChild)},
     [] { StartVictim([] { loginfo("test", "on its way\n"); }); },
     [] {
         OnlyPlayersAreLeft();
         loginfo("test", "there is no lock left held\n");
     }},
    {"CommandAndDelete",
     {kOwn, Task(DeleteChild)},
     [] {
         TellNobody();
         StartVictim([] { system_pthread("x"); });
     },
     OnlyPlayersAreLeft},
    {"OutputAndDelete",
     {kOwn, Task(DeleteChild)},
     [] {
         StartVictim([] {
             char text[8];
             read_command("echo", text, sizeof text);
         });
     },
     NoVictimIsLeft},
    {"FindAndDelete", {kOwn, Task(DeleteChild)}, [] { StartVictim([] { find_pid(""); }); }, NoVictimIsLeft},
    {"ReadAndDelete",
     {kOwn, Task(DeleteChild)},
     [] {
         folders->Put("dat/item.dat", "old\n");
         StartVictim([] { ConfigStoreRead("item", 0, std::array<char, 8>().data(), 8); });
     },
     NoVictimIsLeft},
    {"WriteAndDelete",
     {kOwn, Task(DeleteChild)},
     [] { StartVictim([] { ConfigWrite("item", 0, shared++ % 2 == 0 ? "even" : "odd"); }); },
     [] {
         char value[kConfigValueSize];
         OnlyPlayersAreLeft();
         EXPECT_EQ(ConfigRead("item", 0, value), folders->Get("dat/item.dat") != "missing" ? kNoError : kItemNotFound);
         EXPECT_EQ(folders->Get("dat/item.dat"), value + std::string(value[0] != '\0' ? "\n" : "missing"));
         EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folders->root() / "dat"), {}),
                   value[0] != '\0' ? 1 : 0);
     }},
    {"FirstReadAndCancel",
     {kOwn, Task(EndThread)},
     [] { StartThread([] { ConfigRead("none", 0, std::array<char, kConfigValueSize>().data()); }); },
     ConfigurationRuns,
     PairT::kNothingYet,
     2},
    {"FirstLineAndCancel",
     {kOwn, Task(EndThread)},
     [] {
         PutFilter();
         folders->Put("dat/logformat.dat", "level\n");
         StartThread([] { loginfo("a", "one\n"); });
     },
     [] {
         loginfo("b", "two\n");
         EXPECT_EQ(logmsg_get_format(), kLogFormatLevel);
         FilterIsReadOnce();
         ConfigurationRuns();
     },
     PairT::kNothingYet,
     4},
    {"UsageAndDelete", {kOwn, Task(DeleteChild)}, [] { StartVictim(osTaskUsage); }, NoVictimIsLeft},
    {"PollAndAdd",
     {kOwn, Task([] { add_dev_to_comp_task(device), EndThread(); })},
     [] {
         MakeDevice();
         StartThread([] { io_comp_task(0, 0, 0, 0); });
     },
     NoCheck},
    {"CloseAndDelete",
     {kOwn, Task(DeleteChild)},
     [] {
         InitPorts();
         Open(0);
         StartVictim([] { Serial_Close(0); });
     },
     [] {
         OnlyPlayersAreLeft();
         EXPECT_EQ(Serial_Close(0), kItemNotFound);
         close(fake.master);
     }},
    {"FlushAndDelete", // when the ring is full, which is reported
     {kOwn, Task(DeleteChild)},
     [] {
         Once([] {
             ConfigStoreExit(); // the task of the first log line
             FillRing();
             while (syslogQueue(lineA.c_str()))
                 continue;
         });
         synced = false;
         gsConfigWriteOutstanding = 1;
         StartVictim(ConfigStoreExit);
     },
     [] {
         OnlyPlayersAreLeft();
         EXPECT_TRUE(synced);
     },
     PairT::kWriter},
};

std::string NameOf(const testing::TestParamInfo<PairT> &info)
{
    return info.param.name;
}
INSTANTIATE_TEST_SUITE_P(Tasks, Orders, testing::ValuesIn(kTasks), NameOf);
INSTANTIATE_TEST_SUITE_P(Ends, Orders, testing::ValuesIn(kEnds), NameOf);
#ifndef __SANITIZE_ADDRESS__ // it cannot follow a cancelled thread through its scopes
INSTANTIATE_TEST_SUITE_P(Cancels, Orders, testing::ValuesIn(kCancels), NameOf);
#endif
INSTANTIATE_TEST_SUITE_P(Events, Orders, testing::ValuesIn(kEvents), NameOf);
INSTANTIATE_TEST_SUITE_P(Lists, Orders, testing::ValuesIn(kLists), NameOf);
INSTANTIATE_TEST_SUITE_P(Log, Orders, testing::ValuesIn(kLog), NameOf);
INSTANTIATE_TEST_SUITE_P(Config, Orders, testing::ValuesIn(kConfig), NameOf);
INSTANTIATE_TEST_SUITE_P(Remote, Orders, testing::ValuesIn(kRemote), NameOf);
INSTANTIATE_TEST_SUITE_P(Mods, Orders, testing::ValuesIn(kMods), NameOf);
INSTANTIATE_TEST_SUITE_P(Ports, Orders, testing::ValuesIn(kPorts), NameOf);

} // namespace

UInt32 __wrap__Z15GetProcessorNumv()
{
    return processor;
}

void sync() noexcept
{
    synced = true;
}
