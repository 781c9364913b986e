// The capture of a run, written while the run goes on. If the run or the bench is killed, the file has what happened up
// to about a tenth of a second before.
#pragma once

#include "bench/capture/capturefile.h"
#include "bench/rig/recorder.h"

#include <sstream>

namespace bench
{

// What makes these captures.
inline constexpr char kSource[] = "haldenbench " HALDENBENCH_VERSION;

// What is known of a run ahead of it. directory is that of the program, words are its command line.
RunInfo DescribeRun(const std::vector<std::string> &words, const std::string &executable, const std::string &directory);

class RunCapture
{
public:
    // Opens the file and writes its beginning. "-" is standard output. What this process and its children print there
    // goes to standard error from then on. SIGPIPE is ignored from then on. Throws std::runtime_error.
    RunCapture(const std::string &path, const RunInfo &info);
    ~RunCapture() { recorder.Finish(); } // it still stores
    RunCapture(const RunCapture &) = delete;
    RunCapture &operator=(const RunCapture &) = delete;

    // The caller lets it watch the lines, and the run starts it.
    Recorder recorder;
    // Whether the events are kept here as well. It is set before the recorder starts.
    bool keeps = false;
    std::vector<Event> events;

    // Writes what is not complete. It is called when the recorder is finished. Throws std::runtime_error if this write
    // or one before it failed. A failure does not stop the run.
    void Finish();

private:
    void Store(const std::vector<Event> &portion);
    void Flush();

    const std::string path_;
    Descriptor file_;
    std::ostringstream buffer_; // what is not written yet: whole blocks of the file
    CaptureWriter writer_;
    std::string error_; // of the first failure
};

} // namespace bench
