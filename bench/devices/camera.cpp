#include "bench/devices/camera.h"

#include <algorithm>

namespace bench
{

namespace
{

// Values of the fourth byte of the flash mode message.
constexpr std::uint8_t kSystemOnly = 1;
constexpr std::uint8_t kCameraOnly = 3;
constexpr std::uint8_t kBoth = 5;

} // namespace

bool Camera::IsBlock(std::uint8_t type) const
{
    return IsBlockType(kCameraPort, type);
}

void Camera::Forget()
{
    for (Image *image : {&camera, &system})
        image->announced = image->due = 0;
}

bool Camera::TakeRaw(std::uint8_t byte)
{
    if (wire_.empty() && byte != kVersionQueryBytes[0] && byte != kFlashModeHead[0])
        return false;
    wire_.push_back(byte);
    const bool query = wire_[0] == kVersionQueryBytes[0];
    const Bytes &head = query ? kVersionQueryBytes : kFlashModeHead;
    if (!std::equal(head.begin(), head.begin() + static_cast<int>(std::min(wire_.size(), head.size())),
                    wire_.begin())) {
        Finding("unknown message, " + Describe(wire_));
        wire_.clear();
        return byte != 0xFF; // which may be the start of a frame
    }
    if (wire_.size() == (query ? kVersionQueryBytes.size() : kFlashModeSize)) {
        query ? TakeQuery() : TakeFlashMode();
        wire_.clear();
    }
    return true;
}

void Camera::TakeQuery()
{
    Heard("version query");
    Bytes reply = {0xA0, 0x71, 0x72, 0x73, 0x74};
    reply.insert(reply.end(), system.version.begin(), system.version.end());
    reply.insert(reply.end(), camera.version.begin(), camera.version.end());
    AnswerVersion("camera " + camera.version + " system " + system.version, reply);
}

void Camera::TakeFlashMode()
{
    const unsigned mode = wire_[3];
    Forget();
    camera.announced = Word(wire_, 4);
    system.announced = Word(wire_, 6);
    Heard(Format("flash mode %u, %u camera blocks, %u system blocks", mode, camera.announced, system.announced));
    const bool wantsCamera = mode == kCameraOnly || mode == kBoth;
    const bool wantsSystem = mode == kSystemOnly || mode == kBoth;
    if (!wantsCamera && !wantsSystem)
        Finding(Format("unknown flash mode %u", mode));
    if (wantsCamera != (camera.announced > 0) || wantsSystem != (system.announced > 0))
        Finding(Format("flash mode %u does not go with %u camera blocks and %u system blocks", mode, camera.announced,
                       system.announced));
    Answer("flash mode", {0x87, 0x61, 0x62, 0x63}, faults.flashMode);
}

void Camera::HandleFrame(const Frame &frame)
{
    if (frame.type == kCameraBlockType) {
        TakeBlock(camera, "camera", frame.data);
    } else if (frame.type == kSystemBlockType) {
        TakeBlock(system, "system", frame.data);
    } else {
        Heard(Format("frame of type %02X", frame.type));
        Finding(Format("a frame of type %02X is none of its messages", frame.type));
    }
}

void Camera::TakeBlock(Image &image, const char *name, const Bytes &data)
{
    const bool numbered = data.size() >= kNumberSize;
    const unsigned number = numbered ? Word(data, 0) : image.due;
    const std::size_t size = numbered ? data.size() - kNumberSize : 0;
    Heard(Format("%s block %u with %zu bytes", name, number, size));
    const std::string objection = numbered ? Objection(image, name, number, size) : "block without a number";
    if (!objection.empty())
        Finding(objection);
    const std::uint8_t verdict = AnswerBlock(objection.empty());
    if (objection.empty() && verdict == kAck)
        Store(image, number, data);
}

// The reason why a block is not acceptable. Empty: it is acceptable.
std::string Camera::Objection(const Image &image, const char *name, unsigned number, std::size_t size) const
{
    if (number >= image.announced)
        return Format("%s block %u, but %u were announced", name, number, image.announced);
    if (number != image.due)
        return Format("%s block %u where %u is due", name, number, image.due);
    if (&image == &system && camera.due < camera.announced)
        return Format("system block %u before camera block %u", number, camera.due);
    const bool last = number + 1 == image.announced;
    if (size == 0 || size > kBlockSize || (size < kBlockSize && !last))
        return Format("%s block %u of %u with %zu bytes", name, number, image.announced, size);
    return "";
}

void Camera::Store(Image &image, unsigned number, const Bytes &data)
{
    if (number == 0)
        image.contents.clear();
    image.contents.insert(image.contents.end(), data.begin() + kNumberSize, data.end());
    ++image.due;
    if (image.due == image.announced)
        image.version = image.newVersion;
}

} // namespace bench
