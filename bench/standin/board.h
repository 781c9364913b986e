// The board as a program meets it inside its own process. calls.cpp stands in front of the C library's calls and leads
// them to the current board. A call that is not the board's goes on to the system.
// This class plays the ports' driver and their terminal settings. The two kinds of board, PtyBoard and ScriptBoard,
// decide what is at the far end of a port and what fails.
// Owner:   the caller owns the board. There is one board at a time, from its construction to its end.
// Locking: a board has no lock. Its records are read while no other thread makes calls.
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

    // The board that the calling thread meets. Null: the thread meets the system.
    static Board *Here();

    std::vector<fpgaserial_config_t> config; // settings that the FPGA driver got
    std::vector<unsigned long> reception;    // arguments of the driver's other request
    std::vector<bool> requests;              // requests of both kinds; true: taken, false: refused
    termios line{};                          // settings of every port

    // The calls of the C library. A call that returns nothing is not the board's. It goes to the system.
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
    // Only on a board that has files are streams opened. A stream is then the number of its file.
    virtual bool HasFiles() const { return false; }
    virtual int Status(int /*fd*/, struct stat64 * /*status*/) { return -1; }
    virtual off64_t Position(int /*fd*/) { return -1; }
    std::optional<int> Request(unsigned long request, void *argument);
    int GetLine(termios *settings);
    int SetLine(int actions, const termios *settings);
    int SetSpeed(termios *settings, speed_t speed);

protected:
    // Whether the current call fails. call is its name.
    virtual bool Fails(const char *call) = 0;

private:
    const bool all_;
    const pthread_t owner_;
};

} // namespace bench
