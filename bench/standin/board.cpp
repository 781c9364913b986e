#include "bench/standin/board.h"

namespace bench
{

namespace
{

constinit std::atomic<Board *> gBoard{nullptr};

} // namespace

Board::Board(Threads threads) : all_(threads == Threads::kAll), owner_(pthread_self())
{
    gBoard = this;
}

Board::~Board()
{
    gBoard = nullptr;
}

Board *Board::Here()
{
    Board *board = gBoard;
    return board != nullptr && (board->all_ || pthread_equal(board->owner_, pthread_self()) != 0) ? board : nullptr;
}

std::optional<int> Board::Request(unsigned long request, void *argument)
{
    if (request != kFpgaSerialSetConfig && request != kFpgaSerialDisableRx)
        return std::nullopt;
    if (request == kFpgaSerialSetConfig)
        config.push_back(*static_cast<fpgaserial_config_t *>(argument));
    else
        reception.push_back(reinterpret_cast<unsigned long>(argument));
    requests.push_back(!Fails("ioctl"));
    return requests.back() ? 0 : -1;
}

int Board::GetLine(termios *settings)
{
    *settings = line;
    return Fails("tcgetattr") ? -1 : 0;
}

int Board::SetLine(int actions, const termios *settings)
{
    if (actions != TCSANOW || Fails("tcsetattr"))
        return -1;
    line = *settings;
    return 0;
}

int Board::SetSpeed(termios *settings, speed_t speed)
{
    settings->c_ispeed = speed;
    return Fails("cfsetispeed") ? -1 : 0;
}

} // namespace bench
