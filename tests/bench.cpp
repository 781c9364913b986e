#include "bench/sweeps/runner.h"

#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <numeric>
#include <poll.h>

namespace
{

using namespace bench;
using std::string;
using std::vector;
using Texts = std::vector<std::string>;

bool Has(const string &text, const string &part)
{
    return text.find(part) != string::npos;
}

// A frame as the host sends it, made without the updater's own builder.
Bytes FrameOf(std::uint8_t type, const Bytes &data)
{
    const std::size_t length = data.size() + 3;
    const std::uint32_t checksum = 0x1000000U - std::accumulate(data.begin(), data.end(), 0U);
    Bytes plain = {type, static_cast<std::uint8_t>(length >> 8), static_cast<std::uint8_t>(length)};
    plain.insert(plain.end(), data.begin(), data.end());
    for (const int shift : {16, 8, 0})
        plain.push_back(static_cast<std::uint8_t>(checksum >> shift));
    Bytes wire = {0xFF};
    for (const std::uint8_t byte : plain) {
        wire.push_back(byte < 0xFE ? byte : 0xFE);
        if (byte >= 0xFE)
            wire.push_back(byte == 0xFF);
    }
    return wire;
}

Bytes BlockOf(std::uint8_t type, unsigned number, std::size_t size, std::uint8_t fill = 0xFE)
{
    Bytes data(size + 2, fill);
    data[0] = static_cast<std::uint8_t>(number >> 8);
    data[1] = static_cast<std::uint8_t>(number);
    return FrameOf(type, data);
}

Bytes Ask(Device &device, const Bytes &message)
{
    Bytes answer;
    for (const Reply &reply : device.Receive(message))
        answer.insert(answer.end(), reply.bytes.begin(), reply.bytes.end());
    return answer;
}

const Bytes kStatusRequest = FrameOf(0x44, {1});
const Bytes kRetry = FrameOf(0x48, {});
const Bytes kAcked = {0x15, 0x06}, kNacked = {0x15, 0x0F};

// ---- Frames

struct DecoderCase {
    const char *name;
    Bytes wire;
    Texts events;
};

void PrintTo(const DecoderCase &row, std::ostream *out)
{
    *out << row.name;
}

class Decoder : public testing::TestWithParam<DecoderCase>
{
};

// Whatever a case is about, a good frame behind it is decoded.
TEST_P(Decoder, ReportsEachDeviationOnceAndTakesUpAgain)
{
    FrameDecoder decoder;
    Texts events;
    Bytes wire = GetParam().wire;
    wire.insert(wire.end(), {0xFF, 0x48, 0x00, 0x03, 0x00, 0x00, 0x00});
    for (const std::uint8_t byte : wire) {
        const FrameDecoder::Event event = decoder.Feed(byte);
        if (event == FrameDecoder::Event::kFrame)
            events.push_back(Format("%02X ", decoder.frame().type) + Describe(decoder.frame().data));
        else if (event == FrameDecoder::Event::kDeviation)
            events.push_back(decoder.deviation());
    }
    Texts expected = GetParam().events;
    expected.emplace_back("48 0 bytes");
    EXPECT_EQ(events, expected);
    EXPECT_FALSE(decoder.InFrame());
}

const DecoderCase kDecoderCases[] = {
    {"Empty", {}, {}},
    {"StatusRequest", {0xFF, 0x44, 0, 4, 1, 0xFE, 1, 0xFE, 1, 0xFE, 1}, {"44 1 byte: 01"}},
    {"EscapedData", {0xFF, 0x48, 0, 5, 0xFE, 0, 1, 0xFE, 1, 0xFE, 1, 1}, {"48 2 bytes: FE 01"}},
    {"EscapedType", {0xFF, 0xFE, 0, 0, 3, 0, 0, 0}, {"FE 0 bytes"}},
    {"WrongEscape", {0xFF, 0x44, 0, 4, 0xFE, 2, 0xFE, 1, 9}, {"wrong escape FE 02"}},
    {"DelimiterInside", {0xFF, 0x44, 0, 4, 1}, {"FF inside a frame"}},
    {"DelimiterBehindEscape", {0xFF, 0x44, 0, 0xFE}, {"FF inside a frame"}},
    {"DelimiterTwice", {0xFF}, {"FF inside a frame"}},
    {"LengthWithoutChecksum", {0xFF, 0x48, 0, 2, 0, 0}, {"length 2 has no room for the checksum"}},
    {"LengthTooSmall", {0xFF, 0x44, 0, 3, 0, 0, 0, 9, 9}, {"44 0 bytes", "byte 09 outside a frame"}},
    {"LengthTooBig", {0xFF, 0x48, 1, 3, 0, 0, 0}, {"FF inside a frame"}},
    {"Checksum", {0xFF, 0x44, 0, 4, 1, 0xFE, 1, 0xFE, 1, 0xFE, 0, 7}, {"checksum FFFFFE where FFFFFF is due"}},
    {"Outside", {0x12, 0x13, 0xFE}, {"byte 12 outside a frame"}},
};
INSTANTIATE_TEST_SUITE_P(Bench, Decoder, testing::ValuesIn(kDecoderCases),
                         [](const auto &row) { return row.param.name; });

// ---- Fault scripts

TEST(Script, SetsWhatItNames)
{
    const Faults faults =
        ParseFaults("noise=12FF,version=first:5,version=late:30,mode=none,block3=verdict:55,block3=late:9,"
                    "block3=noise:5AFF,cut=7:middle");
    EXPECT_EQ(faults.noise, (Bytes{0x12, 0xFF}));
    EXPECT_EQ(faults.version.keep, 5);
    EXPECT_EQ(faults.version.lateMs, 30);
    EXPECT_EQ(faults.flashMode.keep, 0);
    ASSERT_EQ(faults.blocks.size(), 1U);
    EXPECT_EQ(faults.blocks.at(3).verdict, 0x55);
    EXPECT_EQ(faults.blocks.at(3).reply.lateMs, 9);
    EXPECT_EQ(faults.blocks.at(3).noise, (Bytes{0x5A, 0xFF}));
    EXPECT_EQ(faults.cutBlock, 7);
    EXPECT_TRUE(faults.cutMiddle);
    EXPECT_EQ(ParseFaults("").cutBlock, -1);
}

TEST(Script, NamesTheItemItRefuses)
{
    const std::pair<const char *, const char *> cases[] = {
        {"cut=1,,cut=2", "\"\": name=value expected"},
        {"noise=1", "\"noise=1\": hexadecimal bytes expected"},
        {"noise=+1", "\"noise=+1\": hexadecimal bytes expected"},
        {"version=soon", "\"version=soon\": unknown value"},
        {"mode=late:x", "\"mode=late:x\": number expected"},
        {"block=nack", "\"block=nack\": number expected"},
        {"block-1=nack", "\"block-1=nack\": number expected"},
        {"block1=verdict:100", "\"block1=verdict:100\": hexadecimal bytes expected"},
        {"cut=1:end", "\"cut=1:end\": unknown value"},
        {"colour=red", "\"colour=red\": unknown name"},
    };
    for (const auto &[text, message] : cases) {
        try {
            ParseFaults(text);
            ADD_FAILURE() << text;
        } catch (const std::invalid_argument &error) {
            EXPECT_TRUE(Has(error.what(), message)) << text;
        }
    }
}

// ---- Microcontroller

TEST(MicroPeer, TakesAnImageAndItsVersion)
{
    Micro micro(0x20);
    micro.PowerOn();
    EXPECT_EQ(Ask(micro, kStatusRequest).at(4), 0x20);
    for (unsigned block = 0; block < 12; ++block) {
        EXPECT_EQ(micro.version(), 0x20);
        EXPECT_EQ(Ask(micro, BlockOf(0x48, block, block < 3 ? 512 : block == 3 ? 100 : 0, 0xFE)), kAcked);
    }
    EXPECT_EQ(micro.version(), 0xFE);
    EXPECT_EQ(micro.flash(), Bytes(3 * 512 + 100, 0xFE));
    EXPECT_TRUE(micro.findings().empty());
    EXPECT_EQ(micro.transcript().at(2), "> block 0 with 512 bytes, 1034 bytes, CRC-32 3B6EA640");
}

TEST(MicroPeer, MissesABlockThatWasOnlyRetried)
{
    Micro micro(0x20);
    micro.faults = ParseFaults("block1=nack");
    micro.PowerOn();
    EXPECT_EQ(Ask(micro, BlockOf(0x48, 0, 512, 1)), kAcked);
    EXPECT_EQ(Ask(micro, BlockOf(0x48, 1, 512, 1)), kNacked);
    EXPECT_EQ(Ask(micro, kRetry), kAcked);
    EXPECT_EQ(Ask(micro, BlockOf(0x48, 2, 512, 1)), kAcked);
    EXPECT_TRUE(micro.findings().empty());
    EXPECT_EQ(micro.transcript().at(4), "> retry of block 1, 7 bytes: FF 48 00 03 00 00 00");
    EXPECT_EQ(micro.flash().size(), 3 * 512U);
    EXPECT_EQ(Bytes(micro.flash().begin() + 512, micro.flash().begin() + 1024), Bytes(512, 0xFF));
}

TEST(MicroPeer, FindsWhatTheHostMayNotDo)
{
    const std::pair<Bytes, const char *> cases[] = {
        {BlockOf(0x48, 1, 512), "block 1 where 0 is due"},
        {BlockOf(0x48, 12, 512), "block 12, but 11 is the last"},
        {BlockOf(0x48, 0, 513), "block 0 with 513 bytes"},
        {FrameOf(0x48, {0}), "block without a number"},
        {kRetry, "retry of a block that was not refused"},
        {FrameOf(0x44, {2}), "status request for something other than the version"},
        {FrameOf(0x88, {0, 0}), "a frame of type 88 is none of its messages"},
    };
    for (const auto &[message, finding] : cases) {
        Micro micro(0x20);
        micro.PowerOn();
        EXPECT_NE(Ask(micro, message), kAcked);
        EXPECT_EQ(micro.findings(), (Texts{finding}));
        EXPECT_TRUE(micro.flash().empty());
    }
    Micro micro(0x20);
    micro.PowerOn();
    Ask(micro, BlockOf(0x48, 0, 511));
    Ask(micro, BlockOf(0x48, 1, 1));
    Ask(micro, {0xFF, 0x48, 0x00});
    micro.PowerOff();
    EXPECT_EQ(micro.findings(),
              (Texts{"block 1 has data behind a short block", "message broken off, 3 bytes: FF 48 00"}));
}

TEST(MicroPeer, PlaysFaults)
{
    Micro micro(0x20);
    micro.faults = ParseFaults("noise=1213,version=first:2,version=late:70,block0=verdict:55,block0=noise:5A,block1="
                               "none,block2=first:1,cut=3");
    micro.PowerOn();
    const vector<Reply> replies = micro.Receive(kStatusRequest);
    ASSERT_EQ(replies.size(), 2U);
    EXPECT_EQ(replies[0].bytes, (Bytes{0x12, 0x13}));
    EXPECT_EQ(replies[1].bytes, (Bytes{0xFF, 0x14}));
    EXPECT_EQ(replies[1].delayMs, 70);
    EXPECT_EQ(Ask(micro, BlockOf(0x48, 0, 512)), (Bytes{0x5A, 0x15, 0x55}));
    EXPECT_TRUE(micro.flash().empty()) << "an unknown verdict acknowledges nothing";
    EXPECT_EQ(Ask(micro, BlockOf(0x48, 0, 512)), Bytes{});
    EXPECT_EQ(Ask(micro, BlockOf(0x48, 1, 512)), Bytes{0x15});
    EXPECT_EQ(Ask(micro, BlockOf(0x48, 2, 512)), Bytes{});
    EXPECT_EQ(Ask(micro, kStatusRequest), Bytes{}) << "without power";
    EXPECT_EQ(micro.transcript().back(), "* power cut at block 3");
    EXPECT_EQ(micro.flash().size(), 1024U);

    micro.faults = ParseFaults("cut=0:middle");
    micro.PowerOn();
    EXPECT_EQ(Ask(micro, kStatusRequest).size(), 15U);
    Bytes begun = BlockOf(0x48, 0, 512);
    begun.resize(begun.size() / 2 + 8);
    Ask(micro, begun);
    EXPECT_EQ(micro.transcript().back(), "* power cut in the middle of block 0");
    EXPECT_EQ(micro.flash().size(), 1024U) << "what was stored stays";
}

// ---- Camera

const Bytes kQuery = {0x82, 0x06, 0x77};
Bytes FlashMode(std::uint8_t mode, std::uint8_t cameraBlocks, std::uint8_t systemBlocks)
{
    return {0x87, 0x43, 0x72, mode, 0, cameraBlocks, 0, systemBlocks};
}
Camera NewCamera()
{
    return Camera({"0001", "0002"}, {"00A1", "00A2"});
}

TEST(CameraPeer, TakesBothImagesAndTheirVersions)
{
    Camera camera = NewCamera();
    camera.PowerOn();
    EXPECT_EQ(Describe(Ask(camera, kQuery)), "13 bytes: A0 71 72 73 74 30 30 41 31 30 30 30 31");
    EXPECT_EQ(Ask(camera, FlashMode(5, 2, 1)).size(), 4U);
    EXPECT_EQ(Ask(camera, BlockOf(0x88, 0, Camera::kBlockSize)), kAcked);
    EXPECT_EQ(camera.camera.version, "0001");
    EXPECT_EQ(Ask(camera, BlockOf(0x88, 1, 1)), kAcked);
    EXPECT_EQ(camera.camera.version, "0002");
    EXPECT_EQ(Ask(camera, BlockOf(0x89, 0, 300)), kAcked);
    EXPECT_EQ(camera.system.version, "00A2");
    EXPECT_EQ(camera.camera.contents.size(), Camera::kBlockSize + 1);
    EXPECT_EQ(camera.system.contents, Bytes(300, 0xFE));
    EXPECT_TRUE(camera.findings().empty());
}

TEST(CameraPeer, FindsWhatTheHostMayNotDo)
{
    const Bytes full = BlockOf(0x88, 0, Camera::kBlockSize);
    const std::pair<vector<Bytes>, const char *> cases[] = {
        {{full}, "camera block 0, but 0 were announced"},
        {{FlashMode(3, 1, 0), BlockOf(0x89, 0, 5)}, "system block 0, but 0 were announced"},
        {{FlashMode(5, 1, 1), BlockOf(0x89, 0, 5)}, "system block 0 before camera block 0"},
        {{FlashMode(3, 2, 0), BlockOf(0x88, 1, 5)}, "camera block 1 where 0 is due"},
        {{FlashMode(3, 2, 0), BlockOf(0x88, 0, 5)}, "camera block 0 of 2 with 5 bytes"},
        {{FlashMode(3, 1, 0), BlockOf(0x88, 0, 0)}, "camera block 0 of 1 with 0 bytes"},
        {{FlashMode(3, 1, 0), full, BlockOf(0x88, 1, 5)}, "camera block 1, but 1 were announced"},
        {{FlashMode(3, 1, 1)}, "flash mode 3 does not go with 1 camera blocks and 1 system blocks"},
        {{FlashMode(2, 0, 0)}, "unknown flash mode 2"},
        {{{0x82, 0x06, 0x78}, kQuery}, "unknown message, 3 bytes: 82 06 78"},
        {{{0x12}, kQuery, FlashMode(3, 0xFF, 0)}, "byte 12 outside a frame"},
        {{kStatusRequest}, "a frame of type 44 is none of its messages"},
    };
    for (const auto &[messages, finding] : cases) {
        Camera camera = NewCamera();
        camera.PowerOn();
        for (const Bytes &message : messages)
            Ask(camera, message);
        camera.PowerOff();
        EXPECT_EQ(camera.findings(), (Texts{finding}));
    }
}

// ---- Runs

// A bench with sample images in a directory of its own.
class BenchRun : public testing::Test
{
protected:
    BenchRun() : camera({"0203", "0204"}, {"0306", "0307"})
    {
        char path[] = "/tmp/benchXXXXXX";
        options.directory = mkdtemp(path);
        options.executable = HALDENFLASH_BINARY;
        options.preload = HALDENBENCH_PRELOAD;
        options.environment = {{"TALVORA_BOARDID", "KORA"}};
        options.ports[0].line = &cameraLine;
        options.ports[1].line = &microLine;
        options.waitDivisor = 20;
        WriteSamples(options.directory, {});
    }
    ~BenchRun() override { std::filesystem::remove_all(options.directory); }

