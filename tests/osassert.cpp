#include "Common/OS/osassert.h"

#include "tests/fullpipe.h"

#include <chrono>
#include <functional>
#include <string>
#include <sys/wait.h>
#include <thread>

namespace
{

// What a process says on both outputs, after it has prepared itself and met an assertion. It has to end by an abort, in
// less than 20 s.
std::string Fail(const std::function<void()> &prepare)
{
    int ends[2];
    EXPECT_EQ(pipe(ends), 0);
    const pid_t child = fork();
    if (child == 0) {
        dup2(ends[1], STDOUT_FILENO);
        dup2(ends[1], STDERR_FILENO);
        close(ends[0]);
        alarm(20);
        prepare();
        os_assert_failed("a == b", "file.cpp", 7, "Name");
    }
    close(ends[1]);
    std::string said;
    char bytes[4096];
    for (ssize_t count = 0; (count = read(ends[0], bytes, sizeof bytes)) > 0;)
        said.append(bytes, static_cast<std::size_t>(count));
    close(ends[0]);
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGABRT);
    return said;
}

const std::string kMessage = "Assertion failed: a == b, file file.cpp, line 7, function Name\n";

TEST(Assertion, FlushesOutputBeforeItsMessage)
{
    EXPECT_EQ(Fail([] { std::printf("before "); }), "before " + kMessage);
}

TEST(Assertion, WaitsForAThreadThatIsPrinting)
{
    EXPECT_EQ(Fail([] {
                  std::thread([] {
                      flockfile(stdout);
                      std::printf("before ");
                      std::this_thread::sleep_for(std::chrono::milliseconds(100));
                      funlockfile(stdout);
                      pause();
                  }).detach();
                  std::this_thread::sleep_for(std::chrono::milliseconds(50));
              }),
              "before " + kMessage);
}

TEST(Assertion, StopsWhileNobodyReadsTheOutput)
{
    EXPECT_EQ(Fail([] {
                  static const FullPipe full(STDOUT_FILENO);
                  std::printf("before ");
              }),
              kMessage);
}

TEST(Assertion, StopsWhileAThreadWaitsInTheOutput)
{
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "ThreadSanitizer's abort flushes all streams";
#endif
    EXPECT_EQ(Fail([] {
                  static const FullPipe full(STDOUT_FILENO);
                  std::thread([] { std::printf("%05000d", 1); }).detach();
                  std::this_thread::sleep_for(std::chrono::milliseconds(100));
              }),
              kMessage);
}

TEST(Assertion, StopsWhenTheReaderHasGone)
{
    EXPECT_EQ(Fail([] {
                  int ends[2];
                  EXPECT_EQ(pipe(ends), 0);
                  dup2(ends[1], STDOUT_FILENO);
                  close(ends[0]);
                  std::printf("before ");
              }),
              kMessage);
}

TEST(Assertion, StopsWhileNobodyReadsTheMessage)
{
    EXPECT_EQ(Fail([] { static const FullPipe full(STDERR_FILENO); }), "");
}

} // namespace
