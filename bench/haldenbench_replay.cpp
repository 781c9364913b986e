// haldenbench --replay: makes a captured run again.
#include "bench/capture/images.h"
#include "bench/haldenbench.h"
#include "bench/options.h"
#include "bench/rig/replay.h"

#include <cstdlib>
#include <filesystem>
#include <iostream>

namespace bench
{

namespace
{

namespace fs = std::filesystem;

// A folder that goes with its content.
class Folder
{
public:
    Folder() : path_(fs::temp_directory_path() / "haldenbenchXXXXXX")
    {
        Checked(mkdtemp(path_.data()) == nullptr ? -1 : 0, path_.c_str());
    }
    ~Folder()
    {
        std::error_code ignored;
        fs::remove_all(path_, ignored);
    }
    Folder(const Folder &) = delete;
    Folder &operator=(const Folder &) = delete;
    const std::string &path() const { return path_; }

private:
    std::string path_;
};

void Rebuild(const Capture &capture, const std::string &directory)
{
    const RebuiltFiles files = RebuildFiles(capture);
    WriteFiles(files, directory);
    for (const std::string &remark : files.remarks)
        std::cerr << "replay: " << remark << "\n";
}

// The command of the capture. The program is looked for beside haldenbench, whatever its folder was.
std::vector<std::string> CapturedCommand(const Capture &capture)
{
    std::vector<std::string> words = Unquoted(capture.info.command);
    if (words.empty())
        throw UsageError("--replay: the capture does not tell the command; give it behind --");
    words.front() = fs::path(words.front()).filename();
    return words;
}

int Report(const std::vector<std::string> &differences, const Replay &replay)
{
    for (const std::string &difference : differences)
        std::cout << "replay: " << difference << "\n";
    if (differences.empty())
        std::cout << "replay: " << replay.Summary() << "\n";
    return differences.empty() ? kGood : kBad;
}

} // namespace

int PlayAgain(Settings settings)
{
    if (!settings.trace.empty())
        WriteFile(settings.trace, {}); // a bad path is refused before the run
    const Capture captured = ReadCapture(settings.replay);
    if (settings.command.empty())
        settings.command = CapturedCommand(captured);
    Replay replay(captured, settings.fast);
    const Folder folder;
    if (!settings.hasDirectory) {
        settings.directory = folder.path();
        Rebuild(captured, settings.directory);
    }
    std::map<int, Line> lines;
    RunOptions options = MakeOptions(settings);
    for (const int port : replay.ports())
        options.ports[port].line = &lines.try_emplace(port, replay.peer(port), settings.baud).first->second;
    replay.Order(options);
    std::optional<Launcher> launcher;
    if (settings.launcherResult)
        options.launcher = &launcher.emplace(*settings.launcherResult + "\n");
    std::optional<RunCapture> capture;
    if (!settings.capture.empty() || settings.strict)
        AddCapture(settings, settings.capture.empty() ? "/dev/null" : settings.capture, options, capture);
    if (settings.strict)
        capture->keeps = true;
    const RunResult result = replay.Play(options);
    ShowOutput(settings, result);
    std::vector<std::string> differences = replay.Differences(result);
    if (differences.empty() && settings.strict)
        differences = replay.DifferencesOfOrder(capture->events);
    const int status = Report(differences, replay);
    if (capture)
        capture->Finish();
    return status;
}

} // namespace bench
