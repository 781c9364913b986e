// A run as a capture file. docs/protocol.md describes the file for those who read it with other programs.
//
// The first interface of a file is the program: calls and waits that belong to no open line. Each port has an interface
// from its first configuration or its first byte on. A packet is a message, a piece of one, or noise. A note is a packet
// without bytes, and the note is its comment. A message that took time on the line says so in a comment: "ends 45234 us
// later".
#pragma once

#include "bench/capture/conversation.h"
#include "bench/capture/pcapng.h"

#include <map>

namespace bench
{

inline constexpr std::uint16_t kLinkType = 147; // the first of those that are left to users
inline constexpr int kConventions = 1;          // version of what this header describes; the reader refuses later ones

// Writes a run while it goes on. Whatever has been written so far is a readable file.
// Locking: the writer has no lock.
class CaptureWriter
{
public:
    // Writes the beginning of the file. The caller keeps the stream. Throws std::runtime_error, as the other calls do.
    CaptureWriter(std::ostream &stream, const RunInfo &info);
    // Events come in the order of their time, port by port. Portions of a message are put together.
    void Write(const Event &event);
    // Writes what is not complete. It is called at the end.
    void Finish();

private:
    void Put(const Message &message);
    std::size_t InterfaceOf(const Event &event);

    std::ostream &stream_;
    PcapWriter file_;
    std::map<int, Conversation> conversations_;
    std::map<int, std::size_t> interfaces_; // by port
};

struct Capture {
    RunInfo info;
    std::vector<Event> events; // in the order of their time
};

// Reads a capture. Packets of interfaces that are no lines of this bench are left out. Throws CaptureError; its message
// begins with the path.
Capture ReadCapture(const std::string &path);
Capture ReadCapture(std::istream &stream);

} // namespace bench
