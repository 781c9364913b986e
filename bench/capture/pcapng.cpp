#include "bench/capture/pcapng.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <span>
#include <utility>

namespace bench
{

namespace
{

using Span = std::span<const std::uint8_t>;

enum BlockType : std::uint32_t {
    kInterfaceBlock = 1,
    kOldPacketBlock = 2,
    kSimplePacketBlock = 3,
    kPacketBlock = 6,
    kSectionBlock = 0x0A0D0D0A, // the same in both byte orders
};

enum OptionCode : std::uint16_t {
    kEndOfOptions = 0,
    kComment = 1,
    kHardware = 2, // of a section
    kSystem = 3,
    kApplication = 4,
    kName = 2, // of an interface
    kDescription = 3,
    kSpeed = 8,
    kResolution = 9,
    kOffset = 14,
    kFlags = 2, // of a packet
};

constexpr std::uint32_t kByteOrder = 0x1A2B3C4D;
constexpr std::uint16_t kMajor = 1;
constexpr std::uint32_t kDirectionMask = 3;
constexpr std::size_t kAlignment = 4;
constexpr std::size_t kHeadSize = 8;       // type and length
constexpr std::size_t kSmallestBlock = 12; // the length stands behind the block once more
constexpr std::uint8_t kMicroseconds = 6;  // a power of ten
constexpr std::uint64_t kMillion = 1000000;
constexpr std::int64_t kLastSecond = 1000000000000; // far away, and no sum of such times overflows

constexpr std::size_t PaddingOf(std::size_t size)
{
    return (kAlignment - size % kAlignment) % kAlignment;
}

// ---- Writing

// The inside of a block.
class Body
{
public:
    template <class Number> Body &Add(Number number)
    {
        const auto raw = std::bit_cast<std::array<std::uint8_t, sizeof number>>(number);
        bytes_.insert(bytes_.end(), raw.begin(), raw.end());
        return *this;
    }
    Body &AddPadded(Span bytes)
    {
        bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
        bytes_.resize(bytes_.size() + PaddingOf(bytes.size()));
        return *this;
    }
    Body &AddOption(OptionCode code, Span value)
    {
        return Add(std::uint16_t{code}).Add(static_cast<std::uint16_t>(value.size())).AddPadded(value);
    }
    template <class Number> Body &AddNumber(OptionCode code, Number number)
    {
        return AddOption(code, std::bit_cast<std::array<std::uint8_t, sizeof number>>(number));
    }
    Body &AddText(OptionCode code, const std::string &text)
    {
        const auto *bytes = reinterpret_cast<const std::uint8_t *>(text.data());
        return AddOption(code, {bytes, std::min(text.size(), kLongestText)});
    }
    Body &AddKnown(OptionCode code, const std::string &text) { return text.empty() ? *this : AddText(code, text); }
    Body &AddComments(const std::vector<std::string> &comments)
    {
        for (const std::string &comment : comments)
            AddText(kComment, comment);
        return *this;
    }
    // Ends the options.
    const Bytes &End() { return Add(std::uint32_t{kEndOfOptions}).bytes_; }

private:
    Bytes bytes_;
};

void WriteBlock(std::ostream &stream, BlockType type, const Bytes &body)
{
    const auto size = static_cast<std::uint32_t>(body.size() + kSmallestBlock);
    const auto number = [&stream](std::uint32_t value) {
        stream.write(reinterpret_cast<const char *>(&value), sizeof value);
    };
    number(type);
    number(size);
    stream.write(reinterpret_cast<const char *>(body.data()), static_cast<std::streamsize>(body.size()));
    number(size);
    if (!stream.flush())
        throw std::runtime_error("the capture cannot be written");
}

} // namespace

void PcapWriter::Write(const PcapSection &section)
{
    Body body;
    body.Add(kByteOrder).Add(kMajor).Add(std::uint16_t{0}).Add(std::int64_t{-1}); // of unknown size
    body.AddKnown(kHardware, section.hardware).AddKnown(kSystem, section.system);
    body.AddKnown(kApplication, section.application).AddComments(section.comments);
    WriteBlock(stream_, kSectionBlock, body.End());
}

void PcapWriter::Write(const PcapInterface &interface)
{
    Body body;
    body.Add(interface.linkType).Add(std::uint16_t{0}).Add(std::uint32_t{0}); // packets of any size
    body.AddKnown(kName, interface.name).AddKnown(kDescription, interface.description);
    if (interface.speed != 0)
        body.AddNumber(kSpeed, interface.speed);
    body.AddNumber(kResolution, kMicroseconds).AddComments(interface.comments);
    WriteBlock(stream_, kInterfaceBlock, body.End());
}

void PcapWriter::Write(const PcapPacket &packet)
{
    Body body;
    body.Add(static_cast<std::uint32_t>(packet.interface));
    body.Add(static_cast<std::uint32_t>(packet.time >> 32)).Add(static_cast<std::uint32_t>(packet.time));
    body.Add(static_cast<std::uint32_t>(packet.bytes.size()));
    body.Add(static_cast<std::uint32_t>(std::max(packet.length, packet.bytes.size()))).AddPadded(packet.bytes);
    if (packet.direction != PcapPacket::Direction::kUnknown)
        body.AddNumber(kFlags, static_cast<std::uint32_t>(packet.direction));
    WriteBlock(stream_, kPacketBlock, body.AddComments(packet.comments).End());
}

// ---- Reading

namespace
{

[[noreturn]] void Refuse(std::uint64_t at, const std::string &what)
{
    throw CaptureError("byte " + std::to_string(at) + ": " + what);
}

// The fields of a block, from its first to its last.
class Fields
{
public:
    // at is the block's place in the file.
    Fields(Span bytes, bool big, std::uint64_t at) : rest_(bytes), big_(big), at_(at) {}

