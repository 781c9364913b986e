// Capture files. An input is a file as it is, or the parts of one: the target then puts right lengths around them, so
// that inputs come past the first checks. What can be read is written and read again: no byte and no note may be lost.
#include "fuzz/support.h"

#include "bench/capture/capturefile.h"

#include <map>
#include <sstream>

namespace
{

using bench::Event;
using std::string;

// Hands out the input from its beginning. Behind its end there are zeros.
class Input
{
public:
    Input(const UInt8 *data, std::size_t size) : rest_(reinterpret_cast<const char *>(data), size) {}

    bool Left() const { return !rest_.empty(); }
    UInt8 Byte() { return static_cast<UInt8>(Text(1)[0]); }
    string Text(std::size_t size)
    {
        string text(rest_.substr(0, size));
        rest_.remove_prefix(text.size());
        text.resize(size);
        return text;
    }

private:
    std::string_view rest_;
};

string Number(std::size_t size, UInt64 number)
{
    string text;
    for (std::size_t i = 0; i < size; ++i)
        text += static_cast<char>(number >> 8 * i);
    return text;
}

string Padded(string text)
{
    text.resize((text.size() + 3) / 4 * 4);
    return text;
}

string Block(UInt32 type, const string &body)
{
    const string size = Number(4, Padded(body).size() + 12);
    return Number(4, type) + size + Padded(body) + size;
}

string Option(UInt8 code, const string &value)
{
    return Number(2, code) + Number(2, value.size()) + Padded(value);
}

string Options(Input &input)
{
    static constexpr const char *kTexts[] = {"conventions 1", "ends 5 us later", "micro: close",
                                             "config mask 3 baud 9"};
    string options;
    for (int count = input.Byte() % 4; count > 0; --count) {
        const UInt8 code = input.Byte() % 16, size = input.Byte();
        options += Option(code, size < std::size(kTexts) ? kTexts[size] : input.Text(size % 32));
    }
    return options;
}

string Part(Input &input)
{
    static constexpr const char *kNames[] = {"program", "micro", "camera", "port 3", "eth0"};
    const string head = Number(2, bench::kLinkType) + string(6, '\0');
    string bytes;
    switch (input.Byte() % 6) {
    case 0:
        return Block(0x0A0D0D0A, Number(4, 0x1A2B3C4D) + Number(2, 1) + string(10, '\0') + Options(input));
    case 1:
        return Block(1, head + Option(2, kNames[input.Byte() % std::size(kNames)]) + Options(input));
    case 2:
        return Block(input.Byte(), input.Text(input.Byte()));
    case 3:
        return input.Text(input.Byte());
    default:
        const string start = Number(4, input.Byte() % 4) + Number(4, 0) + Number(4, input.Byte());
        bytes = input.Text(input.Byte() % 64);
        return Block(6, start + Number(4, bytes.size()) + Number(4, bytes.size()) + Padded(bytes) +
                            Option(2, Number(4, 1 + bytes.size() % 2)) + Options(input));
    }
}

string FileOf(const UInt8 *data, std::size_t size)
{
    Input input(data, size);
    if (input.Byte() % 4 == 0)
        return input.Text(size - 1);
    string file;
    while (input.Left())
        file += Part(input);
    return file;
}

// What passed on each line, each way, and the notes of each port.
std::map<std::pair<int, bench::Way>, string> Streams(const std::vector<Event> &events)
{
    std::map<std::pair<int, bench::Way>, string> streams;
    for (const Event &event : events) {
        string &stream = streams[{event.port, event.way}];
        stream.append(event.bytes.begin(), event.bytes.end());
        if (event.way == bench::Way::kNone)
            stream += event.note + "\n";
    }
    return streams;
}

std::vector<Event> Again(const bench::Capture &capture)
{
    std::stringstream stream;
    bench::CaptureWriter writer(stream, capture.info);
    for (const Event &event : capture.events)
        writer.Write(event);
    writer.Finish();
    return bench::ReadCapture(stream).events;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const UInt8 *data, std::size_t size)
{
    if (size == 0)
        return 0;
    try {
        std::istringstream stream(FileOf(data, size));
        const bench::Capture capture = bench::ReadCapture(stream);
        std::vector<Event> events;
        for (const bench::Message &message : bench::MessagesOf(capture.events))
            events.push_back(message.event);
        CHECK(Streams(events) == Streams(capture.events));
        CHECK(Streams(Again(capture)) == Streams(capture.events));
    } catch (const bench::CaptureError &error) {
        CHECK(error.what()[0] != '\0');
    }
    return 0;
}
