#include "Common/framework/config.h"
#include "bench/standin/disk.h"
#include "bench/standin/folders.h"
#include "bench/standin/processor.h"
#include "tests/logwriter.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>

namespace
{

using namespace std::string_literals;

std::string sent, answer; // all commands; what reads are answered with, unless it is empty

std::string Read(const std::string &name, Int32 instance = 0, UInt32 len = 8)
{
    std::vector<char> value(len, '#'); // not a character more, so that sanitizers see any
    const eErrorT result = ConfigStoreRead(name.c_str(), instance, value.data(), len);
    return result == kNoError ? value.data() : std::to_string(result) + value.data();
}

struct ConfigStore : testing::Test {
    const ConfigFolders folders;
};

TEST_F(ConfigStore, ReadsTheFirstLineOfTheFirstFileThatItCan)
{
    for (const auto &[instance, name] : {std::pair{0, "a"s}, {-1, "b"s}, {1, "c1"s}, {INT32_MAX, "d2147483647"s}}) {
        EXPECT_EQ(Read(name.substr(0, 1), instance), "-3");
        for (const std::string file : {"choice/*.choice", "choice.gen/*.choice", "dat/*.dat"}) {
            folders.Put(std::string(file).replace(file.find('*'), 1, name), file);
            EXPECT_EQ(Read(name.substr(0, 1), instance, 99), file);
        }
    }
    for (const std::string &row : {"abc|"s, "abc|\r\n"s, "a|\nb\n"s, "a|\rb\n"s, "|\nabc"s, "|"s, "ab|\0c\n"s,
                                   "1234567|\n"s, "1234567|8\n"s, "1234567|" + std::string(10 << 20, '8')}) {
        folders.Put("dat/row.dat", std::string(row).erase(row.find('|'), 1));
        EXPECT_EQ(Read("row"), row.substr(0, row.find('|')));
        EXPECT_EQ(Read("row", 0, 1), "");
    }
    std::filesystem::create_directory("../dat/folder.dat");
    std::filesystem::create_directory("../choice.gen/folder.choice");
    folders.Put("choice/folder.choice", "default");
    EXPECT_EQ(Read("folder"), "default");
    for (const auto &[folder, name] : {std::pair{"choice.gen", "CHOICE_GEN"}, {"choice", "CHOICE"}, {"dat", "DAT"}}) {
        std::filesystem::remove_all(folders.root() / folder); // the last one checked goes first
        EXPECT_DEATH(ConfigStoreInit(), "failed: ConfigIsFolderExist.CONFIG_"s + name + "_FOLDER., .*InitFolderData");
    }
}

TEST_F(ConfigStore, WritesLinesUnderNamesThatStayInTheFolder)
{
    for (const std::string &name : {""s, "../s"s, "a\nb"s, std::string(33, 'n'), std::string(400, 'n')}) {
        folders.Put("dat/" + name + ".dat", "x");
        EXPECT_EQ(Read(name), "-3") << name;
        EXPECT_EQ(ConfigStoreDelete(name.c_str(), 0), kItemNotFound) << name;
        EXPECT_EQ(ConfigStoreWrite(name.c_str(), 0, "y"), kBadParameter) << name;
    }
    ConfigFileT file, other;
    ASSERT_EQ(ConfigStoreWriteOpen("item", 0, &other), kNoError);
    ASSERT_EQ(ConfigStoreWriteOpen("item", 0, &file), kNoError);
    EXPECT_EQ(ConfigStoreWritePutLine(&other, "other"), kNoError);
    EXPECT_EQ(ConfigStoreWriteClose(&other), kNoError);
    EXPECT_EQ(ConfigStoreWritePutLine(&file, "12345\n6"), kNoError);
    EXPECT_EQ(ConfigStoreWritePutLine(&file, "a\rb"), kNoError);
    EXPECT_EQ(ConfigStoreWriteClose(&file), kNoError);
    EXPECT_EQ(ConfigStoreReadOpen("item", 0, &file), kNoError);
    EXPECT_EQ(folders.Get("dat/item.dat"), "12345\na\n");
    EXPECT_TRUE((fcntl(fileno(file.stream), F_GETFD) & FD_CLOEXEC) != 0);
    ConfigStoreReadClose(&file);
}

TEST_F(ConfigStore, ReadsLines)
{
    const std::pair<std::string, std::string> cases[] = {
        {"1234567\nx", "1234567|x|"},
        {"1234567\r\nx", "1234567|x|"},
        {"123456\r\nx\n", "123456|x|"},
        {"1234567", "1234567|"},
        {"1234567\r", "1234567|"},
        {"12345678\n\nx\n", "1234567|8||x|"},
        {"12345678901234\r\n", "1234567|8901234|"},
        {"ab\rcdefghijkl\nx\r", "ab|x|"},
        {"\r\n\n", "||"},
        {"", ""},
    };
    for (const auto &[text, expected] : cases) {
        folders.Put("dat/item.dat", text);
        ConfigFileT file;
        ASSERT_EQ(ConfigStoreReadOpen("item", 0, &file), kNoError);
        std::string lines;
        for (char line[8]; ConfigStoreReadGetLine(&file, line, sizeof line) == kNoError;)
            lines += line + "|"s;
        EXPECT_EQ(lines, expected);
        ConfigStoreReadClose(&file);
    }
}

struct stat StatusOf(const std::string &file)
{
    struct stat status = {};
    EXPECT_EQ(lstat(("../" + file).c_str(), &status), 0) << file;
    return status;
}

TEST_F(ConfigStore, ReplacesAFileThatIsOnlyAnItems)
{
    folders.Put("dat/item.dat", "old");
    folders.Put("dat/item.dat.0.new", "left over"); // by a process that was killed
    folders.Put("work/else", "not ours");
    std::filesystem::create_directory("../dat/item.dat.1.new");
    std::filesystem::create_symlink("../work/else", "../dat/item.dat.2.new");
    chmod("../dat/item.dat", 0640);
    EXPECT_TRUE(geteuid() != 0 || chown("../dat/item.dat", 1234, 5678) == 0);
    const struct stat old = StatusOf("dat/item.dat");
    const int open = ::open("../dat/item.dat", O_RDONLY);
    EXPECT_EQ(ConfigStoreWrite("item", 0, "new"), kNoError);
    const struct stat now = StatusOf("dat/item.dat");
    EXPECT_NE(now.st_ino, old.st_ino); // who has opened the old one reads that
    EXPECT_EQ(now.st_mode, old.st_mode);
    EXPECT_EQ(now.st_uid, old.st_uid);
    EXPECT_EQ(now.st_gid, old.st_gid);
    EXPECT_EQ(folders.Get("dat/item.dat"), "new\n");
    EXPECT_EQ(folders.Get("dat/item.dat.0.new"), "missing");
    close(open);
    folders.Put("dat/item.dat.0.new", "being written");
    const int writer = ::open("../dat/item.dat.0.new", O_WRONLY);
    flock(writer, LOCK_EX);
    EXPECT_EQ(ConfigStoreWrite("item", 0, "newer"), kNoError);
    EXPECT_EQ(folders.Get("dat/item.dat"), "newer\n");
    EXPECT_EQ(folders.Get("dat/item.dat.0.new"), "being written");
    EXPECT_EQ(folders.Get("work/else"), "not ours");
    close(writer);
    rlimit many;
    getrlimit(RLIMIT_NOFILE, &many);
    const int last = dup(STDIN_FILENO);
    const rlimit few = {static_cast<rlim_t>(last) + 1, many.rlim_max};
    close(last);
    setrlimit(RLIMIT_NOFILE, &few);
    EXPECT_EQ(ConfigStoreWrite("item", 0, "with one descriptor"), kNoError);
    setrlimit(RLIMIT_NOFILE, &many);
    EXPECT_EQ(folders.Get("dat/item.dat"), "with one descriptor\n");
}

TEST_F(ConfigStore, WritesInPlaceWhatCannotBeReplaced)
{
    for (const char *call : {"flock", "fchmod", "rename"}) {
        folders.Put("dat/item.dat", "old and longer\n");
        const ino_t old = StatusOf("dat/item.dat").st_ino;
        disk::refused = call;
        EXPECT_EQ(ConfigStoreWrite("item", 0, call), kNoError);
        EXPECT_EQ(folders.Get("dat/item.dat"), call + "\n"s);
        EXPECT_EQ(StatusOf("dat/item.dat").st_ino, old) << call;
        EXPECT_EQ(disk::modeBefore & 0077, 0u) << "nobody else could open the new file until now";
        EXPECT_EQ(std::distance(std::filesystem::directory_iterator("../dat"), {}), 1) << call;
    }
    for (int i = 0; i < 64; i++) // every name of a new file is taken
        std::filesystem::create_directory("../dat/item.dat." + std::to_string(i) + ".new");
    const ino_t old = StatusOf("dat/item.dat").st_ino;
    EXPECT_EQ(ConfigStoreWrite("item", 0, "last"), kNoError);
    EXPECT_EQ(folders.Get("dat/item.dat"), "last\n");
    EXPECT_EQ(StatusOf("dat/item.dat").st_ino, old);
}

TEST_F(ConfigStore, WritesLinksInPlace)
{
    folders.Put("work/target", "a long old value\n");
    std::filesystem::create_symlink("../work/target", "../dat/link.dat");
    std::filesystem::create_symlink("../work/nothing", "../dat/dangling.dat");
    folders.Put("dat/hard.dat", "old\n");
    std::filesystem::create_hard_link("../dat/hard.dat", "../work/hard");
    std::filesystem::create_symlink("/dev/null", "../dat/device.dat");
    for (const char *name : {"link", "dangling", "hard", "device"})
        EXPECT_EQ(ConfigStoreWrite(name, 0, "new"), kNoError);
    for (const char *file : {"work/target", "work/nothing", "work/hard", "dat/hard.dat"})
        EXPECT_EQ(folders.Get(file), "new\n") << file;
    for (const char *name : {"link", "dangling", "device"})
        EXPECT_TRUE(std::filesystem::is_symlink("../dat/"s + name + ".dat")) << name;
    std::filesystem::create_symlink("/dev/full", "../dat/full.dat");
    std::filesystem::create_directory("../dat/folder.dat");
    testing::internal::CaptureStderr();
    for (const char *name : {"full", "folder"})
        EXPECT_EQ(ConfigStoreWrite(name, 0, "new"), kBadParameter);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "ConfigStoreWrite: fwrite: No space left on device\nConfigStoreWrite: fopen: Is a directory\n");
}