    std::uint64_t at() const { return at_; }
    std::size_t left() const { return rest_.size(); }

    Span Take(std::size_t size)
    {
        if (size > rest_.size())
            Refuse(at_, "the block is too short for what it has inside");
        const Span taken = rest_.first(size);
        rest_ = rest_.subspan(size);
        return taken;
    }
    Span TakePadded(std::size_t size)
    {
        const Span taken = Take(size);
        Take(std::min(PaddingOf(size), left()));
        return taken;
    }
    template <class Number> Number Take()
    {
        std::uint64_t number = 0;
        std::size_t place = 0;
        for (const std::uint8_t byte : Take(sizeof(Number))) {
            const std::size_t shift = 8 * (big_ ? sizeof(Number) - 1 - place : place);
            number |= std::uint64_t{byte} << shift;
            ++place;
        }
        return static_cast<Number>(number);
    }
    Fields Inner(std::size_t size) { return {TakePadded(size), big_, at_}; }

private:
    Span rest_;
    bool big_;
    std::uint64_t at_;
};

std::string TextOf(Fields value)
{
    const Span bytes = value.Take(value.left());
    std::string text(bytes.begin(), bytes.end());
    text.erase(text.find_last_not_of('\0') + 1); // some programs end a text as C does
    return text;
}

// Calls take(code, value) for each option that is left in a block.
template <class Taker> void ForOptions(Fields &block, const Taker &take)
{
    while (block.left() > 0) {
        const auto code = block.Take<std::uint16_t>();
        const auto size = block.Take<std::uint16_t>();
        if (code == kEndOfOptions)
            return;
        take(code, block.Inner(size));
    }
}

// How an interface counts time.
struct TimeScale {
    std::uint8_t resolution = kMicroseconds; // a negative power of 10, or of 2 with the highest bit set
    std::int64_t offset = 0;                 // seconds

