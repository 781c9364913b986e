#include "bench/sweeps/sweeps.h"

#include "bench/standin/preload.h"

#include <algorithm>
#include <csignal>
#include <map>
#include <random>
#include <stdexcept>
#include <thread>

namespace bench
{

namespace
{

using std::chrono::milliseconds;

const Session kFull = {"full", {"all", "-p", "progress", "0", "100"}, {.cameraSize = 70000, .systemSize = 300}, 6144};
const Session kQuery = {"query", {"all", "q", "-p", "progress", "0", "100"}, kFull.samples, 6144};
const Session kFullDisk = {"full disk", {"all", "-p", "/dev/full", "0", "100"}, kFull.samples, 6144};
const Session kFile = {"file", {"all", "-p", "position", "0", "100"}, kFull.samples, 6144};
const Session kMicro = {"micro", {"micro"}, {}, 6144};
const Session kCamera = {"camera", {"farsight"}, {.cameraSize = 130000, .systemSize = 65000}, 6144};
const Session kShortMicro = {"micro", {"micro"}, {}, 20};
const Session kShortCamera = {"camera", {"farsight"}, {.cameraSize = 20, .systemSize = 10}, 6144};

// ---- System calls

// The failures of a call, as strace takes them. With '+' the call fails from then on for good.
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

struct OrderRow {
    const char *call, *failure, *order;
    bool harmless;
    int most; // of them; the C library's own calls do not come there
};
constexpr OrderRow kOrders[] = {
    {"read", "half", kPreloadHalfRead, true, 1000},
    {"write", "half", kPreloadHalfWrite, false, 30},
    {"close", "fails", kPreloadLostClose, true, 1000},
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
    trial.mayLoseOutput = trial.spoilsWire = call == "write";
    return trial;
}

struct Call {
    std::string name;
    int ordinal;
    bool inLoader;
};

std::vector<Call> CallsOf(Runner &runner, const Session &session)
{
    std::map<std::string, int> counts;
    bool inLoader = true;
    std::vector<Call> calls;
    for (const std::string &name : runner.Calls(session)) {
        inLoader = inLoader && name != "fcntl"; // the first of main
        calls.push_back({name, ++counts[name], inLoader});
    }
    return calls;
}

void AddFailures(std::vector<Trial> &trials, const std::vector<Call> &calls, const Session &session)
{
    for (const Call &call : calls)
        for (const char *failure : FailuresOf(call.name)) {
            trials.push_back(CallTrial(session, call.name, call.ordinal, failure));
            trials.back().inLoader = call.inLoader;
        }
}

// The faults that the preload library plays, in calls behind those of the loader.
void AddOrders(std::vector<Trial> &trials, const std::vector<Call> &calls, const Session &session)
{
    for (const OrderRow &row : kOrders) {
        const auto own = std::count_if(calls.begin(), calls.end(),
                                       [&](const Call &call) { return !call.inLoader && call.name == row.call; });
        for (int ordinal = 1; ordinal <= std::min(static_cast<int>(own), row.most); ordinal++)
            trials.push_back({.name = Format("%s: %s %d %s", session.name, row.call, ordinal, row.failure),
                              .session = &session,
                              .orders = {{row.order, std::to_string(ordinal)}},
                              .harmless = row.harmless && session.words == kFull.words,
                              .spoilsWire = !row.harmless});
    }
}

// The driver's requests and opens, which never reach the kernel here. Nine refused opens do no harm: the tenth
// succeeds.
void AddRequests(std::vector<Trial> &trials, const Session &session)
{
    constexpr struct {
        const char *name;
        unsigned Port::*refused;
        unsigned count, harmless;
    } kRefusals[] = {{"request", &Port::refusedRequest, 3, 0}, {"opens", &Port::refusedOpens, 10, 9}};
    for (const auto &row : kRefusals)
        for (unsigned ordinal = 1; ordinal <= row.count; ordinal++)
            for (const auto &[port, device] : {std::pair{&Trial::microPort, "micro"}, {&Trial::cameraPort, "camera"}}) {
                Trial trial = {.name = Format("%s: %s, %s %u refused", session.name, device, row.name, ordinal),
                               .session = &session,
                               .harmless = ordinal <= row.harmless && session.words == kFull.words};
                (trial.*port).*row.refused = ordinal;
                trials.push_back(trial);
            }
}

std::vector<Trial> Calls(Runner &runner)
{
    std::vector<Trial> trials;
    for (const Session *session : {&kFull, &kQuery}) {
        const std::vector<Call> calls = CallsOf(runner, *session);
        AddFailures(trials, calls, *session);
        AddOrders(trials, calls, *session);
        AddRequests(trials, *session);
    }
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

struct WireRow {
    const char *name;
    const Session *session;
    LineFault Trial::*fault;
    LineFault::Way way;
    std::uint64_t Traffic::*carried;
};
constexpr WireRow kWires[] = {
    {"to micro", &kShortMicro, &Trial::microLine, LineFault::kToDevice, &Traffic::toMicro},
    {"from micro", &kShortMicro, &Trial::microLine, LineFault::kToHost, &Traffic::fromMicro},
    {"to camera", &kShortCamera, &Trial::cameraLine, LineFault::kToDevice, &Traffic::toCamera},
    {"from camera", &kShortCamera, &Trial::cameraLine, LineFault::kToHost, &Traffic::fromCamera},
};

Trial WireTrial(const WireRow &wire, std::uint64_t byte, const LineRow &row)
{
    Trial trial = {.name = Format("%s: byte %u %s", wire.name, static_cast<unsigned>(byte), row.name),
                   .session = wire.session};
    trial.spoilsWire = true;
    trial.*wire.fault = {row.kind, wire.way, byte, row.value, row.delayMs};
    return trial;
}

std::vector<Trial> Wire(Runner &runner)
{
    std::vector<Trial> trials;
    for (const WireRow &wire : kWires) {
        const std::uint64_t bytes = runner.Try({.name = "", .session = wire.session}).carried.*wire.carried;
        for (std::uint64_t byte = 0; byte < bytes; byte++)
            for (const LineRow &row : kLineFaults)
                trials.push_back(WireTrial(wire, byte, row));
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

std::vector<Trial> Power(Runner &)
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

std::vector<Trial> Answers(Runner &)
{
    constexpr struct {
        const char *name;
        BlockFault fault;
        int times;
        bool spoilsWire; // the next bytes are not the block's, or the reply is taken for the next block's
        bool harmless;   // to the camera, which has 4 s
    } kAnswers[] = {
        {"refused", {kNack, {}}, 1, false, false},
        {"refused twice", {kNack, {}}, 2, false, false},
        {"refused three times", {kNack, {}}, 3, false, false},
        {"unknown", {0x42, {}}, 1, true, false},
        {"silence", {-1, {0, 0}}, 1, false, false},
        {"one byte", {-1, {1, 0}}, 1, false, false},
        {"30 ms late", {-1, {-1, 30}}, 1, false, true},
        {"5 s late", {-1, {-1, 5000}}, 1, false, false},
    };
    std::vector<Trial> trials;
    for (const DeviceRow &device : kDevices)
        for (unsigned block = 0; block < device.blocks; block++)
            for (const auto &answer : kAnswers) {
                Trial trial = {.name = Format("%s: block %u %s", device.name, block, answer.name), .session = &kFull};
                for (int i = 0; i < answer.times; i++)
                    (trial.*device.faults).blocks[block + static_cast<unsigned>(i)] = answer.fault;
                trial.spoilsWire = answer.spoilsWire;
                trial.harmless = answer.harmless && device.faults == &Trial::camera;
                trials.push_back(trial);
            }
    return trials;
}

// ---- Pairs of answers

struct PairRow {
    const char *name;
    const Session *session;
    Faults Trial::*faults;
    std::vector<unsigned> blocks; // of which two get an answer of the script; 12 is the retry of the last one
    int tooLateMs;
    std::chrono::seconds limit; // a run that goes on for ever keeps a processor busy
};
const PairRow kPairs[] = {
    {"micro", &kMicro, &Trial::micro, {0, 1, 5, 6, 10, 11, 12}, 300, std::chrono::seconds(5)},
    // three blocks, and two of the system image
    {"camera", &kCamera, &Trial::camera, {0, 1, 2, 3, 4}, 4500, std::chrono::seconds(7)},
};

struct AnswerRow {
    const char *name;
    BlockFault fault;
    bool spoilsWire = false; // the host goes on with other bytes, or with another verdict than the block's
    bool tooLate = false;
    bool cut = false; // nothing comes behind it
};
const AnswerRow kPairAnswers[] = {
    {"accepted", {kAck, {}}},
    {"refused", {kNack, {}}},
    {"unknown", {0x42, {}}, true},
    {"silence", {-1, {0, 0}}},
    {"one byte", {-1, {1, 0}}},
    {"30 ms late", {-1, {-1, 30}}},
    {"too late", {}, false, true},
    {"behind a byte", {-1, {}, {0x5A}}, true},
    {"behind an acceptance", {-1, {}, {0x15, kAck}}, true},
    {"power cut", {}, false, false, true},
};

void AddAnswer(Trial &trial, const PairRow &row, unsigned block, const AnswerRow &answer)
{
    Faults &faults = trial.*row.faults;
    faults.blocks[block] = answer.fault;
    if (answer.tooLate)
        faults.blocks[block].reply.lateMs = row.tooLateMs;
    if (answer.cut)
        faults.cutBlock = static_cast<int>(block);
    trial.spoilsWire |= answer.spoilsWire;
}

std::vector<Trial> PairsOf(const PairRow &row, unsigned first, unsigned second)
{
    std::vector<Trial> trials;
    for (const AnswerRow &one : kPairAnswers)
        for (const AnswerRow &other : kPairAnswers) {
            if (one.cut)
                continue;
            trials.push_back(
                {.name = Format("%s: block %u %s, block %u %s", row.name, first, one.name, second, other.name),
                 .session = row.session,
                 .limit = row.limit});
            AddAnswer(trials.back(), row, first, one);
            AddAnswer(trials.back(), row, second, other);
        }
    return trials;
}

std::vector<Trial> Pairs(Runner &)
{
    std::vector<Trial> trials;
    for (const PairRow &row : kPairs)
        for (std::size_t i = 0; i < row.blocks.size(); i++)
            for (std::size_t j = i + 1; j < row.blocks.size(); j++) {
                const std::vector<Trial> pair = PairsOf(row, row.blocks[i], row.blocks[j]);
                trials.insert(trials.end(), pair.begin(), pair.end());
            }
    return trials;
}

// ---- The supervisor

constexpr unsigned kMoments = 40;
constexpr int kRunMs = 800; // approximate time of a run

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
        for (const auto &[name, signal] : {std::pair{"killed", SIGKILL}, {"terminated", SIGTERM}})
            trials.push_back(
                {.name = Format("%s %u", name, i), .session = &kFull, .signals = {{at, signal}}, .spoilsWire = true});
    }
    return trials;
}

// The reader of the progress goes after some numbers, and the output breaks after some bytes.
std::vector<Trial> Losses()
{
    using Reader = ProgressOptions::Reader;
    std::vector<Trial> trials;
    for (const std::size_t numbers : {0U, 1U, 5U, 9U}) {
        trials.push_back({.name = Format("reader killed after %zu numbers", numbers),
                          .session = &kFull,
                          .progress = {Reader::kDies, numbers},
                          .harmless = true});
        trials.push_back({.name = Format("no reader after %zu numbers", numbers),
                          .session = &kFull,
                          .progress = {Reader::kLeaves, numbers},
                          .waits = true});
    }
    for (const std::size_t bytes : {0U, 1U, 1000U, 4000U, 8000U})
        trials.push_back({.name = Format("output broken after %zu bytes", bytes),
                          .session = &kFull,
                          .output = Output::kBroken,
                          .outputRead = bytes,
                          .harmless = true,
                          .mayLoseOutput = true});
    return trials;
}

std::vector<Trial> Supervisor(Runner &)
{
    const auto slow = [](const std::string &) { std::this_thread::sleep_for(milliseconds(100)); };
    std::vector<Trial> trials = {
        {.name = "file", .session = &kFile, .harmless = true},
        {.name = "full disk", .session = &kFullDisk, .harmless = true},
        {.name = "slow reader", .session = &kFull, .progress = {.seen = slow}, .harmless = true},
        {.name = "no output", .session = &kFull, .output = Output::kClosed, .harmless = true, .mayLoseOutput = true},
        {.name = "full output", .session = &kFull, .output = Output::kFull, .harmless = true, .mayLoseOutput = true},
    };
    for (const std::vector<Trial> &more : {Losses(), Moments()})
        trials.insert(trials.end(), more.begin(), more.end());
    return trials;
}

constexpr Sweep kSweeps[] = {
    {"calls", "system calls", Calls},
    {"wire", "the wire", Wire},
    {"power", "power", Power},
    {"answers", "answers", Answers},
    {"pairs", "pairs of answers", Pairs, 7},
    {"supervisor", "the supervisor", Supervisor},
};

} // namespace

std::span<const Sweep> Sweeps()
{
    return kSweeps;
}

} // namespace bench