TEST_F(ConfigStore, GivesNobodyTheRightsOfTheFoldersAccessList)
{
    folders.Put("dat/item.dat", "old\n");
    // Version 2; owner, user 65534, group, mask, others: tag, permissions and, little-endian, the user.
    constexpr unsigned char kList[] = {2, 0,   0,   0,   1,   0,   7,  0, 255, 255, 255, 255, 2,   0,  7,
                                       0, 254, 255, 0,   0,   4,   0,  5, 0,   255, 255, 255, 255, 16, 0,
                                       7, 0,   255, 255, 255, 255, 32, 0, 0,   0,   255, 255, 255, 255};
    if (setxattr("../dat", "system.posix_acl_default", kList, sizeof kList, 0) != 0)
        GTEST_SKIP() << "no access lists here";
    EXPECT_EQ(ConfigStoreWrite("item", 0, "new"), kNoError);
    EXPECT_EQ(folders.Get("dat/item.dat"), "new\n");
    EXPECT_EQ(getxattr("../dat/item.dat", "system.posix_acl_access", nullptr, 0), -1);
}

// As somebody who owns "own", "group", whose group is another, and "guarded", and may write "shared".
void WriteAsNobody(const ConfigFolders &folders, mode_t folderMode, eErrorT fresh)
{
    chmod("../dat", folderMode);
    EXPECT_EQ(setgroups(0, nullptr), 0);
    EXPECT_EQ(setgid(65534), 0);
    EXPECT_EQ(setuid(65534), 0);
    for (const char *name : {"own", "group", "shared"}) {
        EXPECT_EQ(ConfigStoreWrite(name, 0, "new"), kNoError) << name;
        EXPECT_EQ(folders.Get("dat/"s + name + ".dat"), "new\n");
    }
    EXPECT_EQ(ConfigStoreWrite("guarded", 0, "new"), kBadParameter);
    EXPECT_EQ(folders.Get("dat/guarded.dat"), "old\n");
    EXPECT_EQ(ConfigStoreWrite("fresh", 0, "new"), fresh);
    _exit(testing::Test::HasFailure() ? 1 : 0);
}

