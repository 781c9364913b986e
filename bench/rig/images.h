// Images and version files of an update: samples of them, and whether the devices hold them.
#pragma once

#include "bench/devices/camera.h"
#include "bench/devices/micro.h"

namespace bench
{

inline constexpr char kMicroImage[] = "haldenmicro.bin";
inline constexpr char kCameraImage[] = "farsightcam.bin";
inline constexpr char kSystemImage[] = "farsightsys.bin";
inline constexpr char kCameraVersion[] = "farsightcamver";
inline constexpr char kSystemVersion[] = "farsightsysver";

// Image bytes of a micro update, whatever the file's size.
inline constexpr std::size_t kMicroImageSize = Micro::kBlocks * Micro::kBlockSize;

struct Samples {
    std::uint8_t microVersion = 0x21;
    std::size_t cameraSize = 3 * Camera::kBlockSize + 1000;
    std::size_t systemSize = 2 * Camera::kBlockSize;
    std::string cameraVersion = "0204"; // as written to the version files
    std::string systemVersion = "0307";
};

// Writes the five files into an existing directory: always the same bytes, many of them FF and FE.
// Throws std::runtime_error.
void WriteSamples(const std::string &directory, const Samples &samples);

// The version in a version file, as the camera will report it: four hexadecimal digits in capitals.
// Nothing when there is no such file.
std::optional<std::string> ReadVersion(const std::string &path);

// Whether a device ended its run as it should: it found nothing wrong, holds exactly the image that it was sent, and
// runs that version. A device that had no part in the run is good; so is an image that was not sent because the device
// runs it already.
struct Verdict {
    bool good;
    std::string text; // one line
};
Verdict Judge(const Micro &micro, const std::string &directory);
Verdict JudgeCamera(const Camera &camera, const std::string &directory);
Verdict JudgeSystem(const Camera &camera, const std::string &directory);

} // namespace bench
