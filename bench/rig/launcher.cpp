#include "bench/rig/launcher.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

namespace bench
{

namespace
{

std::string MakeDirectory()
{
    std::string path = std::filesystem::temp_directory_path() / "haldenbenchXXXXXX";
    Checked(mkdtemp(path.data()) == nullptr ? -1 : 0, path.c_str());
    return path;
}

bool HoldsBytes(int fifo)
{
    int bytes = 0;
    return ioctl(fifo, FIONREAD, &bytes) == 0 && bytes > 0;
}

} // namespace

Launcher::Launcher(std::string answer, std::string path)
    : answer_(std::move(answer)), directory_(path.empty() ? MakeDirectory() : ""),
      path_(path.empty() ? directory_ + "/plaunch" : std::move(path)),
      wake_(Checked(eventfd(0, EFD_CLOEXEC), "eventfd"))
{
    Checked(mkfifo(path_.c_str(), 0600), path_.c_str());
    thread_ = std::thread(&Launcher::Work, this);
}

Launcher::~Launcher()
{
    eventfd_write(wake_.get(), 1);
    thread_.join();
    std::remove(path_.c_str());
    std::remove(directory_.c_str());
}

std::vector<std::string> Launcher::commands() const
{
    const std::lock_guard lock(mutex_);
    return commands_;
}

void Launcher::Work()
{
    sigset_t pipe; // for a program that dies before it reads its answer
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
    while (!ending_) {
        const std::string command = Take();
        if (command.empty())
            continue;
        {
            const std::lock_guard lock(mutex_);
            commands_.push_back(command);
        }
        Answer();
    }
}

// Waits for an event of a descriptor, and returns the event. A descriptor of -1 has no events.
short Launcher::Poll(int fd, int milliseconds)
{
    pollfd polls[] = {{fd, POLLIN, 0}, {wake_.get(), POLLIN, 0}};
    poll(polls, 2, milliseconds);
    ending_ = polls[1].revents != 0;
    return polls[0].revents;
}

// Reads until the program has closed its end. Before that the answer would have no reader. Poll waits for a writer:
// read would take a missing writer for the end.
std::string Launcher::Take()
{
    const Descriptor fifo(open(path_.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    std::string command;
    char part[256];
    for (ssize_t size = 1; size != 0 && !ending_;) {
        size = Poll(fifo.get(), -1) != 0 ? read(fifo.get(), part, sizeof part) : -1;
        if (size > 0)
            command.append(part, static_cast<std::size_t>(size));
    }
    return command;
}

// The open fails as long as nobody reads. Then it waits until the answer has been read: Take would read it as the next
// command. The program's next command waits for Take, because nobody else reads the FIFO.
void Launcher::Answer()
{
    while (!ending_) {
        const Descriptor fifo(open(path_.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
        if (fifo.get() < 0) {
            Poll(-1, 1);
            continue;
        }
        [[maybe_unused]] const ssize_t written = write(fifo.get(), answer_.data(), answer_.size());
        while (!ending_ && HoldsBytes(fifo.get()) && Poll(fifo.get(), 1) == 0)
            ;
        return;
    }
}

} // namespace bench
