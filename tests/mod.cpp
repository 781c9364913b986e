#include "Common/framework/mod.h"

#include "tests/logwriter.h"

#include <sys/mman.h>
#include <utility>

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

struct Mod : testing::Test { // where tasks end, and the test's own must still find itself
    void SetUp() override { gLibPThreadNPTL = 1, t_attach("main", 10), ModInit(&mod, "cfg", 3, nullptr); }
    void TearDown() override { EXPECT_EQ((ModExit(&mod), mod.flags & kModFlagListed), 0u); }
    ModT mod{}, owner{};
};

const CallbackFuncPtrT count = [](ModT *, UInt32, void *user, void *) { ++*static_cast<std::atomic<int> *>(user); };

using MeanwhileT = std::function<void(const std::string &)>;

// What is printed. Each time something is, another thread sees it first, and its work is waited for: nothing that it
// needs may be locked.
std::string PrintedWhile(const std::function<void()> &print, const MeanwhileT &meanwhile)
{
    std::pair<const MeanwhileT &, std::string> cookie(meanwhile, "");
    const auto take = [](void *pCookie, const char *text, std::size_t size) {
        auto &[work, all] = *static_cast<decltype(cookie) *>(pCookie);
        all.append(text, size);
        std::thread(work, std::string(text, size)).join();
        return static_cast<ssize_t>(size);
    };
    std::FILE *file = fopencookie(&cookie, "w", {nullptr, take, nullptr, nullptr});
    std::setvbuf(file, nullptr, _IONBF, 0);
    std::FILE *const before = std::exchange(stdout, file);
    print();
    stdout = before;
    std::fclose(file);
    return cookie.second;
}

TEST_F(Mod, IsFilledInListedDumpedAndChecked)
{
    static ModT mods[4000], &last = mods[3999]; // 3998 have room beside the test's and the configuration's
    std::memset(&last, 0xFF, sizeof last);
    const auto ops = [] { return std::tuple(last.CallCallbacks, last.ThrowException, last.SetOwner, last.GetOwner); };
    const auto own = ops();
    const std::string heading = "Module               address  task flags\n-------------------- -------- ---- -----\n";
    const std::string line = "cfg\\[3] {15}.{8} main  I   \n";
    testing::internal::CaptureStdout(), ModDumpAll(), ModDumpRange(1, 1), ModDump(&owner, 1);
    EXPECT_TRUE(testing::internal::RE::FullMatch(testing::internal::GetCapturedStdout(),
                                                 heading + "Config\\[0] .+ main  I   \n" + line + heading + line +
                                                     heading + "\\[0] {18}.{8} {11}\n"));
    for (ModT &each : mods)
        ModInit(&each, "A23456789012345678901234567890123456789", static_cast<Int32>(&each - mods), nullptr);
    EXPECT_EQ(std::tuple(ops(), last.Exit, last.Dump, last.processorNum), std::tuple(own, &ModExit, &ModDump, ~0u));
    EXPECT_EQ(ModFindByName("a2345678901234567890123456789012", 3998), nullptr);
    ModExit(ModFindByName("a2345678901234567890123456789012", 3997)); // makes room
    ModInit(&last, "CFG", INT32_MIN, nullptr);
    ModAddExceptionHandler(&last, count, nullptr);
    ModAddCallback(&last, 5, count, nullptr, 0);
    ModExit(&mods[9]), ModExit(&mods[3998]); // leaves a hole, and was never in
    EXPECT_EQ(ModFindByName("none", 5), nullptr);
    const std::string dump =
        heading + line + "CFG\\[-2147483648]     .{8} main AI   \n  callbacks: 2147483647:0x.+ 5:0x.+ \n";
    testing::internal::CaptureStdout();
    ModDumpByName("Cfg");
    EXPECT_TRUE(testing::internal::RE::FullMatch(testing::internal::GetCapturedStdout(), dump));
    GTEST_FLAG_SET(death_test_style, "threadsafe");
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
    const std::string heading = "Module               address  task flags\n-------------------- -------- ---- -----\n";
    const std::string line = "gone\\[1] {14}.{8} main  I   \n", callback = "  callbacks: 7:0x[0-9a-f]+ ";
    const auto matches = [](const std::string &text, const std::string &pattern) {
        return testing::internal::RE::FullMatch(text, pattern);
    };
    EXPECT_TRUE(matches(DumpWhileItGoes("-----"), heading));
    EXPECT_TRUE(matches(DumpWhileItGoes("gone"), heading + line));
    EXPECT_TRUE(matches(DumpWhileItGoes("7:"), heading + line + callback + "\n"));
    mod.Dump = [](ModT *pMod, Int32 verbose) { return std::printf("own %s %d\n", pMod->name, verbose), kNoError; };
    EXPECT_EQ(PrintedWhile([] { ModDumpByName("cfg"); }, [](auto) { ModFindByName("cfg", 3); }),
              heading + "own cfg 0\n");
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

TEST_F(Mod, LogLinesAreWhatIsWritten)
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
}

