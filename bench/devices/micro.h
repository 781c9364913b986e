// The microcontroller. It answers the status request with its version, and takes an image of twelve blocks. Contents
// and version outlive a power cut.
#pragma once

#include "bench/devices/device.h"

namespace bench
{

class Micro : public Device
{
public:
    static constexpr unsigned kBlocks = 12;
    static constexpr std::size_t kBlockSize = 512;

    explicit Micro(std::uint8_t version) : version_(version) {}

    // The version that it runs. As soon as block 11 is acknowledged, that is the first byte of the image.
    std::uint8_t version() const { return version_; }
    // The stored bytes, from address 0 to the last byte written. Block 0 erases the earlier ones. A refused block is
    // FF, even if its retry is acknowledged: a retry has no data.
    const Bytes &flash() const { return flash_; }

private:
    bool IsBlock(std::uint8_t type) const override;
    void HandleFrame(const Frame &frame) override;
    void Forget() override;

    void TakeStatusRequest(const Bytes &data);
    void TakeRetry();
    void TakeBlock(const Bytes &data);
    std::string Objection(unsigned number, std::size_t size) const;
    void Store(unsigned number, const Bytes &data);
    void Conclude(std::uint8_t verdict);

    std::uint8_t version_;
    Bytes flash_;
    unsigned due_ = 0;     // number of the next block
    bool refused_ = false; // the latest block was refused, so a retry may come
    bool ended_ = false;   // a short block was stored, so only blocks without data may follow
};

} // namespace bench
