#include "Common/framework/config.h"
#include "bench/standin/folders.h"
#include "tests/logwriter.h"

#include <csignal>
#include <sys/resource.h>

extern std::atomic<Int32> gConfigInitialized, gsConfigWriteOutstanding;
extern UInt32 configSemaphore;

namespace
{

using namespace std::string_literals;

std::string Read(const std::string &name, Int32 instance = 0)
{
    char value[kConfigValueSize];
    const eErrorT result = ConfigRead(name.c_str(), instance, value);
    return result == kNoError ? value : std::to_string(result) + value;
}

struct Config : testing::Test {
    const ConfigFolders folders;
};

// Also one whose name begins with no ASCII character.
TEST_F(Config, DumpsTheItemsOfABucketInTheOrderInWhichTheyCame)
{
    ConfigInit();
    for (const char *name : {"k2", "\xC4", "k1"})
        ConfigWrite(name, 0, "x");
    const std::string text = Printed(ConfigDumpAll);
    EXPECT_NE(text.find("\n\xC4[0] "), std::string::npos) << text;
    EXPECT_LT(text.find("\nk2[0] "), text.find("\nk1[0] ")) << text;
}

// How far a file may grow.
void LimitFiles(rlim_t size)
{
    const rlimit limit = {size, RLIM_INFINITY};
    setrlimit(RLIMIT_FSIZE, &limit);
}

TEST_F(Config, KeepsItemsInTheCache)
{
    for (const auto &[text, value] : {std::pair{"", ""}, {"first", "first"}, {"second", "first"}}) {
        folders.Put("dat/item.dat", text);
        EXPECT_EQ(Read("Item"), value);
    }
    EXPECT_EQ(ConfigWriteCacheOnly("item", 0, "cached"), kNoError);
    EXPECT_EQ(ConfigWrite("item", 0, "cached"), kNoError);
    EXPECT_EQ(Read("item"), "cached");
    EXPECT_EQ(folders.Get("dat/item.dat"), "second");
    ConfigExit();
    EXPECT_EQ(Read("item"), "second");
    for (const char *name : {"", "a/b", "a\nb"}) {
        EXPECT_EQ(ConfigWriteCacheOnly(name, 0, "cached"), kNoError) << name;
        EXPECT_EQ(Read(name), "cached") << name;
    }
}

TEST_F(Config, CutsNamesAndValues)
{
    const std::string longest(32, 'n'), x(5000, 'x'), file = "dat/" + longest + "2.dat";
    EXPECT_EQ(ConfigWrite((longest + "more").c_str(), 2, x.c_str()), kNoError);
    EXPECT_EQ(Read(longest, 2), x.substr(0, 370));
    EXPECT_EQ(folders.Get(file), x.substr(0, 370) + "\n");
    EXPECT_EQ(gsConfigWriteOutstanding, 1);
    ConfigExit(), ConfigExit(); // once
    EXPECT_EQ(gsConfigWriteOutstanding, 0);
    EXPECT_EQ(Read(longest + "MORE", 2), x.substr(0, 369)) << "of a line as long as it can be";
}

TEST_F(Config, DeletesAndRestores)
{
    folders.Put("choice/item.choice", "default");
    EXPECT_EQ(ConfigWrite("item", 0, "mine"), kNoError);
    EXPECT_EQ(ConfigRestore("ITEM", 0), kNoError);
    EXPECT_EQ(Read("item"), "default");
    EXPECT_EQ(folders.Get("dat/item.dat"), "default\n");
    EXPECT_EQ(ConfigDelete("item", 0), kNoError);
    EXPECT_EQ(ConfigDelete("item", 0), kItemNotFound);
    EXPECT_EQ(Read("item"), "default");
    EXPECT_EQ(folders.Get("dat/item.dat"), "missing");
    EXPECT_EQ(ConfigWriteCacheOnly("gone", 0, "v"), kNoError);
    EXPECT_EQ(ConfigDelete("gone", 0), kNoError);
    for (const char *name : {"gone", "a/b"})
        EXPECT_EQ(ConfigRestore(name, 0), kItemNotFound);
    std::filesystem::create_directory("../dat/folder.dat");
    EXPECT_EQ(ConfigDelete("folder", 0), kBadParameter);
}

TEST_F(Config, KeepsTheFileThatItCannotReplace)
{
    const std::string x(5000, 'x');
    folders.Put("dat/item.dat", "default\n");
    std::signal(SIGXFSZ, SIG_IGN);
    LimitFiles(300);
    testing::internal::CaptureStderr();
    EXPECT_EQ(ConfigWrite("item", 0, x.c_str()), kBadParameter);
    LimitFiles(RLIM_INFINITY); // also of what was captured
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "ConfigStoreWrite: fwrite: File too large\n");
    EXPECT_EQ(Read("item"), x.substr(0, 370));
    LimitFiles(0);
    EXPECT_EQ(ConfigWrite("item", 0, ""), kBadParameter);
    LimitFiles(RLIM_INFINITY);
    EXPECT_EQ(folders.Get("dat/item.dat"), "default\n");
    EXPECT_EQ(Read("item"), "default"); // an empty value is looked for in the file, and does not come back from there
    EXPECT_STREQ(LookupItemInCache("item", 0)->value, "");
    for (const std::string value : {"", "new"}) {
        EXPECT_EQ(ConfigWrite("item", 0, value.c_str()), kNoError);
        EXPECT_EQ(folders.Get("dat/item.dat"), value + "\n");
    }
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator("../dat"), {}), 1) << "temporary files";
}

