#include "bench/trial.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

namespace bench
{

namespace
{

constexpr int kCameraPort = 0;
constexpr int kMicroPort = 1;
constexpr unsigned kWaitDivisor = 20;
constexpr char kStrace[] = "/usr/bin/strace";
constexpr char kFifo[] = "progress"; // in a session's words: a FIFO with a reader
constexpr std::chrono::seconds kLimit{25}, kWaitLimit{2};

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

// One image, for judgement.
struct Image {
    const char *name;
    unsigned allowed; // of Held, by the table
    bool anything;    // is excused
    const LineFault *fault;
};

// A version reply has no checksum: flipped bits can make it the image's version.
bool TakesForUpToDate(const LineFault &fault, const std::string &output)
{
    return fault.kind == LineFault::Kind::kFlip && fault.way == LineFault::kToHost &&
           (output.find("Already up to date") != std::string::npos ||
            output.find("Halden Micro controller update is NEEDED.") == std::string::npos);
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
    options.limit = trial.waits ? kWaitLimit : kLimit;
    if (Has(trial.session->words, kFifo))
        options.fifo = kFifo;
    if (!trial.injection.empty())
        RunUnderStrace(options, {"strace", "-D", "-f", "--seccomp-bpf", "-qq", "-o", "/dev/null", "-e",
                                 "trace=" + trial.injection.substr(0, trial.injection.find(':')), "-e",
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

// Adds what is wrong with the way that a run ended.
void Rig::Judge(const Trial &trial, Outcome &outcome) const
{
    std::vector<std::string> &findings = outcome.findings;
    const RunResult &run = outcome.run;
    if (trial.waits) {
        if (!run.killed)
            findings.push_back("did not wait");
        return;
    }
    const bool endless = run.killed && Endless(run.output);
    if (run.killed && !endless)
        findings.push_back("did not end");
    if (outcome.fullSeconds > kBoundSeconds && !run.killed)
        findings.push_back(Format("takes %.1f s", outcome.fullSeconds));
    if (run.signal == 0) {
        for (const auto &[port, open] : OpenPorts(run.events))
            if (open != 0)
                findings.push_back("left port " + port + " open");
    } else if (trial.loading) {
        return;
    } else if (!run.killed && !Killed(trial, run.signal)) {
        findings.push_back(Format("crashed by signal %d: ", run.signal) + run.errors);
    }
    outcome.row = FindRecovery(run.signal != 0 ? 128 + run.signal : run.status, run.output, trial.mute);
    if (outcome.row == nullptr) {
        findings.push_back(Format("status %d, signal %d and this last line are not known: ", run.status, run.signal) +
                           outcome.last);
        return;
    }
    JudgeHoldings(trial, outcome);
}

// Adds what is wrong with what the devices hold. They had older versions: after an update that calls itself
// a success they hold their images, unless the trace says why not.
void Rig::JudgeHoldings(const Trial &trial, Outcome &outcome) const
{
    const RunResult &run = outcome.run;
    const RecoveryRow &row = *outcome.row;
    const bool success = run.status == 0 && !Has(trial.session->words, "q");
    outcome.noVerdict = NoVerdict(run.output);
    const Image images[] = {{"microcontroller", row.micro, outcome.noVerdict, &trial.microLine},
                            {"camera image", row.camera, false, &trial.cameraLine},
                            {"system image", row.system, false, &trial.cameraLine}};
    for (std::size_t i = 0; i < std::size(images); i++) {
        const Held held = outcome.held[i];
        const bool misread = success && held == kBefore && TakesForUpToDate(*images[i].fault, run.output);
        outcome.misread = outcome.misread || misread;
        const unsigned allowed = success && images[i].allowed != kBefore && !misread ? kImage : images[i].allowed;
        if (!images[i].anything && (held & ~allowed) != 0)
            outcome.findings.push_back(
                Format("%s: holds %s after status %d: %s", images[i].name, NameOf(held), run.status, row.reason));
    }
    if (trial.harmless && !(run.status == 0 && std::all_of(outcome.held.begin(), outcome.held.end(), Whole)))
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
    outcome.hole = outcome.noVerdict && run.status == 0 && held[0] == kPart;
    if (outcome.hole) { // runs the new version, so that it takes another one to be sent anything
        Bytes image = ReadFile(directory_ + "/" + kMicroImage).value();
        image.front()++;
        WriteFile(directory_ + "/" + kMicroImage, image);
        run = Run(Options(clean, devices));
        held = Holdings(session, devices);
    }
    if (run.status != 0 || !std::all_of(held.begin(), held.end(), Whole))
        outcome.findings.push_back(Format("the next run ends with status %d, and the devices hold %s, %s, %s: ",
                                          run.status, NameOf(held[0]), NameOf(held[1]), NameOf(held[2])) +
                                   LastLine(run.output));
}

Outcome Rig::Try(const Trial &trial)
{
    Outcome outcome;
    outcome.loading = trial.loading;
    Devices devices;
    MakeImages(*trial.session);
    devices.micro.faults = trial.micro;
    devices.camera.faults = trial.camera;
    devices.microLine.fault = trial.microLine;
    devices.cameraLine.fault = trial.cameraLine;
    outcome.run = Run(Options(trial, devices));
    outcome.last = LastLine(outcome.run.output);
    outcome.held = Holdings(*trial.session, devices);
    outcome.fullSeconds = outcome.run.seconds + SecondsSaved(outcome.run.events);
    outcome.carried = {devices.microLine.carried(LineFault::kToDevice), devices.microLine.carried(LineFault::kToHost),
                       devices.cameraLine.carried(LineFault::kToDevice),
                       devices.cameraLine.carried(LineFault::kToHost)};
    Judge(trial, outcome);
    Mend(trial, devices, outcome);
    return outcome;
}

Outcome Rig::TryTwice(const Trial &trial)
{
    Outcome first = Try(trial);
    if (first.findings.empty())
        return first;
    Outcome second = Try(trial);
    if (second.findings.empty())
        second.once = std::move(first.findings);
    return second;
}

std::vector<std::string> Rig::Calls(const Session &session)
{
    Devices devices;
    MakeImages(session);
    RunOptions options = Options({.name = "", .session = &session}, devices);
    const std::string list = directory_ + "/calls";
    RunUnderStrace(options, {"strace", "-qq", "-o", list});
    Run(options);
    std::vector<std::string> names;
    std::ifstream file(list);
    for (std::string line; std::getline(file, line);)
        if (const std::size_t end = line.find('('); end != std::string::npos && line.front() >= 'a')
            names.push_back(line.substr(0, end));
    return names;
}

} // namespace bench