TEST_F(Mod, LogLinesAndDeferredFunctions)
{
    LogWriter writer(kLogFormatLevel);
    ModInit(&owner, "%s", 0, nullptr);
    ModLog(&mod, kLogError, "%d\n", mod.SetOwner(&mod, &owner));
    mod.flags |= kModFlagLogOwner, mod.id = 7;
    EXPECT_EQ(std::tuple(mod.GetOwner(&mod), ModID(&mod), ModGetProcNum(&mod)), std::tuple(&owner, 7u, 0u));
    ModLog(&mod, kLogError, "%d\n", ModTraceFilterDelete("cfg"));
    for (const char *name : {"b", "CFG", "c", "d", "e", "f", "g", "h", "i", "j"})
        EXPECT_EQ(ModTraceFilterAdd(name), kNoError);
    mod.ThrowException(&mod, 0, "why", nullptr, 0);
    ModLog(&mod, kLogError, "%d\n", ModTraceFilterAdd("x"));
    ModLog(&mod, kLogError, "%d\n", ModTraceFilterDelete("Cfg")), ModTrace(&mod, "\n"); // both dropped
    ModLog(&mod, kLogError, "%d\n", ModTraceFilterDelete("*"));
    EXPECT_EQ(writer.Drained(),
              "ERROR pc[0]: cfg[3]: 0\nWARN  pc[0]: MOD: can't delete trace filter, name not found\n"
              "ERROR pc[0]: %s[0].cfg[3]: -3\nDEBUG pc[0]: %s[0].cfg[3]: exception:Mod Fatal Exception (why)\n"
              "WARN  pc[0]: MOD: can't add trace, out of filter entries\nERROR pc[0]: %s[0].cfg[3]: -2\n"
              "ERROR pc[0]: %s[0].cfg[3]: 0\n");
    static std::string ran, expected;
    const DeferredFuncPtrT note = [](void *pArgs, Int32 argLen) { ran += static_cast<char *>(pArgs)[argLen - 1]; };
    EXPECT_EQ(ModDeferFunctionCall(t_name(0), note, nullptr, kModMaxArgs + 1), kBadParameter);
    EXPECT_EQ(ModDeferFunctionCall(64, note, nullptr, 0), kItemNotFound);
    EXPECT_EQ(ModDeferFunctionCall(0, nullptr, "", 1) + ModDeferFunctionCall(0, note, "", -1), 2 * kBadParameter);
    EXPECT_EQ(ModName(nullptr) + std::to_string(ModTraceFilterAdd("")), "none-3");
    EXPECT_EQ(ModDeferFunctionCall(0, note, std::string(kModMaxArgs, '#').data(), kModMaxArgs), kNoError);
    expected = "#";
    for (char c = 0; ModDeferFunctionCall(0, note, &c, 1) == kNoError; c++)
        expected += c;
    const char *lines = "WARN  pc\\[0]: MOD: can't defer function call to task \\?{4}, it doesn't exist\n"
                        "WARN  pc\\[0]: MOD: can't defer function call from main to task main func 0x[0-9a-f]+, "
                        "out of deferred function blocks\n"
                        "WARN  pc\\[0]: MOD: task main has not responded to deferred func calls for [0-9]+mS\n";
    const std::string text = writer.Drained();
    EXPECT_TRUE(testing::internal::RE::FullMatch(text, lines)) << text;
    EXPECT_EQ(ModSearchDeferredFunction(64, note) + ModSearchDeferredFunction(t_name(0), [](auto...) {}),
              2 * kItemNotFound);
    EXPECT_EQ(ModSearchDeferredFunction(t_name(0), note), kNoError);
    usleep(2000), ModProcessDeferredFunctions(); // all have waited
    EXPECT_EQ(ran, expected);
    DeferredFuncStatsT stats{};
    EXPECT_EQ((ModGetDeferredFunctionStats(t_name(0), &stats), stats.runCount), 384u);
    EXPECT_TRUE(stats.minTime <= stats.maxTime && stats.maxTime < stats.totalTime);
    EXPECT_EQ(ModGetDeferredFunctionStats(64, &stats) + ModGetDeferredFunctionStats(0, &stats), 2 * kItemNotFound);
    ModDeferFunctionCall(t_name(0), note, "x", 1), ModDumpDeferredFunctions();
    EXPECT_TRUE(testing::internal::RE::FullMatch(
        writer.Drained(),
        "main func 0x[0-9a-f]+ waiting [0-9]+ms\nmain runs 384 min [0-9]+ms max [0-9]+ms total .+\n"));
}

