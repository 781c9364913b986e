#include "bench/capture/capturefile.h"

#include <gtest/gtest.h>
#include <sstream>

namespace
{

using namespace bench;
using std::string;
using Texts = std::vector<string>;

template <class Case>
requires requires(const Case &test)
{
    test.name;
}
void PrintTo(const Case &test, std::ostream *stream)
{
    *stream << test.name;
}

Bytes Hex(const string &text)
{
    Bytes bytes;
    std::istringstream words(text);
    for (string word; words >> word;)
        bytes.push_back(static_cast<std::uint8_t>(*ParseNumber(word, 16, 0xFF)));
    return bytes;
}

// "> FF 44" to the device, "< 15 06" to the host, "close" a note.
Event EventOf(int port, const string &text, std::int64_t begin, std::int64_t length = 0)
{
    Event event = {.begin = WallTime(begin), .end = WallTime(begin + length), .port = port};
    event.way = text[0] == '>' ? Way::kToDevice : text[0] == '<' ? Way::kToHost : Way::kNone;
    if (event.way == Way::kNone)
        event.note = text;
    else
        event.bytes = Hex(text.substr(1));
    return event;
}

std::vector<Event> BytewiseOf(const std::vector<Event> &events)
{
    std::vector<Event> bytewise;
    for (const Event &event : events) {
        if (event.way == Way::kNone)
            bytewise.push_back(event);
        for (std::size_t i = 0; i < event.bytes.size(); ++i) {
            Event &one = bytewise.emplace_back(event);
            one.bytes = {event.bytes[i]};
            one.begin = i == 0 ? event.begin : event.end;
            one.end = i + 1 == event.bytes.size() ? event.end : one.begin;
        }
    }
    return bytewise;
}

// ---- Messages

Texts Told(const std::vector<Event> &events)
{
    Texts lines;
    for (const Message &message : MessagesOf(events)) {
        const char *way = message.event.way == Way::kToDevice ? "> " : message.event.way == Way::kToHost ? "< " : "";
        lines.push_back(way + message.name + Format(", %zu", message.event.bytes.size()) +
                        (message.finding.empty() ? "" : " ! " + message.finding));
    }
    return lines;
}

struct TalkCase {
    const char *name;
    int port;
    Texts events, messages;
};
const TalkCase kTalks[] = {
    {"NoiseBeforeAVersion",
     kMicroPort,
     {"> FF 44 00 04 01 FE 01 FE 01 FE 01", "< 55 FF FF 14 FF 14 72 73 20 75 76 77 78 79 7A 7B 7C 7D 7E 7F", "close"},
     {"> status request, 11", "< noise, 1", "< noise, 3", "< version 20, 15", "< noise, 1", "close, 0"}},
    {"PiecesOfReplies",
     kMicroPort,
     {"> FF 44 00 04 01 FE 01 FE 01 FE 01", "< FF 14 72", "> FF 48 00 05 00 05 FE 01 FE 01 FB", "< 15", "close",
      "< 06 06"},
     {"> status request, 11", "< piece of a version, 3", "> block 5 with 0 bytes, 11", "< piece of a verdict, 1",
      "close, 0", "< noise, 2"}},
    {"Verdicts",
     kMicroPort,
     {"> FF 48 00 05 00 06 FE 01 FE 01 FA", "< 15 0F 15 06 15", "> FF 48 00 03 00 00 00", "< 15 77", "close",
      "> FF 48 00 03 00 00 00"},
     {"> block 6 with 0 bytes, 11", "< nack, 2", "< noise, 3", "> retry of block 6, 7",
      "< unknown verdict, 2 ! unknown verdict 77", "close, 0", "> retry of block 0, 7"}},
    {"BadFrames",
     kMicroPort,
     {"> 01 02 FF 48 00 FF 48 00 02 00 FF 48 FE 07 00 FF 48 00 05 00 05 00 00 00 33 FF 48 00 04 09 00 00 00 FF"},
     {"> noise, 2", "> piece of a message, 3 ! FF inside a frame",
      "> piece of a message, 5 ! length 2 has no room for the checksum", "> piece of a message, 5 ! wrong escape FE 07",
      "> block 5 with 0 bytes, 9 ! checksum 000000 where FFFFFB is due", "> noise, 1",
      "> block without a number, 8 ! checksum 000000 where FFFFF7 is due", "> piece of a message, 1"}},
    {"Camera",
     kCameraPort,
     {"> 82 05 82 06 77", "< 31 A0 71 72 73 74 30 30 30 32 30 30 31 07", "> 87 43 72 05 00 FF 00 02", "< A0 FF 06 06",
      "> FF 88 00 06 00 00 21 FE 01 FE 01 DF", "< 15 06", "> FF 89 00 06 00 00 21 FE 01 FE 01 DF", "< 15 06", "> 87"},
     {"> noise, 2", "> version query, 3", "< noise, 1", "< version camera 001? system 0002, 13",
      "> flash mode 5, 255 camera blocks, 2 system blocks, 8", "< flash mode, 4", "> camera block 0 with 1 bytes, 12",
      "< ack, 2", "> system block 0 with 1 bytes, 12", "< ack, 2", "> piece of a message, 1"}},
};

class Talk : public testing::TestWithParam<TalkCase>
{
protected:
    std::vector<Event> Events() const
    {
        std::vector<Event> events;
        for (const string &text : GetParam().events) {
            const auto time = static_cast<std::int64_t>(100 * events.size());
            events.push_back(EventOf(GetParam().port, text, time, text == "close" ? 0 : 50));
        }
        return events;
    }
};
INSTANTIATE_TEST_SUITE_P(Conversation, Talk, testing::ValuesIn(kTalks), [](auto &i) { return i.param.name; });

TEST_P(Talk, IsCutIntoMessagesInAnyPortions)
{
    EXPECT_EQ(Told(Events()), GetParam().messages);
    EXPECT_EQ(Told(BytewiseOf(Events())), GetParam().messages);
}

TEST(Conversation, EndsNoiseBeforeItGetsTooLong)
{
    const std::vector<Event> events = {{.port = kMicroPort, .way = Way::kToHost, .bytes = Bytes(0x40001, 0xFF)}};
    EXPECT_EQ(Told(events), (Texts{"< noise, 262144", "< noise, 1"}));
}

// ---- A capture and back

const RunInfo kRun = {"haldenflash 'a b'", "haldenflash, 9 bytes", {"a.bin missing", "b.bin 5 bytes"}, "test 1"};
constexpr std::int64_t kStart = 1700000000000000;
const std::vector<Event> kEvents = {
    EventOf(kNoPort, "open relay", kStart),
    EventOf(kMicroPort, "open refused EBUSY", kStart),
    EventOf(kMicroPort, "config mask 3 baud 9600 parity 2 stop 0 flow 0 data 0 refused EIO", kStart + 1),
    EventOf(kMicroPort, "config mask 3 baud 115200 parity 2 stop 1 flow 0 data 0", kStart + 2),
    EventOf(7, "config mask 31 baud ? parity 0 stop 1 flow 0 data 9", kStart + 2),
    EventOf(kMicroPort, "> FF 44 00 04 01 FE 01 FE 01 FE 01", kStart + 3, 955),
    EventOf(kCameraPort, "< 01 02", kStart + 100, 2000000),
    EventOf(7, "> FF 44", kStart + 1999),
    EventOf(kMicroPort, "close", kStart + 2000),
    EventOf(kNoPort, "! remark: of ours", kStart + 2000),
};

string Written(const std::vector<Event> &events)
{
    std::ostringstream stream;
    CaptureWriter writer(stream, kRun);
    for (const Event &event : events)
        writer.Write(event);
    writer.Finish();
    return stream.str();
}

Capture Read(const string &file)
{
    std::istringstream stream(file);
    return ReadCapture(stream);
}

TEST(CaptureFile, GivesBackWhatWasWritten)
{
    const Capture capture = Read(Written(kEvents));
    EXPECT_EQ(capture.events, kEvents);
    EXPECT_EQ(capture.info, kRun);
    const std::vector<Event> message = {kEvents[5]};
    EXPECT_EQ(Read(Written(BytewiseOf(message))).events, message);
}

TEST(CaptureFile, HasNoiseBeforeTheEnd)
{
    std::ostringstream stream;
    CaptureWriter writer(stream, kRun);
    writer.Write(kEvents[6]);
    EXPECT_EQ(Read(stream.str()).events.size(), 1U);
    stream.setstate(std::ios::badbit);
    EXPECT_THROW(writer.Write(kEvents[6]), std::runtime_error);
}

TEST(CaptureFile, CutsATextThatIsTooLong)
{
    EXPECT_EQ(Read(Written({EventOf(kNoPort, "! " + string(70000, 'x'), 1)})).events[0].note.size(), 65535U);
}

TEST(CaptureFile, TellsTheSettingsOfALine)
{
    std::istringstream stream(Written(kEvents));
    Texts lines;
    const auto keep = [&lines](const PcapInterface &interface) {
        lines.push_back(interface.name + ": " + std::to_string(interface.speed) + ", " + interface.description);
    };
    ReadPcap(stream, {[](auto) {}, keep, [](auto) {}});
    EXPECT_EQ(lines, (Texts{"program: 0, calls and waits of the program",
                            "micro: 115200, /dev/fpgaserial1: 115200 bit/s, 8 data bits, even parity, 1 stop bit",
                            "port 7: 0, /dev/fpgaserial7: no parity, 2 stop bits", "camera: 0, /dev/fpgaserial0"}));
}

TEST(CaptureFile, ThatIsCutGivesWhatIsBefore)
{
    const string file = Written(kEvents);
    for (std::size_t size = file.size() - 40; size < file.size(); ++size) {
        std::vector<Event> events = Read(file.substr(0, size)).events;
        ASSERT_EQ(events.size(), kEvents.size());
        ASSERT_EQ(events.back().note.substr(0, 31), "! the file is cut at byte " + std::to_string(size) + ",");
    }
}

// ---- Files of other programs, in both byte orders

class Maker
{
public:
    explicit Maker(bool big) : big_(big) {}

