#include "bench/devices/device.h"

#include <algorithm>
#include <utility>

namespace bench
{

void Device::PowerOn()
{
    decoder_.Reset();
    wire_.clear();
    transcript_.clear();
    findings_.clear();
    addressed_ = false;
    blocksBegun_ = blocksEnded_ = 0;
    Forget();
    powered_ = true;
}

std::vector<Reply> Device::Receive(std::span<const std::uint8_t> bytes)
{
    for (const std::uint8_t byte : bytes) {
        if (powered_)
            TakeByte(byte);
    }
    return std::exchange(replies_, {});
}

void Device::PowerOff()
{
    if (powered_ && !wire_.empty())
        Finding("message broken off, " + Describe(wire_));
    powered_ = false;
}

void Device::TakeByte(std::uint8_t byte)
{
    addressed_ = true;
    if (decoder_.BetweenFrames() && TakeRaw(byte))
        return;
    const FrameDecoder::Event event = decoder_.Feed(byte);
    if (byte == 0xFF)
        wire_.clear();
    wire_.push_back(byte);
    switch (event) {
    case FrameDecoder::Event::kHeader:
        blocksBegun_ += IsBlock(decoder_.frame().type) ? 1 : 0;
        break;
    case FrameDecoder::Event::kMiddle:
        if (CutHere(true))
            CutPower();
        break;
    case FrameDecoder::Event::kFrame:
        TakeFrame();
        break;
    case FrameDecoder::Event::kDeviation:
        Finding(decoder_.deviation());
        break;
    case FrameDecoder::Event::kNothing:
        break;
    }
    if (!decoder_.InFrame())
        wire_.clear();
}

void Device::TakeFrame()
{
    if (CutHere(false))
        CutPower();
    else
        HandleFrame(decoder_.frame());
}

bool Device::CutHere(bool middle) const
{
    return IsBlock(decoder_.frame().type) && faults.cutBlock == static_cast<int>(blocksEnded_) &&
           faults.cutMiddle == middle;
}

void Device::CutPower()
{
    transcript_.push_back(
        Format("* power cut %s block %d", faults.cutMiddle ? "in the middle of" : "at", faults.cutBlock));
    powered_ = false;
    decoder_.Reset();
}

void Device::Heard(const std::string &what)
{
    transcript_.push_back("> " + what + ", " + Describe(wire_));
}

void Device::Finding(const std::string &text)
{
    findings_.push_back(text);
    transcript_.push_back("! " + text);
}

void Device::Answer(const std::string &what, Bytes bytes, const ReplyFault &fault)
{
    const bool cut = fault.keep >= 0 && static_cast<std::size_t>(fault.keep) < bytes.size();
    if (cut)
        bytes.resize(static_cast<std::size_t>(fault.keep));
    std::string line = "< " + what + (cut ? ", cut to " : ", ") + Describe(bytes);
    if (fault.lateMs > 0)
        line += Format(", %d ms late", fault.lateMs);
    transcript_.push_back(line);
    if (!bytes.empty())
        replies_.push_back({std::move(bytes), std::chrono::milliseconds(fault.lateMs)});
}

void Device::AnswerNoise(const Bytes &noise)
{
    if (!noise.empty())
        Answer("noise", noise, {});
}

void Device::AnswerVersion(const std::string &version, const Bytes &reply)
{
    AnswerNoise(faults.noise);
    Answer("version " + version, reply, faults.version);
}

std::uint8_t Device::AnswerBlock(bool acceptable)
{
    const auto fault = faults.blocks.find(blocksEnded_++);
    const BlockFault found = fault == faults.blocks.end() ? BlockFault() : fault->second;
    std::uint8_t verdict = acceptable ? kAck : kNack;
    if (found.verdict >= 0)
        verdict = static_cast<std::uint8_t>(found.verdict);
    AnswerNoise(found.noise);
    // The host does not look at the first byte. It is no verdict, so a host that takes it for one is noticed.
    Answer(VerdictName(verdict), {0x15, verdict}, found.reply);
    return verdict;
}

} // namespace bench
