// The launcher: the other end of the command relay, a FIFO that carries a command one way and its result the other. It
// takes one command after another and gives each the same answer.
// Locking: commands() may be called at any time; the rest happens in a thread of the launcher's own.
#pragma once

#include "bench/rig/descriptor.h"

#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace bench
{

class Launcher
{
public:
    // Makes the FIFO at path, where nothing may be; without a path in a new directory of its own.
    // The answer is sent as it stands: it brings its line feed, or has none. Throws std::system_error.
    explicit Launcher(std::string answer, std::string path = {});
    // Ends at once, whatever the thread is waiting for, and removes what was made.
    ~Launcher();
    Launcher(const Launcher &) = delete;
    Launcher &operator=(const Launcher &) = delete;

    const std::string &path() const { return path_; }
    // As they were written, line feeds included; each is there before its answer is sent. The answer to a program that
    // was killed before it asked for it is never got rid of: no command follows.
    std::vector<std::string> commands() const;

private:
    void Work();
    short Poll(int fd, int milliseconds);
    std::string Take();
    void Answer();

    const std::string answer_, directory_, path_;
    const Descriptor wake_; // readable when the thread is to end
    bool ending_ = false;   // the thread's own
    mutable std::mutex mutex_;
    std::vector<std::string> commands_; // under mutex_
    std::thread thread_;
};

} // namespace bench
