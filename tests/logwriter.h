// Runs the log writer with standard output led to a file, and returns what it wrote.
#pragma once

#include "Common/OS/logmsg.h"
#include "Common/OS/syslog.h"

#include "tests/tasks.h"

#include <cstdio>
#include <string>
#include <unistd.h>

class LogWriter
{
public:
    explicit LogWriter(Int32 format)
    {
        std::fflush(stdout);
        dup2(fileno(file_), STDOUT_FILENO);
        loginfo("test", "dropped: there is no writer yet\n"); // reads the settings
        logmsg_cullfilter_add("task:csyn");                   // the settings start this task; it logs at any time
        logmsg_set_format(format);
        InitSyslogInterface();
        Until("task:logw"); // the writer's first line is about itself
        Drained();
    }
    ~LogWriter()
    {
        std::fflush(stdout);
        dup2(terminal_, STDOUT_FILENO);
        ReadMore();
        std::fputs(testing::Test::HasFailure() ? text_.c_str() : "", stdout); // its message is in the file
    }
    LogWriter(const LogWriter &) = delete;
    LogWriter &operator=(const LogWriter &) = delete;

    // Waits for a text. Returns everything from the end of the last call to the end of that text.
    std::string Until(const std::string &end)
    {
        std::size_t length = 0;
        EXPECT_TRUE(Eventually([&] { return ReadMore(), (length = text_.find(end)) != std::string::npos; })) << end;
        std::string text = text_.substr(0, length + end.size());
        text_.erase(0, text.size());
        return text;
    }

    // Logs a line and returns everything before it.
    std::string Drained()
    {
        const std::string mark = "mark " + std::to_string(++marks_) + "\n";
        logcrit(nullptr, "%s", mark.c_str());
        const std::string text = Until(mark);
        return text.substr(0, text.rfind('\n', text.size() - 2) + 1);
    }

private:
    void ReadMore()
    {
        char chunk[65536];
        for (ssize_t got; (got = pread(fileno(file_), chunk, sizeof(chunk), read_)) > 0; read_ += got)
            text_.append(chunk, static_cast<std::size_t>(got));
    }

    std::FILE *file_ = std::tmpfile();
    int terminal_ = dup(STDOUT_FILENO);
    off_t read_ = 0;
    std::string text_; // the text that was read and not returned yet
    int marks_ = 0;
};
