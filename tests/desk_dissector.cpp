// The dissector for Wireshark against the bench: both have to tell the same about each packet.
#include "bench/capture/capturefile.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <random>
#include <regex>
#include <sstream>
#include <unistd.h>

namespace
{

using namespace bench;
using std::string;
using Rows = std::vector<string>;
namespace fs = std::filesystem;

string Output(const string &command)
{
    string output;
    FILE *pipe = popen(command.c_str(), "r");
    for (int sign = 0; (sign = fgetc(pipe)) != EOF;)
        output += static_cast<char>(sign);
    EXPECT_EQ(pclose(pipe), 0) << command;
    return output;
}

// One row a packet: its values, each with "|" behind it.
Rows Dissect(const string &arguments)
{
    const string tshark = "tshark -X lua_script:" TESTS_DIR "/../dissector/haldenflash.lua -T fields -E 'separator=|' ";
    std::istringstream output(Output(tshark + arguments + " -e _ws.expert.message 2>tshark.errors"));
    Rows rows;
    for (string row; std::getline(output, row);) {
        EXPECT_EQ(row.find("Lua Error"), string::npos) << row;
        rows.push_back(row);
    }
    return rows;
}

class DeskDissector : public testing::TestWithParam<const char *>
{
protected:
    DeskDissector()
    {
        fs::create_directory(folder_);
        fs::current_path(folder_);
    }
    ~DeskDissector() override
    {
        fs::current_path("/");
        fs::remove_all(folder_);
    }

