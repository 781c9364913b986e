// The command haldenfaults: plays every fault at every step of an update, on the binary that ships, and
// holds each run against the table of ends; see trial.h for what is asked of a run.
#include "bench/preload.h"
#include "bench/trial.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <getopt.h>
#include <iostream>
#include <map>
#include <mutex>
#include <random>
#include <stdexcept>

namespace
{

namespace fs = std::filesystem;
using namespace bench;
using std::chrono::milliseconds;

constexpr char kHelp[] =
    "Usage: haldenfaults [options]\n"
    "Runs haldenflash, from beside this program, with one fault a run, judges how it ended and whether the next\n"
    "run brings the devices to their images.\n"
    "  --sweep NAME     only this one: calls, wire, power, answers, supervisor\n"
    "  --every N        only every Nth run of each sweep\n"
    "  --jobs N         runs at a time (default: 16)\n"
    "  --show TEXT      only runs whose name has TEXT, with all that they print\n"
    "  --list FILE      writes each run, how it ended and what the devices held\n"
    "  --recovery       prints the table of ends, docs/recovery.md, and stops\n"
    "Exit status: 0 no finding, 1 findings, 2 usage.\n";

const Session kFull = {"full", {"all", "-p", "progress", "0", "100"}, {.cameraSize = 70000, .systemSize = 300}, 6144};
const Session kQuery = {"query", {"all", "q", "-p", "progress", "0", "100"}, kFull.samples, 6144};
const Session kFullDisk = {"full disk", {"all", "-p", "/dev/full", "0", "100"}, kFull.samples, 6144};
const Session kFile = {"file", {"all", "-p", "position", "0", "100"}, kFull.samples, 6144};
const Session kShortMicro = {"micro", {"micro"}, {}, 20};
const Session kShortCamera = {"camera", {"farsight"}, {.cameraSize = 20, .systemSize = 10}, 6144};

// ---- System calls

// What a call can fail with, as strace takes it; '+': from then on for good.
struct FailureRow {
    const char *call;
    std::vector<const char *> failures;
};
const FailureRow kFailures[] = {
    {"read", {"error=EINTR", "error=EIO", "error=EAGAIN", "retval=0", "error=EIO+"}},
    {"write", {"error=EINTR", "error=EIO", "error=EAGAIN", "error=ENOSPC", "error=ENOSPC+"}},
    {"openat", {"error=EINTR", "error=EIO", "error=EMFILE", "error=ENOMEM", "error=ENOSPC", "error=EMFILE+"}},
    {"futex", {"error=EINTR", "error=EAGAIN"}},
    {"close", {}},           // see kOrders: a close that fails is done all the same
    {"set_tid_address", {}}, // never fails
    {"select", {"error=EINTR", "error=ENOMEM"}},
    {"pselect6", {"error=EINTR", "error=ENOMEM"}},
    {"mmap", {"error=ENOMEM"}},
    {"munmap", {"error=ENOMEM"}},
    {"brk", {"retval=0", "retval=0+"}}, // tells a failure by the end that it leaves
    {"execve", {}},                     // the program would not be there
    {"exit_group", {}},                 // nor end
};
const std::vector<const char *> kAnyFailure = {"error=EINTR", "error=EIO", "error=ENOMEM"}; // of all others

// What the preload library plays.
struct OrderRow {
    const char *call, *failure, *order;
};
constexpr OrderRow kOrders[] = {
    {"read", "half", kPreloadHalfRead},
    {"write", "half", kPreloadHalfWrite},
    {"close", "fails", kPreloadLostClose},
};

const std::vector<const char *> &FailuresOf(const std::string &call)
{
    for (const FailureRow &row : kFailures)
        if (call == row.call)
            return row.failures;
    return kAnyFailure;
}

Trial CallTrial(const Session &session, const std::string &call, int ordinal, const std::string &failure)
{
    const bool lasting = failure.ends_with('+');
    const std::string what = failure.substr(0, failure.size() - (lasting ? 1 : 0));
    Trial trial = {.name = Format("%s: %s %d %s", session.name, call.c_str(), ordinal, failure.c_str()),
                   .session = &session};
    trial.injection = call + ":" + what + Format(":when=%d%s", ordinal, lasting ? "+" : "");
    trial.mute = call == "write";
    return trial;
}

void AddCalls(std::vector<Trial> &trials, Rig &rig, const Session &session)
{
    std::map<std::string, int> counts;
    bool loading = true;
    for (const std::string &call : rig.Calls(session)) {
        const int ordinal = ++counts[call];
        loading = loading && call != "fcntl"; // the program's first
        for (const char *failure : FailuresOf(call)) {
            trials.push_back(CallTrial(session, call, ordinal, failure));
            trials.back().loading = loading;
        }
    }
    for (const OrderRow &row : kOrders)
        for (int ordinal = 1; ordinal <= counts[row.call]; ordinal++)
            trials.push_back({.name = Format("%s: %s %d %s", session.name, row.call, ordinal, row.failure),
                              .session = &session,
                              .orders = {{row.order, std::to_string(ordinal)}}});
}

// The driver's requests and opens, which never reach the kernel here: more ordinals than there are.
void AddRequests(std::vector<Trial> &trials)
{
    constexpr unsigned kMost = 12;
    for (unsigned ordinal = 1; ordinal <= kMost; ordinal++)
        for (const auto &[request, name] :
             {std::pair{&Port::refusedRequest, "request"}, {&Port::refusedOpens, "opens"}}) {
            Trial micro = {.name = Format("micro: %s %u refused", name, ordinal), .session = &kFull};
            Trial camera = {.name = Format("camera: %s %u refused", name, ordinal), .session = &kFull};
            micro.microPort.*request = camera.cameraPort.*request = ordinal;
            trials.insert(trials.end(), {micro, camera});
        }
}

std::vector<Trial> Calls(Rig &rig)
{
    std::vector<Trial> trials;
    AddCalls(trials, rig, kFull);
    AddCalls(trials, rig, kQuery);
    AddRequests(trials);
    return trials;
}

// ---- The wire

struct LineRow {
    const char *name;
    LineFault::Kind kind;
    std::uint8_t value;
    int delayMs;
};
constexpr LineRow kLineFaults[] = {
    {"dropped", LineFault::Kind::kDrop, 0, 0},
    {"inverted", LineFault::Kind::kFlip, 0xFF, 0},
    {"lowest bit flipped", LineFault::Kind::kFlip, 0x01, 0},
    {"doubled", LineFault::Kind::kDouble, 0, 0},
    {"behind 5A", LineFault::Kind::kNoise, 0x5A, 0},
    {"behind FF", LineFault::Kind::kNoise, 0xFF, 0},
    {"10 ms late", LineFault::Kind::kDelay, 0, 10},
    {"200 ms late", LineFault::Kind::kDelay, 0, 200},   // too late for the microcontroller
    {"4500 ms late", LineFault::Kind::kDelay, 0, 4500}, // and for the camera
};

std::vector<Trial> Wire(Rig &rig)
{
    struct Place {
        const char *name;
        const Session *session;
        LineFault Trial::*fault;
        LineFault::Way way;
        std::size_t carried; // position in Outcome::carried
    };
    constexpr Place kPlaces[] = {
        {"to micro", &kShortMicro, &Trial::microLine, LineFault::kToDevice, 0},
        {"from micro", &kShortMicro, &Trial::microLine, LineFault::kToHost, 1},
        {"to camera", &kShortCamera, &Trial::cameraLine, LineFault::kToDevice, 2},
        {"from camera", &kShortCamera, &Trial::cameraLine, LineFault::kToHost, 3},
    };
    std::vector<Trial> trials;
    for (const Place &place : kPlaces) {
        const std::uint64_t bytes = rig.Try({.name = "", .session = place.session}).carried[place.carried];
        for (std::uint64_t byte = 0; byte < bytes; byte++)
            for (const LineRow &row : kLineFaults) {
                Trial trial = {.name = Format("%s: byte %u %s", place.name, static_cast<unsigned>(byte), row.name),
                               .session = place.session};
                trial.*place.fault = {row.kind, place.way, byte, row.value, row.delayMs};
                trials.push_back(trial);
            }
    }
    return trials;
}

// ---- Power

struct DeviceRow {
    const char *name;
    Faults Trial::*faults;
    unsigned blocks; // of the full session
};
constexpr DeviceRow kDevices[] = {{"micro", &Trial::micro, 12}, {"camera", &Trial::camera, 3}};

std::vector<Trial> Power(Rig &)
{
    std::vector<Trial> trials;
    for (const DeviceRow &device : kDevices)
        for (unsigned block = 0; block < device.blocks; block++)
            for (const bool middle : {true, false}) {
                Trial trial = {.name = Format("%s: block %u%s", device.name, block, middle ? ", half of it" : ""),
                               .session = &kFull};
                (trial.*device.faults).cutBlock = static_cast<int>(block);
                (trial.*device.faults).cutMiddle = middle;
                trials.push_back(trial);
            }
    return trials;
}

// ---- Answers

std::vector<Trial> Answers(Rig &)
{
    constexpr struct {
        const char *name;
        BlockFault fault;
        int times;
    } kAnswers[] = {
        {"refused", {kNack, {}}, 1},       {"refused twice", {kNack, {}}, 2}, {"refused three times", {kNack, {}}, 3},
        {"unknown", {0x42, {}}, 1},        {"silence", {-1, {0, 0}}, 1},      {"one byte", {-1, {1, 0}}, 1},
        {"30 ms late", {-1, {-1, 30}}, 1}, {"5 s late", {-1, {-1, 5000}}, 1},
    };
    std::vector<Trial> trials;
    for (const DeviceRow &device : kDevices)
        for (unsigned block = 0; block < device.blocks; block++)
            for (const auto &answer : kAnswers) {
                Trial trial = {.name = Format("%s: block %u %s", device.name, block, answer.name), .session = &kFull};
                for (int i = 0; i < answer.times; i++)
                    (trial.*device.faults).blocks[block + static_cast<unsigned>(i)] = answer.fault;
                trials.push_back(trial);
            }
    return trials;
}

// ---- The supervisor

constexpr unsigned kMoments = 40;
constexpr int kRunMs = 800; // what a run takes, about

std::vector<Trial> Moments()
{
    std::mt19937 random(1);
    std::uniform_int_distribution<int> moment(1, kRunMs), pause(1, 300);
    std::vector<Trial> trials;
    for (unsigned i = 0; i < kMoments; i++) {
        const milliseconds at(moment(random));
        trials.push_back({.name = Format("stopped and continued %u", i),
                          .session = &kFull,
                          .signals = {{at, SIGSTOP}, {milliseconds(pause(random)), SIGCONT}},
                          .harmless = true});
        trials.push_back({.name = Format("killed %u", i), .session = &kFull, .signals = {{at, SIGKILL}}});
        trials.push_back({.name = Format("terminated %u", i), .session = &kFull, .signals = {{at, SIGTERM}}});
    }
    return trials;
}

std::vector<Trial> Supervisor(Rig &)
{
    using Reader = ProgressOptions::Reader;
    const auto slow = [](const std::string &) { std::this_thread::sleep_for(milliseconds(100)); };
    std::vector<Trial> trials = {
        {.name = "file", .session = &kFile, .harmless = true},
        {.name = "full disk", .session = &kFullDisk, .harmless = true},
        {.name = "slow reader", .session = &kFull, .progress = {.seen = slow}, .harmless = true},
        {.name = "no output", .session = &kFull, .output = Output::kClosed, .harmless = true, .mute = true},
        {.name = "full output", .session = &kFull, .output = Output::kFull, .harmless = true, .mute = true},
    };
    for (const std::size_t numbers : {0, 1, 5, 9}) {
        trials.push_back({.name = Format("reader killed after %zu numbers", numbers),
                          .session = &kFull,
                          .progress = {Reader::kDies, numbers},
                          .harmless = true});
        trials.push_back({.name = Format("no reader after %zu numbers", numbers),
                          .session = &kFull,
                          .progress = {Reader::kLeaves, numbers},
                          .waits = true});
    }
    for (const std::size_t bytes : {0, 1, 1000, 4000, 8000})
        trials.push_back({.name = Format("output broken after %zu bytes", bytes),
                          .session = &kFull,
                          .output = Output::kBroken,
                          .outputRead = bytes,
                          .harmless = true,
                          .mute = true});
    std::vector<Trial> moments = Moments();
    trials.insert(trials.end(), moments.begin(), moments.end());
    return trials;
}

struct Sweep {
    const char *name;
    const char *title;
    std::vector<Trial> (*trials)(Rig &rig);
};
constexpr Sweep kSweeps[] = {
    {"calls", "system calls", Calls},
    {"wire", "the wire", Wire},
    {"power", "power", Power},
    {"answers", "answers", Answers},
    {"supervisor", "the supervisor", Supervisor},
};

// ---- The command

struct Settings {
    std::string sweep, show, list;
    std::size_t every = 1, jobs = 16;
    bool recovery = false;
};

// What came of a sweep.
struct Tally {
    std::size_t runs = 0, findings = 0, once = 0, unproven = 0, holes = 0, misread = 0;
    double slowest = 0;
    std::string slowestName;
    std::map<std::string, std::size_t> ends; // runs by status and last line
    std::vector<std::string> list;           // one line a run
};

// Folders of the rigs, gone at the end.
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
        const std::string path = root_ + "/" + std::to_string(number);
        fs::create_directory(path);
        return path;
    }

