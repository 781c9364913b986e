// One run of haldenbench, whoever answers on its lines.
#include "bench/haldenbench.h"
#include "bench/options.h"
#include "bench/rig/progressbar.h"

#include <cstdlib>
#include <filesystem>
#include <iostream>

namespace bench
{

namespace
{

namespace fs = std::filesystem;

constexpr unsigned kFastDivisor = 100;

fs::path Beside(const std::string &name)
{
    return fs::read_symlink("/proc/self/exe").parent_path() / name;
}

std::map<std::string, std::string> OwnEnvironment()
{
    std::map<std::string, std::string> environment;
    for (char **word = environ; *word != nullptr; ++word) {
        const std::string text = *word;
        const std::size_t equals = text.find('=');
        environment[text.substr(0, equals)] = equals == std::string::npos ? "" : text.substr(equals + 1);
    }
    environment.emplace("TALVORA_BOARDID", "KORA"); // the board that has these ports
    return environment;
}

void DrawBar(const std::string &position)
{
    std::cerr << "\r" << ProgressBar(std::atoi(position.c_str()), 0, 100);
}

// Adds the bar: a progress FIFO for this run, and the words that lead the command to it.
void AddBar(RunOptions &options)
{
    options.fifo = fs::temp_directory_path() / ("haldenbench." + std::to_string(getpid()));
    options.progress.seen = DrawBar;
    options.arguments.insert(options.arguments.end(), {"-p", options.fifo, "0", "100"});
}

} // namespace

std::string Executable(const std::string &word)
{
    const fs::path path = word.find('/') == std::string::npos ? Beside(word) : fs::path(word);
    if (!fs::exists(path))
        throw UsageError("there is no file " + path.string());
    return path;
}

RunOptions MakeOptions(const Settings &settings)
{
    RunOptions options;
    options.executable = Executable(settings.command.front());
    options.arguments = settings.command;
    options.directory = settings.directory;
    options.environment = OwnEnvironment();
    options.preload = Beside("haldenbench-preload.so");
    options.configuration = settings.configuration;
    options.waitDivisor = settings.fast ? kFastDivisor : 1;
    options.output = settings.bar || !settings.trace.empty() ? Output::kCapture : Output::kInherit;
    options.limit = std::chrono::hours(1); // a big image on a slow line takes its time
    if (settings.bar)
        AddBar(options);
    return options;
}

void ShowOutput(const Settings &settings, const RunResult &result)
{
    std::cerr << (settings.bar ? "\n" : "") << result.errors;
    if (!settings.trace.empty())
        WriteFile(settings.trace, Bytes(result.output.begin(), result.output.end()));
    if (settings.bar)
        std::cout << LastLine(result.output) << "\n";
    if (result.killed)
        std::cout << "the command had to be stopped\n";
    else if (result.signal != 0)
        std::cout << "the command was ended by signal " << result.signal << "\n";
    else
        std::cout << "the command ended with status " << result.status << "\n";
}

void AddCapture(const Settings &settings, const std::string &path, RunOptions &options,
                std::optional<RunCapture> &capture)
{
    capture.emplace(path, DescribeRun(settings.command, options.executable, options.directory));
    for (const auto &[number, port] : options.ports)
        if (port.line != nullptr)
            capture->recorder.Watch(number, *port.line);
    options.recorder = &capture->recorder;
}

} // namespace bench
