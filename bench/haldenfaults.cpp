// The command haldenfaults. It plays every fault at every step of an update, and every pair of answers to two blocks.
// It runs the binary that ships, and compares the end of each run with the table of ends. judgement.h judges a run.
#include "bench/options.h"
#include "bench/sweeps/sweeps.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <iostream>
#include <map>
#include <mutex>

namespace
{

namespace fs = std::filesystem;
using namespace bench;

constexpr char kHelp[] =
    "Usage: haldenfaults [options]\n"
    "Runs the haldenflash beside this program, with one or two faults a run. Judges how each run ends,\n"
    "and whether the next run brings the devices to their images.\n"
    "  --sweep NAME     play only this sweep: calls, wire, power, answers, pairs or supervisor\n"
    "  --every N        play only every Nth run of each sweep, and of the pairs every 7Nth\n"
    "  --jobs N         play N runs at a time (default: 16)\n"
    "  --show TEXT      play only runs whose name has TEXT, and show all that they print\n"
    "  --list FILE      write each run to FILE: how it ended, and what the devices held\n"
    "  --recovery       print the table of ends, which is docs/recovery.md, and stop\n"
    "  --help           print this and stop\n"
    "Exit status:\n"
    "  0  there is no finding\n"
    "  1  there are findings, or a run could not be made\n"
    "  2  wrong usage\n";

struct Settings {
    std::string sweep, show, list;
    std::size_t every = 1, jobs = 16;
    bool recovery = false;
};

// The results of a sweep.
struct Tally {
    std::size_t runs = 0, findings = 0, passing = 0, idle = 0, versionsOnly = 0;
    double slowest = 0;
    std::string slowestName;
    std::map<std::string, std::size_t> ends;     // runs by status and last line
    std::map<std::string, std::size_t> unproven; // successes that leave a device without its image, by reason
};

// Folders of the runners. They are removed at the end.
class Folders
{
public:
    Folders() : root_((fs::temp_directory_path() / "haldenfaults.XXXXXX").string())
    {
        if (mkdtemp(root_.data()) == nullptr)
            throw std::runtime_error("no folder below " + fs::temp_directory_path().string());
    }
    ~Folders() { fs::remove_all(root_); }
    Folders(const Folders &) = delete;
    Folders &operator=(const Folders &) = delete;
    std::string Make(std::size_t number) const
    {
        std::string path = root_ + "/" + std::to_string(number);
        fs::create_directory(path);
        return path;
    }

private:
    std::string root_;
};

std::string EndOf(const Outcome &outcome)
{
    if (outcome.run.killed)
        return outcome.row == nullptr ? "waits for a reader" : "goes on until it is stopped, for unknown verdicts";
    if (outcome.run.signal != 0)
        return Format("signal %d%s", outcome.run.signal, outcome.inLoader ? " while loading" : "");
    const std::string last = outcome.row == nullptr || outcome.row->last[0] == '\0' ? "(none)" : outcome.row->last;
    return Format("%3d %s", outcome.run.status, last.c_str());
}

void Count(const Trial &trial, const Outcome &outcome, Tally &tally)
{
    tally.runs++;
    tally.findings += outcome.findings.empty() ? 0 : 1;
    tally.passing += outcome.passing.empty() ? 0 : 1;
    tally.idle += outcome.struck ? 0 : 1;
    tally.versionsOnly += outcome.versionWithoutImage ? 1 : 0;
    if (outcome.unproven != nullptr)
        tally.unproven[outcome.unproven]++;
    tally.ends[EndOf(outcome)]++;
    if (!outcome.run.killed && outcome.fullSeconds > tally.slowest) {
        tally.slowest = outcome.fullSeconds;
        tally.slowestName = trial.name;
    }
}

// The run's line of the list.
std::string LineOf(const Trial &trial, const Outcome &outcome)
{
    const Holdings &held = outcome.held;
    const char *reason = outcome.row == nullptr ? "?" : outcome.row->reason;
    std::string line = trial.name + " | " + NameOf(held.micro) + " " + NameOf(held.camera) + " " + NameOf(held.system) +
                       " | " + EndOf(outcome) + " | " + reason;
    if (outcome.unproven != nullptr)
        line += std::string(" | ") + outcome.unproven;
    if (!outcome.struck)
        line += " | the fault was not played";
    return line;
}

void PrintFindings(const Trial &trial, const Outcome &outcome)
{
    for (const std::string &finding : outcome.findings)
        std::cout << "! " << trial.name << ": " << finding << "\n";
    for (const std::string &finding : outcome.passing)
        std::cout << "? " << trial.name << ": only in the first try: " << finding << "\n";
}

// All that the run printed, and the preload library's events.
void PrintRun(const Outcome &outcome)
{
    std::cout << outcome.run.output << outcome.run.errors;
    for (const std::string &event : outcome.run.events)
        std::cout << "  " << event << "\n";
}

void Report(const Sweep &sweep, const Tally &tally)
{
    std::cout << Format("%-15s %5zu runs, %zu with findings, %zu clean when repeated; longest %.1f s (%s)\n",
                        sweep.title, tally.runs, tally.findings, tally.passing, tally.slowest,
                        tally.slowestName.c_str());
    for (const auto &[end, runs] : tally.ends)
        std::cout << Format("  %6zu  %s\n", runs, end.c_str());
    for (const auto &[reason, runs] : tally.unproven)
        std::cout << Format("  %6zu  with status 0 and without an image after %s\n", runs, reason.c_str());
    if (tally.versionsOnly > 0)
        std::cout << Format("  %6zu  of these run the new version all the same\n", tally.versionsOnly);
    if (tally.idle > 0)
        std::cout << Format("  %6zu  whose fault was not played\n", tally.idle);
    std::cout << std::flush;
}

// The trials of a sweep that are to be run.
std::vector<Trial> Chosen(const Settings &settings, const Sweep &sweep, Runner &runner)
{
    const std::size_t every = settings.every == 1 ? 1 : settings.every * sweep.sparser;
    const std::vector<Trial> trials = sweep.trials(runner);
    std::vector<Trial> chosen;
    for (std::size_t i = 0; i < trials.size(); i += every)
        if (trials[i].name.find(settings.show) != std::string::npos)
            chosen.push_back(trials[i]);
    return chosen;
}

// Runs the trials. Each runner plays one at a time. One thread at a time notes the outcome of a trial.
using Note = std::function<void(const Trial &trial, const Outcome &outcome)>;
void Play(const std::vector<Trial> &trials, std::vector<Runner> &runners, const Note &note)
{
    std::mutex mutex;
    std::atomic<std::size_t> next = 0;
    const auto work = [&](Runner &runner) {
        for (std::size_t i = 0; (i = next++) < trials.size();) {
            const Outcome outcome = runner.TryTwice(trials[i]);
            const std::lock_guard lock(mutex);
            note(trials[i], outcome);
        }
    };
    std::vector<std::future<void>> workers;
    workers.reserve(runners.size());
    for (Runner &runner : runners)
        workers.push_back(std::async(std::launch::async, work, std::ref(runner)));
    for (std::future<void> &worker : workers)
        worker.get();
}

// Runs a sweep, adds its runs to the list and returns its results.
Tally PlaySweep(const Settings &settings, const Sweep &sweep, std::vector<Runner> &runners,
                std::vector<std::string> &list)
{
    Tally tally;
    Play(Chosen(settings, sweep, runners.front()), runners, [&](const Trial &trial, const Outcome &outcome) {
        Count(trial, outcome, tally);
        list.push_back(LineOf(trial, outcome));
        PrintFindings(trial, outcome);
        if (settings.show.empty())
            return;
        PrintRun(outcome);
        std::cout << list.back() << "\n";
    });
    return tally;
}

constexpr unsigned kMost = 1000000; // the largest number that an option takes
constexpr OptionRow<Settings> kOptions[] = {
    {"sweep", true, [](Settings &s, const char *, const std::string &value) { s.sweep = value; }},
    {"every", true,
     [](Settings &s, const char *n, const std::string &value) { s.every = OptionNumber(n, value, 10, 1, kMost); }},
    {"jobs", true,
     [](Settings &s, const char *n, const std::string &value) { s.jobs = OptionNumber(n, value, 10, 1, kMost); }},
    {"show", true, [](Settings &s, const char *, const std::string &value) { s.show = value; }},
    {"list", true, [](Settings &s, const char *, const std::string &value) { s.list = value; }},
    {"recovery", false, [](Settings &s, const char *, const std::string &) { s.recovery = true; }},
    {"help", false,
     [](Settings &, const char *, const std::string &) {
         std::cout << kHelp;
         std::exit(0);
     }},
};

Settings ParseArguments(int argc, char *argv[])
{
    Settings settings;
    ReadOptions<Settings>(kOptions, argc, argv, settings);
    if (optind < argc)
        throw UsageError(std::string("unknown word: ") + argv[optind]);
    return settings;
}

void WriteList(const std::string &path, std::vector<std::string> lines)
{
    std::sort(lines.begin(), lines.end());
    std::string text;
    for (const std::string &line : lines)
        text += line + "\n";
    WriteFile(path, Bytes(text.begin(), text.end()));
}

std::vector<Runner> MakeRunners(std::size_t count, const Folders &folders)
{
    const fs::path beside = fs::read_symlink("/proc/self/exe").parent_path();
    std::vector<Runner> runners;
    for (std::size_t i = 0; i < count; i++)
        runners.emplace_back(beside / "haldenflash", beside / "haldenbench-preload.so", folders.Make(i));
    return runners;
}

int Work(const Settings &settings)
{
    if (fs::exists("/dev/fpgaserial0") || fs::exists("/dev/fpgaserial1"))
        throw std::runtime_error("this machine has /dev/fpgaserial ports; a fault in the loader would lead to them");
    if (!settings.list.empty())
        WriteFile(settings.list, {}); // a bad path is refused before the runs, not after them
    const Folders folders;
    std::vector<Runner> runners = MakeRunners(settings.jobs, folders);
    std::size_t runs = 0, findings = 0;
    std::vector<std::string> list;
    for (const Sweep &sweep : Sweeps()) {
        if (!settings.sweep.empty() && settings.sweep != sweep.name)
            continue;
        const Tally tally = PlaySweep(settings, sweep, runners, list);
        Report(sweep, tally);
        runs += tally.runs;
        findings += tally.findings;
    }
    if (!settings.list.empty())
        WriteList(settings.list, list);
    if (runs == 0)
        throw UsageError("there is no such run; see --help");
    std::cout << Format("faults: %zu runs, %zu with findings\n", runs, findings);
    return findings == 0 ? 0 : 1;
}

} // namespace

int main(int argc, char *argv[])
{
    try {
        const Settings settings = ParseArguments(argc, argv);
        if (!settings.recovery)
            return Work(settings);
        std::cout << RecoveryPage();
        return 0;
    } catch (const UsageError &error) {
        std::cerr << "haldenfaults: " << error.what() << "\n";
        return 2;
    } catch (const std::exception &error) {
        std::cerr << "haldenfaults: " << error.what() << "\n";
        return 1;
    }
}
