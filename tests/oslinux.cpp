#include "Common/OS/linux/oslinux.h"

#include "tests/logwriter.h"

#include <csignal>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sys/prctl.h>
#include <sys/stat.h>

namespace
{

namespace fs = std::filesystem;

std::string relayPath; // where the relay is in this test

} // namespace

// The relay's path is one for the whole machine; tests that run side by side need one each.
extern "C" int open(const char *path, int flags, ...)
{
    va_list args;
    va_start(args, flags);
    const unsigned mode = (flags & O_CREAT) != 0 ? va_arg(args, unsigned) : 0;
    va_end(args);
    static const auto next = reinterpret_cast<decltype(&open)>(dlsym(RTLD_NEXT, "open"));
    return next(std::strcmp(path, "/tmp/plaunch") == 0 ? relayPath.c_str() : path, flags, mode);
}

namespace
{

class Commands : public testing::Test
{
protected:
    ~Commands() override { fs::remove_all(folder); }

    const fs::path folder = mkdtemp(std::string("/tmp/oslinuxXXXXXX").data());
};

class CommandRelay : public Commands
{
protected:
    CommandRelay()
    {
        std::signal(SIGPIPE, SIG_IGN); // as the updater does
        relayPath = folder / "relay";
    }
    void MakeFifo() { ASSERT_EQ(mkfifo(relayPath.c_str(), 0600), 0); }
    static std::ptrdiff_t Descriptors() { return std::distance(fs::directory_iterator("/proc/self/fd"), {}); }

