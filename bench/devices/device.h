// The common part of the two peripherals: a state machine that takes the bytes of its line and hands out replies. It
// has no clock, no thread and no descriptor.
// Owner:   the caller owns the device. Contents and versions live as long as the object, over any number of runs.
// Locking: a device has no lock. Nobody else uses it while a Line carries bytes for it.
//
// The transcript has one line per message of the run. The first sign of a line tells what it is:
// "> "  a message of the host
// "< "  a reply
// "! "  a finding: the host has done something wrong
// "* "  a power cut
#pragma once

#include "bench/devices/faults.h"
#include "bench/devices/peer.h"
#include "bench/devices/protocol.h"

namespace bench
{

class Device : public Peer
{
public:
    // The faults that are played in every run from the next PowerOn on.
    Faults faults;

    // Begins a run. Transcript, findings, counts and the protocol start over.
    void PowerOn() override;

    // Takes bytes and returns the replies to them, in order. A bad frame gets no reply. After a power cut bytes are
    // lost until the next PowerOn.
    std::vector<Reply> Receive(std::span<const std::uint8_t> bytes) override;

    // Ends a run. An unfinished message is a finding.
    void PowerOff() override;

    // These are about the current run, or else the latest one.
    const std::vector<std::string> &transcript() const { return transcript_; }
    const std::vector<std::string> &findings() const { return findings_; }
    bool addressed() const { return addressed_; }         // a byte came
    unsigned blocksBegun() const { return blocksBegun_; } // number of block frames that began, retries included
    unsigned blocksEnded() const { return blocksEnded_; } // number of block frames that came whole

protected:
    virtual bool IsBlock(std::uint8_t type) const = 0;
    virtual void HandleFrame(const Frame &frame) = 0;
    // Takes a byte between two frames if it belongs to a message without a frame. Such a message is gathered in wire_.
    // Returns false for any other byte.
    virtual bool TakeRaw(std::uint8_t) { return false; }
    // Starts the protocol over.
    virtual void Forget() = 0;

    // Notes the message in wire_. what names it in the transcript.
    void Heard(const std::string &what);
    void Finding(const std::string &text);
    void Answer(const std::string &what, Bytes bytes, const ReplyFault &fault);
    void AnswerNoise(const Bytes &noise);
    // Sends the noise and then the version reply.
    void AnswerVersion(const std::string &version, const Bytes &reply);
    // Sends the verdict on the current block, and returns it. The script may replace the device's own verdict. A device
    // stores a block if the verdict is kAck, even if the reply gets lost.
    std::uint8_t AnswerBlock(bool acceptable);

    Bytes wire_; // the current message as it came over the line

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
