// A board for tests in real time. A device file leads to a pseudo-terminal, whose far end belongs to the test. The
// command relay leads to pipes. A program that links this board has it from its start on. All its threads meet it.
#pragma once

#include "bench/standin/board.h"

#include <map>

namespace bench
{

class PtyBoard : public Board
{
public:
    PtyBoard() : Board(Threads::kAll) {}

    std::atomic<bool> hold{false};       // while it is set, no open of a device file returns
    std::atomic<bool> cancel{false};     // the next open of a device file returns to a thread that is cancelled
    std::map<std::string, int> failures; // by call: n lets the next n calls fail, -n lets only the n-th one fail
    std::vector<std::string> opened;     // device files, failed opens included
    int master = -1;                     // the far end of the port opened last
    int commands[2] = {-1, -1};          // pipe with the commands to the relay
    std::string answer = "0\n";          // reply of the relay

    // Sends to the port opened last.
    void Send(const std::string &text) const;
    // Waits for size bytes. Returns the bytes before the end of the file or before a zero byte.
    std::string Receive(std::size_t size, int fd) const;

private:
    std::optional<int> Open(const char *path, int flags) override;
    bool Fails(const char *call) override;
    int OpenRelay(int flags);
    int OpenPort(const char *path);
    int OpenPty();
};

} // namespace bench

extern bench::PtyBoard &fake; // the program's
