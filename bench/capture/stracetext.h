// What strace printed about a run, as events. The text may come from any line of options that shows the calls of the
// ports; haldencap's manual page has the line that shows all that a capture can have. What the text does not tell is
// said in remarks. Line numbers in remarks and errors are those of the text, counted from 1.
#pragma once

#include "bench/capture/event.h"

#include <functional>
#include <istream>
#include <map>
#include <memory>
#include <stdexcept>

namespace bench
{

// The text cannot be used. The message names the line, and the option to give if there is one that helps.
struct StraceError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

namespace strace
{
struct Findings;
}

class StraceText
{
public:
    using PortPaths = std::map<std::string, int>; // numbers of ports whose device files have other names
    using Sink = std::function<void(const Event &event)>;

    // Reads the whole text once. All errors in the text are found here. The caller keeps the stream, which has to be
    // able to go back to its start. Throws StraceError.
    explicit StraceText(std::istream &text, PortPaths ports = {});
    ~StraceText();
    StraceText(const StraceText &) = delete;
    StraceText &operator=(const StraceText &) = delete;

    const RunInfo &info() const;
    // Reads the text again, and hands out the events in the order of their time. No more than a part of the text is in
    // memory at a time.
    void HandOut(const Sink &sink);

private:
    strace::Findings Follow(const Sink &sink);

    std::istream &text_;
    const PortPaths ports_;
    std::unique_ptr<strace::Findings> findings_;
};

} // namespace bench
