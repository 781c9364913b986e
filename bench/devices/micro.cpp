#include "bench/devices/micro.h"

#include <algorithm>

namespace bench
{

namespace
{

constexpr std::uint8_t kSystemVersion = 0x01;

} // namespace

bool Micro::IsBlock(std::uint8_t type) const
{
    return IsBlockType(kMicroPort, type);
}

void Micro::Forget()
{
    due_ = 0;
    refused_ = ended_ = false;
}

void Micro::HandleFrame(const Frame &frame)
{
    if (frame.type == kStatusRequestType) {
        TakeStatusRequest(frame.data);
    } else if (frame.type != kMicroBlockType) {
        Heard(Format("frame of type %02X", frame.type));
        Finding(Format("a frame of type %02X is none of its messages", frame.type));
    } else if (frame.data.empty()) {
        TakeRetry();
    } else {
        TakeBlock(frame.data);
    }
}

void Micro::TakeStatusRequest(const Bytes &data)
{
    Heard("status request");
    if (data != Bytes{kSystemVersion})
        return Finding("status request for something other than the version");
    // No two bytes are the same. So a version that is taken from the wrong place is noticed.
    AnswerVersion(Format("%02X", version_),
                  {0xFF, 0x14, 0x72, 0x73, version_, 0x75, 0x76, 0x77, 0x78, 0x79, 0x7A, 0x7B, 0x7C, 0x7D, 0x7E});
}

void Micro::TakeRetry()
{
    Heard(Format("retry of block %u", due_));
    if (!refused_)
        Finding("retry of a block that was not refused");
    Conclude(AnswerBlock(refused_));
}

void Micro::TakeBlock(const Bytes &data)
{
    const unsigned number = data.size() < kNumberSize ? due_ : Word(data, 0);
    const std::size_t size = data.size() - std::min(data.size(), kNumberSize);
    Heard(Format("block %u with %zu bytes", number, size));
    const std::string objection = data.size() < kNumberSize ? "block without a number" : Objection(number, size);
    if (!objection.empty())
        Finding(objection);
    const std::uint8_t verdict = AnswerBlock(objection.empty());
    if (objection.empty() && verdict == kAck)
        Store(number, data);
    Conclude(verdict);
}

// The reason why a block is not acceptable. Empty: it is acceptable.
std::string Micro::Objection(unsigned number, std::size_t size) const
{
    if (number >= kBlocks)
        return Format("block %u, but %u is the last", number, kBlocks - 1);
    if (number != due_)
        return Format("block %u where %u is due", number, due_);
    if (size > kBlockSize)
        return Format("block %u with %zu bytes", number, size);
    if (ended_ && size > 0)
        return Format("block %u has data behind a short block", number);
    return "";
}

void Micro::Store(unsigned number, const Bytes &data)
{
    if (number == 0)
        flash_.clear();
    const std::size_t size = data.size() - kNumberSize;
    if (size > 0) {
        flash_.resize(number * kBlockSize, 0xFF);
        flash_.insert(flash_.end(), data.begin() + kNumberSize, data.end());
    }
    ended_ = ended_ || size < kBlockSize;
}

void Micro::Conclude(std::uint8_t verdict)
{
    refused_ = verdict == kNack;
    if (verdict != kAck)
        return;
    ++due_;
    if (due_ == kBlocks && !flash_.empty())
        version_ = flash_.front();
}

} // namespace bench
