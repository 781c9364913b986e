#include "bench/capture/capturefile.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>
#include <sstream>
#include <utility>

namespace bench
{

namespace
{

constexpr std::size_t kProgramInterface = 0;
constexpr char kProgramName[] = "program";
constexpr int kLastPort = 9; // of the device files

// First words of comments.
constexpr char kConventionsWord[] = "conventions ";
constexpr char kCommandWord[] = "command ";
constexpr char kProgramWord[] = "program ";
constexpr char kFileWord[] = "file ";
constexpr char kEndsWord[] = "ends ";
constexpr char kEndsUnit[] = " us later";

// Nothing if that is no name of a port.
std::optional<int> PortOf(const std::string &name)
{
    for (int port = 0; port <= kLastPort; ++port)
        if (name == PortName(port))
            return port;
    return std::nullopt;
}

// What stands behind a word, or nothing if the text begins otherwise.
std::optional<std::string> Behind(const std::string &text, const std::string &word)
{
    if (!text.starts_with(word))
        return std::nullopt;
    return text.substr(word.size());
}

// ---- The settings of a line

constexpr char kConfigWord[] = "config ";

// The fields of the driver's request, and what their values are called. A field that the mask leaves out keeps the
// value that these ports always have.
struct Setting {
    const char *field;
    unsigned maskBit;
    const char *fixed;
    std::vector<const char *> names;
};
const Setting kSettings[] = {
    {"data", 16, "8 data bits", {"5 data bits", "6 data bits", "7 data bits", "8 data bits"}},
    {"parity", 2, "", {"no parity", "odd parity", "even parity"}},
    {"stop", 4, "1 stop bit", {"1 stop bit", "2 stop bits"}},
};
constexpr unsigned kBaudBit = 1;

// The fields of a configuration note. Values that are not known are left out.
std::map<std::string, unsigned> FieldsOf(const std::string &note)
{
    std::map<std::string, unsigned> fields;
    std::istringstream words(note.substr(std::strlen(kConfigWord)));
    std::string field, value;
    while (words >> field >> value)
        if (const auto number = ParseNumber(value, 10, ~0U))
            fields[field] = *number;
    return fields;
}

// The name of a setting, or "" if it is not known.
std::string SettingName(const Setting &setting, const std::map<std::string, unsigned> &fields)
{
    const auto mask = fields.find("mask"), value = fields.find(setting.field);
    if (mask == fields.end())
        return "";
    if ((mask->second & setting.maskBit) == 0)
        return setting.fixed;
    return value != fields.end() && value->second < setting.names.size() ? setting.names[value->second] : "";
}

// Whether a note tells that the driver took a configuration.
bool IsConfiguration(const Event &event)
{
    return event.way == Way::kNone && event.note.starts_with(kConfigWord) &&
           event.note.find(" refused") == std::string::npos;
}

PcapInterface InterfaceFor(const Event &event)
{
    PcapInterface interface = {.linkType = kLinkType,
                               .name = PortName(event.port),
                               .description = "/dev/fpgaserial" + std::to_string(event.port)};
    if (!IsConfiguration(event))
        return interface;
    const auto fields = FieldsOf(event.note);
    const auto mask = fields.find("mask"), baud = fields.find("baud");
    std::vector<std::string> settings;
    if (mask != fields.end() && (mask->second & kBaudBit) != 0 && baud != fields.end()) {
        interface.speed = baud->second;
        settings.push_back(std::to_string(baud->second) + " bit/s");
    }
    for (const Setting &setting : kSettings)
        settings.push_back(SettingName(setting, fields));
    const char *separator = ": ";
    for (const std::string &setting : settings)
        if (!setting.empty())
            interface.description += std::exchange(separator, ", ") + setting;
    return interface;
}

PcapPacket::Direction DirectionOf(Way way)
{
    switch (way) {
    case Way::kToDevice:
        return PcapPacket::Direction::kOutbound;
    case Way::kToHost:
        return PcapPacket::Direction::kInbound;
    case Way::kNone:
        break;
    }
    return PcapPacket::Direction::kUnknown;
}

} // namespace

// ---- Writing

CaptureWriter::CaptureWriter(std::ostream &stream, const RunInfo &info) : file_(stream)
{
    PcapSection section = {.application = info.source};
    section.comments = {kConventionsWord + std::to_string(kConventions)};
    if (!info.command.empty())
        section.comments.push_back(kCommandWord + info.command);
    if (!info.program.empty())
        section.comments.push_back(kProgramWord + info.program);
    for (const std::string &file : info.files)
        section.comments.push_back(kFileWord + file);
    file_.Write(section);
    file_.Write({.linkType = kLinkType, .name = kProgramName, .description = "calls and waits of the program"});
}

void CaptureWriter::Write(const Event &event)
{
    Conversation &conversation = conversations_.try_emplace(event.port, event.port).first->second;
    const auto put = [this](const Message &message) { Put(message.event); };
    conversation.Take(event, put);
    conversation.FlushNoise(put);
}

void CaptureWriter::Finish()
{
    for (auto &[port, conversation] : conversations_)
        conversation.Flush([this](const Message &message) { Put(message.event); });
}

void CaptureWriter::AddInterface(const Event &event)
{
    const std::size_t next = interfaces_.size() + 1; // behind the program's
    if (interfaces_.try_emplace(event.port, next).second)
        file_.Write(InterfaceFor(event));
}

void CaptureWriter::Put(const Event &event)
{
    if (event.port != kNoPort && (event.way != Way::kNone || IsConfiguration(event)))
        AddInterface(event);
    const auto found = interfaces_.find(event.port);
    PcapPacket packet = {.interface = found == interfaces_.end() ? kProgramInterface : found->second,
                         .time = static_cast<std::uint64_t>(event.begin.count()),
                         .direction = DirectionOf(event.way),
                         .bytes = event.bytes};
    if (event.way == Way::kNone)
        packet.comments.push_back(event.note);
    else if (event.end > event.begin)
        packet.comments.push_back(kEndsWord + std::to_string((event.end - event.begin).count()) + kEndsUnit);
    if (event.port != kNoPort && packet.interface == kProgramInterface)
        packet.comments.front().insert(0, PortName(event.port) + ": ");
    file_.Write(packet);
}

// ---- Reading

namespace
{

class CaptureReader
{
public:
    Capture Read(std::istream &stream);

private:
    void Take(const PcapSection &section);
    void Take(const PcapInterface &interface);
    void Take(PcapPacket packet);
    void TakeBytes(Event event, PcapPacket packet);
    void TakeNote(Event event, const PcapPacket &packet);