    RunResult Flash(const Texts &words)
    {
        options.arguments = {"haldenflash"};
        options.arguments.insert(options.arguments.end(), words.begin(), words.end());
        return bench::Run(options);
    }
    RunResult Shell(const string &script)
    {
        options.executable = "/bin/sh";
        options.arguments = {"sh", "-c", script};
        return bench::Run(options);
    }

    Micro micro{0x20};
    Camera camera;
    Line microLine{micro}, cameraLine{camera};
    RunOptions options;
};

const Texts kMicroEvents = {"open 1",       "config 1: mask 3 baud 115200 parity 2 stop 0 flow 0 data 0",
                            "rx 1 enabled", "rx 1 disabled",
                            "close 1",      "wait 3000000"};

long OpenDescriptors()
{
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), std::filesystem::directory_iterator());
}

TEST_F(BenchRun, FlashesBothDevicesAndLeavesNothingBehind)
{
    const long descriptors = OpenDescriptors();
    options.fifo = "bar";
    const RunResult result = Flash({"all", "-p", "bar", "0", "100"});
    EXPECT_EQ(result.status, 0) << result.output << result.errors;
    EXPECT_EQ(result.progress.back(), "100");
    EXPECT_EQ(Texts(result.events.begin(), result.events.begin() + 6), kMicroEvents);
    EXPECT_GE(result.seconds, 0.6) << "four pauses of three seconds, shortened";
    for (const Verdict &verdict : {Judge(micro, options.directory), JudgeCamera(camera, options.directory),
                                   JudgeSystem(camera, options.directory)}) {
        EXPECT_TRUE(verdict.good) << verdict.text;
        EXPECT_TRUE(Has(verdict.text, "holds"));
    }
    EXPECT_EQ(OpenDescriptors(), descriptors);
    EXPECT_FALSE(std::filesystem::exists(options.directory + "/bar"));
}