    // The launcher's part: takes one command.
    static std::string Take()
    {
        std::string command;
        std::getline(std::ifstream(relayPath), command, '\0');
        return command;
    }
    // And answers it, in pieces.
    static void Answer(const std::vector<std::string> &pieces)
    {
        std::ofstream answer(relayPath);
        for (const std::string &piece : pieces) {
            answer << piece << std::flush;
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    }
};

TEST_F(CommandRelay, ReturnsTheDecimalValueOfTheFirstLine)
{
    const struct {
        std::vector<std::string> pieces;
        Int32 result;
    } kAnswers[] = {
        {{"0\n"}, 0},
        {{"1", "2", "3\n"}, 123},
        {{"\n", "5\n"}, -1},
        {{}, -1},
        {{"word\n"}, 0},
        {{" -7 of 9"}, -7},
        {{"12\n99\n"}, 12},
        {{"99999999999\n"}, INT32_MAX},
        {{std::string(100, ' '), std::string(26, ' ') + "12\n"}, 1}, // no more than 127 characters
    };
    LogWriter writer(kLogFormatLevel);
    EXPECT_EQ(system_pthread("ls"), -1);
    EXPECT_EQ(writer.Drained(), "ERROR pc[0]: system_pthread: ls [2 No such file or directory]\n");
    EXPECT_FALSE(fs::exists(relayPath)) << "the relay is never made here";
    MakeFifo();
    for (const auto &row : kAnswers) {
        std::thread launcher([&] {
            EXPECT_EQ(Take(), "config 5 %s\n");
            Answer(row.pieces);
        });
        EXPECT_EQ(system_pthread("config 5 %s"), row.result);
        launcher.join();
        EXPECT_EQ(writer.Drained(), "INFO  pc[0]: system_pthread: config 5 %s [" + std::to_string(row.result) + "]\n");
    }
}

TEST_F(CommandRelay, TakesOneCommandAtATimeFromTheFirstOn)
{
    MakeFifo();
    std::vector<std::thread> callers;
    for (Int32 i = 0; i < 4; i++)
        callers.emplace_back([i] { EXPECT_EQ(system_pthread(std::to_string(i).c_str()), i * 10); });
    for (std::size_t i = 0; i < callers.size(); i++) {
        const std::string command = Take();
        EXPECT_EQ(command.size(), 2u) << "two commands met: " << command;
        Answer({command.substr(0, 1) + "0\n"});
    }
    for (std::thread &caller : callers)
        caller.join();
}

TEST_F(CommandRelay, IsGivenBackByADeletedTask)
{
    gLibPThreadNPTL = 1;
    MakeFifo();
    loginfo("test", "starts the tasks of logging\n");
    const std::ptrdiff_t before = Descriptors();
    const UInt32 tid = StartTask("rely", [] { system_pthread("ls"); });
    EXPECT_EQ(Take(), "ls\n");
    std::this_thread::sleep_for(std::chrono::milliseconds(20)); // it is about to wait for the answer
    EXPECT_EQ(t_delete(tid), 0u);
    EXPECT_EQ(Descriptors(), before);
    std::thread launcher([] { Take(), Answer({"3\n"}); });
    EXPECT_EQ(system_pthread("ls"), 3);
    launcher.join();
}

TEST_F(Commands, AskOnceWhetherTheRootIsOnNfs)
{
    setenv("PATH", (folder.string() + ":" + std::getenv("PATH")).c_str(), 1);
    for (const char *type : {"nfs (rw)", "ext4 (rw)"}) {
        std::ofstream(folder / "mount") << "#!/bin/sh\necho 'server:/root on / type " << type << "'\n";
        fs::permissions(folder / "mount", fs::perms::owner_all);
        EXPECT_EQ(is_NFS(), 1u);
    }
}

TEST_F(Commands, ReadTheirFirstLine)
{
    char out[16] = "old";
    EXPECT_EQ(read_command("printf '  two words \\nsecond\\n'", out, sizeof out), 0);
    EXPECT_STREQ(out, "two words");
    char small[5];
    EXPECT_EQ(read_command("echo abcdefgh", small, sizeof small), 0);
    EXPECT_STREQ(small, "abcd");
    EXPECT_EQ(read_command("true", small, sizeof small), -1);
    EXPECT_STREQ(small, "");
    const std::string name = std::to_string(getpid()) + " of more than fifteen";
    prctl(PR_SET_NAME, name.c_str());
    EXPECT_EQ(find_pid(name.c_str()), getpid());
    EXPECT_EQ(find_pid("no such process"), -1);
    setenv("OSLINUX_TEST", "abcdefgh", 1);
    EXPECT_EQ(read_env("OSLINUX_TEST", small, sizeof small), 0);
    EXPECT_STREQ(small, "abcd");
    EXPECT_EQ(read_env("OSLINUX_TEST_UNSET", small, sizeof small), -1);
    EXPECT_STREQ(small, "");
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
    EXPECT_EQ(stricmp("Halden", "hALDEN"), 0);
    EXPECT_LT(stricmp("a", "B"), 0);
    EXPECT_GT(stricmp("ab", "A"), 0);
    const std::string same(255, 'x');
    EXPECT_EQ(stricmp((same + "a").c_str(), (same + "b").c_str()), 0) << "only 255 characters count";
    char number[34];
    EXPECT_STREQ(itoa(INT32_MIN, number, 10), "-2147483648");
    EXPECT_STREQ(itoa(-1, number, 2), "11111111111111111111111111111111");
    EXPECT_STREQ(itoa(255, number, 16), "ff");
    EXPECT_STREQ(itoa(1, number, 1), "");
    char line[8] = "ab";
    EXPECT_EQ(sp_printf(line, sizeof line, "%d", 123), 5);
    EXPECT_EQ(sp_printf(line, sizeof line, "%s", "cutoff"), 7);
    EXPECT_STREQ(line, "ab123cu");
}

TEST(Hardware, IsWhatTheBoardSays)
{
    EXPECT_EQ(GetSystemHardwareType(), kUninitialized);
    SetSystemHardwareType(kVane);
    EXPECT_EQ(GetSystemHardwareType(), 18u);
    EXPECT_EQ(GetProcessorNum(), 0u);
    EXPECT_EQ(GetNumProcessors(), 0);
    EXPECT_EQ(ExecutionLevel(), 0);
    EXPECT_EQ(GetCyclesPerTick(), 666666u);
    testing::internal::CaptureStdout();
    sstackBackTrace(1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "sstackBackTrace(UInt32 taskID) not implemented.\n");
    EXPECT_EQ(GetNumTIProcessors() + GetNumTMProcessors() + GetNumDavinciHDProcessors(), 0);
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