void EndAtOnce(useconds_t pause)
{
    ConfigInit();
    usleep(pause);
    ConfigExit();
    UInt32 task = 0;
    _exit(t_ident("csyn", 0, &task) == 9 && gConfigInitialized == 0 && configSemaphore == 0 ? 0 : 1);
}

TEST_F(Config, EndsWithItsFlushTask)
{
    for (useconds_t pause = 0; pause < 500; pause += 50) // the task's first log line starts the database as well
        EXPECT_EXIT(EndAtOnce(pause), testing::ExitedWithCode(0), "");
    for (int i = 0; i < 2; i++) {
        ConfigInit();
        const MutexHold hold(&tcblistmutex);
        EXPECT_TRUE(tcblist != nullptr && tcblist->next == nullptr);
    }
}

TEST_F(Config, PrintsWithoutHoldingAnybodyUp)
{
    ConfigWriteCacheOnly("n", 0, "v");
    std::filesystem::create_directory("../dat/folder.dat");
    const auto work = [] { EXPECT_EQ(ConfigWrite("n", 0, "new"), kNoError); };
    PrintWhileOthersWork(
        STDOUT_FILENO, [] { setlinebuf(stdout), ConfigDumpAll(); }, work);
    PrintWhileOthersWork(
        STDERR_FILENO, [] { ConfigWrite("folder", 0, "fails"); }, work);
}