TEST_F(BenchRun, DevicesKeepWhatTheyHoldFromRunToRun)
{
    micro.faults = ParseFaults("cut=4");
    Flash({"micro"});
    EXPECT_FALSE(Judge(micro, options.directory).good);
    EXPECT_EQ(micro.flash().size(), 4 * 512U);
    micro.faults = {};
    EXPECT_EQ(Flash({"micro"}).status, 0);
    EXPECT_TRUE(Judge(micro, options.directory).good);
    EXPECT_EQ(Flash({"micro"}).status, 0);
    EXPECT_TRUE(Has(Judge(micro, options.directory).text, "was sent nothing"));
}

TEST_F(BenchRun, RefusesAndCutsWhatItIsAskedTo)
{
    options.ports[1].refusedOpens = 1;
    Texts expected = kMicroEvents;
    expected.insert(expected.begin(), {"open 1 refused", "wait 20000"});
    EXPECT_EQ(Flash({"micro"}).events, expected);

    options.ports[1].refusedOpens = 0;
    options.ports[1].refusedRequest = 2;
    EXPECT_EQ(Flash({"micro"}).events, (Texts{"open 1", kMicroEvents[1], "rx 1 enabled refused", "close 1"}));

    options.ports[1].refusedRequest = 0;
    options.ports[1].cutWrite = 1;
    options.ports[1].cutTo = 5;
    EXPECT_EQ(Flash({"micro"}).events.at(3), "write 1: 5 of 11 bytes");
    EXPECT_EQ(micro.findings(), (Texts{"message broken off, 5 bytes: FF 44 00 04 01"}));

    options.ports[1] = {};
    EXPECT_EQ(Flash({"micro"}).events.back(), "open 1 refused") << "a port without a line";
}