std::string calls, names = "abcdefghijklmXY."; // the callbacks that ran, and those that there are

void Do(ModT *pMod, const std::string &script);

eErrorT Step(ModT *pMod, char step, CallbackFuncPtrT note, char *user)
{
    UInt32 events = 0;
    switch (step) {
    case '+': // add a callback that runs at once
        return ModAddCallback(pMod, 1, note, user, 0);
    case '&': // add one that runs on this task
        return ModAddCallback(pMod, 1, note, user, kModOnTask);
    case '-':
        return ModDeleteCallback(pMod, 1, note, user);
    case '*': // delete all
        return ModDeleteAllCallbacks(pMod);
    case 'C': // call them
        return ModCallCallbacks(pMod, 1, std::string(3000, 'x').data(), 3000);
    case 'E': // take the event of a deferred one
        return static_cast<eErrorT>(ev_receive(kModDeferredEvent, kEvNoWait, 0, &events));
    case 'P': // run those that were deferred to this task
        ModProcessDeferredCallbacks();
        return kNoError;
    default: // 'O': another task calls them, and runs what was deferred to it
        StartTask("othr", [=] { Do(pMod, "C.P."); });
        return Eventually([] { return NumTasks() == 1; }) ? kNoError : kTimeOut;
    }
}

// A script has steps of two letters: what to do, and with which callback ("." for none).
void Do(ModT *pMod, const std::string &script)
{
    const CallbackFuncPtrT note = [](ModT *pCalled, UInt32, void *user, void *pArgs) {
        EXPECT_EQ(std::string(static_cast<char *>(pArgs), kModMaxArgs), std::string(kModMaxArgs, 'x'));
        calls += *static_cast<char *>(user);
        Do(pCalled, calls.back() == 'X' ? "-b-X+d+e+f+g+h+i+j+k+l+m" : calls.back() == 'Y' ? "*." : "");
    };
    for (std::size_t i = 0; i < script.size(); i += 2)
        EXPECT_EQ(Step(pMod, script[i], note, &names[names.find(script[i + 1])]), kNoError) << script << " " << i;
}

TEST_F(Mod, CallbacksRunInOrderWhereTheyBelong)
{
    const auto ran = [this](const char *script) { return calls.clear(), Do(&mod, script), calls; };
    EXPECT_EQ(ran("C.+a+b+a&bC.-a+c+XC.C."), "abcbXfghijklmcdefghijklm");
    EXPECT_EQ(ran("*.+a+Y+bC."), "aY");
    EXPECT_EQ(ran("&a&b+cC.&dO.O.-bP.P."), "abcccadad");
    for (int i = 0; i < 90; i++) // more blocks than there are
        EXPECT_EQ(ran("*.&a&bO.E.*.&aP.O.-aP.+a"), "");
    std::thread([this] { EXPECT_EQ(ModCallCallbacks(&mod, 1, nullptr, 0), kItemNotFound); }).join();
}

} // namespace
