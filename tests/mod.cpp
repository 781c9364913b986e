#include "Common/framework/mod.h"

#include "bench/standin/screen.h"
#include "tests/logwriter.h"

#include <sys/mman.h>

// What the module shares with the whole process.
extern std::atomic<ModT *> gMods[4000];
extern std::atomic<Int32> numMods, NumTraceFilters;
extern UInt32 callbackSemaphore, deferredCallbackRegion, deferredFuncRegion;
extern ListT *gFreeDeferredCallbackList, *gPendDeferredCallbackList;
extern ModDeferredCallbackT gFreeDeferredCallbacks[256];
extern ModDeferredFuncT gFreeDeferredFuncs[384];
extern DeferredFuncStatsT DFStats[100];
extern char traceFilters[10][32];
extern const char *ModExceptionString[1];

namespace
{

using bench::PrintedWhile;

struct Mod : testing::Test { // where tasks end, and the test's own must still find itself
    void SetUp() override { gLibPThreadNPTL = 1, t_attach("main", 10), ModInit(&mod, "cfg", 3, nullptr); }
    void TearDown() override { EXPECT_EQ((ModExit(&mod), mod.flags & kModFlagListed), 0u); }
    ModT mod{}, owner{};
};

const CallbackFuncPtrT count = [](ModT *, UInt32, void *user, void *) { ++*static_cast<std::atomic<int> *>(user); };

bool Matches(const std::string &text, const std::string &pattern)
{
    return testing::internal::RE::FullMatch(text, pattern);
}
const std::string kHeading = "Module               address  task flags\n-------------------- -------- ---- -----\n";
ModT mods[4000], &last = mods[3999]; // 3998 have room beside the test's and the configuration's

TEST_F(Mod, DumpsAreRowsOfATable)
{
    const std::string line = "cfg\\[3] {15}.{8} main  I   \n";
    EXPECT_PRED2(Matches, Printed(ModDumpAll), kHeading + "Config\\[0] .+ main  I   \n" + line);
    EXPECT_PRED2(Matches, Printed([] { ModDumpRange(1, 1); }), kHeading + line);
    EXPECT_PRED2(Matches, Printed([this] { ModDump(&owner, 1); }), kHeading + "\\[0] {18}.{8} {11}\n");
}

TEST_F(Mod, TableIsFullAtFourThousand)
{
    std::memset(&last, 0xFF, sizeof last);
    const ModT before = last;
    for (ModT &each : mods)
        ModInit(&each, "A23456789012345678901234567890123456789", static_cast<Int32>(&each - mods), nullptr);
    EXPECT_EQ(last.CallCallbacks, before.CallCallbacks) << "what is there is kept";
    EXPECT_EQ(last.ThrowException, before.ThrowException);
    EXPECT_EQ(last.SetOwner, before.SetOwner);
    EXPECT_EQ(last.GetOwner, before.GetOwner);
    EXPECT_EQ(last.Exit, ModExit);
    EXPECT_EQ(last.Dump, ModDump);
    EXPECT_EQ(last.processorNum, ~0u);
    EXPECT_EQ(ModFindByName("a2345678901234567890123456789012", 3998), nullptr);
    ModExit(ModFindByName("a2345678901234567890123456789012", 3997)); // makes room
    ModInit(&last, "CFG", INT32_MIN, nullptr);
    ModAddExceptionHandler(&last, count, nullptr);
    ModAddCallback(&last, 5, count, nullptr, 0);
    ModExit(&mods[9]), ModExit(&mods[3998]); // leaves a hole, and was never in
    EXPECT_EQ(ModFindByName("none", 5), nullptr);
    EXPECT_PRED2(Matches, Printed([] { ModDumpByName("Cfg"); }),
                 kHeading + "cfg\\[3] {15}.{8} main  I   \nCFG\\[-2147483648]     .{8} main AI   \n"
                            "  callbacks: 2147483647:0x.+ 5:0x.+ \n");
    EXPECT_EQ(ModDeleteExceptionHandler(&last, count, nullptr), kNoError);
    EXPECT_EQ(ModDeleteExceptionHandler(&last, count, nullptr), kItemNotFound);
}

TEST_F(Mod, MisuseStopsTheProgram)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    ModInit(&last, "last", 0, nullptr);
    ModAddExceptionHandler(&last, count, nullptr);
    const auto print = [](auto misuse) { dup2(STDERR_FILENO, STDOUT_FILENO), misuse(); };
    const auto call = [] { ModCallCallbacks(&last, kModExceptionFunc, nullptr, 0); };
    EXPECT_DEATH(ModTrace(nullptr, "x"), "failed: pMod,");
    EXPECT_DEATH(ModLog(&mod, kLogInfo, static_cast<char *>(mod.pPrivate), 0), "failed: format,");
    EXPECT_DEATH(ModAddCallback(&mod, 1, nullptr, nullptr, 0), "failed: pFunc,");
    EXPECT_DEATH(print([&] { last.initializedSig++, call(); }), "ERROR, bad module ptr 0x.*\n.*failed: 0,");
    EXPECT_DEATH((last.pCallbacks->destTaskID = 0, call()), "failed: destTaskID,");
    t_create("dest", 10, 0, 0, 0, &last.pCallbacks->destTaskID);
    for (int i = 0; i < 256; i++)
        call();
    const auto show = [](const std::string &text) { std::fputs(text.c_str(), stderr), ModProcessDeferredCallbacks(); };
    EXPECT_DEATH(PrintedWhile(call, show),
                 "ERROR, task dest has not responded to deferred callbacks for [0-9]+mS\n.*failed: 0,");
}