TEST_F(BenchRun, APacedLineTakesItsTime)
{
    Line slow(micro, 115200);
    options.ports[1].line = &slow;
    options.waitDivisor = 1000;
    const RunResult result = Flash({"micro"});
    EXPECT_EQ(result.status, 0);
    EXPECT_TRUE(Judge(micro, options.directory).good);
    EXPECT_GT(slow.carried(LineFault::kToDevice), 12 * 520U);
    const double least = 12 * 520 * Line::kBitsPerByte / 115200;
    EXPECT_TRUE(result.seconds >= least && result.seconds < 5 * least) << result.seconds;
}

TEST_F(BenchRun, ALineSpoilsOneByte)
{
    using Kind = LineFault::Kind;
    struct Row {
        LineFault fault;
        Bytes heard; // of the status reply's first four bytes, soon
    };
    for (const Row &row : {Row{{Kind::kNone, LineFault::kToHost, 1}, {0xFF, 0x14, 0x72, 0x73}},
                           Row{{Kind::kDrop, LineFault::kToHost, 1}, {0xFF, 0x72, 0x73, 0x20}},
                           Row{{Kind::kFlip, LineFault::kToHost, 2, 0x81}, {0xFF, 0x14, 0xF3, 0x73}},
                           Row{{Kind::kDouble, LineFault::kToHost, 0}, {0xFF, 0xFF, 0x14, 0x72}},
                           Row{{Kind::kNoise, LineFault::kToHost, 3, 0x5A}, {0xFF, 0x14, 0x72, 0x5A}},
                           Row{{Kind::kDelay, LineFault::kToHost, 2, 0, 1000}, {0xFF, 0x14}},
                           Row{{Kind::kDrop, LineFault::kToDevice, 4}, {}}}) {
        microLine.fault = row.fault;
        microLine.Start();
        const Descriptor port(Checked(open(microLine.path().c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK), "port"));
        Checked(static_cast<int>(write(port.get(), kStatusRequest.data(), kStatusRequest.size())), "port");
        Bytes heard;
        pollfd polled = {port.get(), POLLIN, 0};
        while (heard.size() < 4 && poll(&polled, 1, heard.size() < row.heard.size() ? 5000 : 200) > 0)
            Checked(static_cast<int>(read(port.get(), &heard.emplace_back(), 1)), "port");
        microLine.Stop();
        EXPECT_EQ(heard, row.heard);
    }
}