private:
    std::string root_;
};

std::string EndOf(const Outcome &outcome)
{
    if (outcome.run.killed)
        return outcome.row == nullptr ? "waits for a reader" : "goes on, by requirement";
    if (outcome.run.signal != 0)
        return Format("signal %d%s", outcome.run.signal, outcome.loading ? " while loading" : "");
    const std::string last = outcome.row == nullptr || outcome.row->last[0] == '\0' ? "(none)" : outcome.row->last;
    return Format("%3d %s", outcome.run.status, last.c_str());
}

// The one success that proves nothing: a microcontroller that gave no verdict on a block or refused one.
bool Unproven(const Outcome &outcome)
{
    return outcome.run.status == 0 && (outcome.held[0] == kPart || (outcome.held[0] == kBefore && outcome.noVerdict));
}

void Note(const Settings &settings, const Trial &trial, const Outcome &outcome, Tally &tally)
{
    tally.runs++;
    tally.findings += outcome.findings.empty() ? 0 : 1;
    tally.once += outcome.once.empty() ? 0 : 1;
    tally.unproven += Unproven(outcome) ? 1 : 0;
    tally.holes += outcome.hole ? 1 : 0;
    tally.misread += outcome.misread ? 1 : 0;
    tally.ends[EndOf(outcome)]++;
    if (!outcome.run.killed && outcome.fullSeconds > tally.slowest) {
        tally.slowest = outcome.fullSeconds;
        tally.slowestName = trial.name;
    }
    std::string held;
    for (const Held one : outcome.held)
        held += std::string(" ") + NameOf(one);
    const char *reason = outcome.row == nullptr ? "?" : outcome.row->reason;
    tally.list.push_back(trial.name + " |" + held + " | " + EndOf(outcome) + " | " + reason);
    for (const std::string &finding : outcome.findings)
        std::cout << "! " << trial.name << ": " << finding << "\n";
    for (const std::string &finding : outcome.once)
        std::cout << "? " << trial.name << ": not when repeated: " << finding << "\n";
    if (settings.show.empty())
        return;
    std::cout << outcome.run.output << outcome.run.errors;
    for (const std::string &event : outcome.run.events)
        std::cout << "  " << event << "\n";
    std::cout << tally.list.back() << "\n";
}