    bool binary() const { return (resolution & 0x80) != 0; }
    unsigned exponent() const { return resolution & 0x7FU; }
};

constexpr unsigned kMostDecimals = 19; // whose power fits in 64 bits
constexpr unsigned kMostBits = 63;
constexpr unsigned kMostExactBits = 44; // times a million fits in 64 bits

std::uint64_t PowerOfTen(unsigned exponent)
{
    std::uint64_t power = 1;
    for (unsigned i = 0; i < exponent; ++i)
        power *= 10;
    return power;
}

std::uint64_t MicrosecondsOf(const TimeScale &scale, std::uint64_t time, std::uint64_t at)
{
    const unsigned exponent = scale.exponent();
    const std::uint64_t unit = scale.binary() ? std::uint64_t{1} << exponent : PowerOfTen(exponent);
    const std::uint64_t fraction = time % unit;
    std::uint64_t microseconds = 0;
    if (scale.binary()) {
        const unsigned kept = std::min(exponent, kMostExactBits);
        microseconds = ((fraction >> (exponent - kept)) * kMillion) >> kept;
    } else {
        microseconds = exponent > kMicroseconds ? fraction / PowerOfTen(exponent - kMicroseconds)
                                                : fraction * PowerOfTen(kMicroseconds - exponent);
    }
    const auto seconds = static_cast<std::int64_t>(std::min<std::uint64_t>(time / unit, kLastSecond)) + scale.offset;
    if (seconds < 0 || seconds >= kLastSecond)
        Refuse(at, "the time is before 1970 or far in the future");
    return static_cast<std::uint64_t>(seconds) * kMillion + microseconds;
}

PcapPacket::Direction DirectionOf(std::uint32_t flags)
{
    using Direction = PcapPacket::Direction;
    for (const Direction direction : {Direction::kInbound, Direction::kOutbound})
        if ((flags & kDirectionMask) == static_cast<std::uint32_t>(direction))
            return direction;
    return Direction::kUnknown;
}

// What a file is that is no pcapng file, and what to do with it.
struct Stranger {
    const char *head;
    const char *remark;
};
constexpr char kOldKind[] = "this is a pcap file, which knows no interfaces and no directions; the capture has to be "
                            "saved as pcapng where it was taken";
constexpr Stranger kStrangers[] = {
    {"\xA1\xB2\xC3\xD4", kOldKind},
    {"\xD4\xC3\xB2\xA1", kOldKind},
    {"\xA1\xB2\x3C\x4D", kOldKind},
    {"\x4D\x3C\xB2\xA1", kOldKind},
    {"\x1F\x8B", "this is a compressed file; gunzip unpacks it"},
};

bool IsText(const std::string &head)
{
    return std::all_of(head.begin(), head.end(), [](char sign) {
        return (sign >= ' ' && sign <= '~') || sign == '\n' || sign == '\r' || sign == '\t';
    });
}

[[noreturn]] void RefuseStranger(Span bytes)
{
    const std::string head(bytes.begin(), bytes.end());
    if (head.empty())
        throw CaptureError("the file is empty");
    for (const Stranger &stranger : kStrangers)
        if (head.starts_with(stranger.head))
            throw CaptureError(stranger.remark);
    if (IsText(head))
        throw CaptureError("this is text, and no pcapng file; haldencap from-strace makes a capture of strace's text");
    throw CaptureError("this is no pcapng file");
}

class Reader
{
public:
    Reader(std::istream &stream, const PcapSink &sink) : stream_(stream), sink_(sink) {}

    void Read();

private:
    bool Fetch(std::size_t size);
    std::uint32_t NumberAt(std::size_t offset) const;
    void TakeBlock(std::uint32_t type);
    void TakeSection(Fields block);
    void TakeInterface(Fields block);
    void TakeTimeScale(TimeScale &scale, std::uint16_t code, Fields value) const;
    void TakePacket(Fields block, bool old);
    void TakeSimplePacket(Fields block);

    struct Interface {
        TimeScale scale;
        std::uint32_t snapLength = 0; // 0: none
    };