TEST_F(BenchRun, TellsHowAProgramEnded)
{
    options.preload = "";
    const RunResult result = Shell("echo out; echo err >&2; echo $PATH$TALVORA_BOARDID; kill -TERM $$");
    EXPECT_EQ(result.signal, SIGTERM);
    EXPECT_EQ(result.status, -1);
    EXPECT_EQ(result.output.find("out\n"), 0U);
    EXPECT_TRUE(Has(result.output, "KORA\n"));
    EXPECT_EQ(result.errors, "err\n");
    EXPECT_TRUE(result.events.empty());
    options.output = Output::kFull;
    EXPECT_EQ(Shell("echo out || exit 7").status, 7);
    options.output = Output::kClosed;
    EXPECT_EQ(Shell("echo out || exit 8").status, 8);
    options.output = Output::kBroken;
    EXPECT_EQ(Shell("echo out").signal, SIGPIPE);
    options.limit = std::chrono::milliseconds(100);
    EXPECT_TRUE(Shell("while :; do :; done").killed);
    options.executable = "/nowhere";
    EXPECT_THROW(bench::Run(options), std::system_error);
}

TEST_F(BenchRun, ReadsOneNumberPerOpen)
{
    options.preload = "";
    options.fifo = "bar";
    const string write = "for i in 1 2 3 4 5 6 7 8 9; do printf $i >bar || echo lost $i; done";
    EXPECT_EQ(Shell(write).progress, (Texts{"1", "2", "3", "4", "5", "6", "7", "8", "9"}));

    options.progress = {ProgressOptions::Reader::kDies, 2, {}};
    const RunResult dies = Shell("trap '' PIPE; " + write);
    EXPECT_EQ(dies.progress, (Texts{"1", "2", "4", "5", "6", "7", "8", "9"}));
    EXPECT_EQ(dies.output, "lost 3\n");

    options.progress = {ProgressOptions::Reader::kLeaves, 2, {}};
    options.limit = std::chrono::seconds(2);
    const RunResult leaves = Shell(write);
    EXPECT_EQ(leaves.progress, (Texts{"1", "2"}));
    EXPECT_TRUE(leaves.killed);
}