void Report(const Sweep &sweep, const Tally &tally)
{
    std::cout << Format("%-15s %5zu runs, %zu with findings, %zu clean when repeated; longest %.1f s (%s)\n",
                        sweep.title, tally.runs, tally.findings, tally.once, tally.slowest, tally.slowestName.c_str());
    for (const auto &[end, runs] : tally.ends)
        std::cout << Format("  %6zu  %s\n", runs, end.c_str());
    // The cases in which status 0 does not prove that a device holds its image.
    const std::pair<std::size_t, const char *> excuses[] = {
        {tally.unproven, "with status 0 after a microcontroller that was silent or refused a block"},
        {tally.holes, "of these run the new version all the same"},
        {tally.misread, "with status 0 after a version reply that the line made the image's version"},
    };
    for (const auto &[runs, excuse] : excuses)
        if (runs > 0)
            std::cout << Format("  %6zu  %s\n", runs, excuse);
    std::cout << std::flush;
}

// Runs every settings.every-th trial, several at a time.
Tally Play(const Settings &settings, const std::vector<Trial> &trials, std::vector<Rig> &rigs)
{
    Tally tally;
    std::mutex mutex;
    std::atomic<std::size_t> next = 0;
    const auto work = [&](Rig &rig) {
        for (std::size_t i = 0; (i = next.fetch_add(settings.every)) < trials.size();) {
            if (trials[i].name.find(settings.show) == std::string::npos)
                continue;
            const Outcome outcome = rig.TryTwice(trials[i]);
            const std::lock_guard lock(mutex);
            Note(settings, trials[i], outcome, tally);
        }
    };
    std::vector<std::future<void>> workers;
    for (Rig &rig : rigs)
        workers.push_back(std::async(std::launch::async, work, std::ref(rig)));
    for (std::future<void> &worker : workers)
        worker.get();
    return tally;
}