TEST_F(ConfigStore, RefusesNoFileThatMayBeWritten)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can become somebody else";
    for (const auto &[mode, fresh] : {std::pair{mode_t{0777}, kNoError}, {mode_t{0755}, kBadParameter}}) {
        const ConfigFolders ours;
        chmod("..", 0755);
        for (const auto &[name, owner, group, permissions] : {std::tuple{"own", 65534u, 65534u, mode_t{0600}},
                                                              {"group", 65534u, 0u, mode_t{0660}},
                                                              {"shared", 0u, 65534u, mode_t{0664}},
                                                              {"guarded", 65534u, 65534u, mode_t{0444}}}) {
            const std::string file = "dat/"s + name + ".dat";
            ours.Put(file, "old\n");
            EXPECT_EQ(chown(("../" + file).c_str(), owner, group), 0);
            EXPECT_EQ(chmod(("../" + file).c_str(), permissions), 0);
        }
        const ino_t own = StatusOf("dat/own.dat").st_ino, shared = StatusOf("dat/shared.dat").st_ino;
        EXPECT_EXIT(WriteAsNobody(ours, mode, fresh), testing::ExitedWithCode(0), "");
        EXPECT_EQ(StatusOf("dat/shared.dat").st_ino, shared); // its owner could not be kept otherwise
        EXPECT_EQ(StatusOf("dat/group.dat").st_gid, 0u);
        EXPECT_EQ(StatusOf("dat/own.dat").st_ino == own, mode == 0755);
    }
}