// ---- Fault sweeps

TEST_F(BenchRun, ATrialFindsWhatEndsBadly)
{
    const Session session = {"micro", {"micro"}, {}, 6144};
    const auto findings = [&](const char *program, const Trial &trial) {
        return Runner(program, HALDENBENCH_PRELOAD, options.directory).Try(trial).findings;
    };
    Trial trial = {.name = "", .session = &session};
    EXPECT_EQ(findings(HALDENFLASH_BINARY, trial), Texts());
    EXPECT_EQ(findings(HALDENBENCH_BINARY, trial).size(), 2U) << "the end is not known; the next run sends nothing";
    trial.waits = true;
    EXPECT_EQ(findings(HALDENFLASH_BINARY, trial), Texts{"did not wait, or not with its progress delivered"});
    trial.waits = false;
    trial.harmless = true;
    trial.micro = ParseFaults("version=none");
    EXPECT_EQ(findings(HALDENFLASH_BINARY, trial).size(), 1U) << "fails, and should not";
    trial.harmless = false;
    trial.micro = ParseFaults("block5=nack");
    const Outcome outcome = Runner(HALDENFLASH_BINARY, HALDENBENCH_PRELOAD, options.directory).Try(trial);
    EXPECT_NE(outcome.unproven, nullptr);
    EXPECT_EQ(outcome.findings, Texts());
    trial.micro = ParseFaults("block5=nack,block6=verdict:42");
    EXPECT_TRUE(findings(HALDENFLASH_BINARY, trial).at(0).starts_with("a device objects: "));
}