std::size_t Number(const char *text)
{
    const int number = std::atoi(text);
    if (number < 1)
        throw std::invalid_argument(std::string("no fitting number: ") + text);
    return static_cast<std::size_t>(number);
}

Settings ParseArguments(int argc, char *argv[])
{
    const option options[] = {{"sweep", required_argument, nullptr, 's'}, {"every", required_argument, nullptr, 'e'},
                              {"jobs", required_argument, nullptr, 'j'},  {"show", required_argument, nullptr, 'o'},
                              {"list", required_argument, nullptr, 'l'},  {"recovery", no_argument, nullptr, 'r'},
                              {"help", no_argument, nullptr, 'h'},        {}};
    Settings settings;
    for (int result = 0; (result = getopt_long(argc, argv, "", options, nullptr)) != -1;) {
        switch (result) {
        case 's':
            settings.sweep = optarg;
            break;
        case 'e':
            settings.every = Number(optarg);
            break;
        case 'j':
            settings.jobs = Number(optarg);
            break;
        case 'o':
            settings.show = optarg;
            break;
        case 'l':
            settings.list = optarg;
            break;
        case 'r':
            settings.recovery = true;
            break;
        case 'h':
            std::cout << kHelp;
            std::exit(0);
        default:
            throw std::invalid_argument("see haldenfaults --help");
        }
    }
    if (optind < argc)
        throw std::invalid_argument(std::string("not understood: ") + argv[optind]);
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

int Work(const Settings &settings)
{
    const fs::path beside = fs::read_symlink("/proc/self/exe").parent_path();
    const Folders folders;
    std::vector<Rig> rigs;
    for (std::size_t i = 0; i < settings.jobs; i++)
        rigs.emplace_back(beside / "haldenflash", beside / "haldenbench-preload.so", folders.Make(i));
    std::size_t runs = 0, findings = 0;
    std::vector<std::string> list;
    for (const Sweep &sweep : kSweeps) {
        if (!settings.sweep.empty() && settings.sweep != sweep.name)
            continue;
        const Tally tally = Play(settings, sweep.trials(rigs.front()), rigs);
        Report(sweep, tally);
        runs += tally.runs;
        findings += tally.findings;
        list.insert(list.end(), tally.list.begin(), tally.list.end());
    }
    if (!settings.list.empty())
        WriteList(settings.list, list);
    if (runs == 0)
        throw std::invalid_argument("no such run; see haldenfaults --help");
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
    } catch (const std::invalid_argument &error) {
        std::cerr << "haldenfaults: " << error.what() << "\n";
        return 2;
    } catch (const std::exception &error) {
        std::cerr << "haldenfaults: " << error.what() << "\n";
        return 1;
    }
}
