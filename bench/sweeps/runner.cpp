#include "bench/sweeps/runner.h"

#include "bench/sweeps/judgement.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace bench
{

namespace
{

constexpr unsigned kWaitDivisor = 20;
constexpr char kStrace[] = "/usr/bin/strace";
constexpr char kStraceFile[] = "calls";
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

// The time by which the waits of a run were shortened.
double SecondsSaved(const std::vector<std::string> &events)
{
    double microseconds = 0;
    for (const std::string &event : events)
        if (event.starts_with("wait "))
            microseconds += std::strtod(event.c_str() + 5, nullptr);
    return microseconds / 1e6 * (1 - 1.0 / kWaitDivisor);
}

} // namespace

// The devices of one trial, with older versions and nothing in their flash.
struct Runner::Devices {
    Micro micro{0x20};
    Camera camera{{"0203", "0204"}, {"0306", "0307"}};
    Line microLine{micro}, cameraLine{camera};

    void Plan(const Trial &trial)
    {
        micro.faults = trial.micro;
        camera.faults = trial.camera;
        microLine.fault = trial.microLine;
        cameraLine.fault = trial.cameraLine;
    }
    Traffic Carried() const
    {
        return {microLine.carried(LineFault::kToDevice), microLine.carried(LineFault::kToHost),
                cameraLine.carried(LineFault::kToDevice), cameraLine.carried(LineFault::kToHost)};
    }
    std::vector<std::string> Objections() const
    {
        std::vector<std::string> all = micro.findings();
        all.insert(all.end(), camera.findings().begin(), camera.findings().end());
        return all;
    }
};

Runner::Runner(std::string program, std::string preload, std::string directory)
    : program_(std::move(program)), preload_(std::move(preload)), directory_(std::move(directory))
{
}

void Runner::MakeImages(const Session &session) const
{
    WriteSamples(directory_, session.samples);
    std::filesystem::resize_file(directory_ + "/" + kMicroImage, session.microSize);
}

std::vector<std::string> Runner::StraceWords(const std::string &injection) const
{
    return {"strace",
            "-D",
            "-f",
            "--seccomp-bpf",
            "-qq",
            "-o",
            directory_ + "/" + kStraceFile,
            "-e",
            "trace=" + injection.substr(0, injection.find(':')),
            "-e",
            "inject=" + injection};
}

RunOptions Runner::Options(const Trial &trial, Devices &devices) const
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
        RunUnderStrace(options, StraceWords(trial.injection));
    return options;
}

Holdings Runner::HoldingsOf(const Session &session, const Devices &devices) const
{
    Holdings held;
    const std::string prefix = directory_ + "/";
    if (AsksMicro(session))
        held.micro = HeldOf(devices.micro.flash(), prefix + kMicroImage);
    if (AsksCamera(session)) {
        held.camera = HeldOf(devices.camera.camera.contents, prefix + kCameraImage);
        held.system = HeldOf(devices.camera.system.contents, prefix + kSystemImage);
    }
    return held;
}

// Makes one run and notes its outcome. Nothing is judged yet.
Outcome Runner::Play(const Trial &trial, Devices &devices) const
{
    devices.Plan(trial);
    Outcome outcome;
    outcome.inLoader = trial.inLoader;
    outcome.run = Run(Options(trial, devices));
    outcome.last = LastLine(outcome.run.output);
    outcome.held = HoldingsOf(*trial.session, devices);
    outcome.carried = devices.Carried();
    outcome.objections = devices.Objections();
    outcome.fullSeconds = outcome.run.seconds + SecondsSaved(outcome.run.events);
    return outcome;
}

// Whether strace or the preload library tells that the fault was played. A fault that neither plays counts as played.
bool Runner::Struck(const Trial &trial, const RunResult &run) const
{
    if (!trial.orders.empty())
        return std::any_of(run.events.begin(), run.events.end(), [](const std::string &event) {
            return event.starts_with("half ") || event.starts_with("lost ");
        });
    return trial.injection.empty() || WasInjected();
}

// The trace may come a little later than the end of the run.
bool Runner::WasInjected() const
{
    for (int tries = 0; tries < 20; tries++) {
        const Bytes text = ReadFile(directory_ + "/" + kStraceFile).value_or(Bytes());
        if (std::string(text.begin(), text.end()).find("(INJECTED)") != std::string::npos)
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
}

void Runner::NewMicroVersion() const
{
    Bytes image = ReadFile(directory_ + "/" + kMicroImage).value();
    image.front()++;
    WriteFile(directory_ + "/" + kMicroImage, image);
}

// Makes the run without a fault. It has to bring the devices to their images, whatever they hold. If the
// microcontroller runs the new version without its image, the image gets another version first: otherwise nothing would
// be sent.
void Runner::Mend(const Trial &trial, Devices &devices, Outcome &outcome) const
{
    Session session = *trial.session;
    std::erase(session.words, "q");
    const Trial clean = {.name = "", .session = &session};
    Outcome next = Play(clean, devices);
    const bool mayMissBytes = outcome.unproven != nullptr || NoVerdict(outcome.run.output);
    outcome.versionWithoutImage = mayMissBytes && next.run.status == 0 && next.held.micro == kPart;
    if (outcome.versionWithoutImage) {
        NewMicroVersion();
        next = Play(clean, devices);
    }
    const std::vector<std::string> findings = JudgeNextRun(next);
    outcome.findings.insert(outcome.findings.end(), findings.begin(), findings.end());
}

Outcome Runner::Try(const Trial &trial)
{
    Devices devices;
    MakeImages(*trial.session);
    std::filesystem::remove(directory_ + "/" + kStraceFile);
    Outcome outcome = Play(trial, devices);
    outcome.struck = Struck(trial, outcome.run);
    JudgeRun(trial, outcome);
    Mend(trial, devices, outcome);
    return outcome;
}

Outcome Runner::TryTwice(const Trial &trial)
{
    Outcome first = Try(trial);
    if (first.findings.empty() || !trial.signals.empty())
        return first;
    Outcome second = Try(trial);
    if (second.findings.empty())
        second.passing = std::move(first.findings);
    return second;
}

std::vector<std::string> Runner::Calls(const Session &session)
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