    // A number of so many bytes.
    string N(std::size_t size, std::uint64_t number) const
    {
        string text;
        for (std::size_t i = 0; i < size; ++i)
            text += static_cast<char>(number >> 8 * (big_ ? size - 1 - i : i));
        return text;
    }
    static string Padded(string text)
    {
        text.resize((text.size() + 3) / 4 * 4);
        return text;
    }
    string Block(std::uint32_t type, const string &body) const
    {
        const string size = N(4, Padded(body).size() + 12);
        return N(4, type) + size + Padded(body) + size;
    }
    string Option(unsigned code, const string &value) const { return N(2, code) + N(2, value.size()) + Padded(value); }
    string Section(const string &options = "", unsigned major = 1) const
    {
        return Block(0x0A0D0D0A, N(4, 0x1A2B3C4D) + N(2, major) + N(2, 0) + N(8, ~0ULL) + options);
    }
    string Interface(const string &options = "", unsigned linkType = kLinkType, unsigned snapLength = 0) const
    {
        return Block(1, N(2, linkType) + N(2, 0) + N(4, snapLength) + options);
    }
    string Packet(std::uint64_t time, const string &bytes, const string &options = "", unsigned interface = 0) const
    {
        const string size = N(4, bytes.size());
        return Block(6, N(4, interface) + N(4, time >> 32) + N(4, time) + size + size + Padded(bytes) + options);
    }

private:
    bool big_;
};

// "interface@time direction bytes/length comments"
Texts Packets(const string &file)
{
    std::istringstream stream(file);
    Texts lines;
    const auto keep = [&lines](const PcapPacket &packet) {
        const string bytes(packet.bytes.begin(), packet.bytes.end());
        lines.push_back(Format("%zu@%llu %d %s/%zu", packet.interface, static_cast<unsigned long long>(packet.time),
                               static_cast<int>(packet.direction), bytes.c_str(), packet.length));
        for (const string &comment : packet.comments)
            lines.back() += " " + comment;
    };
    ReadPcap(stream, {[](auto) {}, [](auto) {}, keep});
    return lines;
}

struct TimeCase {
    int resolution;
    std::int64_t offset;
    std::uint64_t time, microseconds;
};
constexpr TimeCase kTimes[] = {
    {6, 0, 5000001, 5000001},
    {0, -2, 7, 5000000},
    {3, 0, 5001, 5001000},
    {9, 10, 5000001999, 15000001},
    {19, 0, ~0ULL, 1844674},
    {0x80, 0, 5, 5000000},
    {0x8A, 0, 5 << 10 | 512, 5500000},
    {0xBF, 0, 3ULL << 62, 1500000},
};

class Foreign : public testing::TestWithParam<bool>
{
protected:
    const Maker make{GetParam()};
};
INSTANTIATE_TEST_SUITE_P(Pcapng, Foreign, testing::Bool(), [](auto &i) { return i.param ? "Big" : "Little"; });

TEST_P(Foreign, TimesAreMicroseconds)
{
    for (const TimeCase &c : kTimes) {
        const string options = make.Option(9, string(1, static_cast<char>(c.resolution))) +
                               make.Option(14, make.N(8, static_cast<std::uint64_t>(c.offset)));
        EXPECT_EQ(Packets(make.Section() + make.Interface(options) + make.Packet(c.time, "")),
                  (Texts{"0@" + std::to_string(c.microseconds) + " 0 /0"}));
    }
}

TEST_P(Foreign, BlocksOfAllKindsAreRead)
{
    const Maker other(!GetParam());
    const string options = make.Option(2, make.N(4, 2)) + make.Option(1, "one") + make.Option(99, "x") +
                           make.Option(1, string("two\0", 4)) + make.Option(0, "") + "rest";
    const string old =
        make.N(2, 1) + make.N(2, 0) + make.N(4, 0) + make.N(4, 1) + make.N(4, 3) + make.N(4, 3) + string("old\0", 4);
    EXPECT_EQ(Packets(make.Section() + make.Interface() + make.Block(5, "statistics") + make.Interface() +
                      make.Packet(1ULL << 32, "abcde", options, 1) + make.Block(2, old + options) +
                      make.Block(3, make.N(4, 6) + "simple") + other.Section() + other.Interface("", 1, 4) +
                      other.Block(3, other.N(4, 9) + "simple")),
              (Texts{"1@4294967296 2 abcde/5 one two", "1@1 2 old/3 one two", "0@0 0 simple/6", "0@0 0 simp/9"}));
}

TEST(CaptureFile, LeavesOutWhatIsOfOthers)
{
    const Maker make(false);
    const string micro = make.Interface(make.Option(2, "micro")), out = make.Option(2, make.N(4, 2));
    const string later = make.Option(1, "ends 5 us later"), human = make.Option(1, "ends 7 us later, I think");
    const string section =
        make.Section(make.Option(1, "look here") + make.Option(1, "conventions 1 \nFile created by") +
                     make.Option(1, "command of ours"));
    const Capture capture =
        Read(section + make.Interface(make.Option(2, "eth0")) + micro + make.Interface(make.Option(2, "micro"), 1) +
             make.Packet(1, "x", out, 0) + make.Packet(2, "x", out + human + later, 1) + make.Packet(3, "x", out, 2) +
             make.Packet(4, "x", "", 1) + make.Section() + micro + make.Packet(1, "", make.Option(1, "close") + human));
    EXPECT_EQ(capture.events, (std::vector<Event>{EventOf(kMicroPort, "close", 1), EventOf(kMicroPort, "> 78", 2, 5)}));
    EXPECT_EQ(capture.info.command, "of ours");
}

// ---- Files that are refused

struct BadCase {
    const char *name;
    string file;
    const char *message;
};
const Maker kMake(true);
const string kHead = kMake.Section() + kMake.Interface(kMake.Option(2, "micro"));
const BadCase kBadFiles[] = {
    {"Empty", "", "the file is empty"},
    {"Short", "\n", "this is text"},
    {"Text", "openat(AT_FDCWD, \"x\") = 3\n", "this is text, and no pcapng file; haldencap from-strace"},
    {"OldPcap", "\xD4\xC3\xB2\xA1 and more", "this is a pcap file"},
    {"Compressed", "\x1F\x8B and more of it", "this is a compressed file; gunzip"},
    {"Binary", string(50, '\0'), "this is no pcapng file"},
    {"CutHead", kMake.Section().substr(0, 9), "cut at byte 9"},
    {"ByteOrder", kMake.Block(0x0A0D0D0A, string(16, 'x')), "byte 0: the section has no known byte order"},
    {"Version", kMake.Section("", 2), "version 2 of pcapng"},
    {"NoInterface", kHead + kMake.Packet(0, "", "", 1), "byte 60: the packet is of an interface"},
    {"NoFirstInterface", kMake.Section() + kMake.Block(3, "size"), "byte 28: the packet is of an interface"},
    {"Huge", kHead + kMake.N(4, 6) + string(8, '\xF0'), "a block cannot have 4042322160 bytes"},
    {"Odd", kHead + kMake.N(4, 6) + kMake.N(4, 13) + string(5, 'x'), "a block cannot have 13 bytes"},
    {"Tiny", kHead + kMake.N(4, 6) + kMake.N(8, 8ULL << 32), "a block cannot have 8 bytes"},
    {"TwoLengths", kHead + kMake.N(4, 6) + kMake.N(4, 12) + kMake.N(4, 16), "byte 60: the two lengths"},
    {"HugePacket", kHead + kMake.Block(6, string(12, '\0') + string(8, '\xF0')), "too short for what it has"},
    {"HugeOption", kHead + kMake.Packet(0, "", kMake.N(2, 1) + kMake.N(2, 5)), "too short for what it has"},
    {"FineTime", kMake.Section() + kMake.Interface(kMake.Option(9, "\x14")), "time more finely"},
    {"FineBits", kMake.Section() + kMake.Interface(kMake.Option(9, "\xC0")), "time more finely"},
    {"Before1970", kMake.Section() + kMake.Interface(kMake.Option(14, string(8, '\xFF'))) + kMake.Packet(0, ""),
     "before 1970"},
    {"FarFuture", kMake.Section() + kMake.Interface(kMake.Option(14, "\x7F" + string(7, '\xFF'))) + kMake.Packet(0, ""),
     "far in the future"},
    {"Conventions", kMake.Section(kMake.Option(1, "conventions 2")), "made by conventions 2; this program knows"},
    {"NothingOfOurs", kMake.Section() + kMake.Interface(kMake.Option(2, "eth0")), "no line of haldenbench"},
    {"SnapLength", kHead + kMake.Block(6, string(15, '\0') + '\1' + string(3, '\0') + "\2x"), "has 1 of 2 bytes"},
};

using BadFile = testing::TestWithParam<BadCase>;
INSTANTIATE_TEST_SUITE_P(CaptureFile, BadFile, testing::ValuesIn(kBadFiles), [](auto &i) { return i.param.name; });

template <class Reading> string Refusal(const Reading &read)
{
    try {
        read();
    } catch (const CaptureError &error) {
        return error.what();
    }
    return "it was read";
}

TEST_P(BadFile, IsRefusedWithAReason)
{
    EXPECT_PRED_FORMAT2(testing::IsSubstring, GetParam().message, Refusal([] { Read(GetParam().file); }));
}

TEST(CaptureFile, ThatIsMissingIsNamed)
{
    EXPECT_EQ(Refusal([] { ReadCapture("/no/such/capture"); }), "/no/such/capture: No such file or directory");
}

} // namespace
