// A board for tests in real time: a device file leads to a pseudo-terminal, whose far end is the test's, and the
// command relay to pipes. A program that links this has it from its start on, and all its threads meet it.
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
    std::atomic<bool> cancel{false};     // the next open of one finds its thread cancelled when it returns
    std::map<std::string, int> failures; // per call: n fails the next n, -n the n-th from now
    std::vector<std::string> opened;     // device files, failed opens included
    int master = -1;                     // the far end of the port opened last
    int commands[2] = {-1, -1};          // pipe with what the relay was told
    std::string answer = "0\n";          // what the relay replies

    // Sends to the port opened last.
    void Send(const std::string &text) const;
    // Waits for so many bytes. Returns what came before the end of the file or a zero byte.
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
