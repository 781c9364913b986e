
#include "Common/OS/linux/oslinux.h"

#include "bench/standin/folders.h"
#include "tests/logwriter.h"

#include <cstdarg>
#include <ctime>
#include <sstream>

// In place of the C library's: shows what the host's log would get.
extern "C" void syslog(int priority, const char *format, ...)
{
    va_list ap;
    va_start(ap, format);
    std::printf("%d %s ", priority, format);
    std::vprintf(format, ap);
    va_end(ap);
}

namespace
{

std::size_t RemoveAll(std::string &text, const std::string &part)
{
    std::size_t count = 0;
    for (std::size_t at; (at = text.find(part)) != std::string::npos; count++)
        text.erase(at, part.size());
    return count;
}

// A line with its number in front.
std::string Line(int number, std::size_t size)
{
    const std::string text = "INFO  pc[0]: " + std::to_string(number) + " ";
    return text + std::string(size - text.size() - 1, 'x') + "\n";
}

TEST(LogLevel, IsTheFirstLettersAndCompared)
{
    for (const auto &[letter, level] : {std::pair{'E', 3}, {'C', 2}, {'I', 6}, {'W', 4}, {'D', 7}, {'e', 7}})
        EXPECT_EQ(mapLogLevel(letter), level) << letter;
    LogWriter writer(0);
    for (const auto &[threshold, passing] : {std::pair{7, "03467"}, {6, "0346"}, {4, "034"}, {2, "0"}}) {
        syslogSetLogLevel(threshold);
        for (Int32 level : {0, 3, 4, 6, 7})
            cm_syslog(level, "%d\n", level);
        std::string text = writer.Drained();
        RemoveAll(text, "pc[0]: ");
        RemoveAll(text, "\n");
        EXPECT_EQ(text, passing);
    }
}

TEST(LogStamp, FollowsTheFormat)
{
    setenv("TZ", "XYZ+7", 1); // stamps are UTC everywhere
    LogWriter writer(0);
    const std::string date = "####-##-##", time = " ##:##:##.### ";
    const std::string stamps[] = {"", date + " ", time, date + time};
    for (Int32 format = 0; format < 16; format++) {
        logmsg_set_format(format);
        const std::time_t before = std::time(nullptr);
        loginfo("c", "x\n");
        const std::string text = writer.Drained();
        std::string shape = text;
        std::replace_if(shape.begin(), shape.end(), isdigit, '#');
        EXPECT_EQ(shape, stamps[format & 3] + ((format & kLogFormatLevel) != 0 ? "INFO  " : "") + "pc[#]: c: x\n");
        tm utc = {};
        if (strptime(text.c_str(), "%F %T", &utc) != nullptr) {
            EXPECT_LE(before, timegm(&utc));
            const auto after = std::chrono::system_clock::now(); // time() may be a tick behind it
            EXPECT_GE(std::chrono::system_clock::to_time_t(after), timegm(&utc));
        }
    }
    logmsg_set_format(0);
    for (const char *line : {"", "E\n", "ERROR pc\n"}) // shorter than level and tag
        syslogAdd(line, 0);
    EXPECT_EQ(writer.Drained(), "pc\n");
}

TEST(LogEcho, GoesToTheHost)
{
    LogWriter writer(0);
    loginfo("c", "x\n");
    EXPECT_EQ(writer.Drained(), "pc[0]: c: x\n");
    logmsg_set_syslog_echo(1);
    logcrit("c", "%s\n", "100%d");
    logdebug("c", "x\n");
    EXPECT_EQ(writer.Drained(), "pc[0]: c: 100%d\n66 %s pc[0]: c: 100%d\npc[0]: c: x\n71 %s pc[0]: c: x\n");
}

TEST(LogRing, GoesRoundWithoutALoss)
{
    LogWriter writer(kLogFormatLevel | kLogFormatDate);
    int number = 0;
    for (int last : {50, 100, 150, 200, 250, 300}) {
        for (int i = number; i < last; i++)
            syslogAdd(Line(i, 5003).c_str(), 0);
        std::istringstream lines(writer.Drained());
        for (std::string line; std::getline(lines, line); number++)
            ASSERT_EQ(line.substr(11) + "\n", Line(number, 5003)); // one stamp: none for the filling
        ASSERT_EQ(number, last);
    }
#ifndef __SANITIZE_THREAD__                         // a copy that is overwritten and thrown away is a race to it
    syslogAdd(std::string(600000, 'E').c_str(), 0); // more than the ring holds
    syslogAdd("\n", 0);
    EXPECT_LT(writer.Drained().size(), 600000u); // cut, if it was not overwritten before
#endif
}

// What a task does that waits for something. Only with gLibPThreadNPTL 1.
bool Sleeps(UInt32 task)
{
    std::ifstream stat("/proc/self/task/" + std::to_string(low_pointer<TCB>(task)->tid) + "/stat");
    std::string id, name, state;
    return stat >> id >> name >> state && state == "S";
}

// Waits until the writer has taken a line that was just added, and cannot print it.
void AwaitStuckWriter()
{
    UInt32 writer = 0;
    EXPECT_EQ(t_ident("logw", 0, &writer), 0u);
    EXPECT_TRUE(Eventually([=] { return low_pointer<TCB>(writer)->events_captured == 0 && Sleeps(writer); }));
}

// A task finds the ring full, at the summary of a repeated line or at a line, and is deleted while it cannot say so.
TEST(LogRing, OverflowHoldsNobodyElseUp)
{
    gLibPThreadNPTL = 1;
    const ConfigFolders folders;
    LogWriter writer(kLogFormatLevel);
    logmsg_set_spewfilter(1);
    for (int i = 0; i < 20; i++)
        syslogAdd(Line(i, 10000).c_str(), 0);
    writer.Drained();
    flockfile(stdout);
    syslogAdd(Line(0, 10000).c_str(), 0);
    AwaitStuckWriter(); // from now on it makes no room
    for (int i = 1; i < 50; i++)
        syslogAdd(Line(i, 10000).c_str(), 0);
    const bench::FullPipe stalled(STDERR_FILENO);
    std::atomic<int> logged = 0;
    const UInt32 task = StartTask("dele", [&] {
        for (; logged < 100000; logged++)
            loginfo(nullptr, "%d\n", logged / 2);
    });
    EXPECT_TRUE(Eventually([&, before = 0]() mutable {
        usleep(20000);
        return std::exchange(before, logged) == logged && logged > 0 && Sleeps(task);
    }));
    {
        const InterruptsOffHold isFree;
    }
    testing::internal::CaptureStderr();
    for (const char text : {'a', 'a', 'b'})
        loginfo(nullptr, "%s\n", std::string(100, text).c_str());
    const std::string said = testing::internal::GetCapturedStderr();
    EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 3) << "the first line, the summary and the last line";
    funlockfile(stdout);
    writer.Until(Line(49, 10000)); // there is room again
    writer.Drained();
    t_delete(task);
    loginfo(nullptr, "next\n");
    const std::string text = writer.Drained();
    EXPECT_EQ(text.substr(text.find("INFO")), "INFO  pc[0]: next\n") << text;
}

