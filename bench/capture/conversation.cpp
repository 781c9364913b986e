#include "bench/capture/conversation.h"

#include <algorithm>
#include <cctype>
#include <map>
#include <utility>

namespace bench
{

namespace
{

constexpr std::uint8_t kDelimiter = 0xFF;
constexpr std::uint8_t kMicroVersionMark = 0x14; // behind the delimiter
constexpr std::uint8_t kCameraVersionMark = 0xA0;
constexpr std::size_t kMostNoise = 0x40000; // in one message: other programs refuse packets of more bytes

// A camera reports its versions as characters. A damaged one may be anything.
std::string Characters(const Bytes &bytes, std::size_t offset, std::size_t count)
{
    std::string text;
    for (std::size_t i = offset; i < offset + count; ++i)
        text += std::isprint(bytes[i]) != 0 ? static_cast<char>(bytes[i]) : '?';
    return text;
}

std::string VersionName(int port, const Bytes &reply)
{
    if (port == kMicroPort)
        return Format("version %02X", reply[4]);
    return "version camera " + Characters(reply, 9, 4) + " system " + Characters(reply, 5, 4);
}

Message BlockMessage(const Frame &frame)
{
    Message message = {.kind = Message::Kind::kBlock, .type = frame.type, .data = frame.data};
    if (frame.data.size() < kNumberSize) {
        message.name = message.finding = "block without a number";
        return message;
    }
    message.block = Word(frame.data, 0);
    message.name =
        Format("%sblock %u with %zu bytes", ImagePrefix(frame.type), *message.block, frame.data.size() - kNumberSize);
    return message;
}

Message FrameMessage(int port, const Frame &frame, std::optional<unsigned> latestBlock)
{
    if (port == kMicroPort && frame.type == kStatusRequestType)
        return {
            .kind = Message::Kind::kStatusRequest, .name = "status request", .type = frame.type, .data = frame.data};
    if (port == kMicroPort && frame.type == kMicroBlockType && frame.data.empty())
        return {.kind = Message::Kind::kRetry,
                .name = Format("retry of block %u", latestBlock.value_or(0)),
                .type = frame.type,
                .block = latestBlock};
    if (IsBlockType(port, frame.type))
        return BlockMessage(frame);
    return {.kind = Message::Kind::kOtherFrame,
            .name = Format("frame of type %02X", frame.type),
            .type = frame.type,
            .data = frame.data};
}

} // namespace

void Conversation::Take(const Event &event, const Sink &sink)
{
    if (event.bytes.empty()) {
        if (event.note == "close")
            Flush(sink);
        sink({.event = event, .kind = Kind::kNote, .name = event.note});
        return;
    }
    const bool fromHost = event.way == Way::kToDevice;
    if (fromHost)
        FlushToHost(sink);
    next_ = &event;
    for (const std::uint8_t byte : event.bytes)
        TakeByte(fromHost, byte, sink);
}

void Conversation::TakeByte(bool fromHost, std::uint8_t byte, const Sink &sink)
{
    fromHost ? TakeFromHost(byte, sink) : TakeFromDevice(byte, sink);
    if ((fromHost ? out_ : in_).bytes.size() >= kMostNoise) // no message gets as long
        fromHost ? FlushToDevice(sink) : FlushToHost(sink);
}

void Conversation::Flush(const Sink &sink)
{
    FlushToDevice(sink);
    FlushToHost(sink);
    decoder_.Reset();
    Expect(Kind::kNoise, 0);
    block_.reset();
}

void Conversation::FlushNoise(const Sink &sink)
{
    if (!InMessage())
        FlushToDevice(sink);
    if (!replyBegun_)
        FlushToHost(sink);
}

void Conversation::Add(Event &open, std::uint8_t byte)
{
    if (open.bytes.empty())
        open.begin = next_->begin;
    open.end = next_->end;
    open.bytes.push_back(byte);
}

// ---- What the host sends

void Conversation::TakeFromHost(std::uint8_t byte, const Sink &sink)
{
    if (decoder_.BetweenFrames() && TakeRaw(byte, sink))
        return;
    const bool early = byte == kDelimiter && decoder_.InFrame();
    if (byte == kDelimiter)
        FlushToDevice(sink, early ? "FF inside a frame" : "");
    Add(out_, byte);
    switch (decoder_.Feed(byte)) {
    case FrameDecoder::Event::kFrame:
        EndFrame("", sink);
        break;
    case FrameDecoder::Event::kDeviation:
        if (!early)
            TakeDeviation(sink);
        break;
    case FrameDecoder::Event::kNothing:
    case FrameDecoder::Event::kHeader:
    case FrameDecoder::Event::kMiddle:
        break;
    }
}

// A frame with a wrong checksum has come whole. Any other deviation spoils what follows, up to the next delimiter.
void Conversation::TakeDeviation(const Sink &sink)
{
    if (decoder_.deviation().starts_with("checksum"))
        EndFrame(decoder_.deviation(), sink);
    else if (!decoder_.BetweenFrames())
        finding_ = decoder_.deviation();
}

// Takes a byte of a message without a frame. Returns false for any other byte.
bool Conversation::TakeRaw(std::uint8_t byte, const Sink &sink)
{
    const bool begins = !raw_ && port_ == kCameraPort && (byte == kVersionQueryBytes[0] || byte == kFlashModeHead[0]);
    if (begins)
        FlushToDevice(sink);
    raw_ = raw_ || begins;
    if (!raw_)
        return false;
    const bool query = begins ? byte == kVersionQueryBytes[0] : out_.bytes[0] == kVersionQueryBytes[0];
    const Bytes &head = query ? kVersionQueryBytes : kFlashModeHead;
    const std::size_t at = out_.bytes.size();
    if (at < head.size() && byte != head[at]) {
        raw_ = false; // it was noise
        return false;
    }
    Add(out_, byte);
    if (out_.bytes.size() == (query ? kVersionQueryBytes.size() : kFlashModeSize))
        EndRaw(query, sink);
    return true;
}

void Conversation::EndRaw(bool query, const Sink &sink)
{
    raw_ = false;
    Message message = {.kind = query ? Kind::kVersionQuery : Kind::kFlashMode, .name = "version query"};
    if (!query)
        message.name = Format("flash mode %u, %u camera blocks, %u system blocks", out_.bytes[3], Word(out_.bytes, 4),
                              Word(out_.bytes, 6));
    Emit(out_, Way::kToDevice, std::move(message), sink);
    Expect(query ? Kind::kVersion : Kind::kModeReply, query ? kCameraVersionSize : kModeReplySize);
}

void Conversation::EndFrame(const std::string &finding, const Sink &sink)
{
    Message message = FrameMessage(port_, decoder_.frame(), block_);
    if (!finding.empty())
        message.finding = finding;
    switch (message.kind) {
    case Kind::kStatusRequest:
        Expect(Kind::kVersion, kMicroVersionSize);
        break;
    case Kind::kBlock:
    case Kind::kRetry:
        block_ = message.block;
        Expect(Kind::kVerdict, kVerdictSize);
        break;
    default:
        Expect(Kind::kNoise, 0);
    }
    Emit(out_, Way::kToDevice, std::move(message), sink);
}

// Whether out_ is of a message, and not noise.
bool Conversation::InMessage() const
{
    return raw_ || decoder_.InFrame() || !finding_.empty();
}

void Conversation::FlushToDevice(const Sink &sink, const std::string &finding)
{
    const bool piece = InMessage();
    raw_ = false;
    Message message = {.kind = piece ? Kind::kPiece : Kind::kNoise,
                       .name = piece ? "piece of a message" : "noise",
                       .finding = finding.empty() ? std::exchange(finding_, {}) : finding};
    finding_.clear();
    if (!out_.bytes.empty())
        Emit(out_, Way::kToDevice, std::move(message), sink);
}

// ---- What the device sends

void Conversation::Expect(Kind reply, std::size_t size)
{
    expected_ = reply;
    replySize_ = size;
    replyBegun_ = false;
}

// Whether a byte is the first of the reply that is due. The host looks for a mark only in front of a version.
bool Conversation::StartsReply(std::uint8_t byte) const
{
    if (expected_ == Kind::kVersion)
        return byte == (port_ == kMicroPort ? kDelimiter : kCameraVersionMark);
    return expected_ != Kind::kNoise;
}

void Conversation::TakeFromDevice(std::uint8_t byte, const Sink &sink)
{
    if (!replyBegun_ && StartsReply(byte)) {
        FlushToHost(sink);
        replyBegun_ = true;
    }
    Add(in_, byte);
    const bool wantsMark = expected_ == Kind::kVersion && port_ == kMicroPort && in_.bytes.size() == 2;
    if (replyBegun_ && wantsMark && byte != kMicroVersionMark)
        replyBegun_ = false; // the host drops both bytes
    if (replyBegun_ && in_.bytes.size() == replySize_)
        EndReply(sink);
}

void Conversation::EndReply(const Sink &sink)
{
    Message message = {.kind = expected_};
    if (expected_ == Kind::kVersion) {
        message.name = VersionName(port_, in_.bytes);
    } else if (expected_ == Kind::kModeReply) {
        message.name = "flash mode";
    } else {
        message.verdict = in_.bytes[1];
        message.name = VerdictName(in_.bytes[1]);
        message.block = block_;
        if (*message.verdict != kAck && *message.verdict != kNack)
            message.finding = Format("unknown verdict %02X", *message.verdict);
    }
    Emit(in_, Way::kToHost, std::move(message), sink);
    Expect(Kind::kNoise, 0);
}

void Conversation::FlushToHost(const Sink &sink)
{
    static constexpr const char *kPieces[] = {"piece of a version", "piece of a flash mode reply",
                                              "piece of a verdict"};
    if (in_.bytes.empty())
        return;
    Message message = {.kind = Kind::kNoise, .name = "noise"};
    if (std::exchange(replyBegun_, false)) {
        message.kind = Kind::kPiece;
        message.name = kPieces[static_cast<int>(expected_) - static_cast<int>(Kind::kVersion)];
    }
    Emit(in_, Way::kToHost, std::move(message), sink);
}

void Conversation::Emit(Event &open, Way way, Message message, const Sink &sink)
{
    open.port = port_;
    open.way = way;
    message.event = std::exchange(open, {});
    sink(std::move(message));
}

std::vector<Message> MessagesOf(const std::vector<Event> &events)
{
    std::map<int, Conversation> conversations;
    std::vector<Message> messages;
    const auto keep = [&messages](Message message) { messages.push_back(std::move(message)); };
    for (const Event &event : events)
        conversations.try_emplace(event.port, event.port).first->second.Take(event, keep);
    for (auto &[port, conversation] : conversations)
        conversation.Flush(keep);
    std::stable_sort(messages.begin(), messages.end(),
                     [](const Message &a, const Message &b) { return a.event.begin < b.event.begin; });
    return messages;
}

} // namespace bench
