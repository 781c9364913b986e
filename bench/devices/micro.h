// The microcontroller: answers the status request with its version and takes an image of twelve blocks. Contents and
// version outlive a power cut.
#pragma once

#include "bench/devices/device.h"

namespace bench
{

inline constexpr int kMicroPort = 1; // number of its device file

class Micro : public Device
{
public:
    static constexpr unsigned kBlocks = 12;
    static constexpr std::size_t kBlockSize = 512;

    explicit Micro(std::uint8_t version) : version_(version) {}

    // The version it runs: the first byte of the image once block 11 has been acknowledged.
    std::uint8_t version() const { return version_; }
    // What has been stored, from address 0 to the last byte written; block 0 erases what was there before. A block that
    // was refused is missing (FF) even if its retry is acknowledged, because a retry carries no data.
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
    bool refused_ = false; // the latest block was, so that a retry is in order
    bool ended_ = false;   // a short block was stored: only empty ones may follow
};

} // namespace bench
