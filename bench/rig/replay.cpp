#include "bench/rig/replay.h"

#include <algorithm>
#include <condition_variable>
#include <iostream>
#include <mutex>
#include <thread>

namespace bench
{

namespace
{

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto kOverdue = 2s;
constexpr std::size_t kAround = 8; // bytes that are shown on either side of a difference

// The bytes around one of them, which stands in brackets.
std::string BytesAround(const Bytes &bytes, std::size_t at)
{
    std::string text;
    for (std::size_t i = at - std::min(at, kAround); i < std::min(bytes.size(), at + kAround + 1); ++i)
        text += Format(i == at ? " [%02X]" : " %02X", bytes[i]);
    return at < bytes.size() ? text : text + " nothing";
}

// What a program sends behind the last message of a capture.
std::string NameOf(int port, const Bytes &bytes)
{
    const std::vector<Event> events = {{.port = port, .way = Way::kToDevice, .bytes = bytes}};
    return MessagesOf(events).front().name;
}

std::string EndOf(const RunResult &result)
{
    return result.signal != 0 ? Format("signal %d", result.signal) : Format("exit %d", result.status);
}

} // namespace

// What the peers share. Its members are under the mutex, except for the script.
struct Replay::State {
    ReplayScript script;
    std::mutex mutex;
    std::vector<std::size_t> taken; // by message of the script: number of its bytes that came
    Clock::time_point progress;     // when the latest byte came
    // Where the program left the capture; then all devices are silent.
    bool left = false;
    int leftPort = kNoPort;
    std::optional<std::size_t> leftMessage; // nothing: behind the last message of the port
    Bytes now;                              // the message that it sends there, and what follows

    bool Whole(std::size_t message) const { return taken[message] == script.messages[message].bytes.size(); }
    // The first message that has not come whole. Its number is that of all messages if there is none.
    std::size_t Next() const
    {
        std::size_t next = 0;
        while (next < taken.size() && Whole(next))
            ++next;
        return next;
    }
};

// The far end of one line.
class Replay::Port : public Peer
{
public:
    Port(State &state, int port) : state_(state), port_(port) {}
    void PowerOn() override
    {
        begun_ = false;
        next_ = 0;
    }
    std::vector<Reply> Receive(std::span<const std::uint8_t> bytes) override;
    void PowerOff() override {}

private:
    void Take(std::uint8_t byte, std::vector<Reply> &replies);
    void Leave(std::optional<std::size_t> message, std::uint8_t byte);

    State &state_;
    const int port_;
    bool begun_ = false;
    std::size_t next_ = 0; // no message of this port before that one is due
};

std::vector<Reply> Replay::Port::Receive(std::span<const std::uint8_t> bytes)
{
    const std::lock_guard lock(state_.mutex);
    std::vector<Reply> replies;
    if (!std::exchange(begun_, true))
        replies = state_.script.unasked[port_];
    for (const std::uint8_t byte : bytes)
        Take(byte, replies);
    return replies;
}

void Replay::Port::Take(std::uint8_t byte, std::vector<Reply> &replies)
{
    if (state_.left) {
        if (port_ == state_.leftPort)
            state_.now.push_back(byte);
        return;
    }
    const std::vector<ScriptedMessage> &messages = state_.script.messages;
    while (next_ < messages.size() && (messages[next_].port != port_ || state_.Whole(next_)))
        ++next_;
    if (next_ == messages.size())
        return Leave(std::nullopt, byte);
    const ScriptedMessage &message = messages[next_];
    std::size_t &taken = state_.taken[next_];
    if (byte != message.bytes[taken])
        return Leave(next_, byte);
    state_.progress = Clock::now();
    if (++taken == message.bytes.size())
        replies.insert(replies.end(), message.replies.begin(), message.replies.end());
}

void Replay::Port::Leave(std::optional<std::size_t> message, std::uint8_t byte)
{
    state_.left = true;
    state_.leftPort = port_;
    state_.leftMessage = message;
    if (message) {
        const Bytes &bytes = state_.script.messages[*message].bytes;
        state_.now.assign(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(state_.taken[*message]));
    }
    state_.now.push_back(byte);
}

// Says which message is overdue, as long as it lives.
class Replay::Watcher
{
public:
    explicit Watcher(State &state) : state_(state), thread_(&Watcher::Work, this) {}
    ~Watcher()
    {
        {
            const std::lock_guard lock(state_.mutex);
            ending_ = true;
        }
        wake_.notify_one();
        thread_.join();
    }
    Watcher(const Watcher &) = delete;
    Watcher &operator=(const Watcher &) = delete;

private:
    void Work();
    std::string Overdue();