    const fs::path folder_ = fs::temp_directory_path() / ("desk_dissector." + std::to_string(getpid()));
};
INSTANTIATE_TEST_SUITE_P(Passes, DeskDissector, testing::Values("-r ", "-2 -r "),
                         [](auto &i) { return i.index == 0 ? "OnePass" : "TwoPasses"; });

// ---- Against the bench's decoder

const std::vector<std::pair<Way, Bytes>> kDamaged = {
    {Way::kToDevice, {0xFF, 0x48, 0, 5, 0, 5, 0xFE, 1, 0xFE, 1, 0xFC}}, // checksum
    {Way::kToHost, {0x15, 0x06}},
    {Way::kToHost, {0x06}},                        // one too many
    {Way::kToDevice, {0xFF, 0x48, 0, 0xFE, 2, 0}}, // escape
    {Way::kToDevice, {0xFF, 0x48, 0, 2, 0, 0}},    // length
    {Way::kToDevice, {0xFF, 0x41, 0, 3, 0, 0, 0}}, // type
    {Way::kToHost, {0x15, 0x06}},
    {Way::kToDevice, {0xFF, 0x48, 0, 4, 7, 0xFE, 1, 0xFE, 1, 0xF9}}, // block without a number
    {Way::kToHost, {0x15}},
    {Way::kNone, {}}, // a close
    {Way::kToHost, {0x06}},
    {Way::kToDevice, {0xFF, 0x44, 0, 4, 1, 0xFE, 1, 0xFE, 1, 0xFE, 1}},
    {Way::kToHost, {0x31, 0xFF, 0x13, 0xFF, 0xFF, 0x14, 0xFF}}, // "FF FF" hides the 14
    {Way::kToDevice, {0x32, 0xFF, 0x48, 0, 9, 1}},              // the end is missing
};

void WriteDamaged(const string &path)
{
    std::ofstream file(path, std::ios::binary);
    CaptureWriter writer(file, {});
    WallTime time(1700000000000000);
    for (const auto &[way, bytes] : kDamaged)
        writer.Write(
            {time += WallTime(2), time += WallTime(30), kMicroPort, way, bytes, way == Way::kNone ? "close" : ""});
    writer.Finish();
}

string RowOf(const Message &message)
{
    const bool whole = message.type && message.kind != Message::Kind::kPiece;
    const string device = (message.event.port == kNoPort ? "program" : PortName(message.event.port)) + "|" +
                          std::to_string(message.event.begin.count() / 1000000) +
                          Format(".%06d000", static_cast<int>(message.event.begin.count() % 1000000));
    if (message.kind == Message::Kind::kNote)
        return device + "|||||" + (message.name[0] == '!' ? "|" + message.name.substr(2) : message.name + "|") + "|";
    return device + "|" + message.name + "|" + (message.block ? std::to_string(*message.block) : "") + "|" +
           (message.verdict ? Format("0x%02x", *message.verdict) : "") + "|" +
           (!whole                                    ? ""
            : message.finding.starts_with("checksum") ? "0"
                                                      : "1") +
           "|||";
}

void CompareWithBench(const string &pass, const string &path)
{
    Rows rows =
        Dissect(pass + path +
                " -e haldenflash.device -e frame.time_epoch -e haldenflash.message -e haldenflash.block "
                "-e haldenflash.verdict -e haldenflash.checksum.status -e haldenflash.call -e haldenflash.remark");
    std::sort(rows.begin(), rows.end());
    std::vector<std::pair<string, string>> expected; // row, finding
    for (const Message &message : MessagesOf(ReadCapture(path).events))
        expected.emplace_back(RowOf(message), message.finding);
    std::sort(expected.begin(), expected.end());
    ASSERT_EQ(rows.size(), expected.size()) << path;
    for (std::size_t i = 0; i < rows.size(); ++i) {
        EXPECT_EQ(rows[i].substr(0, rows[i].rfind('|') + 1), expected[i].first) << path;
        EXPECT_NE(rows[i].find(expected[i].second), string::npos) << rows[i] << " without " << expected[i].second;
    }
}

TEST_P(DeskDissector, TellsWhatTheBenchTells)
{
    WriteDamaged("damaged.pcapng");
    CompareWithBench(GetParam(), "damaged.pcapng");
    EXPECT_EQ(Dissect(string(GetParam()) + "damaged.pcapng -e haldenflash.duration -e haldenflash.gap "
                                           "-e haldenflash.response_time")[1]
                  .substr(0, 36),
              "0.000030000|0.000002000|0.000002000|");
    for (const auto &entry : fs::directory_iterator(TESTS_DIR "/captures"))
        CompareWithBench(GetParam(), entry.path());
}

// ---- Against the devices

// A run that fails on both lines, as run.pcapng, and its transcript.
void MakeRun()
{
    const string bench = HALDENBENCH_BINARY;
    Output(bench + " --make-images images");
    Output(bench + " --dir images --fast --capture run.pcapng --transcript transcript"
                   " --faults micro:noise=31,block2=nack,block5=verdict:42,block9=none"
                   " --faults camera:mode=late:3,block1=verdict:33,block3=nack -- haldenflash all >trace; test $? = 1");
}

// Device, message and block of each line that tells of bytes.
Rows TranscriptRows()
{
    static const std::regex heading("[a-z]+"), block(".*block (\\d+).*"), verdict("ack|nack|unknown verdict");
    static const std::regex message("([<>]) (.*?), \\d+ bytes?(:|, CRC).*");
    Rows rows;
    std::ifstream transcript("transcript");
    string device, number;
    for (string line; std::getline(transcript, line);) {
        std::smatch parts, numbers;
        if (std::regex_match(line, heading))
            device = line;
        if (!std::regex_match(line, parts, message))
            continue;
        const string name = parts[2];
        if (parts[1] == ">")
            number = std::regex_match(name, numbers, block) ? numbers[1].str() : "";
        const bool counts = parts[1] == ">" || std::regex_match(name, verdict);
        rows.push_back(Format("%s|%s|%s|", device.c_str(), name.c_str(), counts ? number.c_str() : ""));
    }
    return rows;
}

// In the order of the devices, and of the rows of each.
string ByDevice(Rows rows)
{
    std::stable_sort(rows.begin(), rows.end(), [](auto &a, auto &b) { return a[0] < b[0]; });
    string text;
    for (const string &row : rows)
        text += row.substr(0, row.rfind('|')) + "\n";
    return text;
}

TEST_P(DeskDissector, TellsWhatTheDevicesTell)
{
    MakeRun();
    const Rows rows = Dissect(string(GetParam()) + "run.pcapng -Y haldenflash.message -e haldenflash.device "
                                                   "-e haldenflash.message -e haldenflash.block");
    EXPECT_EQ(ByDevice(rows), ByDevice(TranscriptRows()));
}

struct FilterCase {
    const char *filter;
    std::size_t packets;
};
constexpr FilterCase kFilters[] = {
    {"haldenflash.block == 4 && haldenflash.verdict != 6", 1},
    {"haldenflash.device == \"micro\" && haldenflash.retry && haldenflash.block == 2", 1},
    {"haldenflash.version.micro == 0x20 || haldenflash.version.camera == \"0203\"", 2},
    {"haldenflash.mode == 5 && haldenflash.mode.camera_blocks == 4 && haldenflash.mode.system_blocks == 2", 1},
    {"haldenflash.image == \"camera\" && haldenflash.size == 64512", 3},
    {"haldenflash.type == 0x44 && haldenflash.length == 4 && haldenflash.response_in && haldenflash.duration", 1},
    {"haldenflash.request_in && haldenflash.response_time && haldenflash.gap", 16},
    {"haldenflash.no_response && haldenflash.block == 7", 1},
    {"haldenflash.refused || haldenflash.unknown_verdict", 4},
    {"haldenflash.unexpected && haldenflash.noise == 31", 1},
    {"haldenflash.failed_run && haldenflash.call == \"exit 255\"", 1},
};

TEST_F(DeskDissector, FiltersFindPackets)
{
    MakeRun();
    for (const auto &[filter, packets] : kFilters)
        EXPECT_EQ(Dissect("-2 -r run.pcapng -Y '" + string(filter) + "'").size(), packets) << filter;
}

TEST_F(DeskDissector, RequestAndReplyPointAtEachOther)
{
    MakeRun();
    std::vector<std::pair<string, string>> fromRequests, fromReplies;
    for (const string &row : Dissect("-2 -r run.pcapng -e frame.number -e haldenflash.response_in -e "
                                     "haldenflash.request_in")) {
        string number, response, request;
        std::istringstream words(row);
        for (string *word : {&number, &response, &request})
            std::getline(words, *word, '|');
        if (!response.empty())
            fromRequests.emplace_back(number, response);
        if (!request.empty())
            fromReplies.emplace_back(request, number);
    }
    EXPECT_EQ(fromRequests, fromReplies);
    EXPECT_EQ(fromReplies.size(), 16U);
}

TEST(Dissector, HasItsFieldsInTheDocumentation)
{
    const auto text = [](const char *path) {
        std::ifstream file(string(TESTS_DIR) + path);
        return string(std::istreambuf_iterator<char>(file), {});
    };
    const string source = text("/../dissector/haldenflash.lua"), page = text("/../docs/wireshark.md");
    const std::regex field("\\.\\w+\\(\"(haldenflash\\.[a-z_.]+)\"");
    int fields = 0;
    for (std::sregex_iterator i(source.begin(), source.end(), field), end; i != end; ++i, ++fields)
        EXPECT_NE(page.find("\n| `" + (*i)[1].str() + "` |"), string::npos) << (*i)[1];
    EXPECT_GT(fields, 40);
}

// ---- Any bytes

TEST_P(DeskDissector, TakesAnyBytes)
{
    constexpr std::uint8_t kBytes[] = {0xFF, 0xFE, 0,    1,    3,    0x14, 0x44, 0x48,
                                       0x88, 0xA0, 0x82, 0x06, 0x77, 0x87, 0x43, 0x72};
    std::mt19937 random(1);
    std::ofstream file("any.pcapng", std::ios::binary);
    PcapWriter writer(file);
    writer.Write(PcapSection{});
    for (const char *name : {"program", "micro", "camera", "port 7", "eth0", ""})
        writer.Write(PcapInterface{.linkType = kLinkType, .name = name});
    for (int i = 0; i < 5000; ++i) {
        PcapPacket packet{.interface = random() % 6, .direction = static_cast<PcapPacket::Direction>(random() % 3)};
        for (auto left = random() % 20; left > 0; --left)
            packet.bytes.push_back(kBytes[random() % std::size(kBytes)]);
        packet.length = packet.bytes.size() + random() % 2;
        if (random() % 2 == 0)
            packet.comments = {random() % 2 == 0 ? "close" : "ends 99999999999999999999 us later"};
        writer.Write(packet);
    }
    file.close();
    EXPECT_EQ(Dissect(string(GetParam()) + "any.pcapng -e haldenflash").size(), 5000U);
}

} // namespace
