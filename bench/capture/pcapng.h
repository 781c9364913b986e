// The blocks of a pcapng file, as far as captures need them: sections, interfaces, packets and their options. What a
// capture of this bench has in them is in capturefile.h.
// Files of other programs are read too: both byte orders, any resolution of time, simple packets, blocks and options of
// other kinds, several sections.
#pragma once

#include "bench/text.h"

#include <functional>
#include <istream>
#include <ostream>
#include <stdexcept>

namespace bench
{

// The file is damaged or none of these. The message says what is wrong, and at which byte of the file.
struct CaptureError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// The file ends in the middle of a block, as one does whose disk got full. All blocks before are good.
struct CaptureCut : CaptureError {
    using CaptureError::CaptureError;
};

// Limits of a file. Texts above theirs are cut by the writer. Blocks above theirs are refused by the reader.
inline constexpr std::size_t kLongestText = 65535;
inline constexpr std::size_t kLargestBlock = 16 << 20;

struct PcapSection {
    std::string hardware = {}, system = {}, application = {};
    std::vector<std::string> comments = {};
};

struct PcapInterface {
    std::uint16_t linkType = 0;
    std::string name = {}, description = {};
    std::uint64_t speed = 0; // bit/s; 0: not known
    std::vector<std::string> comments = {};
};

struct PcapPacket {
    enum class Direction : std::uint8_t { kUnknown = 0, kInbound = 1, kOutbound = 2 };
    std::size_t interface = 0; // index among those of the section
    std::uint64_t time = 0;    // microseconds since 1970; 0 for a simple packet, which has no time
    Direction direction = Direction::kUnknown;
    Bytes bytes = {};
    std::size_t length = 0; // on the line; greater than bytes.size() if the capture has only the first bytes
    std::vector<std::string> comments = {};
};

// Writes the blocks in the byte order of this machine. Each call leaves a readable file behind. Throws
// std::runtime_error when the stream fails.
// Owner: the caller keeps the stream.
class PcapWriter
{
public:
    explicit PcapWriter(std::ostream &stream) : stream_(stream) {}
    // A section comes first, then its interfaces. An interface may come between packets.
    void Write(const PcapSection &section);
    void Write(const PcapInterface &interface);
    void Write(const PcapPacket &packet);

private:
    std::ostream &stream_;
};

// Takes what a file has, in its order. A section begins the count of interfaces anew.
struct PcapSink {
    std::function<void(PcapSection)> section;
    std::function<void(PcapInterface)> interface;
    std::function<void(PcapPacket)> packet;
};

// Reads a stream to its end. Throws CaptureError. The blocks before the bad place have been handed out by then. The
// memory that it takes is that of one block.
void ReadPcap(std::istream &stream, const PcapSink &sink);

} // namespace bench