TEST_F(Config, ReadsAndWritesNumbersAndInstances)
{
    const struct {
        std::string text;
        Int32 word;
        Int16 half;
        Boolean boolean;
    } rows[] = {
        // 9 is what was there before
        {"-32768", -32768, -32768, 0},
        {"32768", 32768, 9, 0},
        {"2147483648", 9, 9, 0},
        {"1x", 9, 9, 0},
        {"", 9, 9, 0},
        {"tRUE", 9, 9, 1},
    };
    for (const auto &row : rows) {
        Int32 word = 9;
        Int16 half = 9;
        Boolean boolean = 9;
        ConfigWrite("n", 0, row.text.c_str());
        ConfigReadInt32("n", 0, &word), ConfigReadInt16("n", 0, &half), ConfigReadBool("n", 0, &boolean);
        EXPECT_EQ(word, row.word) << row.text;
        EXPECT_EQ(half, row.half) << row.text;
        EXPECT_EQ(boolean, row.boolean) << row.text;
    }
    Int32 number = 9;
    EXPECT_EQ(ConfigReadInt32("none", 0, &number), kItemNotFound);
    EXPECT_EQ(number, 9);
    char value[kConfigValueSize];
    EXPECT_EQ(ConfigWriteInt32("a", 0, INT32_MIN), kNoError);
    EXPECT_EQ(Read("a"), "-2147483648");
    EXPECT_EQ(ConfigWriteInt16("a", 0, INT16_MIN), kNoError);
    EXPECT_EQ(Read("a"), "-32768");
    EXPECT_EQ(ConfigWriteBool("a", 0, 2), kNoError);
    EXPECT_EQ(Read("a"), "True");
    EXPECT_EQ(ConfigWrite2("c", 1, -2, "two"), kNoError);
    EXPECT_EQ(ConfigRead2("C", 1, -2, value), kNoError);
    EXPECT_STREQ(value, "two");
    EXPECT_EQ(Read("c1_-2"), "two");
    EXPECT_EQ(ConfigWrite3("c", 1, -2, 3, "three"), kNoError);
    EXPECT_EQ(ConfigRead3("C", 1, -2, 3, value), kNoError);
    EXPECT_STREQ(value, "three");
}

void Tell(ModT *pMod, UInt32, void *userDefined, void *pArgs)
{
    const auto &change = *static_cast<const ConfigNotifyT *>(pArgs);
    loginfo(ModName(pMod), "%s %s %s[%u] %u %.4s %s\n", static_cast<const char *>(userDefined), task_name(t_name(0)),
            change.name, change.instance, change.flags, change.access, change.value);
}

TEST_F(Config, LogsChangesAndNotifiesTheTasksThatAsked)
{
    LogWriter writer(0);
    syslogSetLogLevel(kLogInfo);
    std::istringstream secrets(
        "sw roomsw websw userpassword0 meetingpassword sippassword softwareupdatepassword mppassword dot1xpwd "
        "ldappassword loginpassword norteldirectoryurlsp9 globaldirectoryurlsp xmpppassword yahoopassword "
        "pwencryptiontyperemote pwencryptiontyperoom pwencryptiontypeuser0 pwencryptiontypemeeting");
    for (std::string name; secrets >> name;)
        EXPECT_EQ(ConfigWrite(name.c_str(), 1, "secret"), kNoError);
    ConfigDumpAll();
    const std::string shown = writer.Drained();
    EXPECT_NE(shown.find("\nsw[1] "), shown.npos) << shown;
    EXPECT_EQ(shown.find("secret"), shown.npos) << shown;
    char own[] = "own", all[] = "all", given[] = "given";
    EXPECT_EQ(ConfigAddImmediateCallback("item", 3, Tell, all), kNoError);
    ConfigWrite("item", 3, "by no task");
    EXPECT_EQ(ConfigAddCallback("item", 3, Tell, own), kBadParameter);
    EXPECT_EQ(ConfigWrite("a/b", 0, "v"), kBadParameter);
    EXPECT_EQ(ConfigAddImmediateCallback("a/b", 0, Tell, own), kBadParameter);
    t_attach("here", 10);
    EXPECT_EQ(ConfigAddCallback("Item", 3, Tell, own), kNoError);
    EXPECT_EQ(ConfigAddCallback2("n", 1, 2, Tell, own), kNoError);
    EXPECT_EQ(ConfigAddCallback3("n", 1, 2, 3, Tell, own), kNoError);
    EXPECT_EQ(ConfigWrite2("n", 1, 2, ""), kNoError);
    EXPECT_EQ(ConfigWritePerm("n1_2_3", 0, "3", "ro"), kNoError);
    std::thread([&, here = t_name(0)] {
        t_attach("away", 10);
        EXPECT_EQ(ConfigAddCallbackEx("item", 3, Tell, given, kModOnTask, here), kNoError);
        ModAddCallback(getConfigModule(), 0, Tell, all, 0);
        ConfigDelete("ITEM", 3);
        for (const char *value : {"%d", "%d"})
            ConfigWriteEx("Item", 3, value, "rwxyz", kConfigCacheOnly);
    }).join();
    UInt32 events = 0;
    EXPECT_EQ(ev_receive(0x10, kEvNoWait, 0, &events), 0u);
    ModProcessDeferredCallbacks();
    EXPECT_EQ(writer.Drained(),
              "pc[0]: config: item[3]:by no task\n"
              "pc[0]: config: n1_2[0]:\npc[0]: n1_2[0]: own here n1_2[0] 0 rw \n"
              "pc[0]: config: n1_2_3[0]:3\npc[0]: n1_2_3[0]: own here n1_2_3[0] 0 ro 3\n"
              "pc[0]: config: delete item[3]\npc[0]: config: item[3]:%d\n"
              "pc[0]: item[3]: all away item[3] 1 rwxy %d\npc[0]: Config[0]: all away item[3] 1 rwxy %d\n"
              "pc[0]: item[3]: own here item[3] 1 rwxy %d\npc[0]: item[3]: given here item[3] 1 rwxy %d\n");
    EXPECT_EQ(ConfigDeleteCallback("ITEM", 3, Tell, own), kNoError);
    EXPECT_EQ(ConfigDeleteCallback("ITEM", 3, Tell, own), kItemNotFound);
    EXPECT_EQ(ConfigDeleteCallback("none", 3, Tell, own), kItemNotFound);
    ConfigAddImmediateCallback("here", 7, Tell, all); // an item that has no value yet
    WriteItemToCache("Here", 2, "v"), ConfigDumpByName("HERE");
    EXPECT_EQ(writer.Drained(), "\nConfig item                         value\nhere[2]                             v\n");
}

