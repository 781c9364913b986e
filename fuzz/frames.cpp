// Frames. The bench's decoder is compared with a decoder that gets all bytes at once. The updater's frames go through
// both. To the two devices it must not matter in which pieces bytes arrive. The input is the bytes on the line, and
// also the data of a frame. Its first byte stands for the type of the frame and the size of the pieces.
#include "fuzz/support.h"

#include "bench/devices/camera.h"
#include "bench/devices/micro.h"
#include "devlib/haldenflash/messages.h"

#include <numeric>
#include <optional>

namespace
{

using bench::Bytes;

constexpr UInt8 kTypes[] = {0x41, 0x42, 0x43, 0x44, 0x48, 0x81, 0x88, 0x89};

struct Heard {
    std::vector<std::pair<UInt8, Bytes>> frames;
    int deviations = 0;
};

Bytes Built(UInt8 type, const Bytes &data)
{
    Bytes wire(2 * (data.size() + 6) + 1, 0x5A);
    wire.back() = 0;
    Int32 size = 0;
    CHECK(buildKoraToHaldenMsg(static_cast<KORA_HALDEN_MESAGE_TYPE>(type), static_cast<Int32>(data.size()), data.data(),
                               &size, wire.data()) == kNoError);
    wire.resize(static_cast<std::size_t>(size));
    return wire;
}

Heard Decoded(const Bytes &wire)
{
    Heard heard;
    bench::FrameDecoder decoder;
    for (const UInt8 byte : wire) {
        const auto event = decoder.Feed(byte);
        if (event == bench::FrameDecoder::Event::kFrame)
            heard.frames.emplace_back(decoder.frame().type, decoder.frame().data);
        heard.deviations += event == bench::FrameDecoder::Event::kDeviation ? 1 : 0;
    }
    return heard;
}

// Takes the escapes out of the bytes between two FF, up to the first wrong one. *used is the number of bytes that the
// first `due` bytes of the result took.
Bytes Unstuffed(const Bytes &part, std::size_t due, std::size_t *used)
{
    Bytes plain;
    std::size_t at = 0;
    while (at < part.size() && plain.size() < due) {
        if (part[at] != 0xFE)
            plain.push_back(part[at++]);
        else if (at + 1 < part.size() && part[at + 1] <= 1)
            plain.push_back(part[at + 1] == 1 ? 0xFF : 0xFE), at += 2;
        else
            break;
    }
    *used = at;
    return plain;
}

// A part has at most one frame and one deviation: whatever is wrong, the rest is not looked at.
void TakePart(const Bytes &part, bool last, Heard *heard)
{
    std::size_t used = 0;
    const Bytes header = Unstuffed(part, 3, &used);
    const std::size_t length = header.size() < 3 ? 3 : header[1] * 256u + header[2];
    const Bytes plain = Unstuffed(part, 3 + length, &used);
    if (length < 3 || plain.size() < 3 + length) {
        const bool unfinished = used == part.size() || (part[used] == 0xFE && used + 1 == part.size());
        heard->deviations += length < 3 || !last || !unfinished ? 1 : 0;
        return;
    }
    const Bytes data(plain.begin() + 3, plain.end() - 3);
    const UInt8 *end = plain.data() + plain.size();
    const UInt32 checksum = end[-3] * 65536u + end[-2] * 256u + end[-1];
    if ((std::accumulate(data.begin(), data.end(), checksum) & 0xFFFFFF) != 0) {
        heard->deviations++;
        return;
    }
    heard->frames.emplace_back(plain[0], data);
    heard->deviations += used < part.size() ? 1 : 0; // outside a frame
    if (validateKoraHaldenMessageType(plain[0]) != 0) {
        Bytes wire(part.begin(), part.begin() + static_cast<std::ptrdiff_t>(used));
        wire.insert(wire.begin(), 0xFF);
        CHECK(Built(plain[0], data) == wire);
    }
}

Heard Understood(const Bytes &wire)
{
    Heard heard;
    auto at = std::find(wire.begin(), wire.end(), 0xFF);
    heard.deviations = at != wire.begin() ? 1 : 0;
    while (at != wire.end()) {
        const auto end = std::find(at + 1, wire.end(), 0xFF);
        TakePart(Bytes(at + 1, end), end == wire.end(), &heard);
        at = end;
    }
    return heard;
}

// Everything that a device makes of the bytes, which come in pieces of that size.
Bytes Received(bench::Device &&device, const Bytes &wire, std::size_t piece)
{
    device.PowerOn();
    Bytes all;
    for (std::size_t at = 0; at < wire.size(); at += piece)
        for (const bench::Reply &reply : device.Receive(std::span(wire).subspan(at, std::min(piece, wire.size() - at))))
            all.insert(all.end(), reply.bytes.begin(), reply.bytes.end());
    device.PowerOff();
    for (const std::string &line : device.transcript())
        all.insert(all.end(), line.begin(), line.end());
    return all;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const UInt8 *data, std::size_t size)
{
    if (size == 0)
        return 0;
    const UInt8 type = kTypes[data[0] % std::size(kTypes)];
    const Bytes content(data + 1, data + std::min(size, std::size_t{500})); // lengths of two bytes
    Bytes wire = content;
    const Bytes frame = Built(type, content);
    wire.insert(wire.end(), frame.begin(), frame.end());
    const Heard heard = Decoded(wire);
    const Heard expected = Understood(wire);
    CHECK(heard.frames == expected.frames && heard.deviations == expected.deviations);
    CHECK(heard.frames.back() == std::pair(type, content)); // whatever came before it
    const std::size_t piece = 1 + data[0] / std::size(kTypes);
    const bench::Camera::Image image = {"0001", "0002"};
    CHECK(Received(bench::Micro(1), wire, piece) == Received(bench::Micro(1), wire, wire.size()));
    CHECK(Received(bench::Camera(image, image), wire, piece) ==
          Received(bench::Camera(image, image), wire, wire.size()));
    return 0;
}
