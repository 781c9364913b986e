#include "bench/rig/images.h"

#include <algorithm>
#include <cstdlib>

namespace bench
{

namespace
{

// Bytes of a xorshift sequence, a quarter of them FF or FE.
Bytes SampleBytes(std::size_t size, std::uint32_t seed)
{
    Bytes bytes(size);
    std::uint32_t state = seed;
    for (std::uint8_t &byte : bytes) {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        const std::uint32_t kind = state >> 8 & 7;
        byte = static_cast<std::uint8_t>(kind < 2 ? 0xFE + kind : state >> 24);
    }
    return bytes;
}

Bytes TextBytes(const std::string &text)
{
    return Bytes(text.begin(), text.end());
}

// A device or one image of it, as it is after a run.
struct Holding {
    const char *name;
    bool addressed; // the device was addressed
    bool sent;      // this image was sent
    unsigned blocks;
    const Bytes &contents;
    std::string version;
    std::size_t findings;
};

Verdict Judge(const Holding &holding, const char *file, const std::optional<Bytes> &image,
              const std::optional<std::string> &wanted)
{
    const std::string state =
        Format("%s: version %s, %u blocks, %zu bytes, %zu findings: ", holding.name, holding.version.c_str(),
               holding.blocks, holding.contents.size(), holding.findings);
    if (!holding.addressed)
        return {true, state + "had no part in the run"};
    if (holding.findings > 0)
        return {false, state + "the host did not keep to the protocol"};
    if (holding.sent && (!image || holding.contents != *image))
        return {false, state + "differs from " + file};
    if (wanted && holding.version != *wanted)
        return {false, state + "should run version " + *wanted};
    return {true, state + (holding.sent ? std::string("holds ") + file : "was sent nothing")};
}

Verdict Judge(const Camera &camera, const Camera::Image &image, const char *name, const char *file,
              const std::string &directory, const char *versionFile)
{
    const Holding holding = {name,           camera.addressed(), image.announced > 0,     image.due,
                             image.contents, image.version,      camera.findings().size()};
    return Judge(holding, file, ReadFile(directory + "/" + file), ReadVersion(directory + "/" + versionFile));
}

} // namespace

void WriteSamples(const std::string &directory, const Samples &samples)
{
    const std::string prefix = directory + "/";
    Bytes micro = SampleBytes(kMicroImageSize, 0x4D494352);
    micro[0] = samples.microVersion;
    WriteFile(prefix + kMicroImage, micro);
    WriteFile(prefix + kCameraImage, SampleBytes(samples.cameraSize, 0x43414D45));
    WriteFile(prefix + kSystemImage, SampleBytes(samples.systemSize, 0x53595354));
    WriteFile(prefix + kCameraVersion, TextBytes(samples.cameraVersion + "\n"));
    WriteFile(prefix + kSystemVersion, TextBytes(samples.systemVersion + "\n"));
}

std::optional<std::string> ReadVersion(const std::string &path)
{
    const std::optional<Bytes> text = ReadFile(path);
    if (!text)
        return std::nullopt;
    std::string digits(text->begin(), text->end());
    digits.resize(std::min<std::size_t>(digits.find_first_not_of("0123456789ABCDEFabcdef"), digits.size()));
    return Format("%04lX", std::strtoul(digits.substr(0, 6).c_str(), nullptr, 16) & 0xFFFF);
}

Verdict Judge(const Micro &micro, const std::string &directory)
{
    std::optional<Bytes> image = ReadFile(directory + "/" + kMicroImage);
    std::optional<std::string> wanted;
    if (image && image->size() > kMicroImageSize)
        image->resize(kMicroImageSize);
    if (image && !image->empty())
        wanted = Format("%02X", image->front());
    const bool sent = micro.blocksBegun() > 0;
    const Holding holding = {"micro",
                             micro.addressed(),
                             sent,
                             micro.blocksEnded(),
                             micro.flash(),
                             Format("%02X", micro.version()),
                             micro.findings().size()};
    return Judge(holding, kMicroImage, image, wanted);
}

Verdict JudgeCamera(const Camera &camera, const std::string &directory)
{
    return Judge(camera, camera.camera, "camera image", kCameraImage, directory, kCameraVersion);
}

Verdict JudgeSystem(const Camera &camera, const std::string &directory)
{
    return Judge(camera, camera.system, "system image", kSystemImage, directory, kSystemVersion);
}

} // namespace bench
