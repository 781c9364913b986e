#include "bench/rig/line.h"

#include "bench/rig/terminal.h"

#include <algorithm>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <termios.h>

namespace bench
{

namespace
{

constexpr std::size_t kChunk = 4096;
// The time on the line of one portion of bytes, if the line is paced.
constexpr std::chrono::milliseconds kPortion{5};

std::chrono::nanoseconds LineTime(std::uint64_t bytes, unsigned baud)
{
    if (baud == 0)
        return {};
    return std::chrono::nanoseconds(
        static_cast<std::int64_t>(static_cast<double>(bytes) * Line::kBitsPerByte * 1e9 / baud));
}

std::size_t PortionSize(unsigned baud)
{
    const std::chrono::nanoseconds byteTime = LineTime(1, baud);
    if (byteTime.count() == 0)
        return kChunk;
    return std::clamp<std::size_t>(static_cast<std::size_t>(kPortion / byteTime), 1, kChunk);
}

} // namespace

Line::Line(Peer &device, unsigned baud)
    : device_(device), baud_(baud), master_(Checked(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK), "pty")),
      host_(master_.get()), wake_(Checked(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "eventfd"))
{
    char path[64];
    Checked(grantpt(master_.get()), "grantpt");
    Checked(unlockpt(master_.get()), "unlockpt");
    Checked(-ptsname_r(master_.get(), path, sizeof path), "ptsname");
    path_ = path;
    slave_ = Descriptor(Checked(open(path, O_RDWR | O_NOCTTY | O_CLOEXEC), path));
    termios settings = {};
    Checked(tcgetattr(slave_.get(), &settings), path);
    cfmakeraw(&settings);
    Checked(tcsetattr(slave_.get(), TCSANOW, &settings), path);
}

Line::Line(Peer &device, const Terminal &host)
    : device_(device), baud_(0), host_(host.fd()), wake_(Checked(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "eventfd")),
      path_(host.path())
{
}

void Line::Start()
{
    if (slave_.get() >= 0)
        Checked(tcflush(slave_.get(), TCIOFLUSH), "flush");
    Checked(tcflush(host_, TCIOFLUSH), "flush");
    eventfd_t wakes = 0;
    eventfd_read(wake_.get(), &wakes);
    due_.clear();
    carried_ = {};
    clear_ = Clock::now();
    device_.PowerOn();
    thread_ = std::thread(&Line::Work, this);
}

void Line::Stop()
{
    if (!thread_.joinable())
        return;
    eventfd_write(wake_.get(), 1);
    thread_.join();
    device_.PowerOff();
}

void Line::Work()
{
    pollfd polls[] = {{host_, POLLIN, 0}, {wake_.get(), POLLIN, 0}, {device_.descriptor(), POLLIN, 0}};
    Queue(device_.Receive({})); // what it sends unasked
    while (polls[1].revents == 0 && !gone_) {
        SendDue();
        const bool busy = CarrySome(baud_);
        FetchSome();
        polls[0].events = device_.full() ? 0 : POLLIN;
        polls[2].events = device_.full() ? POLLIN | POLLOUT : POLLIN;
        poll(polls, 3, busy || gone_ ? 0 : MillisecondsToDue());
        if (!busy)
            clear_ = std::max(clear_, Clock::now());
    }
    while (CarrySome(0)) // nobody waits for the rest any more
        ;
    if (gone_)
        master_.Close();
}

// Hands bytes on to the sink. If the fault is at one of them, it is played.
void Line::Pass(LineFault::Way way, std::span<const std::uint8_t> bytes, const Sink &sink)
{
    const std::uint64_t first = carried_[way];
    carried_[way] += bytes.size();
    if (fault.way != way || fault.byte < first || fault.byte >= carried_[way])
        return sink(bytes);
    const auto at = static_cast<std::ptrdiff_t>(fault.byte - first);
    Bytes passed(bytes.begin(), bytes.end());
    switch (fault.kind) {
    case LineFault::Kind::kNone:
        break;
    case LineFault::Kind::kDrop:
        passed.erase(passed.begin() + at);
        break;
    case LineFault::Kind::kFlip:
        passed.begin()[at] ^= fault.value;
        break;
    case LineFault::Kind::kDouble:
        passed.insert(passed.begin() + at, passed.begin()[at]);
        break;
    case LineFault::Kind::kNoise:
        passed.insert(passed.begin() + at, fault.value);
        break;
    case LineFault::Kind::kDelay:
        sink({passed.begin(), passed.begin() + at});
        std::this_thread::sleep_for(std::chrono::milliseconds(fault.delayMs));
        passed.erase(passed.begin(), passed.begin() + at);
        break;
    }
    sink(passed);
}

// Takes a portion of bytes off the line and gives it to the device when its time on the line is over. Returns false if
// there was no byte, or if the device takes none.
bool Line::CarrySome(unsigned baud)
{
    std::uint8_t portion[kChunk];
    if (gone_ || device_.full())
        return false;
    const ssize_t count = read(host_, portion, PortionSize(baud));
    gone_ = HungUp(count);
    if (count <= 0)
        return false;
    const Clock::time_point begin = baud == 0 ? std::max(clear_, Clock::now()) : clear_;
    clear_ = begin + LineTime(static_cast<std::uint64_t>(count), baud == 0 ? device_.speed() : baud);
    if (baud != 0)
        std::this_thread::sleep_until(clear_);
    if (tap)
        tap(LineFault::kToDevice, {portion, static_cast<std::size_t>(count)}, begin, std::max(clear_, Clock::now()));
    std::vector<Reply> replies;
    Pass(LineFault::kToDevice, {portion, static_cast<std::size_t>(count)}, [&](auto bytes) {
        for (Reply &reply : device_.Receive(bytes))
            replies.push_back(std::move(reply));
    });
    if (!replies.empty()) {
        clear_ = Clock::now(); // the host waited for this, and the line was idle meanwhile
        Queue(replies);
    }
    return true;
}

// Takes what a real device has sent.
void Line::FetchSome()
{
    std::optional<Bytes> bytes = device_.Fetch();
    if (!bytes)
        gone_ = true;
    else if (!bytes->empty())
        Queue({{std::move(*bytes)}});
}

void Line::Queue(const std::vector<Reply> &replies)
{
    for (const Reply &reply : replies) {
        const Clock::time_point when = Clock::now() + reply.delay;
        due_.push_back({due_.empty() ? when : std::max(when, due_.back().when), reply.bytes});
    }
    SendDue();
}

void Line::SendDue()
{
    for (; !due_.empty() && due_.front().when <= Clock::now(); due_.pop_front()) {
        Pass(LineFault::kToHost, due_.front().bytes, [this](auto bytes) {
            if (tap)
                tap(LineFault::kToHost, bytes, Clock::now(), Clock::now());
            // A few bytes fit into an empty buffer. If it is not empty, nobody reads, and nobody misses these bytes.
            [[maybe_unused]] const ssize_t sent = write(host_, bytes.data(), bytes.size());
            clear_ = Clock::now(); // what the host sends next came behind this
        });
    }
}

// The time-out for poll. -1: no reply is due.
int Line::MillisecondsToDue() const
{
    if (due_.empty())
        return -1;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(due_.front().when - Clock::now());
    return static_cast<int>(std::max<std::chrono::milliseconds::rep>(left.count(), 0));
}

} // namespace bench