TEST(Recovery, KnowsEveryEndAndIsWrittenDown)
{
    EXPECT_EQ(FindRecovery(0, "out of the blue\n"), nullptr);
    EXPECT_EQ(FindRecovery(3, "#######[FAILED] HALDEN FLASH UPDATE [all] ....\n"), nullptr);
    EXPECT_EQ(FindRecovery(255, "cut off"), nullptr);
    EXPECT_NE(FindRecovery(255, "cut off", true), nullptr);
    const Bytes page = ReadFile(TESTS_DIR "/../docs/recovery.md").value_or(Bytes());
    EXPECT_EQ(string(page.begin(), page.end()), RecoveryPage()) << "haldenfaults --recovery >docs/recovery.md";
}

// ---- The command

TEST_F(BenchRun, CommandJudgesTheUpdate)
{
    options.executable = HALDENBENCH_BINARY;
    options.preload = "";
    options.ports.clear();
    const auto command = [this](const Texts &words) {
        options.arguments = {"haldenbench", "--fast", "--trace", "trace", "--transcript", "transcript"};
        options.arguments.insert(options.arguments.end(), words.begin(), words.end());
        return bench::Run(options);
    };
    const RunResult good = command({"--bar", "--", HALDENFLASH_BINARY, "all"});
    EXPECT_EQ(good.status, 0) << good.output << good.errors;
    EXPECT_EQ(good.output.find("#######[SUCCESSFULLY] HALDEN FLASH UPDATE [all] ....\n"), 0U);
    EXPECT_TRUE(Has(good.output, "system image: version 0307, 2 blocks, 129024 bytes, 0 findings: holds"));
    EXPECT_TRUE(Has(good.errors, "100 %"));
    const Bytes transcript = ReadFile(options.directory + "/transcript").value();
    EXPECT_EQ(std::count(transcript.begin(), transcript.end(), '\n'), 2 + 2 * (1 + 12 + 2 + 6));
    EXPECT_EQ(command({"--faults", "micro:block2=none", "--", HALDENFLASH_BINARY, "micro"}).status, 1)
        << "the updater takes silence for success, the bench does not";
    EXPECT_EQ(command({"--faults", "micro:cut", "--", HALDENFLASH_BINARY, "micro"}).status, 2);
    EXPECT_EQ(command({}).status, 2);
}

} // namespace
