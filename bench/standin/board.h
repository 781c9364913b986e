// The board as a program meets it inside its own process. calls.cpp stands in front of the C library's calls and leads
// them to the board that is there; a call that the board has nothing to do with goes on to the system.
// This part plays the ports' driver and their terminal settings. What is at the far end of a port, and what fails, is
// up to the board: PtyBoard and ScriptBoard.
// Owner:   the caller. There is one board at a time, from its construction to its end.
// Locking: none. What a board records is read when no other thread makes calls.
#pragma once

#include "devlib/devmgr_serial.h"

#include <atomic>
#include <ctime>
#include <optional>
#include <pthread.h>
#include <string>
#include <sys/select.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <termios.h>
#include <vector>

namespace bench
{

class Board
{
public:
    // Who meets the board. Every other thread meets the system.
    enum class Threads { kAll, kThisOne };

    explicit Board(Threads threads);
    virtual ~Board();
    Board(const Board &) = delete;
    Board &operator=(const Board &) = delete;

    // The board that the calling thread meets. Null: none.
    static Board *Here();

    std::vector<fpgaserial_config_t> config; // sent to the FPGA driver
    std::vector<unsigned long> reception;    // arguments of its other request
    std::vector<bool> requests;              // of both kinds: taken or refused
    termios line{};                          // settings of every port

    // The calls, as the C library has them. Nothing: the call is not the board's, and goes to the system.
    virtual std::optional<int> Open(const char *path, int flags) = 0;
    virtual std::optional<int> Close(int /*fd*/) { return std::nullopt; }
    virtual std::optional<ssize_t> Read(int /*fd*/, void * /*buffer*/, std::size_t /*size*/) { return std::nullopt; }
    virtual std::optional<ssize_t> Write(int /*fd*/, const void * /*data*/, std::size_t /*size*/)
    {
        return std::nullopt;
    }
    virtual std::optional<int> Select(int /*count*/, fd_set * /*reads*/, fd_set * /*writes*/, timeval * /*limit*/)
    {
        return std::nullopt;
    }
    virtual bool SkipsPauses() const { return false; }
    // Streams are opened on the board only if it has files. A stream is then the number of its file.
    virtual bool HasFiles() const { return false; }
    virtual int Status(int /*fd*/, struct stat64 * /*status*/) { return -1; }
    virtual off64_t Position(int /*fd*/) { return -1; }
    std::optional<int> Request(unsigned long request, void *argument);
    int GetLine(termios *settings);
    int SetLine(int actions, const termios *settings);
    int SetSpeed(termios *settings, speed_t speed);

protected:
    // Whether the call of that name that is being made fails.
    virtual bool Fails(const char *call) = 0;

private:
    const bool all_;
    const pthread_t owner_;
};

} // namespace bench
