// Strict decoder of the host's frames. It takes one byte at a time. It shares nothing with the updater, so that a fault
// in one is not repeated in the other. A frame is:
//   FF        the start of a frame, and nothing else. Behind it FF travels as FE 01, and FE as FE 00.
//   type      1 byte
//   length    2 bytes, the high one first: the size of data and checksum
//   data
//   checksum  3 bytes, the high one first. It makes the sum of the data 0 modulo 2^24.
// Each deviation is reported once. Decoding starts over at the next FF.
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
        kMiddle,    // half of data and checksum is there
        kFrame,     // the frame is complete: frame()
        kDeviation, // see deviation(); a frame that had begun is lost
    };

    Event Feed(std::uint8_t byte);
    void Reset() { *this = FrameDecoder(); }

    const Frame &frame() const { return frame_; }
    // Announced size of the data, once the header is there.
    std::size_t dataSize() const;
    const std::string &deviation() const { return deviation_; }
    bool InFrame() const { return stage_ >= Stage::kType; }
    // Neither in a frame nor in the rest of a bad one.
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
    std::size_t length_ = 0; // announced size of data and checksum
    Frame frame_;            // the data has the checksum behind it until the frame is complete
    std::string deviation_;
};

} // namespace bench