TEST_F(ConfigStore, TwoProcessesWriteOneItem)
{
    folders.Put("dat/item.dat", "aaaa\n");
    pid_t writers[2];
    for (pid_t &writer : writers) {
        if ((writer = fork()) != 0)
            continue;
        const std::string value(&writer == writers ? 4 : 300, &writer == writers ? 'a' : 'b');
        Int32 failures = 0;
        for (int i = 0; i < 3000; i++)
            failures += ConfigStoreWrite("item", 0, value.c_str()) != kNoError ? 1 : 0;
        _exit(failures != 0 ? 1 : 0);
    }
    int left = 2, status = 0;
    for (pid_t ended; left > 0; left -= ended > 0 ? 1 : 0) {
        const std::string value = Read("item", 0, 371);
        EXPECT_TRUE(value == std::string(4, 'a') || value == std::string(300, 'b')) << value;
        ended = waitpid(-1, &status, WNOHANG);
        EXPECT_TRUE(ended <= 0 || status == 0);
    }
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator("../dat"), {}), 1);
}

TEST_F(ConfigStore, FlushesOnceWhenTheLastWriteIsOldEnough)
{
    LogWriter writer(0); // starts the flush task
    tm_wkafter(250);
    EXPECT_EQ(ConfigStoreWrite("item", 0, "x"), kNoError);
    ConfigStoreInit(); // a second flush task: the first one's turns come too early and too late
    EXPECT_GE(MillisecondsOf([&] { writer.Until("pc[0]: config: synching filesystem\n"); }), 4000);
    writer.Until("pc[0]: config: sync complete ");
    tm_wkafter(300);
    EXPECT_EQ(writer.Drained().find("config"), std::string::npos);
    EXPECT_EQ(ConfigStoreDelete("item", 0), kNoError);
    writer.Until("pc[0]: config: sync complete ");
}

// Answers the read before once more, which is too late, and this one from another thread.
Int32 SendCmd(RemMsgPathT *pPath, const char *command, RemMsgRspT completion, void *context)
{
    static void *before;
    sent += command + "|"s;
    remoteRspCallback(pPath, "config late 0 late", std::exchange(before, context));
    if (completion != nullptr && !answer.empty())
        std::thread([=] { tm_wkafter(1), completion(pPath, answer.c_str(), context); }).detach();
    return 0;
}

