// The reader of strace's text: what each kind of line becomes.
#include "bench/capture/stracetext.h"

#include <gtest/gtest.h>
#include <sstream>

namespace
{

using namespace bench;
using std::string;
using Texts = std::vector<string>;

// An event as text: "1+2 p1 > FF 44" has the time 1, ends 2 later, and goes to port 1's device. Microseconds count from
// the first event.
string Shown(const Event &event, WallTime first)
{
    string text = std::to_string((event.begin - first).count());
    if (event.end > event.begin)
        text += "+" + std::to_string((event.end - event.begin).count());
    text += event.port == kNoPort ? " " : Format(" p%d ", event.port);
    if (event.bytes.empty())
        return text + event.note;
    text += event.way == Way::kToDevice ? ">" : "<";
    for (const std::uint8_t byte : event.bytes)
        text += Format(" %02X", byte);
    return text;
}

Texts EventsOf(const string &text)
{
    std::istringstream stream(text);
    StraceText strace(stream, {{"/dev/link", 0}});
    Texts events;
    std::optional<WallTime> first;
    strace.HandOut([&](const Event &event) {
        first = first.value_or(event.begin);
        events.push_back(Shown(event, *first));
    });
    return events;
}

struct Case {
    const char *name;
    string text;
    Texts events;
};

void PrintTo(const Case &value, std::ostream *stream)
{
    *stream << value.name;
}

const string kOpen = "9 1.0 openat(AT_FDCWD, \"/dev/fpgaserial1\", O_RDWR) = 3\n";
const string kExit = "9 2.0 +++ exited with 0 +++\n";
const string kOpened = "0 p1 open", kExited = "1000000 exit 0";

const Case kCases[] = {
    {"Escapes",
     kOpen + R"(9 1.1 write(3, "\xff\x00A\"\\\0011\n\1\377", 10) = 10)" + "\n" + kExit,
     {kOpened, "100000 p1 > FF 00 41 22 5C 01 31 0A 01 FF", kExited}},
    {"Durations",
     kOpen + "9 1.1 write(3, \"ab\", 2) = 2 <0.000007>\n9 1.2 (+     0.1) read(3, \"c\", 1) = 1 <0.5>\n" + kExit,
     {kOpened, "100000+7 p1 > 61 62", "700000 p1 < 63", kExited}},
    {"InterleavedThreads",
     kOpen +
         "9 1.1 clone3({flags=CLONE_VM|CLONE_FILES|CLONE_THREAD, tls=0x1} => {parent_tid=[10]}, 88) = 10\n"
         "9 1.2 write(3, \"ab\", 2 <unfinished ...>\n10 1.3 read(3,  <unfinished ...>\n"
         "10 1.4 <... read resumed>\"c\", 1) = 1\n10 1.4 select(0, NULL, NULL, NULL, {1, 0}) = 0 (Timeout)\n"
         "9 1.5 <... write resumed>) = 2\n10 1.6 +++ exited with 1 +++\n" +
         kExit,
     {kOpened, "200000+300000 p1 > 61 62", "400000 p1 < 63", kExited}},
    {"ChildBeforeItsForkEnds",
     kOpen +
         "9 1.1 write(3, \"b\", 1) = 1\n9 1.1 vfork( <unfinished ...>\n10 1.2 write(3, \"a\", 1) = 1\n10 1.3 close(3) "
         "= 0\n"
         "9 1.4 <... vfork resumed>) = 10\n9 1.5 close(3) = 0\n" +
         kExit,
     {kOpened, "100000 p1 > 62", "200000 p1 > 61", "500000 p1 close", kExited}},
    {"NumberIsUsedAgainBeforeCloseEnds",
     kOpen +
         "9 1.1 clone(flags=CLONE_FILES|CLONE_THREAD) = 10\n9 1.2 close(3 <unfinished ...>\n"
         "10 1.3 open(\"/dev/fpgaserial0\", O_RDWR) = 3\n9 1.4 <... close resumed>) = 0\n"
         "9 1.5 write(3, \"a\", 1) = 1\n" +
         kExit,
     {kOpened, "200000 p1 close", "300000 p0 open", "500000 p0 > 61", kExited}},
    {"Copies",
     kOpen + "9 1.1 dup2(3, 5) = 5\n9 1.1 fcntl(5, F_DUPFD, 6) = 6\n9 1.1 fcntl64(6, F_DUPFD_CLOEXEC, 7) = 8\n9 1.1 "
             "close_range(3, 6, 0) = 0\n"
             "9 1.1 close_range(8, 9, CLOSE_RANGE_CLOEXEC) = 0\n"
             "9 1.2 write(8, \"a\", 1) = 1\n9 1.3 execve(\"/x\", [\"x\"], 0x7f /* 3 vars */) = 0\n",
     {kOpened, "200000 p1 > 61", "300000 p1 close", "300000 ! the text does not show the end of the program"}},
    {"OtherFileWithTheNumber",
     kOpen + "9 1.1 close(3) = 0\n9 1.2 openat(AT_FDCWD, \"/etc/x\", 0) = 3\n9 1.3 write(3, \"a\", 1) = 1\n" + kExit,
     {kOpened, "100000 p1 close", kExited}},
    {"OtherFileThatIsShown",
     kOpen + "9 1.1 write(3</dev/fpgaserial1>, \"b\", 1) = 1\n9 1.2 write(3</etc/x>, \"a\", 1) = 1\n" + kExit,
     {kOpened, "100000 p1 > 62", kExited}},
    {"FilesWithoutTheirEnd",
     kOpen +
         "9 1.1 open(\"haldenmicro.bin\", 0) = 4\n9 1.1 read(4, \"x\"..., 6144) = 6144\n"
         "9 1.1 open(\"farsightcam.bin\", 0) = 5\n9 1.1 read(5, \"x\"..., 64) = 64\n9 1.1 read(5, \"\", 64) = 0\n"
         "9 1.1 open(\"farsightsys.bin\", 0) = 6\n9 1.1 read(6, \"x\"..., 64) = 64\n" +
         kExit,
     {"0 ! the text does not show the end of farsightsys.bin, which may be longer", kOpened, kExited}},
    {"Link",
     "9 1.0 open(\"/dev/link\", O_RDWR) = -1 EBUSY (Device or resource busy)\n9 1.0 open(\"/dev/link\", 2) = ?\n"
     "9 1.1 open(\"/dev/link\", 02) = 3\n9 1.2 read(3,  <unfinished ...>\n",
     {"0 p0 open refused EBUSY", "0 p0 ! line 2: the result of this open is not known", "100000 p0 open",
      "200000 p0 ! line 4: the end of this read is missing, so its result is not known",
      "200000 ! the text does not show the end of the program"}},
    {"BigEndianBoard",
     kOpen +
         "9 1.1 ioctl(3, _IOC(_IOC_WRITE, 0, 0x1, 0x26), 0xbf8) = 0\n"
         "9 1.2 ioctl(3, 0x80260002, 0x1) = -1 EIO (Input/output error)\n"
         "9 1.3 ioctl(3, _IOC(_IOC_READ, 0, 0x2, 0x26), 0) = 0\n9 1.4 ioctl(3, TCGETS, 0xbf8) = 0\n"
         "9 1.5 _newselect(0, NULL, NULL, NULL, {3, 500}) = 0 (Timeout)\n"
         "9 1.6 pselect6_time64(0, NULL, NULL, NULL, {tv_sec=0, tv_nsec=50000000}, NULL) = 0 (Timeout)\n"
         "9 1.7 pselect6_time64(4, [3], NULL, NULL, {tv_sec=4, tv_nsec=0}, NULL) = 1 (in [3])\n" +
         kExit,
     {kOpened, "100000 p1 config mask ? baud ? parity ? stop ? flow ? data ?", "200000 p1 rx disabled refused EIO",
      "300000 p1 rx enabled", "500000 wait 3000500", "600000 wait 50000", kExited}},
    {"WaitThatTheKernelStartsAgain",
     kOpen +
         "9 1.1 select(0, NULL, NULL, NULL, {tv_sec=3, tv_usec=0}) = ? ERESTARTNOHAND (To be restarted)\n"
         "9 1.2 --- SIGCHLD {si_signo=SIGCHLD} ---\n"
         "9 1.3 select(0, NULL, NULL, NULL, {tv_sec=2, tv_usec=9}) = 0 (Timeout)\n" +
         kExit,
     {kOpened, "100000 wait 3000000", kExited}},
    {"FailuresAndPieces",
     kOpen +
         "9 1.1 write(3, \"abc\", 3) = 1\n9 1.2 write(3, \"bc\", 2) = -1 EIO (Input/output error)\n"
         "9 1.3 writev(3, [{iov_base=\"a\", iov_len=1}, {\"bc\", 2}], 2) = 3\n9 1.4 read(3, \"\", 5) = 0\n"
         "9 1.5 read(3, \"\", 5) = 0\n9 1.5 read(3, 0x7f, 5) = ? ERESTARTSYS (To be restarted)\n9 1.6 pread64(3, "
         "\"ab\", 2, 0) = 2\n"
         "9 1.7 write(3, \"a\", 1) = -1\n" +
         kExit,
     {kOpened, "100000 p1 > 61", "100000 p1 write 1 of 3 bytes", "200000 p1 write refused EIO", "300000 p1 > 61 62 63",
      "400000 p1 ! line 5: this read brought no byte; later ones that bring no byte either are left out",
      "600000 p1 ! line 8: the 2 bytes of this pread64 are left out, because other reads may bring them again",
      "700000 p1 write refused ?", kExited}},
    {"Killed",
     kOpen + "9 1.5 write(3, \"ab\", 2 <unfinished ...>\n9 2.0 +++ killed by SIGKILL (core dumped) +++\r\n",
     {kOpened, "500000 p1 ! line 2: the end of this write is missing, so its result is not known", "1000000 signal 9"}},
    {"TextIsCut",
     "8\", 1) = 1\n" + kOpen + "9 1.1 exit_group(131) = ?\n9 1.2 write(3, \"a",
     {"0 ! line 1: this line has no beginning", "1000000 p1 open",
      "1200000 p1 ! line 4: the end of this write is missing, so its result is not known", "1200000 exit 131"}},
    {"AThreadExecutes",
     kOpen +
         "9 1.1 clone(flags=CLONE_FILES|CLONE_THREAD) = 10\n10 1.2 execve(\"/x\", [\"x\"], 0x7f <unfinished ...>\n"
         "9 1.2 +++ superseded by execve in pid 10 +++\n9 1.2 <... execve resumed>) = 0\n9 1.3 close(3) = 0\n" +
         kExit,
     {kOpened, "300000 p1 close", "1000000 ! the text does not show the end of the program"}},
    {"WholeSeconds",
     "9 1 open(\"/dev/fpgaserial1\", 2) = 3\n9 2 +++ exited with 0 +++\n",
     {"0 ! the times are whole seconds (strace -ttt has microseconds)", kOpened, kExited}},
    {"OpenBeforeTheText",
     "9 1.0 write(3</dev/fpgaserial1>, \"a\", 1) = 1\n9 1.1 read(4, \"b\", 1) = 1\n"
     "9 1.2 <... write resumed>) = 3\n9 2.0 +++ exited with 0 +++\n",
     {"0 p1 ! line 1: the text does not show how descriptor 3 was opened", "0 p1 > 61",
      "100000 ! line 2: the text does not show what descriptor 4 is, so its bytes are left out (strace -y names it)",
      "200000 ! line 3: the beginning of this write is missing", kExited}},
    {"WithoutFile",
     "1.0 open(\"/dev/fpgaserial1\", O_RDWR) = 3\n1.1 clone(flags=SIGCHLDstrace: Process 10 attached\n, tid=0) = 10\n"
     "[pid 10] 1.2 close(3) = 0\n[pid 9] 1.3 write(3, \"a\", 1) = 1\n[pid 10] 1.4 +++ exited with 1 +++\n"
     "1.5 write(3, \"b\", 1) = 1\n2.0 +++ exited with 0 +++\n",
     {kOpened, "300000 p1 > 61", "500000 p1 > 62", kExited}},
    {"Midnight",
     "9 23:59:59.9 open(\"/dev/fpgaserial1\", O_RDWR) = 3\n9 00:00:00.1 close(3) = 0\n9 23:00:00.0 close(3) = 0\n"
     "9 00:00:00.9 +++ exited with 0 +++\n",
     {"0 ! the text has no date (strace -ttt): its first day is called 1970-01-01", "0 p1 open", "200000 p1 close",
      "86401000000 exit 0"}},
    {"RelativeTimes",
     "9      0.000000 execve(\"/x\", [\"x\"], 0x7f) = 0\n9      0.5 open(\"/dev/fpgaserial1\", O_RDWR) = 3\n"
     "9      0.000100 close(3) = 0\n9      0.000300 +++ exited with 0 +++\n",
     {"0 ! the text has no date (strace -ttt): its beginning is called 1970-01-01 00:00:00", "0 p1 open",
      "100 p1 close", "400 exit 0"}},
    {"NoTimes",
     "open(\"/dev/fpgaserial1\", O_RDWR) = 3\nclose(3) = 0\n+++ exited with 0 +++",
     {"0 ! the text has no times (strace -ttt): the events are numbered a microsecond apart", "1 p1 open", "2 p1 close",
      "3 exit 0"}},
    {"ClockIsSetBack",
     kOpen + "9 0.5 close(3) = 0\n9 0.6 +++ exited with 0 +++\n9 1795326240.0 exit(0) = ?\n",
     {kOpened, "0 ! line 2: the clock was set back by 500000 us; the times here do not follow it", "0 p1 close",
      "100000 exit 0"}},
};

