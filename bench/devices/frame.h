// Strict decoder of the host's frames, one byte at a time. Written from the frame's definition and sharing nothing with
// the updater, so that a fault in one is not repeated in the other:
//   FF, type, length (2 bytes, high first: data and checksum), data, checksum (3 bytes, high first:
//   what makes the sum of the data 0 modulo 2^24); behind the FF, FF travels as FE 01, FE as FE 00.
// Every deviation is reported once; decoding takes up again at the next FF, whatever came before.
#pragma once

#include "bench/text.h"

namespace bench
{

struct Frame {
    std::uint8_t type = 0;
    Bytes data;
};

class FrameDecoder
{
public:
    // What a byte led to.
    enum class Event {
        kNothing,
        kHeader,    // type and length are known: frame().type
        kMiddle,    // half of what the length announces is there
        kFrame,     // the frame is complete: frame()
        kDeviation, // see deviation(); the frame, if there was one, is lost
    };

    Event Feed(std::uint8_t byte);
    void Reset() { *this = FrameDecoder(); }

    const Frame &frame() const { return frame_; }
    const std::string &deviation() const { return deviation_; }
    bool InFrame() const { return stage_ >= Stage::kType; }
    // Neither in a frame nor in what is left of a bad one.
    bool BetweenFrames() const { return stage_ <= Stage::kStray; }

private:
    enum class Stage { kBetween, kStray, kSkip, kType, kLengthHigh, kLengthLow, kBody };

    Event Begin();
    Event Take(std::uint8_t byte);
    Event TakeLength(std::uint8_t low);
    Event TakeBody(std::uint8_t byte);
    Event Finish();
    Event Deviate(Stage next, std::string text);

    Stage stage_ = Stage::kBetween;
    bool escaped_ = false;
    std::size_t length_ = 0; // of data and checksum, as announced
    Frame frame_;            // data still with the checksum behind it until the frame is complete
    std::string deviation_;
};

} // namespace bench
