// The board that an update meets in a fuzz target, and the behaviour that it expects of the update.
#pragma once

#include "fuzz/support.h"

#include "Common/OS/linux/oslinux.h"
#include "bench/devices/frame.h"
#include "bench/standin/scriptboard.h"

using Board = bench::ScriptBoard;

// It is called while there is no board.
inline void SetUpPorts()
{
    SetSystemHardwareType(kKora); // on any other type a script would be run
    DevMgrSerial_Init();          // only once
}

// Bytes of which some are FF and FE.
inline std::string Noise(std::size_t size)
{
    std::string noise(size, '\0');
    for (std::size_t i = 0; i < size; i++)
        noise[i] = static_cast<char>(i % 11 == 0 ? 0xFE + i % 2 : i * 37 >> 4);
    return noise;
}

// The value of a version's text.
inline Int32 Version(std::string_view text)
{
    constexpr std::string_view kDigits[] = {"0123456789abcdef", "0123456789ABCDEF", "0123456789:;<=>?",
                                            "__________*+,-./"};
    Int32 value = 0;
    for (const char character : text.substr(0, 6)) {
        std::size_t digit = std::string_view::npos;
        for (const std::string_view digits : kDigits)
            digit = character == '_' ? digit : std::min(digit, digits.find(character));
        if (digit == std::string_view::npos)
            break;
        value = value * 16 + static_cast<Int32>(digit);
    }
    return value;
}

// Follows an update through the records of the board. Each call says what the update has to have done next. If it has
// done something else, the program stops.
class Replay
{
public:
    explicit Replay(Board &board) : board_(board) {}

    // The next file that is opened.
    const Board::FileUse &Uses(const std::string &name)
    {
        CHECK(uses_ < board_.uses.size() && board_.uses[uses_].name == name);
        return board_.uses[uses_++];
    }

    // The next bytes that are written. Returns false if the write failed.
    bool Sends(const bench::Bytes &bytes)
    {
        CHECK(received_ == Received().size() && !Ended());
        const Board::Exchange &exchange = board_.exchanges[exchanges_++];
        received_ = 0;
        CHECK(exchange.sent == bytes || (exchange.sent.empty() && exchange.failed));
        return !exchange.failed;
    }

    bool SendsFrame(UInt8 type, const bench::Bytes &data)
    {
        CHECK(!Ended());
        const bench::Bytes &wire = board_.exchanges[exchanges_].sent;
        bench::FrameDecoder decoder;
        for (const UInt8 byte : wire)
            CHECK(decoder.Feed(byte) != bench::FrameDecoder::Event::kDeviation);
        CHECK(decoder.BetweenFrames() && decoder.frame().type == type && decoder.frame().data == data);
        return Sends(wire);
    }

    // The next bytes that are read. There are fewer if not all of them came.
    bench::Bytes Takes(std::size_t count)
    {
        const bench::Bytes &received = Received();
        const auto begin = received.begin() + static_cast<std::ptrdiff_t>(received_);
        received_ = std::min(received.size(), received_ + count);
        return bench::Bytes(begin, received.begin() + static_cast<std::ptrdiff_t>(received_));
    }

    // Whether there was no further write.
    bool Ended() const { return exchanges_ == board_.exchanges.size(); }
    bool Complete() const { return Ended() && received_ == Received().size() && uses_ == board_.uses.size(); }

private:
    const bench::Bytes &Received() const
    {
        static const bench::Bytes kNone;
        return exchanges_ == 0 ? kNone : board_.exchanges[exchanges_ - 1].received;
    }

    Board &board_;
    std::size_t uses_ = 0, exchanges_ = 0, received_ = 0;
};

// The result that an update has to have, by the records of the board. exchange follows the part of the update that runs
// on an open port, and returns its result.
template <class Exchange> int ExpectedResult(Board &board, const char *port, Exchange exchange)
{
    int result = -1;
    if (!board.port.empty() && board.requests.at(0) && board.requests.at(1)) {
        Replay replay(board);
        result = exchange(replay);
        CHECK(replay.Complete() && board.requests.size() == 3);
        result = board.requests[2] ? result : -1;
    }
    CHECK(board.port.empty() || board.port == port);
    CHECK(!board.portOpen && std::none_of(board.uses.begin(), board.uses.end(), [](auto &use) { return use.open; }));
    return result;
}