class Strace : public testing::TestWithParam<Case>
{
};
INSTANTIATE_TEST_SUITE_P(Text, Strace, testing::ValuesIn(kCases),
                         [](const auto &test) { return string(test.param.name); });

TEST_P(Strace, BecomesEvents)
{
    EXPECT_EQ(EventsOf(GetParam().text), GetParam().events);
}

string ErrorOf(const string &text)
{
    try {
        EventsOf(text);
    } catch (const StraceError &error) {
        return error.what();
    }
    return "";
}

TEST(StraceErrors, NameTheLineAndTheOption)
{
    EXPECT_EQ(ErrorOf(kOpen + "9 1.1 write(3, \"ab\"..., 9) = 9\n"),
              "line 2: strace has cut the bytes of this write; the option -s 262144 keeps them");
    EXPECT_EQ(ErrorOf("total 8\n-rw-r--r-- 1 root\n25:00:00 close(3) = 0\n12: close(3) = 0\n"),
              "there is no line of strace in the text");
    EXPECT_EQ(ErrorOf(kOpen + string(17 << 20, 'a')), "line 2: it is longer than 16777216 bytes");
}

TEST(StraceRun, IsKnownFromItsCalls)
{
    std::istringstream text(
        "8 execve(\"/bin/sh\", [\"sh\"], 0x7f) = 0\n8 vfork( <unfinished ...>\n"
        "9 execve(\"/usr/bin/haldenflash\", [\"haldenflash\", \"it's\", \"a b\"], 0x7f) = 0\n" +
        string("9 open(\"/dev/fpgaserial1\", O_RDWR) = 3\n"
               "9 stat(\"haldenmicro.bin\", 0x7f) = -1 ENOENT (No such file or directory)\n"
               "9 open(\"haldenmicro.bin\", O_RDONLY) = 4\n9 _llseek(4, 0, [6144], SEEK_END) = 0\n"
               "9 open(\"./farsightcam.bin\", O_RDONLY) = 5\n9 fstat64(5, {st_size=70000, ...}) = 0\n"
               "9 open(\"farsightsys.bin\", O_RDONLY) = -1 ENOENT (No such file or directory)\n"
               "9 read(5, \"!\", 1) = 1\n9 open(\"farsightcamver\", O_RDONLY) = 6\n9 read(6, \"0204\\n\", 8) = 5\n"));
    const StraceText strace(text);
    EXPECT_EQ(strace.info().command, "haldenflash 'it'\\''s' 'a b'");
    EXPECT_EQ(strace.info().program, "haldenflash");
    EXPECT_EQ(strace.info().files, (Texts{"haldenmicro.bin 6144 bytes", "farsightcam.bin 70000 bytes first 21",
                                          "farsightsys.bin missing", "farsightcamver text 0204\\x0A"}));
}

} // namespace
