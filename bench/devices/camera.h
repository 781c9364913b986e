// The camera. It answers the version query. It enters flash mode with the announced number of blocks of each image.
// Then it takes the camera image, and behind it the system image. Contents and versions outlive a power cut. Flash mode
// does not.
#pragma once

#include "bench/devices/device.h"

namespace bench
{

class Camera : public Device
{
public:
    static constexpr std::size_t kBlockSize = 64512;

    struct Image {
        std::string version;    // that the camera runs: four hexadecimal characters
        std::string newVersion; // that it runs as soon as the last announced block is acknowledged
        Bytes contents = {};    // the stored bytes; block 0 erases the earlier ones
        unsigned announced = 0; // number of blocks, from the flash mode message of this run
        unsigned due = 0;       // number of the next block
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
