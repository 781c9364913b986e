// The launcher: the other end of the command relay. The relay is a FIFO that carries a command one way and its result
// the other. The launcher takes one command after another and gives each the same answer.
// Locking: commands() may be called at any time. The rest runs in a thread of the launcher.
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
    // Makes the FIFO at path, where nothing may be. Without a path the FIFO is in a new directory. The answer is sent
    // unchanged, so its line feed must be in it. Throws std::system_error.
    explicit Launcher(std::string answer, std::string path = {});
    // Ends the thread at once, even if it waits. Removes the FIFO and the new directory.
    ~Launcher();
    Launcher(const Launcher &) = delete;
    Launcher &operator=(const Launcher &) = delete;

    const std::string &path() const { return path_; }
    // The commands as they were written, line feeds included. A command is listed before its answer is sent. If a
    // program is killed before it reads its answer, the launcher keeps that answer for ever, and takes no more
    // commands.
    std::vector<std::string> commands() const;

private:
    void Work();
    short Poll(int fd, int milliseconds);
    std::string Take();
    void Answer();

    const std::string answer_, directory_, path_;
    const Descriptor wake_; // readable when the thread is to end
    bool ending_ = false;   // only the thread uses it
    mutable std::mutex mutex_;
    std::vector<std::string> commands_; // under mutex_
    std::thread thread_;
};

} // namespace bench
