// haldencap watch: how it parts, shows and ends.
#include "bench/rig/watch.h"
#include "bench/rig/progressbar.h"
#include "bench/rig/run.h"

#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>

namespace
{

using namespace bench;
using std::string;
using Numbers = std::vector<int>;

TEST(Watch, PartsNumbersThatCameTogether)
{
    const struct {
        const char *text;
        int last, high;
        Numbers numbers;
    } rows[] = {
        {"45", 44, 100, {45}},
        {"816", 0, 100, {8, 16}},
        {"82533", 0, 100, {8, 25, 33}},
        {"33100", 0, 100, {33, 100}},
        {"1112", 10, 100, {11, 12}},
        {"101102200", 100, 200, {101, 102, 200}},
        {"5", 45, 100, {5}}, // the next update
        {"12345678910", 0, 12345678, {12345, 678910}},
        {"2147483647", 0, 2147483647, {2147483647}},
        {"101", 0, 100, {}},
        {"05", 0, 100, {}},
        {"x", 0, 100, {}},
        {"", 0, 100, {}},
    };
    for (const auto &row : rows)
        EXPECT_EQ(PartNumbers(row.text, row.last, row.high), row.numbers) << row.text;
    EXPECT_EQ(PartNumbers(string(1000, '0'), 0, 2147483647), Numbers());
}

TEST(Watch, DrawsABarBetweenTheBounds)
{
    const string blank(50, ' '), full(50, '#');
    EXPECT_EQ(ProgressBar(40, 40, 60), "[" + blank + "] 0 %");
    EXPECT_EQ(ProgressBar(50, 40, 60), "[" + full.substr(25) + blank.substr(25) + "] 50 %");
    EXPECT_EQ(ProgressBar(99, 40, 60), "[" + full + "] 100 %");
    EXPECT_EQ(ProgressBar(0, -2000000000, 2000000000), "[" + full.substr(25) + blank.substr(25) + "] 50 %");
}

TEST(Watch, DrawsAnewOnATerminalOnly)
{
    const Descriptor terminal(posix_openpt(O_RDWR | O_NOCTTY));
    ASSERT_EQ(grantpt(terminal.get()), 0);
    ASSERT_EQ(unlockpt(terminal.get()), 0);
    {
        const Descriptor end(open(ptsname(terminal.get()), O_RDWR | O_NOCTTY));
        ProgressDisplay display(end.get(), 0, 100);
        for (const int position : {1, 100, 100})
            display.Show(position);
    }
    string text;
    for (char sign = 0; read(terminal.get(), &sign, 1) == 1;) // up to the error that says that the other end is closed
        text += sign;
    EXPECT_EQ(text, "\r" + ProgressBar(1, 0, 100) + "\r" + ProgressBar(100, 0, 100) + "\r\n");
}

// Each row is a script for a shell, and its output. The last line is the status of the watch.
TEST(Watch, LosesNoNumberAndEndsAsItShould)
{
    string folder = std::filesystem::temp_directory_path() / "watch.XXXXXX";
    ASSERT_NE(mkdtemp(folder.data()), nullptr);
    const string all = "i=100; while [ $i -le 200 ]; do printf $i >p; i=$((i + 1)); done; ";
    const string ready = "until [ -p p ]; do :; done; ";
    string lines;
    for (int i = 100; i <= 200; ++i)
        lines += std::to_string(i) + "\n";
    const std::pair<string, string> rows[] = {
        {"$w p 100 200 -- sh -c '" + all + "exit 7'; echo $?", lines + "7\n"},
        {"$w p 100 200 -- sh -c 'kill $PPID; while :; do :; done'; echo $?", "143\n"},
        {"$w p 100 200 -- sh -c 'kill -KILL $PPID; while grep -q \"^PPid:.$PPID$\" /proc/$$/status; do :; done; " +
             all + "echo on >end' & until [ -s end ]; do :; done; cat end; rm p",
         "on\n"}, // what was killed does not stop the update
        {"$w p -- ./nothing 2>/dev/null; echo $?", "127\n"},
        {"$w p 100 200 & " + ready + all + "wait $!; echo $?", lines + "0\n"},
        {"$w p 100 200 & " + ready + "printf 150 >p; kill $!; wait $!; echo $?", "150\n143\n"},
        {"mkfifo p; $w p 100 200 & printf 150 >p; printf 200 >p; wait $!; [ -p p ]; echo $?; rm p", "150\n200\n0\n"},
        {"{ $w p 100 200; echo $? >s; } | head -n 1 & " + ready + all + "wait $!; until [ -s s ]; do :; done; cat s",
         "100\n0\n"},
        {"trap '' HUP; $w p 100 200 & " + ready + "kill -HUP $!; " + all + "wait $!; echo $?", lines + "0\n"},
        {"$w p & " + ready + "printf x >p; kill $!; wait $!; echo $?",
         "haldencap: \"x\" is no position up to 100\n143\n"},
        {"touch p; $w p 2>/dev/null; echo $?; rm p", "1\n"},
        {"$w p 5 5 2>/dev/null; echo $?; $w p 0 100 -- 2>/dev/null; echo $?", "2\n2\n"},
    };
    for (const auto &[script, output] : rows) {
        const RunResult result =
            bench::Run({.executable = "/bin/sh",
                        .arguments = {"sh", "-c", "exec 2>&1; w='" HALDENCAP_BINARY " watch'; " + script},
                        .directory = folder});
        EXPECT_EQ(result.output, output) << script;
        EXPECT_FALSE(std::filesystem::exists(folder + "/p")) << script;
    }
    std::filesystem::remove_all(folder);
}

} // namespace