// The event for the line before may still be on its way, from a task that was interrupted.
TEST(LogRing, EveryLineSendsItsEvent)
{
    LogWriter writer(0);
    UInt32 tid = 0;
    EXPECT_EQ(t_ident("logw", 0, &tid), 0u);
    auto *task = low_pointer<TCB>(tid);
    flockfile(stdout);
    loginfo(nullptr, "the writer cannot print it\n");
    EXPECT_TRUE(Eventually([&] { return task->events_captured == 0; }));
    for (int i = 0; i < 2; i++) {
        task->events_captured = 0;
        loginfo(nullptr, "line\n");
        EXPECT_EQ(task->events_captured, 1u);
    }
    funlockfile(stdout);
    writer.Drained();
}

// A line that would end where the writer has got to: the ring would look empty.
TEST(LogRing, IsNeverFilledToTheLastByte)
{
    LogWriter writer(kLogFormatLevel);
    std::string expected;
    const auto add = [&](int number, std::size_t size) {
        syslogAdd((expected += Line(number, size)).c_str() + expected.size() - size, 0);
    };
    for (int i : {0, 1, 2}) // the second one is the first in the ring, the third ends where the writer has got to
        add(i, 300000), expected.erase(0, writer.Until(Line(i, 300000)).size());
    testing::internal::CaptureStderr();
    flockfile(stdout);
    add(2, 1000), usleep(100000); // until the writer has taken it
    add(3, 219999), add(4, 199999);
    syslogAdd(Line(5, 101001).c_str(), 0);
    funlockfile(stdout);
    EXPECT_EQ(writer.Drained(), expected + testing::internal::GetCapturedStderr());
}

TEST(LogWriterTask, GoesOnWhenItDoesNotFindItselfAnyMore)
{
    LogWriter writer(0);
    t_delete(StartTask("dele", [] { tm_wkafter(100); }));
    writer.Drained();
    for (const char *text : {"a\n", "b\n"}) {
        loginfo(nullptr, "%s", text);
        EXPECT_EQ(writer.Drained(), std::string("pc[0]: ") + text);
    }
    const std::clock_t before = std::clock();
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    EXPECT_LT(std::clock() - before, CLOCKS_PER_SEC / 5); // it looks again now and then, and does not spin
}

TEST(ClassicCalls, KeepTheirSettings)
{
    EXPECT_EQ(getlogfacility(), 8);
    for (const auto &[given, kept] : {std::pair{0x3F8, 0x3F8}, {0, 0x3F8}, {0x10, 0x10}, {0x400, 0x10}, {0x11, 0x10}}) {
        openlog("ident", 1, given);
        EXPECT_EQ(getlogfacility(), kept) << given;
    }
    openlog(nullptr, 1, 0), setlogfacility(0x11), closelog();
    EXPECT_EQ(getlogfacility(), 0x11);
    for (const Int32 given : {0, 3}) { // 0 changes nothing
        EXPECT_EQ(setlogmask(given), 0x1F);
        EXPECT_EQ(setloglocalmask(given), 0xFF);
    }
    EXPECT_EQ(getlogmask(), 3);
    EXPECT_EQ(getloglocalmask(), 3);
    EXPECT_EQ(setlogaddr("host"), -1);
    EXPECT_STREQ(getlogaddr(), "");
    EXPECT_DEATH(syslogAdd(nullptr, 0), "failed: msg,");
}

} // namespace
