// The camera: answers the version query, enters flash mode with the block counts announced for its two images, and
// takes the camera image and then the system image. Contents and versions outlive a power cut; flash mode does not.
#pragma once

#include "bench/devices/device.h"

namespace bench
{

inline constexpr int kCameraPort = 0; // number of its device file

class Camera : public Device
{
public:
    static constexpr std::size_t kBlockSize = 64512;

    struct Image {
        std::string version;    // four hexadecimal characters: what it runs
        std::string newVersion; // what it runs once the last announced block is acknowledged
        Bytes contents = {};    // what has been stored; block 0 erases what was there before
        unsigned announced = 0; // blocks, as the flash mode message of this run says
        unsigned due = 0;       // number of the next block: those acknowledged
    };

    Camera(const Image &cameraImage, const Image &systemImage) : camera(cameraImage), system(systemImage) {}

    Image camera, system;

private:
    bool IsBlock(std::uint8_t type) const override;
    void HandleFrame(const Frame &frame) override;
    bool TakeRaw(std::uint8_t byte) override;
    void Forget() override;

    void TakeQuery();
    void TakeFlashMode();
    void TakeBlock(Image &image, const char *name, const Bytes &data);
    std::string Objection(const Image &image, const char *name, unsigned number, std::size_t size) const;
    static void Store(Image &image, unsigned number, const Bytes &data);
};

} // namespace bench