TEST_F(Config, TriesTheFileOfAValueAgainAndTellsOnce)
{
    LogWriter writer(0);
    syslogSetLogLevel(kLogInfo);
    t_attach("here", 10);
    char own[] = "own";
    ConfigAddImmediateCallback("item", 0, Tell, own);
    std::filesystem::create_directory("../dat/item.dat");
    for (int i = 0; i < 2; i++)
        EXPECT_EQ(ConfigWrite("item", 0, "new"), kBadParameter);
    EXPECT_EQ(Read("item"), "new");
    EXPECT_EQ(writer.Drained(), "pc[0]: config: item[0]:new\npc[0]: item[0]: own here item[0] 0 rw new\n");
    std::filesystem::remove("../dat/item.dat");
    EXPECT_EQ(ConfigWrite("item", 0, "new"), kNoError);
    EXPECT_EQ(folders.Get("dat/item.dat"), "new\n");
    EXPECT_EQ(writer.Drained(), "");
    std::filesystem::remove("../dat/item.dat");
    EXPECT_EQ(ConfigWrite("item", 0, "new"), kNoError); // the file had it
    EXPECT_EQ(ConfigWriteCacheOnly("item", 0, "cached"), kNoError);
    EXPECT_EQ(ConfigWrite("item", 0, "cached"), kNoError); // the file was not to have it
    EXPECT_EQ(folders.Get("dat/item.dat"), "missing");
    std::filesystem::create_directory("../dat/item.dat");
    EXPECT_EQ(ConfigWrite("item", 0, "failed"), kBadParameter);
    std::filesystem::remove("../dat/item.dat");
    WriteItemToCache("item", 0, "cached"); // nor was it here
    EXPECT_EQ(ConfigWrite("item", 0, "cached"), kNoError);
    EXPECT_EQ(folders.Get("dat/item.dat"), "missing");
}

