// Images and version files of an update. This part makes samples of them, and judges whether the devices hold them.
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

// Image bytes of a microcontroller's update. The file's size does not matter.
inline constexpr std::size_t kMicroImageSize = Micro::kBlocks * Micro::kBlockSize;

struct Samples {
    std::uint8_t microVersion = 0x21;
    std::size_t cameraSize = 3 * Camera::kBlockSize + 1000;
    std::size_t systemSize = 2 * Camera::kBlockSize;
    std::string cameraVersion = "0204"; // the contents of the version files
    std::string systemVersion = "0307";
};

// Writes the five files into an existing directory. The bytes are always the same, and many of them are FF and FE.
// Throws std::runtime_error.
void WriteSamples(const std::string &directory, const Samples &samples);

// Reads a version file. The version is as the camera reports it: four hexadecimal digits in capitals. Returns nothing
// if there is no such file.
std::optional<std::string> ReadVersion(const std::string &path);

// The end of a device's run is good in each of these cases:
// - The device found nothing wrong, holds exactly the image that it was sent, and runs that version.
// - The image was not sent, because the device runs it already.
// - The device had no part in the run.
struct Verdict {
    bool good;
    std::string text; // one line
};
Verdict Judge(const Micro &micro, const std::string &directory);
Verdict JudgeCamera(const Camera &camera, const std::string &directory);
Verdict JudgeSystem(const Camera &camera, const std::string &directory);

} // namespace bench
