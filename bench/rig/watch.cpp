#include "bench/rig/watch.h"

#include "bench/rig/descriptor.h"
#include "bench/rig/progressbar.h"
#include "bench/text.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <optional>
#include <poll.h>
#include <stdexcept>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/wait.h>

namespace bench
{

namespace
{

constexpr int kNotStarted = 127, kSignalled = 128; // as the shell has them

// The ways to part a text into growing numbers.
class Parts
{
public:
    Parts(const std::string &text, int high) : text_(text), high_(static_cast<unsigned>(high)), fits_(text.size())
    {
        for (std::size_t begin = text.size(); begin-- > 0;)
            for (std::size_t length = 1; length <= kDigits; ++length)
                fits_[begin][length] = Number(begin, length) != 0 && Continues(begin, length);
    }

    std::vector<int> After(unsigned last) const
    {
        std::vector<int> numbers;
        for (std::size_t begin = 0; begin < text_.size();) {
            const std::size_t length = Longest(begin, last);
            if (length == 0)
                return {};
            last = Number(begin, length);
            numbers.push_back(static_cast<int>(last));
            begin += length;
        }
        return numbers;
    }

private:
    static constexpr std::size_t kDigits = 10; // of the highest bound

    // 0: no number of an update. It writes no zero in front, and nothing below 1.
    unsigned Number(std::size_t begin, std::size_t length) const
    {
        if (begin + length > text_.size() || text_[begin] < '1' || text_[begin] > '9')
            return 0;
        return ParseNumber(text_.substr(begin, length), 10, high_).value_or(0);
    }
    bool Continues(std::size_t begin, std::size_t length) const
    {
        return begin + length == text_.size() || Longest(begin + length, Number(begin, length)) != 0;
    }
    // The longest number above last from which the text can be parted to its end. 0: there is none.
    std::size_t Longest(std::size_t begin, unsigned last) const
    {
        std::size_t length = kDigits;
        while (length > 0 && !(fits_[begin][length] && Number(begin, length) > last))
            --length;
        return length;
    }

    const std::string &text_;
    const unsigned high_;
    std::vector<std::array<bool, kDigits + 1>> fits_; // by begin and length
};

// The FIFO, open for both ways.
class Fifo
{
public:
    explicit Fifo(const std::string &path) : path_(path)
    {
        made_ = mkfifo(path.c_str(), 0600) == 0;
        if (!made_ && errno != EEXIST)
            Checked(-1, path.c_str());
        if (!std::filesystem::is_fifo(path))
            throw std::runtime_error(path + " is no FIFO");
        fd_ = Descriptor(Checked(open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC), path.c_str()));
    }
    ~Fifo()
    {
        if (made_)
            std::remove(path_.c_str()); // and an open that comes later makes a file, and does not wait
    }
    Fifo(const Fifo &) = delete;
    Fifo &operator=(const Fifo &) = delete;

    int fd() const { return fd_.get(); }
    std::string ReadAll() const
    {
        std::string text;
        char part[4096];
        for (ssize_t size = 0; (size = read(fd_.get(), part, sizeof part)) > 0;)
            text.append(part, static_cast<std::size_t>(size));
        return text;
    }

private:
    const std::string path_;
    bool made_ = false;
    Descriptor fd_;
};

// The signals that are for this process, as a descriptor. A signal that it ignores from its start is not taken.
class Signals
{
public:
    Signals()
    {
        std::signal(SIGPIPE, SIG_IGN); // without a display the watch goes on, because the update needs its reader
        std::signal(SIGCHLD, SIG_DFL);
        sigset_t taken;
        sigemptyset(&taken);
        sigaddset(&taken, SIGCHLD);
        for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
            struct sigaction action = {};
            sigaction(number, nullptr, &action);
            if (action.sa_handler != SIG_IGN)
                sigaddset(&taken, number);
        }
        sigprocmask(SIG_BLOCK, &taken, &before_);
        fd_ = Descriptor(Checked(signalfd(-1, &taken, SFD_NONBLOCK | SFD_CLOEXEC), "signalfd"));
    }
    int fd() const { return fd_.get(); }
    int Take() const // 0: there is none
    {
        signalfd_siginfo info = {};
        return read(fd_.get(), &info, sizeof info) > 0 ? static_cast<int>(info.ssi_signo) : 0;
    }
    // For a child, before it starts its program.
    void Restore() const
    {
        std::signal(SIGPIPE, SIG_DFL);
        sigprocmask(SIG_SETMASK, &before_, nullptr);
    }

private:
    sigset_t before_ = {};
    Descriptor fd_;
};

pid_t Start(std::vector<std::string> command, const Signals &signals, const Fifo &fifo)
{
    std::vector<char *> words;
    words.reserve(command.size() + 1);
    for (std::string &word : command)
        words.push_back(word.data());
    words.push_back(nullptr);
    const pid_t child = Checked(fork(), "fork");
    if (child != 0)
        return child;
    signals.Restore();
    fcntl(fifo.fd(), F_SETFD, 0);
    execvp(words[0], words.data());
    std::perror(words[0]);
    _exit(kNotStarted);
}

// What the signal means for the watch. Returns the exit status if it is the end.
std::optional<int> Obey(int signal, pid_t child)
{
    if (signal == 0)
        return std::nullopt;
    if (signal != SIGCHLD && child == 0)
        return kSignalled + signal;
    if (signal != SIGCHLD) {
        kill(child, signal);
        return std::nullopt;
    }
    int status = 0;
    if (child == 0 || waitpid(child, &status, WNOHANG) != child)
        return std::nullopt;
    return WIFEXITED(status) ? WEXITSTATUS(status) : kSignalled + WTERMSIG(status);
}

void ShowAll(const std::string &text, int high, ProgressDisplay &display)
{
    const std::vector<int> numbers = PartNumbers(text, display.position(), high);
    if (numbers.empty() && !text.empty())
        std::fprintf(stderr, "haldencap: \"%s\" is no position up to %d\n", text.c_str(), high);
    for (const int number : numbers)
        display.Show(number);
}

} // namespace

std::vector<int> PartNumbers(const std::string &text, int last, int high)
{
    const Parts parts(text, high);
    std::vector<int> numbers = parts.After(static_cast<unsigned>(last));
    return numbers.empty() ? parts.After(0) : numbers;
}

int Watch(const WatchOptions &options)
{
    const Signals signals;
    const Fifo fifo(options.fifo);
    ProgressDisplay display(options.command.empty() ? STDOUT_FILENO : STDERR_FILENO, options.low, options.high);
    const pid_t child = options.command.empty() ? 0 : Start(options.command, signals, fifo);
    for (;;) {
        pollfd ends[] = {{fifo.fd(), POLLIN, 0}, {signals.fd(), POLLIN, 0}};
        if (poll(ends, std::size(ends), -1) < 0 && errno != EINTR)
            Checked(-1, "poll");
        const std::optional<int> status = Obey(signals.Take(), child);
        ShowAll(fifo.ReadAll(), options.high, display); // after the signal: before an end all is read
        if (status)
            return *status;
        if (child == 0 && display.position() == options.high)
            return 0;
    }
}

} // namespace bench