    State &state_;
    bool ending_ = false;               // under the state's mutex
    std::optional<std::size_t> called_; // the message that was called overdue
    std::condition_variable wake_;
    std::thread thread_;
};

void Replay::Watcher::Work()
{
    std::unique_lock lock(state_.mutex);
    while (!wake_.wait_for(lock, 50ms, [this] { return ending_; })) {
        const std::string name = Overdue();
        lock.unlock();
        if (!name.empty())
            std::cerr << "replay: still waits for " + name + "\n";
        lock.lock();
    }
}

// The name of the next message when it becomes overdue.
std::string Replay::Watcher::Overdue()
{
    const std::size_t next = state_.Next();
    if (state_.left || next == state_.taken.size() || called_ == next)
        return "";
    const ScriptedMessage &message = state_.script.messages[next];
    if (Clock::now() < state_.progress + (state_.taken[next] == 0 ? message.gap : message.time) + kOverdue)
        return "";
    called_ = next;
    return message.name;
}

Replay::Replay(const Capture &capture, bool fast) : capture_(capture), state_(std::make_unique<State>())
{
    state_->script = ScriptOf(capture_.events, fast);
    if (state_->script.messages.empty() && state_->script.end.empty())
        throw std::runtime_error("the capture cannot be replayed: it has no message of a program, and no end of one");
    state_->taken.resize(state_->script.messages.size());
    state_->script.ports.insert({kCameraPort, kMicroPort});
    for (const int port : state_->script.ports)
        peers_[port] = std::make_unique<Port>(*state_, port);
    calls_ = FailedCallsOf(capture_.events);
}

Replay::~Replay() = default;

Peer &Replay::peer(int port)
{
    return *peers_.at(port);
}

std::vector<int> Replay::ports() const
{
    return {state_->script.ports.begin(), state_->script.ports.end()};
}

void Replay::Order(RunOptions &options) const
{
    options.limit = std::chrono::duration_cast<std::chrono::milliseconds>(2 * state_->script.duration) + 30s;
    for (const auto &[number, failed] : calls_) {
        bench::Port &port = options.ports[number];
        Line *const line = port.line;
        port = failed.orders;
        port.line = failed.missing ? nullptr : line;
    }
}

RunResult Replay::Play(const RunOptions &options)
{
    state_->progress = Clock::now();
    const Watcher watcher(*state_);
    return Run(options);
}

// Where the program sent something else than in the capture.
std::vector<std::string> Replay::Departure() const
{
    if (!state_->leftMessage)
        return {"the program sends more to " + PortName(state_->leftPort) +
                    " than in the capture: " + NameOf(state_->leftPort, state_->now),
                "  now: " + BytesAround(state_->now, 0)};
    const std::size_t message = *state_->leftMessage, at = state_->taken[message];
    const ScriptedMessage &then = state_->script.messages[message];
    return {"the program leaves the capture at " + then.name + Format(", byte offset %zu", at),
            "  then:" + BytesAround(then.bytes, at), "  now: " + BytesAround(state_->now, at)};
}

std::vector<std::string> Replay::Differences(const RunResult &result) const
{
    const bool cutOff = state_->script.end.empty();
    if (state_->left && (state_->leftMessage || !cutOff))
        return Departure();
    std::vector<std::string> differences;
    const std::size_t next = state_->Next(), taken = next < state_->taken.size() ? state_->taken[next] : 0;
    if (next < state_->taken.size()) {
        const ScriptedMessage &message = state_->script.messages[next];
        differences.push_back(message.name +
                              (taken == 0 ? std::string(" does not come")
                                          : Format(": only %zu of its %zu bytes come", taken, message.bytes.size())));
    }
    if (result.killed)
        differences.emplace_back("the program had to be stopped");
    if (!cutOff && EndOf(result) != state_->script.end)
        differences.push_back("the program ends with " + EndOf(result) + "; in the capture it ended with " +
                              state_->script.end);
    return differences;
}

std::vector<std::string> Replay::DifferencesOfOrder(const std::vector<Event> &events) const
{
    std::vector<std::string> then = ActsOf(capture_.events), now = ActsOf(events);
    const std::size_t size = std::max(then.size(), now.size());
    then.resize(size, "nothing");
    now.resize(size, "nothing");
    for (std::size_t i = 0; i < size; ++i)
        if (!SameAct(then[i], now[i]))
            return {Format("step %zu of the program is another", i + 1), "  then: " + then[i], "  now:  " + now[i]};
    return {};
}

std::string Replay::Summary() const
{
    std::map<int, unsigned> counts;
    for (const ScriptedMessage &message : state_->script.messages)
        ++counts[message.port];
    std::string text = "the program agrees with the capture";
    const char *separator = ": ";
    for (const auto &[port, count] : counts)
        text += std::exchange(separator, ", ") + Format("%u messages to %s", count, PortName(port).c_str());
    return text + (state_->script.end.empty() ? "; the capture does not tell how the program ended" : "");
}

} // namespace bench
