#include "Common/OS/osassert.h"

#include "bench/standin/fullpipe.h"

#include <chrono>
#include <csignal>
#include <gtest/gtest.h>
#include <string>
#include <thread>

namespace
{

// Both outputs go where the test looks. The program has 20 s to end.
[[noreturn]] void Fail(void (*prepare)())
{
    dup2(STDERR_FILENO, STDOUT_FILENO);
    alarm(20);
    prepare();
    os_assert_failed("a == b", "file.cpp", 7, "Name");
}

// Prints in two parts, without letting anybody else print between them.
void PrintSlowly()
{
    flockfile(stdout);
    std::printf("before ");
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    funlockfile(stdout);
    pause();
}

// Standard output leads to a pipe whose reader has gone.
void LoseReader()
{
    int ends[2];
    EXPECT_EQ(pipe(ends), 0);
    dup2(ends[1], STDOUT_FILENO);
    close(ends[0]);
}

// A descriptor leads to a pipe that nobody reads, to the end of the process.
void Stall(int fd)
{
    static const bench::FullPipe full(fd);
}

void StartThread(void (*body)())
{
    std::thread(body).detach();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
}

TEST(Assertion, StopsWhateverTheOutputDoes)
{
    const std::string message = "Assertion failed: a == b, file file.cpp, line 7, function Name\n$";
    const struct {
        const char *name;
        void (*prepare)();
        std::string said;
    } rows[] = {
        {"output is flushed first", [] { std::printf("before "); }, "^before " + message},
        {"a thread that prints is waited for", [] { StartThread(PrintSlowly); }, "^before " + message},
        {"nobody reads the output", [] { Stall(STDOUT_FILENO), std::printf("before "); }, "^" + message},
        {"the reader has gone", [] { LoseReader(), std::printf("before "); }, "^" + message},
        {"nobody reads the message", [] { Stall(STDERR_FILENO); }, "^$"},
#ifndef __SANITIZE_THREAD__ // its abort flushes all streams
        {"a thread waits in the output", [] { Stall(STDOUT_FILENO), StartThread([] { std::printf("%05000d", 1); }); },
         "^" + message},
#endif
    };
    for (const auto &row : rows)
        EXPECT_EXIT(Fail(row.prepare), testing::KilledBySignal(SIGABRT), row.said) << row.name;
}

} // namespace
