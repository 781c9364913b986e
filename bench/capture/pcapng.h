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
    std::uint64_t time = 0;    // microseconds since 1970
    Direction direction = Direction::kUnknown;
    Bytes bytes = {};
    std::size_t length = 0; // on the line; greater than bytes.size() if the capture has only the first bytes
    std::vector<std::string> comments = {};
};

// Writes the blocks in the byte order of this machine. Each call leaves a readable file behind. Throws
// std::runtime_error when the stream fails.
class PcapWriter
{
public:
    explicit PcapWriter(std::ostream &stream) : stream_(stream) {}
    void Write(const PcapSection &section);
    void Write(const PcapInterface &interface);
    void Write(const PcapPacket &packet);

private:
    std::ostream &stream_;
};

// What a file has, in its order.
struct PcapSink {
    std::function<void(const PcapSection &)> section;
    std::function<void(const PcapInterface &)> interface;
    std::function<void(const PcapPacket &)> packet;
};

// Reads a stream to its end. Throws CaptureError. The blocks before the bad place have been handed out by then.
void ReadPcap(std::istream &stream, const PcapSink &sink);

} // namespace bench
