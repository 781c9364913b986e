#include "bench/standin/folders.h"
#include "tests/logwriter.h"

namespace
{

const char *volatile noFormat = nullptr; // the compiler would refuse a plain one

TEST(LogLine, LevelWords)
{
    const char *const words[] = {"CRIT  ", "CRIT  ", "CRIT  ", "ERROR ", "WARN  ", "INFO  ", "INFO  ", "DEBUG "};
    LogWriter writer(kLogFormatLevel);
    std::string expected;
    for (Int32 level = -2; level < 11; level++) {
        char word[7];
        EXPECT_EQ(addLevel(level, word), 6);
        EXPECT_STREQ(word, words[level < 0 ? 0 : level > 7 ? 7 : level]);
        logmsg(level, "c", "%d\n", level);
        expected += words[level < 0 || level > 7 ? 7 : level] + ("pc[0]: c: " + std::to_string(level)) + "\n";
    }
    for (auto *log : {logcrit, logerr, logwarn, loginfo, logdebug})
        log("c", "x\n");
    expected += "CRIT  pc[0]: c: x\nERROR pc[0]: c: x\nWARN  pc[0]: c: x\nINFO  pc[0]: c: x\nDEBUG pc[0]: c: x\n";
    EXPECT_EQ(writer.Drained(), expected);
}

TEST(LogLine, PiecesJoinUnderTheFirstHeader)
{
    LogWriter writer(kLogFormatLevel);
    EXPECT_EQ(logerr("X", "%s", "abc"), 19);
    EXPECT_EQ(logerr("Y", noFormat, 0), 0);
    EXPECT_EQ(logdebug("Y", "d%cx", '\0'), 19); // the rest of the piece does not count
    EXPECT_EQ(logerr("Y", "ef\n"), 19);
    EXPECT_EQ(logwarn(nullptr, "one\ntwo"), 20); // complete wherever the newline is
    EXPECT_EQ(loginfo("\n", "three\n"), 22);
    EXPECT_EQ(writer.Drained(), "ERROR pc[0]: X: abcdef\nWARN  pc[0]: one\ntwoINFO  pc[0]: \n: three\n");
}

TEST(LogLine, LongTextIsCutWithoutAMark)
{
    LogWriter writer(kLogFormatLevel);
    const std::string x(2000, 'x'), cut = "INFO  pc[0]: c: " + x.substr(0, 495);
    EXPECT_EQ(loginfo("c", "%.600s\n", x.c_str()), 617);
    loginfo("c", "%.490s", x.c_str());
    loginfo("c", "%.10s\n", x.c_str()); // there is room for half of it
    EXPECT_EQ(loginfo("c", "%.1100s\n", x.c_str()), 1117);
    loginfo("c", "\n"); // the piece before was cut in front of its newline and left the line open
    EXPECT_EQ(loginfo(x.c_str(), "%s\n", "lost"), 1023 + 5);
    loginfo("c", "\n");
    loginfo("c", "\n");
    EXPECT_EQ(writer.Drained(), cut + cut + cut + "INFO  pc[0]: " + x.substr(0, 498) + "INFO  pc[0]: c: \n");
}

TEST(RepeatFilter, CountsWhatItSuppresses)
{
    const ConfigFolders folders;
    LogWriter writer(kLogFormatLevel);
    const auto log = [](const char *texts) {
        for (; *texts != '\0'; texts++)
            loginfo(nullptr, "%c\n", *texts);
    };
    log("aa");
    EXPECT_EQ(logmsg_spewfilter_load(), 0); // there is no setting
    EXPECT_EQ(logmsg_get_spewfilter(), 0);
    logmsg_set_spewfilter(1);
    log("aabbbbcd");
    logmsg_cullfilter_add("repeated");
    log("dde");
    logmsg_set_spewfilter(0);
    log("e");
    EXPECT_EQ(writer.Drained(), "INFO  pc[0]: a\nINFO  pc[0]: a\nINFO  pc[0]: config: spewfilter[0]:True\n"
                                "INFO  pc[0]: a\nDEBUG pc[0]: ...last line repeated 2 times\n"
                                "INFO  pc[0]: b\nDEBUG pc[0]: ...last line repeated 4 times\n"
                                "INFO  pc[0]: c\nINFO  pc[0]: d\nINFO  pc[0]: e\n"
                                "INFO  pc[0]: config: spewfilter[0]:False\nINFO  pc[0]: e\n");
    EXPECT_EQ(folders.Get("dat/spewfilter.dat"), "False\n");
}

TEST(Filters, DecideWhichLinesPass)
{
    const struct {
        const char *show, *cull, *line;
        bool passes;
    } cases[] = {
        {"", "", "", false},
        {"", "", "x", true},
        {"abc", "abcd", "xabcy", true},
        {"abc", "", "xaby", false},
        {"abc", "abcd", "xabcdy", false},
        {"ABC", "", "abc", false},
        {"", "abc", "xaby", true},
        {"", "abc", "xabcy", false},
    };
    for (const auto &c : cases) {
        for (const char *filter : {"q", c.show}) // the filter counts that is not the first, too
            EXPECT_EQ(*c.show != '\0' ? logmsg_showfilter_add(filter) : 0, 0);
        for (const char *filter : {"q", c.cull})
            EXPECT_EQ(*c.cull != '\0' ? logmsg_cullfilter_add(filter) : 0, 0);
        EXPECT_EQ(logmsg_print(c.line, 5), c.passes ? 5 : 0) << &c - cases;
        logmsg_showfilter_delete("*");
        logmsg_cullfilter_delete("*");
    }
}

// What a call prints that has that result.
std::string PrintedBy(const std::function<Int32()> &call, Int32 result = 0)
{
    return Printed([&] { EXPECT_EQ(call(), result); });
}

void CheckTable(const std::string &kind, Int32 add(const char *), Int32 remove(const char *), Int32 dump())
{
    std::string all = kind + " filters:\n";
    for (const std::string &filter : {std::string("*"), std::string("b"), std::string("b"), std::string(400, 'y')}) {
        EXPECT_EQ(add(filter.c_str()), 0);
        all += "  \"" + filter.substr(0, 369) + "\"\n";
    }
    EXPECT_EQ(PrintedBy(dump), all);
    for (int i = 4; i < 10; i++)
        EXPECT_EQ(add("c"), 0);
    EXPECT_EQ(PrintedBy([&] { return add("k"); }, -1), "\"k\" " + kind + " filter not added, table full\n");
    EXPECT_EQ(PrintedBy([&] { return remove("B"); }), "");
    EXPECT_EQ(PrintedBy([&] { return remove("k"); }), "\"k\" " + kind + " filter not found\n");
    EXPECT_EQ(add("free"), 0); // into the first slot that is
    EXPECT_EQ(PrintedBy(dump).find("  \"*\"\n  \"free\"\n  \"b\"\n"), all.find("  \""));
    EXPECT_EQ(remove("*"), 0);
    EXPECT_EQ(PrintedBy(dump), kind + " filters:\n");
    EXPECT_EQ(add("last"), 0);
    EXPECT_EQ(remove("LAST"), 0);
    EXPECT_EQ(logmsg_print("unfiltered", 10), 10);
}

TEST(Filters, TablesHoldTen)
{
    logmsg_print("reads the settings", 1);
    CheckTable("show", logmsg_showfilter_add, logmsg_showfilter_delete, logmsg_showfilter_dump);
    CheckTable("cull", logmsg_cullfilter_add, logmsg_cullfilter_delete, logmsg_cullfilter_dump);
}

TEST(LogFormat, Words)
{
    EXPECT_EQ(logmsg_get_format(), kLogFormatProc);
    logmsg_print("reads the settings", 1); // otherwise the first line of a task reads them at any time
    logmsg_set_format(kLogFormatLevel);
    logmsg_format_load();
    EXPECT_EQ(logmsg_get_format(), 0) << "the setting is missing";
    for (const auto &[bits, text] : {std::pair{0, "\n"}, {5, "date level \n"}, {15, "date time level proc \n"}}) {
        EXPECT_EQ(logmsg_set_format(bits), 0);
        EXPECT_EQ(PrintedBy(logmsg_format_dump), text);
    }
}

TEST(LogCalls, StopOnANullPointer)
{
    for (auto *call :
         {logmsg_showfilter_add, logmsg_showfilter_delete, logmsg_cullfilter_add, logmsg_cullfilter_delete})
        EXPECT_DEATH(call(nullptr), "failed: text,");
    EXPECT_DEATH(logmsg_print(nullptr, 0), "failed: msg,");
    EXPECT_DEATH(logmsg_format_string(0, nullptr), "failed: out,");
    EXPECT_DEATH(addLevel(0, nullptr), "failed: str,");
    EXPECT_DEATH(addProcID(nullptr), "failed: str,");
}

TEST(Settings, AreReadByTheFirstLineAndSaved)
{
    const ConfigFolders folders;
    folders.Put("dat/showfilter3.dat", "shown\r\n");
    folders.Put("choice/cullfilter.choice", "culled\n");
    folders.Put("dat/logformat.dat", "proc  date Level time  x");
    folders.Put("dat/spewfilter.dat", "TRUE\n");
    EXPECT_EQ(PrintedBy([] { return logmsg_print("shown", 5); }, 5),
              "Config Folder data initialized successfully(Choice dir: ../choice/, Dat Dir: ../dat/)\n"
              "show filters:\n  \"shown\"\ncull filters:\n  \"culled\"\n");
    EXPECT_EQ(logmsg_get_format(), kLogFormatProc | kLogFormatDate | kLogFormatTime);
    EXPECT_EQ(logmsg_get_spewfilter(), 0) << "the first line leaves it alone";
    EXPECT_EQ(logmsg_spewfilter_load(), 0);
    EXPECT_EQ(logmsg_get_spewfilter(), 1);
    for (auto *save : {logmsg_showfilter_save, logmsg_cullfilter_save, logmsg_format_save})
        EXPECT_EQ(save(), 0);
    EXPECT_EQ(folders.Get("dat/showfilter.dat"), "shown\n");
    EXPECT_EQ(folders.Get("dat/showfilter3.dat"), "\n");
    EXPECT_EQ(folders.Get("dat/cullfilter.dat"), "missing") << "it is the default";
    EXPECT_EQ(folders.Get("dat/cullfilter1.dat"), "\n");
    EXPECT_EQ(folders.Get("dat/logformat.dat"), "date time proc \n");
    logmsg_showfilter_delete("*"), logmsg_cullfilter_delete("*");
    EXPECT_EQ(logmsg_showfilter_load(), 1);
    EXPECT_EQ(logmsg_cullfilter_load(), 1);
}

} // namespace