    std::istream &stream_;
    const PcapSink &sink_;
    std::uint64_t at_ = 0; // the block's place in the file
    Bytes block_;
    bool big_ = false;
    std::vector<Interface> interfaces_; // of the section
};

// Reads on until the block has that size. Returns false if the file ends before. A size that is only claimed takes no
// memory.
bool Reader::Fetch(std::size_t size)
{
    constexpr std::size_t kPortion = 64 << 10;
    while (block_.size() < size && stream_) {
        const std::size_t had = block_.size();
        block_.resize(std::min(size, had + kPortion));
        stream_.read(reinterpret_cast<char *>(block_.data() + had), static_cast<std::streamsize>(block_.size() - had));
        block_.resize(had + static_cast<std::size_t>(stream_.gcount()));
    }
    if (stream_.bad())
        throw CaptureError("the file cannot be read");
    return block_.size() == size;
}

std::uint32_t Reader::NumberAt(std::size_t offset) const
{
    return Fields(Span(block_).subspan(offset), big_, at_).Take<std::uint32_t>();
}

void Reader::Read()
{
    const auto cut = [this] {
        throw CaptureCut("the file is cut at byte " + std::to_string(at_ + block_.size()) +
                         ", in the block that begins at byte " + std::to_string(at_));
    };
    for (;; at_ += block_.size()) {
        block_.clear();
        const bool whole = Fetch(kHeadSize + sizeof kByteOrder);
        if (at_ == 0 && (block_.size() < sizeof kSectionBlock || NumberAt(0) != kSectionBlock))
            RefuseStranger(block_);
        if (block_.empty())
            return;
        if (!whole)
            cut();
        const std::uint32_t type = NumberAt(0);
        if (type == kSectionBlock) {
            big_ = block_[kHeadSize] == kByteOrder >> 24;
            if (NumberAt(kHeadSize) != kByteOrder)
                Refuse(at_, "the section has no known byte order");
        }
        const std::uint32_t size = NumberAt(4);
        if (size < kSmallestBlock || size % kAlignment != 0 || size > kLargestBlock)
            Refuse(at_, "a block cannot have " + std::to_string(size) + " bytes here");
        if (!Fetch(size))
            cut();
        if (NumberAt(size - sizeof size) != size)
            Refuse(at_, "the two lengths of the block differ");
        TakeBlock(type);
    }
}

// Blocks of other types are left out.
void Reader::TakeBlock(std::uint32_t type)
{
    const Fields block(Span(block_).subspan(kHeadSize, block_.size() - kSmallestBlock), big_, at_);
    if (type == kSectionBlock)
        TakeSection(block);
    else if (type == kInterfaceBlock)
        TakeInterface(block);
    else if (type == kPacketBlock || type == kOldPacketBlock)
        TakePacket(block, type == kOldPacketBlock);
    else if (type == kSimplePacketBlock)
        TakeSimplePacket(block);
}

void Reader::TakeSection(Fields block)
{
    block.Take(sizeof kByteOrder);
    const auto major = block.Take<std::uint16_t>();
    if (major != kMajor)
        Refuse(at_, "the section has version " + std::to_string(major) + " of pcapng; only version 1 is known");
    block.Take(sizeof(std::uint16_t) + sizeof(std::uint64_t)); // minor version, size of the section
    interfaces_.clear();
    PcapSection section;
    ForOptions(block, [&section](std::uint16_t code, const Fields &value) {
        if (code == kComment)
            section.comments.push_back(TextOf(value));
        else if (code == kHardware)
            section.hardware = TextOf(value);
        else if (code == kSystem)
            section.system = TextOf(value);
        else if (code == kApplication)
            section.application = TextOf(value);
    });
    sink_.section(std::move(section));
}

void Reader::TakeInterface(Fields block)
{
    PcapInterface interface;
    Interface known;
    interface.linkType = block.Take<std::uint16_t>();
    block.Take(sizeof(std::uint16_t));
    known.snapLength = block.Take<std::uint32_t>();
    ForOptions(block, [&](std::uint16_t code, Fields value) {
        if (code == kComment)
            interface.comments.push_back(TextOf(value));
        else if (code == kName)
            interface.name = TextOf(value);
        else if (code == kDescription)
            interface.description = TextOf(value);
        else if (code == kSpeed)
            interface.speed = value.Take<std::uint64_t>();
        else
            TakeTimeScale(known.scale, code, value);
    });
    interfaces_.push_back(known);
    sink_.interface(std::move(interface));
}

void Reader::TakeTimeScale(TimeScale &scale, std::uint16_t code, Fields value) const
{
    if (code == kOffset)
        scale.offset = std::clamp(value.Take<std::int64_t>(), -kLastSecond, kLastSecond);
    if (code != kResolution)
        return;
    scale.resolution = value.Take<std::uint8_t>();
    if (scale.exponent() > (scale.binary() ? kMostBits : kMostDecimals))
        Refuse(at_, "the interface counts time more finely than can be read");
}

void Reader::TakePacket(Fields block, bool old)
{
    PcapPacket packet;
    packet.interface = old ? block.Take<std::uint16_t>() : block.Take<std::uint32_t>();
    if (old)
        block.Take(sizeof(std::uint16_t)); // number of packets that were lost
    if (packet.interface >= interfaces_.size())
        Refuse(at_, "the packet is of an interface that the section does not have");
    const std::uint64_t high = block.Take<std::uint32_t>();
    const std::uint64_t time = high << 32 | block.Take<std::uint32_t>();
    packet.time = MicrosecondsOf(interfaces_[packet.interface].scale, time, at_);
    const auto size = block.Take<std::uint32_t>();
    packet.length = block.Take<std::uint32_t>();
    const Span bytes = block.TakePadded(size);
    packet.bytes.assign(bytes.begin(), bytes.end());
    ForOptions(block, [&packet](std::uint16_t code, Fields value) {
        if (code == kComment)
            packet.comments.push_back(TextOf(value));
        else if (code == kFlags)
            packet.direction = DirectionOf(value.Take<std::uint32_t>());
    });
    sink_.packet(std::move(packet));
}

// It has neither time nor size: it takes what is there, up to the snap length of the first interface.
void Reader::TakeSimplePacket(Fields block)
{
    if (interfaces_.empty())
        Refuse(at_, "the packet is of an interface that the section does not have");
    PcapPacket packet;
    packet.length = block.Take<std::uint32_t>();
    std::size_t size = std::min(packet.length, block.left());
    if (interfaces_[0].snapLength != 0)
        size = std::min<std::size_t>(size, interfaces_[0].snapLength);
    const Span bytes = block.Take(size);
    packet.bytes.assign(bytes.begin(), bytes.end());
    sink_.packet(std::move(packet));
}

} // namespace

void ReadPcap(std::istream &stream, const PcapSink &sink)
{
    Reader(stream, sink).Read();
}

} // namespace bench
