// A run as a capture file. docs/protocol.md describes the file for those who read it with other programs.
//
// The comments of the section tell the run: "conventions 1", "command WORDS", "program TEXT", and "file TEXT" once for
// each file. Its application is what made the capture.
//
// Interface 0 is the program, with the name "program": calls and waits that belong to no open line. Each port has an
// interface from its first accepted configuration or its first message on. Its name is "camera", "micro" or "port 7".
// It has the speed and the settings of the line if the configuration came first.
//
// A packet is a message, a piece of one, or noise. Outbound packets go to the device. A packet's time is that of the
// first byte. If the last byte came later, the packet has the comment "ends 45234 us later".
//
// A note is a packet without bytes, and the note is its first comment. Until a port has its interface, its notes are on
// the program's, with the port's name in front: "micro: open refused EBUSY".
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
    // Takes events in the order of their time, port by port. Portions of a message are put together. A message is
    // written when it is complete, so packets of two ports may be in another order than their times. Noise is written
    // at once.
    void Write(const Event &event);
    // Writes what is not complete. It is called at the end.
    void Finish();

private:
    void Put(const Event &event);
    void AddInterface(const Event &event);

    PcapWriter file_;
    std::map<int, Conversation> conversations_; // by port
    std::map<int, std::size_t> interfaces_;     // by port
};

struct Capture {
    RunInfo info;
    std::vector<Event> events; // in the order of their time
};

// Reads a capture. Packets of interfaces that are no lines of this bench are left out, and so are comments that are not
// among those above. Several sections, as programs make them that put captures together, are one list; what is known
// about the run is that of the first.
// A file that ends in the middle of a block gives what is before, and as the last event the remark "! the file is
// cut at byte 4711, ...".
// Throws CaptureError if the file cannot be read, is damaged in another way, has nothing of this bench in it, was made
// by later conventions, or has packets that were cut to a snap length. With a path the message begins with the path.
Capture ReadCapture(const std::string &path);
Capture ReadCapture(std::istream &stream);

} // namespace bench
