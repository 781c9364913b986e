#include "bench/sweeps/judgement.h"

#include <algorithm>
#include <sstream>

namespace bench
{

namespace
{

constexpr char kUnknownMicroVerdict[] = "UNKNOWN RESPONSE FROM FARSIGHT DURING HALDEN MICRO";
constexpr int kNotLoaded = 127; // status

// Where an image is found in the records, and what the program prints about it.
struct ImageRow {
    const char *name;
    Held Holdings::*held;
    unsigned RecoveryRow::*allowed;
    Faults Trial::*faults;  // of its device
    LineFault Trial::*line; // of its device
    const char *text;       // by this text the program tells whether the device runs the image already
    bool isCurrent;         // true: it does if the text is there; false: it does if the text is missing
};
constexpr ImageRow kImages[] = {
    {"microcontroller", &Holdings::micro, &RecoveryRow::micro, &Trial::micro, &Trial::microLine,
     "Halden Micro controller update is NEEDED.", false},
    {"camera image", &Holdings::camera, &RecoveryRow::camera, &Trial::camera, &Trial::cameraLine,
     "FarSight Camera Firmware is Already up to date", true},
    {"system image", &Holdings::system, &RecoveryRow::system, &Trial::camera, &Trial::cameraLine,
     "FarSight System Firmware is Already up to date", true},
};

bool IsMicro(const ImageRow &image)
{
    return image.held == &Holdings::micro;
}

bool Has(const std::string &text, const char *part)
{
    return text.find(part) != std::string::npos;
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

// ---- Excuses of a success that leaves a device with an older version and without its image

bool TookForCurrent(const std::string &output, const ImageRow &image)
{
    return Has(output, image.text) == image.isCurrent;
}

// Whether the device sends more bytes than its verdict. The host then takes verdicts for those on other blocks.
bool AnswersTooMuch(const Faults &faults)
{
    return std::any_of(faults.blocks.begin(), faults.blocks.end(),
                       [](const auto &block) { return !block.second.noise.empty(); });
}

bool SpoilsVersion(const LineFault &fault)
{
    constexpr std::uint64_t kVersionReply = 15; // bytes, of either device; it has no checksum
    return fault.kind == LineFault::Kind::kFlip && fault.way == LineFault::kToHost && fault.byte < kVersionReply;
}

const char *MicroExcuse(const Trial &trial, const Outcome &outcome)
{
    if (outcome.row->micro == kBefore && outcome.held.micro == kBefore)
        return "an image for the microcontroller that could not be read";
    if (trial.injection.starts_with("select") || trial.injection.starts_with("pselect"))
        return "a wait for the microcontroller that was made to fail";
    if (Has(outcome.run.output, kUnknownMicroVerdict))
        return "an unknown verdict of the microcontroller";
    return NoVerdict(outcome.run.output) ? "a microcontroller that was silent or refused a block" : nullptr;
}

// Null if there is no excuse.
const char *Excuse(const Trial &trial, const Outcome &outcome, const ImageRow &image)
{
    if (SpoilsVersion(trial.*image.line) && outcome.held.*image.held == kBefore &&
        TookForCurrent(outcome.run.output, image))
        return "a version reply that the line made the image's version";
    const char *excuse = IsMicro(image) ? MicroExcuse(trial, outcome) : nullptr;
    if (excuse == nullptr && AnswersTooMuch(trial.*image.faults))
        excuse = "a verdict too many on the line";
    return excuse;
}

// ---- Findings

// An image whose blocks cannot be counted is announced with 0 blocks. The camera objects to that.
void JudgeProtocol(Outcome &outcome)
{
    const std::string &output = outcome.run.output;
    const bool none = Has(output, "camNumBlocks:0 ") || Has(output, "sysNUmBlocks:0 ");
    for (const std::string &objection : outcome.objections)
        if (!none || !objection.starts_with("flash mode "))
            outcome.findings.push_back("a device objects: " + objection);
}

void JudgeWait(const Trial &trial, Outcome &outcome)
{
    if (!outcome.run.killed || outcome.run.progress.size() != trial.progress.count)
        outcome.findings.push_back("did not wait, or not with its progress delivered");
}

// For each port, the number of opens minus the number of closes.
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

std::vector<std::string> PortsLeftOpen(const RunResult &run)
{
    std::vector<std::string> ports;
    for (const auto &[port, open] : OpenPorts(run.events))
        if (open != 0)
            ports.push_back(port);
    return ports;
}

// A run may go on for ever while the devices send verdicts that are neither acceptance nor refusal.
void JudgeTime(Outcome &outcome)
{
    constexpr std::uint64_t kManyVerdicts = 40; // bytes from the devices
    const bool endless =
        Endless(outcome.run.output) && outcome.carried.fromMicro + outcome.carried.fromCamera >= kManyVerdicts;
    if (outcome.run.killed && !endless)
        outcome.findings.push_back("did not end");
    if (!outcome.run.killed && outcome.fullSeconds > kBoundSeconds)
        outcome.findings.push_back(Format("takes %.1f s", outcome.fullSeconds));
}

void JudgeSignal(const Trial &trial, Outcome &outcome)
{
    const RunResult &run = outcome.run;
    if (run.lostEvents)
        outcome.findings.emplace_back("made more calls than its log can hold");
    else if (run.signal == 0)
        for (const std::string &port : PortsLeftOpen(run))
            outcome.findings.push_back("left port " + port + " open");
    if (run.signal != 0 && !run.killed && !Killed(trial, run.signal))
        outcome.findings.push_back(Format("crashed by signal %d: ", run.signal) + run.errors);
}

void FindRow(const Trial &trial, Outcome &outcome)
{
    const RunResult &run = outcome.run;
    outcome.row = FindRecovery(run.signal != 0 ? 128 + run.signal : run.status, run.output, trial.mayLoseOutput);
    if (outcome.row == nullptr)
        outcome.findings.push_back(
            Format("status %d, signal %d and this last line are not known: ", run.status, run.signal) + outcome.last);
}

// A device has to hold what the table says. It had an older version. So it holds its image after a success, and a query
// has to find that an update is required.
void JudgeImage(const Trial &trial, const ImageRow &image, Outcome &outcome)
{
    const bool success = outcome.run.status == 0;
    const Held held = outcome.held.*image.held;
    const char *excuse = success && !Whole(held) ? Excuse(trial, outcome, image) : nullptr;
    const bool anything = (IsMicro(image) && NoVerdict(outcome.run.output)) || AnswersTooMuch(trial.*image.faults);
    const bool expected = anything || (held & ~(outcome.row->*image.allowed)) == 0;
    if (excuse != nullptr)
        outcome.unproven = excuse;
    if (!expected || (success && !Whole(held) && excuse == nullptr))
        outcome.findings.push_back(Format("%s: holds %s after status %d: %s", image.name, NameOf(held),
                                          outcome.run.status, outcome.row->reason));
}

} // namespace

bool Whole(const Holdings &held)
{
    return Whole(held.micro) && Whole(held.camera) && Whole(held.system);
}

void JudgeRun(const Trial &trial, Outcome &outcome)
{
    if (trial.waits)
        return JudgeWait(trial, outcome);
    if (!trial.spoilsWire && !trial.inLoader)
        JudgeProtocol(outcome);
    if (trial.inLoader && (outcome.run.signal != 0 || outcome.run.status == kNotLoaded))
        return;
    JudgeTime(outcome);
    JudgeSignal(trial, outcome);
    FindRow(trial, outcome);
    if (outcome.row == nullptr)
        return;
    for (const ImageRow &image : kImages)
        JudgeImage(trial, image, outcome);
    if (trial.harmless && !(outcome.run.status == 0 && Whole(outcome.held)))
        outcome.findings.push_back("does not do what it does without the fault: " + outcome.last);
}

std::vector<std::string> JudgeNextRun(const Outcome &next)
{
    std::vector<std::string> findings;
    if (!next.objections.empty())
        findings.emplace_back("a device objects to the next run");
    for (const std::string &port : PortsLeftOpen(next.run))
        findings.push_back("the next run left port " + port + " open");
    if (next.run.status != 0 || !Whole(next.held))
        findings.push_back(
            Format("the next run ends with status %d, and the devices hold %s, %s, %s: ", next.run.status,
                   NameOf(next.held.micro), NameOf(next.held.camera), NameOf(next.held.system)) +
            next.last);
    return findings;
}

} // namespace bench