    // Port of an interface of ours, kNoPort for the program's. Nothing for an interface of others.
    using Place = std::optional<int>;

    Capture capture_;
    std::vector<Place> places_; // of the section's interfaces
    bool ours_ = false;         // there was an interface of ours
    bool known_ = false;        // the run is known
};

Capture CaptureReader::Read(std::istream &stream)
{
    std::string cut;
    try {
        ReadPcap(stream, {[this](const PcapSection &section) { Take(section); },
                          [this](const PcapInterface &interface) { Take(interface); },
                          [this](PcapPacket packet) { Take(std::move(packet)); }});
    } catch (const CaptureCut &error) {
        if (!ours_)
            throw;
        cut = error.what();
    }
    if (!ours_)
        throw CaptureError("there is no line of haldenbench or haldencap in it; their link type is " +
                           std::to_string(kLinkType) + ", and their interfaces have names such as \"micro\"");
    std::vector<Event> &events = capture_.events;
    std::stable_sort(events.begin(), events.end(), [](const Event &a, const Event &b) { return a.begin < b.begin; });
    if (!cut.empty()) {
        const WallTime last = events.empty() ? WallTime{0} : events.back().begin;
        events.push_back({.begin = last, .end = last, .note = "! " + cut});
    }
    return std::move(capture_);
}

void CaptureReader::Take(const PcapSection &section)
{
    places_.clear();
    RunInfo info = {.source = section.application};
    bool made = false; // by this bench
    for (const std::string &comment : section.comments) {
        if (const auto number = Behind(comment, kConventionsWord)) {
            // mergecap puts a text of its own behind the first comment.
            const auto version = ParseNumber(number->substr(0, number->find_first_not_of("0123456789")), 10, ~0U);
            made = made || version.has_value();
            if (version.value_or(0) > kConventions)
                throw CaptureError(Format("the capture was made by conventions %u; this program knows those up to %d, "
                                          "so a later haldencap is needed",
                                          *version, kConventions));
        } else if (const auto command = Behind(comment, kCommandWord)) {
            info.command = *command;
        } else if (const auto program = Behind(comment, kProgramWord)) {
            info.program = *program;
        } else if (const auto file = Behind(comment, kFileWord)) {
            info.files.push_back(*file);
        }
    }
    if (!std::exchange(known_, known_ || made))
        capture_.info = std::move(info);
}

void CaptureReader::Take(const PcapInterface &interface)
{
    Place place;
    if (interface.linkType == kLinkType)
        place = interface.name == kProgramName ? kNoPort : PortOf(interface.name);
    ours_ = ours_ || place.has_value();
    places_.push_back(place);
}

void CaptureReader::Take(PcapPacket packet)
{
    const Place place = places_[packet.interface];
    if (!place)
        return;
    if (packet.length > packet.bytes.size())
        throw CaptureError(Format("a packet has %zu of %zu bytes: the capture was cut to a snap length, and cannot be "
                                  "used; take or save it without one",
                                  packet.bytes.size(), packet.length));
    const WallTime time(packet.time);
    Event event = {.begin = time, .end = time, .port = *place};
    if (packet.bytes.empty())
        TakeNote(std::move(event), packet);
    else
        TakeBytes(std::move(event), std::move(packet));
}

// The microseconds in "ends 45234 us later"; 0 for any other text.
std::int64_t LaterOf(const std::string &comment)
{
    constexpr std::int64_t kLongest = 1000000000000000; // no sum with a time overflows
    std::int64_t later = 0;
    const std::string number = Behind(comment, kEndsWord).value_or("");
    const auto parsed = std::from_chars(number.data(), number.data() + number.size(), later);
    const bool good = parsed.ec == std::errc() && std::string_view(parsed.ptr) == kEndsUnit;
    return good && later > 0 && later < kLongest ? later : 0;
}

void CaptureReader::TakeBytes(Event event, PcapPacket packet)
{
    if (packet.direction == PcapPacket::Direction::kUnknown || event.port == kNoPort)
        return;
    event.way = packet.direction == PcapPacket::Direction::kOutbound ? Way::kToDevice : Way::kToHost;
    for (const std::string &comment : packet.comments)
        event.end = std::max(event.end, event.begin + WallTime(LaterOf(comment)));
    event.bytes = std::move(packet.bytes);
    capture_.events.push_back(std::move(event));
}

void CaptureReader::TakeNote(Event event, const PcapPacket &packet)
{
    if (packet.comments.empty())
        return;
    event.note = packet.comments.front();
    const std::size_t colon = event.note.find(": ");
    const Place port =
        event.port == kNoPort && colon != std::string::npos ? PortOf(event.note.substr(0, colon)) : Place();
    if (port) {
        event.port = *port;
        event.note.erase(0, colon + 2);
    }
    capture_.events.push_back(std::move(event));
}

} // namespace

Capture ReadCapture(std::istream &stream)
{
    return CaptureReader().Read(stream);
}

Capture ReadCapture(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    if (!file)
        throw CaptureError(path + ": " + std::strerror(errno));
    try {
        return ReadCapture(file);
    } catch (const CaptureError &error) {
        throw CaptureError(path + ": " + error.what());
    }
}

} // namespace bench
