// What a capture tells: its messages, the answer to each, and the totals of each line. The text and the picture of a
// run are made of this.
#pragma once

#include "bench/capture/capturefile.h"

namespace bench
{

// What became of a message that wants an answer, and what an answer says. A later one matters more to a reader.
enum class Fate {
    kNone,     // the message wants no answer, or it is noise, a piece or a note
    kAnswered, // no block: there is an answer
    kAccepted,
    kUnknown, // a verdict that is neither
    kRefused,
    kSilence, // there is no answer
};

struct Step {
    Message message = {};
    Fate fate = Fate::kNone;
    bool again = false;               // a retry, or a block with the number of the block before
    std::optional<WallTime> gap = {}; // since the end of the message before it on the same line
    std::optional<WallTime> answerTime =
        {};            // of an answer: since the end of its request; of a request: until its answer
    WallTime until{0}; // of a wait and of a request in silence: when that ended
};

struct LineTotals {
    std::size_t messages = 0; // noise included
    std::size_t blocks = 0;
    std::size_t accepted = 0, unknown = 0, refused = 0, silent = 0; // of the blocks
    std::size_t retries = 0;
    std::size_t noise = 0;                    // pieces and noise
    std::size_t toDevice = 0, toHost = 0;     // bytes as they travel
    std::size_t image = 0, acceptedImage = 0; // bytes of the blocks, without stuffing and numbers
    // Share of the time that a line of 115200 bit/s needs for the bytes, in per cent. 0 if the run took no time.
    double Use(WallTime duration) const;
    // Share of the blocks' bytes that are accepted, in per cent.
    double Accepted() const;
};

struct Digest {
    RunInfo info = {};
    std::vector<Step> steps = {};         // in the order of their first bytes
    std::map<int, LineTotals> lines = {}; // by port
    WallTime begin{0}, end{0};            // of the first and the last event
    std::string ending = {};              // "exit 0", "signal 9"; empty: the capture does not tell
    WallTime duration() const { return end - begin; }
};

Digest DigestOf(const Capture &capture);

// "2026-11-21 18:03:11 UTC". An impossible date is "date unknown".
std::string DateText(WallTime time);

// Time in words: "3 s", "50.3 ms", "320 µs", "51 min 20 s".
std::string TimeText(WallTime time);

// The text with a "?" for each control character and each byte that is not UTF-8.
std::string Printable(const std::string &text);

} // namespace bench