TEST_F(ConfigStore, AsksAndTellsTheMaster)
{
    testing::internal::CaptureStdout();
    RemMsgPathT path = {{kRemMsgPathOpen}, SendCmd}, mute = {};
    gRemMsgPaths[2] = &mute;
    gRemMsgPaths[1] = gRemMsgPaths[3] = gRemMsgPaths[4] = &path; // there is no processor 4
    for (processor = 0; processor < 2; processor++) // the master tells all others, and has no path to itself
        EXPECT_EQ(RemMsgSendCmd("all", nullptr, nullptr), 0);
    EXPECT_EQ(std::exchange(sent, ""), "all|all|");
    gRemMsgPaths[kMasterProcessor] = &path;
    processor = 1;
    ConfigFileT file;
    EXPECT_EQ(ConfigStoreReadOpen("n", 0, &file), kBadParameter);
    EXPECT_EQ(ConfigStoreWriteOpen("n", 0, &file), kBadParameter);
    EXPECT_EQ(ConfigStoreDelete("n", 0), kNotImplemented);
    EXPECT_EQ(Read("n", 5), ""); // the caller is no task
    t_attach("test", 10);
    EXPECT_NEAR(static_cast<double>(MillisecondsOf([] { EXPECT_EQ(Read("n", -2), ""); })), 4400, 1500);
    for (const std::string &text : {"0 1234567 8"s, "0" + std::string(494, ' ') + "12345678"}) {
        ev_send(0, 0x4000); // left over
        answer = "config n " + text;
        EXPECT_EQ(Read("n", 0, 9), "1234567");
        EXPECT_EQ(Read("n", 0, 1), "");
        EXPECT_EQ(Read("n", 0, 4), "123");
    }
    path.stateFlags = ~kRemMsgPathOpen;
    std::thread([&] { tm_wkafter(50), path.stateFlags = kRemMsgPathOpen; }).detach();
    EXPECT_EQ(ConfigStoreWrite("n", 2, "a b\nc"), kNoError);
    EXPECT_TRUE(sent.starts_with("config n -2|")) << sent;
    EXPECT_TRUE(sent.ends_with("|config n 2 \"a b\" rw file notify|")) << sent;
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "ConfigStoreRead: \"n[5]\" timeout\nConfigStoreRead: \"n[-2]\" timeout\n"
              "Waiting for master processor to open up message path\n");
}

// Elsewhere than on the master: what no command can carry is refused before one is sent.
TEST_F(ConfigStore, SendsOnlyWhatTravels)
{
    loginfo("test", "reads the settings\n");
    RemMsgPathT path = {{kRemMsgPathOpen}, SendCmd};
    gRemMsgPaths[kMasterProcessor] = &path;
    char value[kConfigValueSize] = "before";
    for (const char *name : {"a b", "a\"b", "it's", "a\tb", "a/b", ""}) {
        processor = 1;
        EXPECT_EQ(ConfigRead(name, 7, value), kItemNotFound) << name;
        EXPECT_STREQ(value, "");
        EXPECT_EQ(ConfigWrite(name, 7, "v"), kBadParameter) << name;
        EXPECT_EQ(ConfigStoreWrite(name, 7, "v"), kBadParameter) << name;
        EXPECT_EQ(ConfigRead(name, 7, value), kItemNotFound) << name;
        EXPECT_EQ(ConfigWriteCacheOnly(name, 7, "v"), kNoError) << name;
        EXPECT_EQ(ConfigRead(name, 7, value), kNoError) << name;
        processor = 0;
        EXPECT_EQ(ConfigStoreWrite(name, 0, "a\"b"), ConfigStoreIsValidName(name) ? kNoError : kBadParameter) << name;
    }
    processor = 1;
    EXPECT_EQ(ConfigWrite("n", 0, "a\"b"), kBadParameter);
    EXPECT_EQ(sent, "");
    EXPECT_EQ(ConfigWrite("n", 0, "it's\n\"b"), kNoError);
    EXPECT_EQ(sent, "config n 0 \"it's\" rw file notify|");
}

// A message path that works with the database. Inside the commands of two writes it reads what the first one changed.
Int32 SendAndRead(RemMsgPathT *pPath, const char *command, RemMsgRspT completion, void *context)
{
    static int depth = 0;
    char value[kConfigValueSize];
    sent += command + "|"s;
    if (completion != nullptr) {
        completion(pPath, answer.c_str(), context);
    } else if (++depth == 1) {
        EXPECT_EQ(ConfigWrite("first", 0, ""), kNoError); // what it has: not sent again
        EXPECT_EQ(ConfigWrite("second", 0, "v"), kNoError);
    } else if (depth == 2) {
        EXPECT_EQ(ConfigRead("first", 0, value), kNoError);
    }
    return 0;
}

TEST_F(ConfigStore, LetsTheMessagePathUseTheDatabase)
{
    loginfo("test", "reads the settings\n");
    RemMsgPathT path = {{kRemMsgPathOpen}, SendAndRead};
    gRemMsgPaths[kMasterProcessor] = &path;
    processor = 1;
    alarm(20);
    t_attach("test", 10);
    answer = "config first 0 stale";
    EXPECT_EQ(ConfigWrite("first", 0, ""), kNoError);
    EXPECT_EQ(sent, "config first 0 \"\" rw file notify|config second 0 \"v\" rw file notify|config first 0|");
    answer = "config first 0 fresh";
    char value[kConfigValueSize];
    EXPECT_EQ(ConfigRead("first", 0, value), kNoError);
    EXPECT_STREQ(value, "fresh");
}

} // namespace