// The record's memory goes as well, after some of its text was printed.
std::string DumpWhileItGoes(const std::string &after)
{
    const std::size_t page = 65536;
    auto *pGone = static_cast<ModT *>(mmap(nullptr, page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ModInit(pGone, "gone", 1, nullptr);
    for (const UInt32 index : {7u, 8u})
        ModAddCallback(pGone, index, count, nullptr, 0);
    const auto meanwhile = [&](const std::string &text) {
        if (text.find(after) != std::string::npos) {
            ModExit(pGone);
            munmap(pGone, page);
        }
    };
    return PrintedWhile([] { ModDumpByName("Gone"); }, meanwhile);
}

TEST_F(Mod, DumpsHoldNoLockAndRecordsMayGo)
{
    const std::string line = "gone\\[1] {14}.{8} main  I   \n", callback = "  callbacks: 7:0x[0-9a-f]+ ";
    EXPECT_PRED2(Matches, DumpWhileItGoes("-----"), kHeading);
    EXPECT_PRED2(Matches, DumpWhileItGoes("gone"), kHeading + line);
    EXPECT_PRED2(Matches, DumpWhileItGoes("7:"), kHeading + line + callback + "\n");
    mod.Dump = [](ModT *pMod, Int32 verbose) { return std::printf("own %s %d\n", pMod->name, verbose), kNoError; };
    EXPECT_EQ(PrintedWhile([] { ModDumpByName("cfg"); }, [](auto) { ModFindByName("cfg", 3); }),
              kHeading + "own cfg 0\n");
    ModDeferFunctionCall(
        0, [](void *, Int32) {}, nullptr, 0);
    EXPECT_NE(PrintedWhile(ModDumpDeferredFunctions, [](auto) { ModSearchDeferredFunction(64, nullptr); }), "");
}

TEST_F(Mod, WhatTheProcessSharesIsThereForAnotherUnit)
{
    EXPECT_EQ(numMods, 2); // the configuration's came first
    EXPECT_EQ(gMods[1], &mod);
    EXPECT_EQ(gFreeDeferredCallbackList, &gFreeDeferredCallbacks[0].list);
    EXPECT_EQ(gPendDeferredCallbackList, nullptr);
    EXPECT_EQ(gFreeDeferredFuncs[0].list.next, &gFreeDeferredFuncs[1].list);
    EXPECT_EQ(DFStats[99].minTime, UINT32_MAX);
    EXPECT_STREQ(ModExceptionString[0], "Mod Fatal Exception");
    for (const UInt32 semaphore : {callbackSemaphore, deferredCallbackRegion, deferredFuncRegion})
        EXPECT_NE(semaphore, 0u);
    const std::string x(32, 'x'), y(33, 'y'); // 32 characters fill a filter
    for (const std::string &name : {x, y})
        EXPECT_EQ(ModTraceFilterAdd(name.c_str()), kNoError);
    EXPECT_EQ(NumTraceFilters, 2);
    EXPECT_EQ(std::string(traceFilters[0], 64), x + y.substr(1));
    EXPECT_EQ(ModTraceFilterDelete(y.c_str()), kNoError);
    EXPECT_EQ(ModTraceFilterDelete(x.substr(1).c_str()), kBadParameter);
    EXPECT_EQ(ModTraceFilterDelete(x.c_str()), kNoError);
}

TEST_F(Mod, NullArgumentsStop)
{
    EXPECT_DEATH(ModInit(&owner, nullptr, 0, nullptr), "failed: pName,");
    EXPECT_DEATH(ModFindByName(nullptr, 0), "failed: pName,");
    EXPECT_DEATH(ModDumpByName(nullptr), "failed: pName,");
    EXPECT_DEATH(ModTraceFilterAdd(nullptr), "failed: pName,");
    EXPECT_DEATH(ModTraceFilterDelete(nullptr), "failed: pName,");
    EXPECT_DEATH(ModThrowException(&mod, 0, nullptr, nullptr, 0), "failed: description,");
    EXPECT_DEATH(ModGetDeferredFunctionStats(0, nullptr), "failed: pStats,");
}

TEST_F(Mod, LogLinesAreWhatIsWrittenAndNameTheOwnerOnRequest)
{
    LogWriter writer(kLogFormatLevel);
    const struct {
        const char *owner, *name, *format;
        std::string line;
    } cases[] = {
        {nullptr, "50%%off", "%d\n", "50%off[0]: 1\n"}, // the name is a part of the format
        {nullptr, "%s%n%", "%d\n", "%s%n%[0]: 1\n"},
        {nullptr, "%%%d%%", "%d\n", "%%d%[0]: 1\n"},
        {"%s%%", "%d", "%d\n", "%s%[7].%d[0]: 1\n"},
        {nullptr, "a", "%d is 100%", "a[0]: 1 is 100%"},
        {nullptr, "a", "%d\n", "a[0]: 1\n"},
        {nullptr, "a", "%d %-5.", "a[0]: 1 %-5."},
        {nullptr, "a", "%d\n", "a[0]: 1\n"},
    };
    std::string expected;
    for (const auto &[ownerName, name, format, line] : cases) {
        ModT one{}, its{};
        ModInit(&its, ownerName != nullptr ? ownerName : "", 7, nullptr);
        ModInit(&one, name, 0, ownerName != nullptr ? &its : nullptr);
        one.flags |= kModFlagLogOwner;
        ModLog(&one, kLogInfo, format, 1);
        expected += (expected.empty() || expected.back() == '\n' ? "INFO  pc[0]: " : "") + line;
        ModExit(&one), ModExit(&its);
    }
    EXPECT_EQ(writer.Drained(), expected);
    for (std::size_t size = 235; size < 248; size++) { // 255 characters with the name
        const std::string text(size, 'x');
        ModLog(&mod, kLogInfo, (text + "%-+03.2hd%%").c_str(), 1);
        ModLog(&mod, kLogInfo, "%d\n", 2);
        const std::string number = size <= 236 ? "+01%" : size <= 238 ? "+01" : "";
        expected = "INFO  pc[0]: cfg[3]: ";
        EXPECT_EQ(writer.Drained(), expected.append(text).append(number).append("cfg[3]: 2\n")) << size;
    }
    ModInit(&owner, "%s", 0, nullptr);
    EXPECT_EQ(mod.SetOwner(&mod, &owner), kNoError);
    ModLog(&mod, kLogError, "x\n");
    mod.flags |= kModFlagLogOwner;
    ModLog(&mod, kLogError, "x\n");
    EXPECT_EQ(writer.Drained(), "ERROR pc[0]: cfg[3]: x\nERROR pc[0]: %s[0].cfg[3]: x\n");
    mod.id = 7;
    EXPECT_EQ(mod.GetOwner(&mod), &owner);
    EXPECT_EQ(ModID(&mod), 7u);
    EXPECT_EQ(ModGetProcNum(&mod), 0u);
    EXPECT_STREQ(ModName(nullptr), "none");
}

TEST_F(Mod, TraceFiltersAreTen)
{
    LogWriter writer(kLogFormatLevel);
    EXPECT_EQ(ModTraceFilterAdd(""), kBadParameter);
    EXPECT_EQ(ModTraceFilterDelete("cfg"), kBadParameter);
    for (const char *name : {"b", "CFG", "c", "d", "e", "f", "g", "h", "i", "j"})
        EXPECT_EQ(ModTraceFilterAdd(name), kNoError);
    mod.ThrowException(&mod, 0, "why", nullptr, 0);
    EXPECT_EQ(ModTraceFilterAdd("x"), kOutOfMemory);
    EXPECT_EQ(ModTraceFilterDelete("Cfg"), kNoError);
    ModLog(&mod, kLogError, "dropped\n"), ModTrace(&mod, "dropped\n");
    EXPECT_EQ(ModTraceFilterDelete("*"), kNoError);
    ModLog(&mod, kLogError, "x\n");
    EXPECT_EQ(writer.Drained(), "WARN  pc[0]: MOD: can't delete trace filter, name not found\n"
                                "DEBUG pc[0]: cfg[3]: exception:Mod Fatal Exception (why)\n"
                                "WARN  pc[0]: MOD: can't add trace, out of filter entries\n"
                                "ERROR pc[0]: cfg[3]: x\n");
}

std::string ran; // of deferred functions: the last character of what each was given
void NoteLast(void *pArgs, Int32 argLen)
{
    ran += static_cast<char *>(pArgs)[argLen - 1];
}

TEST_F(Mod, DeferredFunctionsMayBeRefusedAndRunInTheirOrder)
{
    LogWriter writer(kLogFormatLevel);
    EXPECT_EQ(ModDeferFunctionCall(0, NoteLast, nullptr, kModMaxArgs + 1), kBadParameter);
    EXPECT_EQ(ModDeferFunctionCall(0, NoteLast, "", -1), kBadParameter);
    EXPECT_EQ(ModDeferFunctionCall(0, nullptr, "", 1), kBadParameter);
    EXPECT_EQ(ModDeferFunctionCall(64, NoteLast, nullptr, 0), kItemNotFound);
    EXPECT_EQ(writer.Drained(), "WARN  pc[0]: MOD: can't defer function call to task ????, it doesn't exist\n");
    DeferredFuncStatsT stats{};
    EXPECT_EQ(ModSearchDeferredFunction(64, NoteLast), kItemNotFound);
    EXPECT_EQ(ModGetDeferredFunctionStats(64, &stats), kItemNotFound);
    EXPECT_EQ(ModGetDeferredFunctionStats(0, &stats), kItemNotFound);
    std::string expected = "#";
    EXPECT_EQ(ModDeferFunctionCall(0, NoteLast, std::string(kModMaxArgs, '#').data(), kModMaxArgs), kNoError);
    for (char c = 0; ModDeferFunctionCall(0, NoteLast, &c, 1) == kNoError; c++)
        expected += c;
    EXPECT_PRED2(Matches, writer.Drained(),
                 "WARN  pc\\[0]: MOD: can't defer function call from main to task main func 0x[0-9a-f]+, "
                 "out of deferred function blocks\n"
                 "WARN  pc\\[0]: MOD: task main has not responded to deferred func calls for [0-9]+mS\n");
    EXPECT_EQ(ModSearchDeferredFunction(t_name(0), [](auto...) {}), kItemNotFound);
    EXPECT_EQ(ModSearchDeferredFunction(t_name(0), NoteLast), kNoError);
    usleep(2000), ModProcessDeferredFunctions(); // all have waited
    EXPECT_EQ(ran, expected);
    ModDeferFunctionCall(t_name(0), NoteLast, "x", 1), ModProcessDeferredFunctions(); // this one has not
    EXPECT_EQ(ModGetDeferredFunctionStats(t_name(0), &stats), kNoError);
    EXPECT_EQ(stats.runCount, 385u);
    EXPECT_GE(stats.maxTime, 2u);
    EXPECT_LT(stats.maxTime, stats.totalTime);
    ModDeferFunctionCall(t_name(0), NoteLast, "x", 1), ModDumpDeferredFunctions();
    EXPECT_PRED2(Matches, writer.Drained(),
                 "main func 0x[0-9a-f]+ waiting [0-9]+ms\nmain runs 385 min [0-9]+ms max [0-9]+ms total .+\n");
}

std::string calls, names = "abcdefghijklmnopqrstuvwxyz"; // the callbacks that ran, and those that there are
std::function<void(char)> during;                        // what a callback does

void Note(ModT * /*pMod*/, UInt32 /*funcIndex*/, void *user, void *pArgs)
{
    EXPECT_EQ(std::string(static_cast<char *>(pArgs), kModMaxArgs), std::string(kModMaxArgs, 'x'));
    calls += *static_cast<char *>(user);
    if (during)
        during(calls.back());
}

// Callbacks have a letter each. Who makes them run gets the letters of those that did.
struct Callbacks : Mod {
    void Add(const std::string &letters, UInt32 flags = 0)
    {
        for (const char letter : letters)
            EXPECT_EQ(ModAddCallback(&mod, 1, Note, &names[names.find(letter)], flags), kNoError);
    }
    void Delete(char letter) { EXPECT_EQ(ModDeleteCallback(&mod, 1, Note, &names[names.find(letter)]), kNoError); }
    static std::string Ran(const std::function<void()> &work) { return calls.clear(), work(), calls; }
    void CallThem() { EXPECT_EQ(ModCallCallbacks(&mod, 1, std::string(3000, 'x').data(), 3000), kNoError); }
    std::string Call()
    {
        return Ran([this] { CallThem(); });
    }
    std::string CallInAnotherTask()
    {
        return Ran([this] {
            StartTask("othr", [this] { CallThem(), ModProcessDeferredCallbacks(); });
            EXPECT_TRUE(Eventually([] { return NumTasks() == 1; }));
        });
    }
};

TEST_F(Callbacks, RunInTheirOrderOnceEach)
{
    EXPECT_EQ(Call(), "");
    ModAddCallback(&mod, 2, Note, &names[0], 0); // of another function
    Add("aba"), Add("b", kModOnTask);
    EXPECT_EQ(Call(), "ab");
    Delete('a');
    EXPECT_EQ(Call(), "b");
    Add("c");
    EXPECT_EQ(Call(), "cb") << "the place is free";
}

TEST_F(Callbacks, MayAddAndDeleteOthers)
{
    Add("abx");
    during = [this](char letter) { letter == 'x' ? Delete('b'), Delete('x'), Add("defghijklm") : void(); };
    EXPECT_EQ(Call(), "abxfghijklm") << "d and e have come in front";
    EXPECT_EQ(Call(), "adefghijklm");
    during = [this](char letter) { letter == 'd' ? void(ModDeleteAllCallbacks(&mod)) : void(); };
    EXPECT_EQ(Call(), "ad");
}

TEST_F(Callbacks, RunInTheTaskThatAsked)
{
    Add("ab", kModOnTask), Add("c");
    EXPECT_EQ(Call(), "abc");
    Add("d", kModOnTask);
    for (int i = 0; i < 2; i++)
        EXPECT_EQ(CallInAnotherTask(), "c");
    Delete('b');
    EXPECT_EQ(Ran(ModProcessDeferredCallbacks), "adad");
    std::thread([this] { EXPECT_EQ(ModCallCallbacks(&mod, 1, nullptr, 0), kItemNotFound); }).join(); // which is no task
}

TEST_F(Callbacks, DoNotRunOnceTheyAreDeleted)
{
    for (int i = 0; i < 90; i++) { // more blocks than there are
        UInt32 events = 0;
        ModDeleteAllCallbacks(&mod);
        Add("ab", kModOnTask);
        EXPECT_EQ(CallInAnotherTask(), "");
        EXPECT_EQ(ev_receive(kModDeferredEvent, kEvNoWait, 0, &events), 0u);
        ModDeleteAllCallbacks(&mod);
        Add("a", kModOnTask); // a new one
        EXPECT_EQ(Ran(ModProcessDeferredCallbacks), "");
        EXPECT_EQ(CallInAnotherTask(), "");
        Delete('a');
        EXPECT_EQ(Ran(ModProcessDeferredCallbacks), "");
    }
}

} // namespace
