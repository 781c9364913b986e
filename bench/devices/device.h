// What the two peripherals have in common: a pure state machine that takes the bytes of its line and hands out replies.
// It has no clock, no thread and no descriptor of its own.
// Owner:   the caller; contents and versions live as long as the object, over any number of runs.
// Locking: none. While a Line carries bytes for it, nobody else touches it.
//
// The transcript has one line per message of the run: "> " what the host sent, "< " what was answered, "! " a finding
// (a deviation of the host's), "* " a power cut.
#pragma once

#include "bench/devices/faults.h"
#include "bench/devices/frame.h"

#include <span>

namespace bench
{

struct Reply {
    Bytes bytes;
    int delayMs = 0; // to be held back so long
};

class Device
{
public:
    Device(const Device &) = delete;
    Device &operator=(const Device &) = delete;
    virtual ~Device() = default;

    // Played in every run from the next PowerOn on, until changed.
    Faults faults;

    // A run begins: transcript, findings and counts start over, and so does the protocol.
    void PowerOn();

    // Takes bytes and returns the replies they led to, in order. A bad frame gets none. After a power cut bytes go
    // nowhere until the next PowerOn.
    std::vector<Reply> Receive(std::span<const std::uint8_t> bytes);

    // The run is over: a message that was begun and not finished is a finding.
    void PowerOff();

    // All of this is about the current or latest run.
    const std::vector<std::string> &transcript() const { return transcript_; }
    const std::vector<std::string> &findings() const { return findings_; }
    bool addressed() const { return addressed_; }         // any byte came
    unsigned blocksBegun() const { return blocksBegun_; } // block frames, retries included
    unsigned blocksEnded() const { return blocksEnded_; } // of these, those received whole

protected:
    Device() = default;

    virtual bool IsBlock(std::uint8_t type) const = 0;
    virtual void HandleFrame(const Frame &frame) = 0;
    // Takes a byte between two frames as part of a message without a frame, if it is that; such a message is gathered
    // in wire_.
    virtual bool TakeRaw(std::uint8_t) { return false; }
    // Loses where it was in the protocol; what the host may still ask of it begins anew.
    virtual void Forget() = 0;

    // The message in wire_ was what.
    void Heard(const std::string &what);
    void Finding(const std::string &text);
    void Answer(const std::string &what, Bytes bytes, const ReplyFault &fault);
    void AnswerNoise(const Bytes &noise);
    // Sends the version reply, behind its noise.
    void AnswerVersion(const std::string &version, const Bytes &reply);
    // Sends the verdict on the block in hand, which the script may replace, and returns it. A device has stored a block
    // if the verdict is kAck, even if the reply gets lost.
    std::uint8_t AnswerBlock(bool acceptable);

    Bytes wire_; // the message in hand as it came over the line

private:
    void TakeByte(std::uint8_t byte);
    void TakeFrame();
    bool CutHere(bool middle) const;
    void CutPower();

    FrameDecoder decoder_;
    std::vector<Reply> replies_;
    std::vector<std::string> transcript_, findings_;
    bool powered_ = false;
    bool addressed_ = false;
    unsigned blocksBegun_ = 0;
    unsigned blocksEnded_ = 0;
};

} // namespace bench
