#include "bench/devices/frame.h"

#include <numeric>
#include <utility>

namespace bench
{

namespace
{

constexpr std::uint8_t kDelimiter = 0xFF;
constexpr std::uint8_t kEscape = 0xFE;
constexpr std::size_t kChecksumSize = 3;

} // namespace

std::size_t FrameDecoder::dataSize() const
{
    return length_ < kChecksumSize ? 0 : length_ - kChecksumSize;
}

FrameDecoder::Event FrameDecoder::Feed(std::uint8_t byte)
{
    if (byte == kDelimiter)
        return Begin();
    if (stage_ == Stage::kBetween)
        return Deviate(Stage::kStray, Format("byte %02X outside a frame", byte));
    if (!InFrame())
        return Event::kNothing;
    if (!escaped_ && byte == kEscape) {
        escaped_ = true;
        return Event::kNothing;
    }
    if (!std::exchange(escaped_, false))
        return Take(byte);
    if (byte > 1)
        return Deviate(Stage::kSkip, Format("wrong escape FE %02X", byte));
    return Take(byte == 0 ? kEscape : kDelimiter);
}

FrameDecoder::Event FrameDecoder::Begin()
{
    const bool early = InFrame();
    escaped_ = false;
    length_ = 0;
    frame_ = Frame();
    stage_ = Stage::kType;
    return early ? Deviate(Stage::kType, "FF inside a frame") : Event::kNothing;
}

FrameDecoder::Event FrameDecoder::Take(std::uint8_t byte)
{
    switch (stage_) {
    case Stage::kType:
        frame_.type = byte;
        stage_ = Stage::kLengthHigh;
        return Event::kNothing;
    case Stage::kLengthHigh:
        length_ = std::size_t{byte} << 8;
        stage_ = Stage::kLengthLow;
        return Event::kNothing;
    case Stage::kLengthLow:
        return TakeLength(byte);
    default:
        return TakeBody(byte);
    }
}

FrameDecoder::Event FrameDecoder::TakeLength(std::uint8_t low)
{
    length_ |= low;
    if (length_ < kChecksumSize)
        return Deviate(Stage::kSkip, Format("length %zu has no room for the checksum", length_));
    frame_.data.reserve(length_);
    stage_ = Stage::kBody;
    return Event::kHeader;
}

FrameDecoder::Event FrameDecoder::TakeBody(std::uint8_t byte)
{
    frame_.data.push_back(byte);
    if (frame_.data.size() == length_)
        return Finish();
    return frame_.data.size() == length_ / 2 ? Event::kMiddle : Event::kNothing;
}

FrameDecoder::Event FrameDecoder::Finish()
{
    const Bytes checksum(frame_.data.end() - kChecksumSize, frame_.data.end());
    frame_.data.resize(length_ - kChecksumSize);
    const std::uint32_t sum = std::accumulate(frame_.data.begin(), frame_.data.end(), std::uint32_t{0});
    const std::uint32_t due = (0x1000000U - sum) & 0xFFFFFFU;
    const std::uint32_t found = std::uint32_t{checksum[0]} << 16 | std::uint32_t{checksum[1]} << 8 | checksum[2];
    stage_ = Stage::kBetween;
    if (found != due)
        return Deviate(Stage::kSkip, Format("checksum %06X where %06X is due", found, due));
    return Event::kFrame;
}

FrameDecoder::Event FrameDecoder::Deviate(Stage next, std::string text)
{
    stage_ = next;
    deviation_ = std::move(text);
    return Event::kDeviation;
}

} // namespace bench
