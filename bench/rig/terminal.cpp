#include "bench/rig/terminal.h"

#include "bench/standin/driver.h"

#include <atomic>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <thread>

namespace bench
{

namespace
{

// ---- The terminals of this process, for the signals that end it

struct Claim {
    std::atomic<int> fd{-1};
    termios before = {};
};
constinit Claim gClaims[8]; // one for each port

// Only calls that a signal handler may make. The program of a run has the descriptor too, and may live longer.
void GiveBack(Claim &claim)
{
    const int fd = claim.fd.exchange(-1);
    if (fd < 0)
        return;
    tcsetattr(fd, TCSANOW, &claim.before);
    ioctl(fd, TIOCNXCL);
    flock(fd, LOCK_UN);
}

// The signal's own action comes when this returns.
void GiveAllBack(int number)
{
    for (Claim &claim : gClaims)
        GiveBack(claim);
    raise(number);
}

// A signal that is ignored or handled stays so.
void CatchSignals()
{
    for (const int number : {SIGHUP, SIGINT, SIGTERM}) {
        struct sigaction action = {};
        sigaction(number, nullptr, &action);
        if (action.sa_handler != SIG_DFL)
            continue;
        action.sa_handler = GiveAllBack;
        action.sa_flags = static_cast<int>(SA_RESETHAND);
        sigaction(number, &action, nullptr);
    }
}

Claim &FreeClaim()
{
    for (Claim &claim : gClaims)
        if (claim.fd < 0)
            return claim;
    throw std::length_error("too many terminals");
}

// ---- A terminal

std::string Reason(int error)
{
    switch (error) {
    case ENOENT:
    case ENODEV:
    case ENXIO:
        return "there is no such device";
    case ENOTTY:
        return "this is not a terminal";
    case EBUSY:
        return "another program uses it";
    case EINVAL:
        return "it cannot have these settings";
    default:
        return std::strerror(error);
    }
}

// A pseudo-terminal is not made exclusive: it would still be so if this process was killed.
void TakeAlone(int fd, const std::string &path)
{
    int exclusive = 0; // the superuser can open an exclusive terminal
    if (flock(fd, LOCK_EX | LOCK_NB) != 0 || (ioctl(fd, TIOCGEXCL, &exclusive) == 0 && exclusive != 0))
        throw TerminalError(path, EBUSY);
    if (!IsPseudoTerminal(fd))
        ioctl(fd, TIOCEXCL);
}

termios Raw(termios settings)
{
    cfmakeraw(&settings);
    settings.c_iflag = 0; // bytes with a wrong parity are passed on
    settings.c_cflag &= ~static_cast<tcflag_t>(CSIZE | CSTOPB | CRTSCTS | CREAD);
    settings.c_cflag |= CS8 | CLOCAL;
    settings.c_cc[VMIN] = 1;
    settings.c_cc[VTIME] = 0;
    return settings;
}

// Lets a real line carry what was written. A line that flow control stops gets a second.
void Drain(int fd)
{
    int left = 0;
    for (int tries = 100; tries > 0 && ioctl(fd, TIOCOUTQ, &left) == 0 && left > 0; --tries)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    if (left > 0)
        tcflush(fd, TCOFLUSH); // the close would wait for it
}

} // namespace

TerminalError::TerminalError(const std::string &path, int error)
    : std::runtime_error(path + ": " + Reason(error)), number(error)
{
}

Terminal::Terminal(std::string path)
    : path_(std::move(path)), fd_(open(path_.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC))
{
    termios before = {};
    if (fd_.get() < 0)
        throw TerminalError(path_, errno);
    if (tcgetattr(fd_.get(), &before) != 0)
        throw TerminalError(path_,
                            errno == EIO ? ENODEV : errno); // a device file without a device opens, and fails here
    TakeAlone(fd_.get(), path_);
    CatchSignals();
    Claim &claim = FreeClaim();
    claim.before = before;
    claim.fd = fd_.get();
    const int error = SetTerminal(fd_.get(), before, Raw(before));
    tcflush(fd_.get(), TCIFLUSH);
    if (error == 0)
        return;
    GiveBack(claim);
    throw TerminalError(path_, error);
}

Terminal::~Terminal()
{
    Drain(fd_.get());
    for (Claim &claim : gClaims)
        if (claim.fd == fd_.get())
            GiveBack(claim);
}

unsigned Terminal::speed() const
{
    termios settings = {};
    if (tcgetattr(fd_.get(), &settings) == 0)
        for (const SpeedRow &row : kSpeeds)
            if (row.code == cfgetospeed(&settings))
                return row.baud;
    return 0;
}

// ---- The device behind it

std::vector<Reply> TerminalPeer::Receive(std::span<const std::uint8_t> bytes)
{
    outbox_.insert(outbox_.end(), bytes.begin(), bytes.end());
    Send();
    return {};
}

void TerminalPeer::Send()
{
    const ssize_t sent = outbox_.empty() ? 0 : write(terminal_.fd(), outbox_.data(), outbox_.size());
    if (sent > 0)
        outbox_.erase(outbox_.begin(), outbox_.begin() + sent);
}

std::optional<Bytes> TerminalPeer::Fetch()
{
    Send();
    Bytes bytes(4096);
    const ssize_t count = read(terminal_.fd(), bytes.data(), bytes.size());
    if (HungUp(count))
        return std::nullopt;
    bytes.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
    return bytes;
}

} // namespace bench
