// The messages on one line. A conversation takes the bytes of both ways as they come, in any portions, and cuts them
// into messages: what the host sends by its form, what the device sends by the reply that is due at that point. Bytes
// beyond a reply are noise on the line. The host, however, takes them for the beginning of its next reply.
// Locking: a conversation has no lock.
#pragma once

#include "bench/capture/event.h"
#include "bench/devices/protocol.h"

#include <functional>
#include <optional>

namespace bench
{

struct Message {
    enum class Kind {
        kStatusRequest, // to the device, down to kOtherFrame
        kVersionQuery,
        kFlashMode,
        kBlock,
        kRetry, // an empty frame for a block that was refused
        kOtherFrame,
        kVersion, // to the host, down to kVerdict
        kModeReply,
        kVerdict,
        kNoise, // bytes that belong to no message, of either way
        kPiece, // a message that is not complete, of either way
        kNote,  // the event has no bytes
    };
    Event event = {}; // all bytes of the message, as they travelled
    Kind kind = Kind::kNote;
    // As the transcripts of the devices name it: "camera block 5 with 64512 bytes", "ack", "version 20". Behind it
    // there is no size. A note is its own name.
    std::string name = {};
    std::string finding = {};                 // what is wrong with it; empty: nothing
    std::optional<std::uint8_t> type = {};    // of a frame
    std::optional<unsigned> block = {};       // of a block, a retry, and the verdict on either
    std::optional<std::uint8_t> verdict = {}; // of a verdict
    Bytes data = {};                          // of a frame, without stuffing and checksum; the number is part of it
};

class Conversation
{
public:
    using Sink = std::function<void(Message)>;

    // The port tells the device.
    explicit Conversation(int port) : port_(port) {}

    // Takes an event of this port and hands out the messages that are complete with it. The times of a message are
    // those of the events that brought its first and its last byte. A note is handed out at once; close ends what is
    // not complete.
    void Take(const Event &event, const Sink &sink);
    // Hands out what is not complete, as pieces and noise. No reply is due then.
    void Flush(const Sink &sink);
    // Hands out the noise that waits for more of its kind, of either way. Noise that comes later is another message.
    void FlushNoise(const Sink &sink);
    // Whether bytes wait for the rest of their message.
    bool pending() const { return !out_.bytes.empty() || !in_.bytes.empty(); }

private:
    using Kind = Message::Kind;

    void Add(Event &open, std::uint8_t byte);
    void TakeByte(bool fromHost, std::uint8_t byte, const Sink &sink);
    void TakeFromHost(std::uint8_t byte, const Sink &sink);
    void TakeDeviation(const Sink &sink);
    bool TakeRaw(std::uint8_t byte, const Sink &sink);
    void EndRaw(bool query, const Sink &sink);
    void EndFrame(const std::string &finding, const Sink &sink);
    bool InMessage() const;
    void FlushToDevice(const Sink &sink, const std::string &finding = {});
    void Expect(Kind reply, std::size_t size);
    bool StartsReply(std::uint8_t byte) const;
    void TakeFromDevice(std::uint8_t byte, const Sink &sink);
    void EndReply(const Sink &sink);
    void FlushToHost(const Sink &sink);
    void Emit(Event &open, Way way, Message message, const Sink &sink);

    const int port_;
    const Event *next_ = nullptr; // the event that is being taken
    Event out_, in_;              // the message of each way that is not complete
    FrameDecoder decoder_;
    bool raw_ = false;             // out_ begins a message without a frame
    std::string finding_;          // what has spoiled the frame in out_
    Kind expected_ = Kind::kNoise; // the reply that is due; kNoise: there is none
    std::size_t replySize_ = 0;
    bool replyBegun_ = false;       // in_ begins that reply
    std::optional<unsigned> block_; // the latest one
};

// The messages of a whole list, in the order of their first bytes. Each port has its own conversation.
std::vector<Message> MessagesOf(const std::vector<Event> &events);

} // namespace bench
