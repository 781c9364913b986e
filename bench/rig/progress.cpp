#include "bench/rig/progress.h"

#include <chrono>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>

namespace bench
{

// Each open brings exactly one number, because each number gets a FIFO of its own.
// - The FIFO has a reader from the start, so the writer's open does not wait.
// - The FIFO is full, so the writer's write waits.
// - The thread waits in an open for reading, which returns when the writer has opened the FIFO.
// - Then the next FIFO takes the place of this one. Only then is this one emptied.

ProgressReader::ProgressReader(std::string path, ProgressOptions options)
    : path_(std::move(path)), nextPath_(path_ + ".next"), options_(std::move(options))
{
    Checked(mkfifo(path_.c_str(), 0600), path_.c_str()); // fails if the path exists; the renames below would not
    if (!Leaving(0))
        work_ = std::async(std::launch::async, [this, gate = Arm()]() mutable { Work(std::move(gate)); });
}

ProgressReader::~ProgressReader()
{
    Stop();
    std::remove(path_.c_str());
}

const std::vector<std::string> &ProgressReader::Finish()
{
    Stop();
    if (work_.valid())
        work_.get();
    return numbers_;
}

void ProgressReader::Stop()
{
    finishing_ = true;
    // The thread may not have reached its open yet. So one attempt to wake it is not enough.
    while (work_.valid() && work_.wait_for(std::chrono::milliseconds(1)) != std::future_status::ready)
        const Descriptor knock(open(path_.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
}

bool ProgressReader::Leaving(std::size_t numbers) const
{
    return options_.reader == ProgressOptions::Reader::kLeaves && numbers == options_.count;
}

// A full FIFO with a reader, in the place of the one before.
ProgressReader::Gate ProgressReader::Arm() const
{
    Gate gate;
    Checked(mkfifo(nextPath_.c_str(), 0600), nextPath_.c_str());
    const Descriptor both(Checked(open(nextPath_.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC), nextPath_.c_str()));
    fcntl(both.get(), F_SETPIPE_SZ, 1); // the smallest there is
    const char filling[4096] = {};
    for (ssize_t size = 0; size >= 0; size = write(both.get(), filling, sizeof filling))
        gate.filling += static_cast<std::size_t>(size);
    gate.reader = Descriptor(Checked(open(nextPath_.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC), nextPath_.c_str()));
    Checked(std::rename(nextPath_.c_str(), path_.c_str()), path_.c_str());
    return gate;
}

// A FIFO that nobody reads, in the place of the one before.
void ProgressReader::Desert() const
{
    Checked(mkfifo(nextPath_.c_str(), 0600), nextPath_.c_str());
    Checked(std::rename(nextPath_.c_str(), path_.c_str()), path_.c_str());
}

void ProgressReader::Work(Gate gate)
{
    bool dies = options_.reader == ProgressOptions::Reader::kDies;
    for (;;) {
        const Descriptor fifo(open(path_.c_str(), O_RDONLY | O_CLOEXEC)); // waits for a writer
        if (finishing_)
            return;
        if (Leaving(numbers_.size() + 1)) {
            Desert();
            return Take(fifo.get(), gate.filling);
        }
        Gate next = Arm();
        if (dies && numbers_.size() == options_.count)
            dies = false; // and this FIFO loses its readers with the number unread
        else
            Take(fifo.get(), gate.filling);
        std::swap(gate, next);
    }
}

// Reads the number behind the filling, up to the writer's close.
void ProgressReader::Take(int fifo, std::size_t filling)
{
    std::string text;
    char part[4096];
    for (ssize_t size = read(fifo, part, sizeof part); size > 0; size = read(fifo, part, sizeof part))
        text.append(part, static_cast<std::size_t>(size));
    if (text.size() <= filling)
        return; // the writer was killed
    numbers_.push_back(text.substr(filling));
    if (options_.seen)
        options_.seen(numbers_.back());
}

} // namespace bench
