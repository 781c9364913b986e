#include "bench/trial.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>

namespace bench
{

namespace
{

constexpr unsigned kWaitDivisor = 20;
constexpr char kStrace[] = "/usr/bin/strace";
constexpr char kStraceFile[] = "calls";
constexpr char kUnknownMicroVerdict[] = "UNKNOWN RESPONSE FROM FARSIGHT DURING HALDEN MICRO";
constexpr int kNotLoaded = 127;      // status
constexpr char kFifo[] = "progress"; // in a session's words: a FIFO with a reader
constexpr std::chrono::seconds kWaitLimit{2};

bool Has(const std::vector<std::string> &words, const std::string &word)
{
    return std::find(words.begin(), words.end(), word) != words.end();
}

bool AsksMicro(const Session &session)
{
    return session.words.front() != "farsight";
}

bool AsksCamera(const Session &session)
{
    return session.words.front() != "micro";
}

Held HeldOf(const Bytes &contents, const std::string &path)
{
    if (contents.empty())
        return kBefore;
    Bytes image = ReadFile(path).value_or(Bytes());
    return contents == image ? kImage : kPart;
}

void RunUnderStrace(RunOptions &options, const std::vector<std::string> &words)
{
    options.arguments.front() = options.executable;
    options.arguments.insert(options.arguments.begin(), words.begin(), words.end());
    options.executable = kStrace;
}

// Opens less closes of each port.
std::map<std::string, int> OpenPorts(const std::vector<std::string> &events)
{
    std::map<std::string, int> open;
    for (const std::string &event : events) {
        std::istringstream words(event);
        std::string what, port, refused;
        words >> what >> port >> refused;
        if ((what == "open" && refused.empty()) || what == "close")
            open[port] += what == "open" ? 1 : -1;
    }
    return open;
}

// What shortened waits would have taken beyond what they took.
double SecondsSaved(const std::vector<std::string> &events)
{
    double microseconds = 0;
    for (const std::string &event : events)
        if (event.starts_with("wait "))
            microseconds += std::strtod(event.c_str() + 5, nullptr);
    return microseconds / 1e6 * (1 - 1.0 / kWaitDivisor);
}

bool Has(const std::string &text, const char *part)
{
    return text.find(part) != std::string::npos;
}

// The program took image i for one that the device runs already.
bool TookForCurrent(const std::string &output, std::size_t i)
{
    constexpr const char *kCurrent[] = {"FarSight Camera Firmware is Already up to date",
                                        "FarSight System Firmware is Already up to date"};
    return i == 0 ? !Has(output, "Halden Micro controller update is NEEDED.") : Has(output, kCurrent[i - 1]);
}

// The device sends more than its verdict, so that the verdicts come to be taken for those on other blocks.
bool AnswersTooMuch(const Faults &faults)
{
    return std::any_of(faults.blocks.begin(), faults.blocks.end(),
                       [](const auto &block) { return !block.second.noise.empty(); });
}

const char *MicroExcuse(const Trial &trial, const Outcome &outcome)
{
    if (outcome.row->micro == kBefore && outcome.held[0] == kBefore)
        return "an image for the microcontroller that could not be read";
    if (trial.injection.starts_with("select") || trial.injection.starts_with("pselect"))
        return "a wait for the microcontroller that was made to fail";
    if (Has(outcome.run.output, kUnknownMicroVerdict))
        return "an unknown verdict of the microcontroller";
    return NoVerdict(outcome.run.output) ? "a microcontroller that was silent or refused a block" : nullptr;
}

// Why a success may leave a device without image i (microcontroller, camera image, system image), which has
// an older version; null if there is no excuse.
const char *Excuse(const Trial &trial, const Outcome &outcome, std::size_t i)
{
    const std::string &output = outcome.run.output;
    const LineFault &fault = i == 0 ? trial.microLine : trial.cameraLine;
    constexpr std::uint64_t kVersionReply = 15; // bytes, of either device; it has no checksum
    if (fault.kind == LineFault::Kind::kFlip && fault.way == LineFault::kToHost && fault.byte < kVersionReply &&
        outcome.held[i] == kBefore && TookForCurrent(output, i))
        return "a version reply that the line made the image's version";
    const char *excuse = i == 0 ? MicroExcuse(trial, outcome) : nullptr;
    if (excuse == nullptr && AnswersTooMuch(i == 0 ? trial.micro : trial.camera))
        excuse = "a verdict too many on the line";
    return excuse;
}

bool Whole(Held held)
{
    return held == kImage || held == kNotAsked;
}

bool Killed(const Trial &trial, int signal)
{
    return std::any_of(trial.signals.begin(), trial.signals.end(),
                       [signal](const Signal &sent) { return sent.number == signal; });
}

} // namespace

// The devices of one trial, with older versions and nothing in their flash.
struct Rig::Devices {
    Micro micro{0x20};
    Camera camera{{"0203", "0204"}, {"0306", "0307"}};
    Line microLine{micro}, cameraLine{camera};
};

Rig::Rig(std::string program, std::string preload, std::string directory)
    : program_(std::move(program)), preload_(std::move(preload)), directory_(std::move(directory))
{
}

void Rig::MakeImages(const Session &session) const
{
    WriteSamples(directory_, session.samples);
    std::filesystem::resize_file(directory_ + "/" + kMicroImage, session.microSize);
}

RunOptions Rig::Options(const Trial &trial, Devices &devices) const
{
    RunOptions options;
    options.executable = program_;
    options.arguments = {"haldenflash"};
    options.arguments.insert(options.arguments.end(), trial.session->words.begin(), trial.session->words.end());
    options.directory = directory_;
    options.environment = trial.orders;
    options.environment["TALVORA_BOARDID"] = "KORA";
    options.preload = preload_;
    options.ports = {{kCameraPort, trial.cameraPort}, {kMicroPort, trial.microPort}};
    options.ports[kCameraPort].line = &devices.cameraLine;
    options.ports[kMicroPort].line = &devices.microLine;
    options.waitDivisor = kWaitDivisor;
    options.output = trial.output;
    options.outputRead = trial.outputRead;
    options.signals = trial.signals;
    options.progress = trial.progress;
    options.limit = trial.waits ? kWaitLimit : trial.limit;
    if (Has(trial.session->words, kFifo))
        options.fifo = kFifo;
    if (!trial.injection.empty())
        RunUnderStrace(options, {"strace", "-D", "-f", "--seccomp-bpf", "-qq", "-o", directory_ + "/" + kStraceFile,
                                 "-e", "trace=" + trial.injection.substr(0, trial.injection.find(':')), "-e",
                                 "inject=" + trial.injection});
    return options;
}

std::array<Held, 3> Rig::Holdings(const Session &session, const Devices &devices) const
{
    std::array<Held, 3> held = {};
    const std::string prefix = directory_ + "/";
    if (AsksMicro(session))
        held[0] = HeldOf(devices.micro.flash(), prefix + kMicroImage);
    if (AsksCamera(session)) {
        held[1] = HeldOf(devices.camera.camera.contents, prefix + kCameraImage);
        held[2] = HeldOf(devices.camera.system.contents, prefix + kSystemImage);
    }
    return held;
}

// Whether the trace of strace, which may come a little later than the end, or the preload library tells that
// the fault was played. What neither plays is taken for played.
bool Rig::Struck(const Trial &trial, const RunResult &run) const
{
    if (!trial.orders.empty())
        return std::any_of(run.events.begin(), run.events.end(), [](const std::string &event) {
            return event.starts_with("half ") || event.starts_with("lost ");
        });
    for (int tries = 0; !trial.injection.empty(); tries++) {
        const Bytes text = ReadFile(directory_ + "/" + kStraceFile).value_or(Bytes());
        if (Has(std::string(text.begin(), text.end()), "(INJECTED)"))
            return true;
        if (tries == 20)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

// Adds what is wrong with a run.
void Rig::Judge(const Trial &trial, const Devices &devices, Outcome &outcome) const
{
    outcome.struck = Struck(trial, outcome.run);
    if (!trial.spoilsWire && !trial.inLoader && !trial.waits)
        JudgeProtocol(devices, outcome);
    if (trial.waits) {
        if (!outcome.run.killed || outcome.run.progress.size() != trial.progress.count)
            outcome.findings.push_back("did not wait, or not with its progress delivered");
        return;
    }
    JudgeEnd(trial, outcome);
    if (outcome.row != nullptr)
        JudgeHoldings(trial, outcome);
}

// What the devices object to. An image whose blocks cannot be counted is announced with none, which they do.
void Rig::JudgeProtocol(const Devices &devices, Outcome &outcome) const
{
    const bool none = Has(outcome.run.output, "camNumBlocks:0 ") || Has(outcome.run.output, "sysNUmBlocks:0 ");
    for (const Device *device :
         {static_cast<const Device *>(&devices.micro), static_cast<const Device *>(&devices.camera)})
        for (const std::string &finding : device->findings())
            if (!none || !finding.starts_with("flash mode "))
                outcome.findings.push_back("a device objects: " + finding);
}

// How it ended, and the row of that end.
void Rig::JudgeEnd(const Trial &trial, Outcome &outcome) const
{
    constexpr std::uint64_t kManyVerdicts = 40; // bytes from the devices
    std::vector<std::string> &findings = outcome.findings;
    const RunResult &run = outcome.run;
    if (trial.inLoader && (run.signal != 0 || run.status == kNotLoaded))
        return;
    if (run.killed && !(Endless(run.output) && outcome.carried[1] + outcome.carried[3] >= kManyVerdicts))
        findings.push_back("did not end");
    if (!run.killed && outcome.fullSeconds > kBoundSeconds)
        findings.push_back(Format("takes %.1f s", outcome.fullSeconds));
    for (const auto &[port, open] : OpenPorts(run.events))
        if (open != 0 && run.signal == 0)
            findings.push_back("left port " + port + " open");
    if (run.signal != 0 && !run.killed && !Killed(trial, run.signal))
        findings.push_back(Format("crashed by signal %d: ", run.signal) + run.errors);
    outcome.row = FindRecovery(run.signal != 0 ? 128 + run.signal : run.status, run.output, trial.mayLoseOutput);
    if (outcome.row == nullptr)
        findings.push_back(Format("status %d, signal %d and this last line are not known: ", run.status, run.signal) +
                           outcome.last);
}

// What the devices hold is what the table has. They had older versions: after an update that calls itself a
// success they hold their images, and no query finds that none is required.
void Rig::JudgeHoldings(const Trial &trial, Outcome &outcome) const
{
    const bool success = outcome.run.status == 0;
    const char *const names[] = {"microcontroller", "camera image", "system image"};
    const unsigned allowed[] = {outcome.row->micro, outcome.row->camera, outcome.row->system};
    for (std::size_t i = 0; i < outcome.held.size(); i++) {
        const Held held = outcome.held[i];
        const char *excuse = success && !Whole(held) ? Excuse(trial, outcome, i) : nullptr;
        const bool anything =
            (i == 0 && NoVerdict(outcome.run.output)) || AnswersTooMuch(i == 0 ? trial.micro : trial.camera);
        const bool expected = anything || (held & ~allowed[i]) == 0;
        const bool fits = expected && (!success || Whole(held) || excuse != nullptr);
        outcome.unproven = excuse != nullptr ? excuse : outcome.unproven;
        if (!fits)
            outcome.findings.push_back(Format("%s: holds %s after status %d: %s", names[i], NameOf(held),
                                              outcome.run.status, outcome.row->reason));
    }
    if (trial.harmless && !(success && std::all_of(outcome.held.begin(), outcome.held.end(), Whole)))
        outcome.findings.push_back("does not do what it does without the fault: " + outcome.last);
}

// The run without a fault that has to bring the devices to their images, whatever they hold.
void Rig::Mend(const Trial &trial, Devices &devices, Outcome &outcome) const
{
    Session session = *trial.session;
    std::erase(session.words, "q");
    devices.micro.faults = devices.camera.faults = {};
    devices.microLine.fault = devices.cameraLine.fault = {};
    const Trial clean = {.name = "", .session = &session};
    RunResult run = Run(Options(clean, devices));
    std::array<Held, 3> held = Holdings(session, devices);
    const bool mayMissBytes = outcome.unproven != nullptr || NoVerdict(outcome.run.output);
    outcome.versionWithoutImage = mayMissBytes && run.status == 0 && held[0] == kPart;
    if (outcome.versionWithoutImage) { // runs the new version, so that it takes another one to be sent anything
        Bytes image = ReadFile(directory_ + "/" + kMicroImage).value();
        image.front()++;
        WriteFile(directory_ + "/" + kMicroImage, image);
        run = Run(Options(clean, devices));
        held = Holdings(session, devices);
    }
    if (!devices.micro.findings().empty() || !devices.camera.findings().empty())
        outcome.findings.push_back("a device objects to the next run");
    for (const auto &[port, open] : OpenPorts(run.events))
        if (open != 0)
            outcome.findings.push_back("the next run left port " + port + " open");
    if (run.status != 0 || !std::all_of(held.begin(), held.end(), Whole))
        outcome.findings.push_back(Format("the next run ends with status %d, and the devices hold %s, %s, %s: ",
                                          run.status, NameOf(held[0]), NameOf(held[1]), NameOf(held[2])) +
                                   LastLine(run.output));
}

Outcome Rig::Try(const Trial &trial)
{
    Outcome outcome;
    outcome.inLoader = trial.inLoader;
    Devices devices;
    MakeImages(*trial.session);
    devices.micro.faults = trial.micro;
    devices.camera.faults = trial.camera;
    devices.microLine.fault = trial.microLine;
    devices.cameraLine.fault = trial.cameraLine;
    std::filesystem::remove(directory_ + "/" + kStraceFile);
    outcome.run = Run(Options(trial, devices));
    outcome.last = LastLine(outcome.run.output);
    outcome.held = Holdings(*trial.session, devices);
    outcome.fullSeconds = outcome.run.seconds + SecondsSaved(outcome.run.events);
    outcome.carried = {devices.microLine.carried(LineFault::kToDevice), devices.microLine.carried(LineFault::kToHost),
                       devices.cameraLine.carried(LineFault::kToDevice),
                       devices.cameraLine.carried(LineFault::kToHost)};
    Judge(trial, devices, outcome);
    Mend(trial, devices, outcome);
    return outcome;
}

Outcome Rig::TryTwice(const Trial &trial)
{
    Outcome first = Try(trial);
    if (first.findings.empty() || !trial.signals.empty())
        return first;
    Outcome second = Try(trial);
    if (second.findings.empty())
        second.passing = std::move(first.findings);
    return second;
}

std::vector<std::string> Rig::Calls(const Session &session)
{
    Devices devices;
    MakeImages(session);
    RunOptions options = Options({.name = "", .session = &session}, devices);
    const std::string list = directory_ + "/" + kStraceFile;
    RunUnderStrace(options, {"strace", "-qq", "-o", list});
    const RunResult run = Run(options);
    std::vector<std::string> names;
    std::ifstream file(list);
    for (std::string line; std::getline(file, line);)
        if (const std::size_t end = line.find('('); end != std::string::npos && line.front() >= 'a')
            names.push_back(line.substr(0, end));
    if (FindRecovery(run.status, run.output) == nullptr || run.status > 1 || names.empty())
        throw std::runtime_error("no calls could be traced: " + run.output + run.errors);
    return names;
}

} // namespace bench