struct NullT {
    const char *text;
    void (*call)();
};
ConfigFileT closed;
char buffer[kConfigValueSize];
const NullT kNulls[] = {
    {"pName", [] { ConfigStoreRead(nullptr, 0, buffer, 1); }},
    {"s", [] { ConfigStoreRead("a", 0, nullptr, 1); }},
    {"len", [] { ConfigStoreRead("a", 0, buffer, 0); }},
    {"pName", [] { ConfigStoreChoiceRead(nullptr, 0, buffer, 1); }},
    {"s", [] { ConfigStoreChoiceRead("a", 0, nullptr, 1); }},
    {"len", [] { ConfigStoreChoiceRead("a", 0, buffer, 0); }},
    {"pName", [] { ConfigStoreWrite(nullptr, 0, ""); }},
    {"value", [] { ConfigStoreWrite("a", 0, nullptr); }},
    {"pName", [] { ConfigStoreDelete(nullptr, 0); }},
    {"pName", [] { ConfigStoreIsValidName(nullptr); }},
    {"pName", [] { ConfigGetDatFileName(nullptr, 0, buffer); }},
    {"path", [] { ConfigGetDatFileName("a", 0, nullptr); }},
    {"pName", [] { ConfigGetChoiceFileName(nullptr, 0, buffer); }},
    {"path", [] { ConfigGetChoiceFileName("a", 0, nullptr); }},
    {"path", [] { ConfigIsFileExist(nullptr); }},
    {"path", [] { ConfigIsFolderExist(nullptr); }},
    {"pName", [] { ConfigStoreReadOpen(nullptr, 0, &closed); }},
    {"pFile", [] { ConfigStoreReadOpen("a", 0, nullptr); }},
    {"pFile", [] { ConfigStoreReadGetLine(nullptr, buffer, 2); }},
    {"pFile->stream", [] { ConfigStoreReadGetLine(&closed, buffer, 2); }},
    {"len", [] { closed.stream = stdin, ConfigStoreReadGetLine(&closed, buffer, 1); }},
    {"pFile->stream", [] { ConfigStoreReadOpen("a", 0, &closed), ConfigStoreReadClose(&closed); }},
    {"pName", [] { ConfigStoreWriteOpen(nullptr, 0, &closed); }},
    {"pFile", [] { ConfigStoreWriteOpen("a", 0, nullptr); }},
    {"line", [] { ConfigStoreWriteOpen("a", 0, &closed), ConfigStoreWritePutLine(&closed, nullptr); }},
    {"pFile->isWritten", [] { ConfigStoreWritePutLine(&closed, ""); }},
    {"pFile->isWritten", [] { ConfigStoreWriteClose(&closed); }},
    {"response", [] { remoteRspCallback(nullptr, nullptr, buffer); }},
    {"command", [] { RemMsgSendCmd(nullptr, nullptr, nullptr); }},
    {"pName", [] { ConfigWrite(nullptr, 0, ""); }},
    {"pName", [] { ConfigRead(nullptr, 0, buffer); }},
    {"value", [] { ConfigRead("a", 0, nullptr); }},
    {"value", [] { ConfigWrite("a", 0, nullptr); }},
    {"access", [] { ConfigWritePerm("a", 0, "", nullptr); }},
    {"pValue", [] { ConfigReadInt32("a", 0, nullptr); }},
    {"pValue", [] { ConfigReadInt16("a", 0, nullptr); }},
    {"pValue", [] { ConfigReadBool("a", 0, nullptr); }},
    {"value", [] { ConfigRead3("a", 1, 2, 3, nullptr); }},
    {"pFunc", [] { ConfigAddImmediateCallback("a", 0, nullptr, nullptr); }},
    {"pFunc", [] { ConfigDeleteCallback("a", 0, nullptr, nullptr); }},
};

TEST_F(Config, StopsOnNullArguments)
{
    for (const NullT &row : kNulls)
        EXPECT_DEATH(row.call(), "failed: "s + row.text + ", file .*Common/framework/");
}

} // namespace
