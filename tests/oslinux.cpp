#include "Common/OS/linux/oslinux.h"

#include "bench/rig/launcher.h"
#include "bench/standin/folders.h"
#include "tests/tasks.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

// What the module shares with the whole process.
extern pthread_mutex_t intsoffmutex;
extern pthread_t intsoffthread;
extern UInt32 intsoffcount;
extern hwTypeT sHwType;

namespace
{

constexpr char kRelay[] = "/tmp/plaunch";

// One test, because the relay's path is the machine's.
TEST(CommandRelay, CarriesACommandAndItsResult)
{
    const int machine = open("/tmp", O_RDONLY | O_CLOEXEC);
    flock(machine, LOCK_EX); // against this test in another build; goes with the process
    unlink(kRelay);
    EXPECT_EQ(system_pthread("nobody there"), -1);
    EXPECT_NE(access(kRelay, F_OK), 0) << "the relay is never created";
    const struct {
        const char *answer;
        Int32 result;
    } kAnswers[] = {{"0\n", 0}, {"\n", -1}, {"", -1}, {"-2147483649\nx", INT32_MIN}, {"012 x\n", 12}, {"w\n", 0}};
    for (const auto &row : kAnswers) {
        const bench::Launcher launcher(row.answer, kRelay);
        EXPECT_EQ(system_pthread("./config_port close ttyFPGAS4"), row.result) << row.answer;
        EXPECT_EQ(system_pthread("./config_port close ttyFPGAS5"), row.result) << row.answer;
        EXPECT_EQ(launcher.commands(),
                  (std::vector<std::string>{"./config_port close ttyFPGAS4\n", "./config_port close ttyFPGAS5\n"}));
    }
    mkfifo(kRelay, 0600);
    const int held = open(kRelay, O_RDWR); // a launcher that stays, and sends the command back
    EXPECT_EQ(system_pthread("5"), 5);
    close(held);
    unlink(kRelay);
}

TEST(Commands, ReadTheirFirstLine)
{
    char out[16] = "old", small[5];
    EXPECT_EQ(read_command("printf '  two words \\nsecond\\n'", out, sizeof out), 0);
    EXPECT_STREQ(out, "two words");
    EXPECT_EQ(read_command("echo abcdefgh", small, sizeof small), 0);
    EXPECT_STREQ(small, "abcd");
    setenv("OSLINUX_TEST", "abcdefgh", 1);
    EXPECT_EQ(read_env("OSLINUX_TEST", small, sizeof small), 0);
    EXPECT_STREQ(small, "abcd");
    small[0] = 'x';
    EXPECT_EQ(read_env("OSLINUX_TEST", small, 0), 0);
    EXPECT_EQ(read_command("echo", small, 0), -1);
    EXPECT_EQ(small[0], 'x') << "there is room for nothing";
    EXPECT_EQ(read_env("OSLINUX_TEST_UNSET", small, sizeof small), -1);
    EXPECT_STREQ(small, "");
}

TEST(Commands, TellOfTheMachine)
{
    for (int i = 0; i < 2; i++)
        EXPECT_EQ(is_NFS(), system("mount | grep -q 'on / type nfs'") == 0 ? 1u : 0u);
    const std::string name = "find" + std::to_string(getpid()) + "-please-do-find"; // 15 characters count
    prctl(PR_SET_NAME, name.c_str());
    EXPECT_EQ(find_pid(name.c_str()), getpid());
    EXPECT_EQ(find_pid("no such process"), -1);
}

// The command that tells about the root notes that it runs, and waits for a gate.
TEST(Commands, DoNotWaitForEachOther)
{
    const ConfigFolders folders;
    const std::filesystem::path folder = folders.root() / "work";
    folders.Put("work/mount", "#!/bin/sh\n: > $0.$$\n: < $0.gate\n");
    std::filesystem::permissions(folder / "mount", std::filesystem::perms::owner_all);
    mkfifo((folder / "mount.gate").c_str(), 0600);
    setenv("PATH", (folder.string() + ":" + std::getenv("PATH")).c_str(), 1);
    const auto files = [&] { return std::distance(std::filesystem::directory_iterator(folder), {}); };
    std::jthread first([] { EXPECT_EQ(is_NFS(), 0u); }), second([] { EXPECT_EQ(is_NFS(), 0u); });
    EXPECT_TRUE(Eventually([&] { return files() == 4; }));
    const int gate = open((folder / "mount.gate").c_str(), O_RDWR);
    first.join(), second.join();
    EXPECT_EQ(is_NFS(), 0u); // by heart
    EXPECT_EQ(files(), 4);
    close(gate);
}

TEST(CommandsAndStrings, StopOnANullPointer)
{
    char out[34] = "", *const nowhere = std::strchr(out, 'x');
    const char *volatile none = nullptr; // tools refuse plain ones
    EXPECT_DEATH(system_pthread(nullptr), "failed: command,");
    EXPECT_DEATH(read_command(nullptr, out, sizeof out), "failed: command,");
    EXPECT_DEATH(read_command("echo", nullptr, 8), "failed: out,");
    EXPECT_DEATH(find_pid(nullptr), "failed: name,");
    EXPECT_DEATH(read_env(nullptr, out, sizeof out), "failed: name,");
    EXPECT_DEATH(read_env("HOME", nullptr, 8), "failed: out,");
    for (auto *change : {strlwr, strupr, trim_leading, trim_trailing, trim_str})
        EXPECT_DEATH(change(nullptr), "failed: s,");
    EXPECT_DEATH(stricmp(nullptr, ""), "failed: left,");
    EXPECT_DEATH(stricmp("", nullptr), "failed: right,");
    EXPECT_DEATH(itoa(1, nowhere, 10), "failed: out,");
    EXPECT_DEATH(sp_printf(nullptr, 8, "%d", 1), "failed: out,");
    EXPECT_DEATH(sp_printf(out, sizeof out, none, 1), "failed: format,");
}

TEST(Strings, AreChangedInPlace)
{
    char text[32] = "\t MiXed 1\xC4 \n";
    EXPECT_STREQ(trim_str(text), "MiXed 1\xC4");
    EXPECT_STREQ(strlwr(text), "mixed 1\xC4");
    EXPECT_STREQ(strupr(text), "MIXED 1\xC4");
    char blanks[] = "  \t";
    EXPECT_STREQ(trim_str(blanks), "");
    char inner[] = " a b ";
    EXPECT_STREQ(trim_leading(inner), "a b ");
    EXPECT_STREQ(trim_trailing(inner), "a b");
    const std::string halden = "Halden", same(255, 'x');
    EXPECT_EQ(stricmp(halden.c_str(), "hALDEN"), 0);
    EXPECT_LT(stricmp(halden.c_str(), "I"), 0);
    EXPECT_GT(stricmp(halden.c_str(), "HALD"), 0);
    EXPECT_EQ(stricmp((same + "a").c_str(), (same + "b").c_str()), 0) << "only 255 characters count";
    char number[34];
    EXPECT_STREQ(itoa(INT32_MIN, number, 10), "-2147483648");
    EXPECT_STREQ(itoa(-1, number, 2), "11111111111111111111111111111111");
    EXPECT_STREQ(itoa(1295, number, 36), "zz");
    for (const Int32 radix : {-2, 0, 1, 37})
        EXPECT_STREQ(itoa(1, number, radix), "");
    char line[8] = "ab";
    EXPECT_EQ(sp_printf(line, sizeof line, "%d", 123), 5);
    EXPECT_EQ(sp_printf(line, sizeof line, "%s", "cutoff"), 7);
    EXPECT_STREQ(line, "ab123cu");
}

TEST(InterruptLock, IsThereForAnotherUnit)
{
    const InterruptsOffHold hold;
    EXPECT_NE(pthread_mutex_trylock(&intsoffmutex), 0);
    EXPECT_EQ(intsoffcount, 1u);
    EXPECT_TRUE(pthread_equal(intsoffthread, pthread_self()));
}

TEST(Hardware, IsWhatTheBoardSays)
{
    EXPECT_EQ(GetSystemHardwareType(), kUninitialized);
    SetSystemHardwareType(kVane);
    EXPECT_EQ(GetSystemHardwareType(), 18u);
    EXPECT_EQ(sHwType, kVane);
    EXPECT_EQ(GetProcessorNum(), 0u);
    EXPECT_EQ(GetNumProcessors(), 0);
    EXPECT_EQ(ExecutionLevel(), 0);
    EXPECT_EQ(GetCyclesPerTick(), 666666u);
    for (auto *count : {GetNumTIProcessors, GetNumTMProcessors, GetNumDavinciHDProcessors})
        EXPECT_EQ(count(), 0);
}

TEST(Memset, FillsExactlyWhatItIsAskedTo)
{
    void *(*volatile fill)(void *, int, std::size_t) = std::memset; // not the compiler's own
    for (std::size_t start = 0; start < 8; start++) {
        for (std::size_t length = 0; length <= 80; length++) {
            std::vector<UInt8> block(96, 0x11), expected(96, 0x11);
            std::fill_n(expected.begin() + static_cast<std::ptrdiff_t>(start), length, 0xA5);
            EXPECT_EQ(fill(block.data() + start, 0x3A5, length), block.data() + start);
            ASSERT_EQ(block, expected) << start << " " << length;
        }
    }
}

} // namespace
