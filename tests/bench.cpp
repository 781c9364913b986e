#include "bench/devices/host.h"
#include "bench/rig/realline.h"
#include "bench/sweeps/runner.h"
#include "tests/shellrun.h"

#include <algorithm>
#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>

namespace
{

using namespace bench;
using std::string;
using Texts = std::vector<std::string>;

bool Has(const string &text, const string &part)
{
    return text.find(part) != string::npos;
}

const Bytes kStatusRequest = FrameOf(0x44, {1}), kQuery = {0x82, 0x06, 0x77}, kRetry = FrameOf(0x48, {});
const Bytes kAcked = {0x15, 0x06};

// ---- Frames

// Whatever a case is about, a good frame behind it is decoded.
TEST(Decoder, ReportsEachDeviationOnceAndTakesUpAgain)
{
    const std::pair<Bytes, Texts> cases[] = {
        {{}, {}},
        {{0xFF, 0x44, 0, 4, 1, 0xFE, 1, 0xFE, 1, 0xFE, 1}, {"44 1 byte: 01"}},
        {{0xFF, 0x48, 0, 5, 0xFE, 0, 1, 0xFE, 1, 0xFE, 1, 1}, {"48 2 bytes: FE 01"}},
        {{0xFF, 0xFE, 0, 0, 3, 0, 0, 0}, {"FE 0 bytes"}},
        {{0xFF, 0x44, 0, 4, 0xFE, 2, 0xFE, 1, 9}, {"wrong escape FE 02"}},
        {{0xFF, 0x44, 0, 4, 1}, {"FF inside a frame"}},
        {{0xFF, 0x44, 0, 0xFE}, {"FF inside a frame"}},
        {{0xFF}, {"FF inside a frame"}},
        {{0xFF, 0x48, 0, 2, 0, 0}, {"length 2 has no room for the checksum"}},
        {{0xFF, 0x44, 0, 3, 0, 0, 0, 9, 9}, {"44 0 bytes", "byte 09 outside a frame"}},
        {{0xFF, 0x48, 1, 3, 0, 0, 0}, {"FF inside a frame"}}, // which announces more than comes
        {{0xFF, 0x44, 0, 4, 1, 0xFE, 1, 0xFE, 1, 0xFE, 0, 7}, {"checksum FFFFFE where FFFFFF is due"}},
        {{0x12, 0x13, 0xFE}, {"byte 12 outside a frame"}},
    };
    for (auto [wire, expected] : cases) {
        wire.insert(wire.end(), {0xFF, 0x48, 0x00, 0x03, 0x00, 0x00, 0x00});
        expected.emplace_back("48 0 bytes");
        FrameDecoder decoder;
        Texts events;
        for (const std::uint8_t byte : wire) {
            const FrameDecoder::Event event = decoder.Feed(byte);
            if (event == FrameDecoder::Event::kFrame)
                events.push_back(Format("%02X ", decoder.frame().type) + Describe(decoder.frame().data));
            else if (event == FrameDecoder::Event::kDeviation)
                events.push_back(decoder.deviation());
        }
        EXPECT_EQ(events, expected);
        EXPECT_FALSE(decoder.InFrame());
    }
}

// ---- Fault scripts

TEST(Script, NamesTheItemItRefuses)
{
    const std::pair<const char *, const char *> cases[] = {
        {"cut=1,,cut=2", "\"\": name=value expected"},
        {"noise=1", "\"noise=1\": hexadecimal bytes expected"},
        {"noise=+1", "\"noise=+1\": hexadecimal bytes expected"},
        {"version=soon", "\"version=soon\": unknown value"},
        {"mode=late:x", "\"mode=late:x\": number expected"},
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
            EXPECT_EQ(error.what(), string("fault ") + message);
        }
    }
}

// ---- Devices

Bytes MicroBlock(unsigned number, std::size_t size = Micro::kBlockSize)
{
    return BlockOf(0x48, number, size);
}

class Devices : public testing::Test
{
protected:
    Micro micro{0x20};
    Camera camera{{"0001", "0002"}, {"00A1", "00A2"}};
};

TEST_F(Devices, FindWhatTheHostMayNotDo)
{
    const struct {
        std::vector<Bytes> messages;
        const char *finding;
        Device &device;
    } cases[] = {
        {{MicroBlock(1)}, "block 1 where 0 is due", micro},
        {{MicroBlock(12)}, "block 12, but 11 is the last", micro},
        {{MicroBlock(0, 513)}, "block 0 with 513 bytes", micro},
        {{FrameOf(0x48, {0})}, "block without a number", micro},
        {{kRetry}, "retry of a block that was not refused", micro},
        {{FrameOf(0x44, {2})}, "status request for something other than the version", micro},
        {{FrameOf(0x88, {0, 0})}, "a frame of type 88 is none of its messages", micro},
        {{MicroBlock(0, 511), MicroBlock(1, 1)}, "block 1 has data behind a short block", micro},
        {{{0xFF, 0x48, 0x00}}, "message broken off, 3 bytes: FF 48 00", micro},
        {{BlockOf(0x88, 0, Camera::kBlockSize)}, "camera block 0, but 0 were announced", camera},
        {{FlashModeOf(3, 1, 0), BlockOf(0x89, 0, 5)}, "system block 0, but 0 were announced", camera},
        {{FlashModeOf(5, 1, 1), BlockOf(0x89, 0, 5)}, "system block 0 before camera block 0", camera},
        {{FlashModeOf(3, 2, 0), BlockOf(0x88, 1, 5)}, "camera block 1 where 0 is due", camera},
        {{FlashModeOf(3, 2, 0), BlockOf(0x88, 0, 5)}, "camera block 0 of 2 with 5 bytes", camera},
        {{FlashModeOf(3, 1, 0), BlockOf(0x88, 0, 0)}, "camera block 0 of 1 with 0 bytes", camera},
        {{FlashModeOf(3, 1, 0), BlockOf(0x88, 0, 5), BlockOf(0x88, 1, 5)},
         "camera block 1, but 1 were announced",
         camera},
        {{FlashModeOf(3, 1, 1)}, "flash mode 3 does not go with 1 camera blocks and 1 system blocks", camera},
        {{FlashModeOf(2, 0, 0)}, "unknown flash mode 2", camera},
        {{{0x82, 0x06, 0x78}, kQuery}, "unknown message, 3 bytes: 82 06 78", camera},
        {{{0x12}, kQuery, FlashModeOf(3, 0xFF, 0)}, "byte 12 outside a frame", camera},
        {{kStatusRequest}, "a frame of type 44 is none of its messages", camera},
    };
    for (const auto &[messages, finding, device] : cases) {
        device.PowerOn();
        Bytes answer;
        for (const Bytes &message : messages)
            answer = Ask(device, message);
        EXPECT_NE(answer, kAcked) << finding;
        device.PowerOff();
        EXPECT_EQ(device.findings(), Texts{finding});
    }
}

TEST_F(Devices, CutAReplyAndTakeAFrameBehindABrokenMessage)
{
    camera.PowerOn();
    camera.faults = ParseFaults("mode=first:3");
    EXPECT_EQ(Ask(camera, FlashModeOf(3, 1, 0)), (Bytes{0x87, 0x61, 0x62}));
    Ask(camera, {0x82, 0x06});
    EXPECT_EQ(Ask(camera, BlockOf(0x88, 0, 5)), kAcked);
}

TEST_F(Devices, CountBlocksAnewInEachRun)
{
    micro.faults = ParseFaults("block0=noise:55");
    for (const std::size_t size : {5U, 0U}) {
        micro.PowerOn();
        EXPECT_EQ(Ask(micro, MicroBlock(0, size)), (Bytes{0x55, 0x15, 0x06}));
        EXPECT_EQ(micro.flash().size(), size);
    }
}

// ---- Runs

using BenchRun = ShellRun;

// The first four bytes of the status reply as they come over the line, or all that come before a pause.
Bytes HeardOf(Line &line)
{
    line.Start();
    const Descriptor port(Checked(open(line.path().c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK), "port"));
    Checked(static_cast<int>(write(port.get(), kStatusRequest.data(), kStatusRequest.size())), "port");
    Bytes heard;
    pollfd polled = {port.get(), POLLIN, 0};
    const int pauseMs = line.fault.way == LineFault::kToDevice ? 200 : 5000;
    while (heard.size() < 4 && poll(&polled, 1, pauseMs) > 0)
        Checked(static_cast<int>(read(port.get(), &heard.emplace_back(), 1)), "port");
    line.Stop();
    return heard;
}

// Whatever the writer does: here nothing holds it to the line's speed.
TEST_F(BenchRun, ADeviceHearsWhatAPacedLineHasCarried)
{
    Line slow(micro, 1200);
    const auto begin = Line::Clock::now();
    HeardOf(slow);
    EXPECT_GE(std::chrono::duration<double>(Line::Clock::now() - begin).count(),
              static_cast<double>(kStatusRequest.size()) * Line::kBitsPerByte / 1200);
}

TEST_F(BenchRun, ALineSpoilsOneByte)
{
    using Kind = LineFault::Kind;
    const std::pair<LineFault, Bytes> rows[] = {
        {{Kind::kNone, LineFault::kToHost, 1}, {0xFF, 0x14, 0x72, 0x73}},
        {{Kind::kDrop, LineFault::kToHost, 1}, {0xFF, 0x72, 0x73, 0x20}},
        {{Kind::kFlip, LineFault::kToHost, 2, 0x81}, {0xFF, 0x14, 0xF3, 0x73}},
        {{Kind::kDouble, LineFault::kToHost, 0}, {0xFF, 0xFF, 0x14, 0x72}},
        {{Kind::kNoise, LineFault::kToHost, 3, 0x5A}, {0xFF, 0x14, 0x72, 0x5A}},
        {{Kind::kDrop, LineFault::kToDevice, 4}, {}},
    };
    for (const auto &[fault, heard] : rows) {
        microLine.fault = fault;
        EXPECT_EQ(HeardOf(microLine), heard);
    }
    EXPECT_EQ(micro.findings(), Texts{"message broken off, 10 bytes: FF 44 00 04 FE 01 FE 01 FE 01"});
    microLine.fault = {Kind::kNone, LineFault::kToDevice};
    micro.faults = ParseFaults("version=late:1000"); // the next run has no reply of this one
    EXPECT_EQ(HeardOf(microLine), Bytes());
    micro.faults = ParseFaults("noise=55");
    microLine.fault = {Kind::kDelay, LineFault::kToHost, 2, 0, 300};
    const auto begin = Line::Clock::now();
    EXPECT_EQ(HeardOf(microLine), (Bytes{0x55, 0xFF, 0x14, 0x72}));
    EXPECT_GE(Line::Clock::now() - begin, std::chrono::milliseconds(300));
}

TEST_F(BenchRun, TellsHowAProgramEnded)
{
    const EndSignals blocked;
    std::signal(SIGPIPE, SIG_IGN);
    options.environment = {{"TALVORA_BOARDID", "KORA"}};
    const RunResult result = Shell("echo out; echo err >&2; echo $PATH$TALVORA_BOARDID; kill -TERM $$");
    EXPECT_EQ(result.signal, SIGTERM);
    EXPECT_EQ(result.status, -1);
    EXPECT_TRUE(result.output.starts_with("out\n"));
    EXPECT_TRUE(Has(result.output, "KORA\n"));
    EXPECT_EQ(result.errors, "err\n");
    EXPECT_EQ(result.events, Texts());
    options.output = Output::kFull;
    EXPECT_EQ(Shell("echo out || exit 7").status, 7);
    options.output = Output::kClosed;
    EXPECT_EQ(Shell("echo out || exit 8").status, 8);
    options.output = Output::kBroken;
    EXPECT_EQ(Shell("echo out").signal, SIGPIPE);
    options.output = Output::kCapture;
    Texts notes;
    Recorder recorder([&notes](const std::vector<Event> &events) {
        for (const Event &event : events)
            notes.push_back(event.note);
    });
    options.recorder = &recorder;
    options.limit = std::chrono::milliseconds(100);
    EXPECT_TRUE(Shell("trap '' TERM; while :; do :; done").killed);
    EXPECT_EQ(notes, (Texts{"! killed at the limit", "signal 9"}));
    options.executable = "/nowhere";
    EXPECT_THROW(bench::Run(options), std::system_error);
}

TEST_F(BenchRun, ReadsOneNumberPerOpen)
{
    options.fifo = "bar";
    const string write = "sleep 0.1 >bar; for i in 1 2 3 4 5 6 7 8 9; do printf $i >bar || echo lost $i; done";
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

// A program that is slow to read its answer. The command comes in two parts.
TEST_F(BenchRun, ALauncherAnswersEachCommand)
{
    std::filesystem::path path;
    {
        const Launcher launcher("0\n");
        path = launcher.path();
        EXPECT_THROW(Launcher("", path), std::system_error);
        const string ask =
            "printf %0300d 7 >" + launcher.path() + "; exec 3<" + launcher.path() + "; sleep 0.1; cat <&3; exec 3<&-; ";
        EXPECT_EQ(Shell(ask + ask).output, "0\n0\n");
        EXPECT_EQ(launcher.commands(), Texts(2, string(299, '0') + "7"));
    }
    EXPECT_FALSE(std::filesystem::exists(path.parent_path()));
}

// ---- Fault sweeps

TEST_F(BenchRun, ATrialFindsWhatEndsBadly)
{
    const Session session{"micro", {"micro"}, {}, 6144};
    const struct {
        const char *program, *faults, *finding;
        std::size_t findings;
        bool waits, harmless;
    } rows[] = {
        {HALDENFLASH_BINARY, "", "", 0, false, false},
        {HALDENFLASH_BINARY, "", "did not wait, or not with its progress delivered", 1, true, false},
        {HALDENFLASH_BINARY, "version=none", "does not do what it does without the fault", 1, false, true},
        {HALDENFLASH_BINARY, "block5=nack,block6=verdict:42", "a device objects: ", 1, false, false},
        {HALDENBENCH_BINARY, "", "this last line are not known", 2, false, false}, // and the next run sends nothing
    };
    for (const auto &row : rows) {
        Trial trial = {.name = "", .session = &session, .micro = ParseFaults(row.faults)};
        trial.waits = row.waits;
        trial.harmless = row.harmless;
        const Texts findings = Runner(row.program, HALDENBENCH_PRELOAD, options.directory).TryTwice(trial).findings;
        ASSERT_EQ(findings.size(), row.findings) << row.finding;
        EXPECT_TRUE(findings.empty() || Has(findings[0], row.finding));
    }
}

TEST_F(BenchRun, ATrialExcusesAnImageThatMissesARefusedBlock)
{
    const Session session{"micro", {"micro"}, {}, 6144};
    const Outcome outcome = Runner(HALDENFLASH_BINARY, HALDENBENCH_PRELOAD, options.directory)
                                .Try({.name = "", .session = &session, .micro = ParseFaults("block5=nack")});
    EXPECT_STREQ(outcome.unproven, "a microcontroller that was silent or refused a block");
    EXPECT_EQ(outcome.held.micro, kPart);
    EXPECT_EQ(outcome.findings, Texts());
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
    const auto command = [this](const Texts &words) {
        options.arguments = {"haldenbench", "--fast", "--trace", "trace", "--transcript", "transcript"};
        options.arguments.insert(options.arguments.end(), words.begin(), words.end());
        return bench::Run(options);
    };
    const RunResult good = command({"--bar", "--", HALDENFLASH_BINARY, "all"});
    EXPECT_EQ(good.status, 0) << good.output << good.errors;
    EXPECT_TRUE(good.output.starts_with("#######[SUCCESSFULLY] HALDEN FLASH UPDATE [all] ....\n"));
    EXPECT_TRUE(Has(good.output, "system image: version 0307, 2 blocks, 129024 bytes, 0 findings: holds"));
    EXPECT_TRUE(Has(good.errors, "100 %"));
    const Bytes transcript = ReadFile(options.directory + "/transcript").value();
    EXPECT_EQ(std::count(transcript.begin(), transcript.end(), '\n'), 2 + 2 * (1 + 12 + 2 + 6));
    EXPECT_EQ(command({"--faults", "micro:block2=none", "--", HALDENFLASH_BINARY, "micro"}).status, 1)
        << "the updater takes silence for success, the bench does not";
    EXPECT_EQ(command({"--faults", "camera:version=none", "--", HALDENFLASH_BINARY, "farsight"}).status, 1);
    EXPECT_EQ(command({"--faults", "micro:cut", "--", HALDENFLASH_BINARY, "micro"}).status, 2);
    EXPECT_EQ(command({"--line", "micro=no", "--faults", "micro:cut=1", "--", HALDENFLASH_BINARY, "micro"}).status, 2);
    EXPECT_EQ(command({}).status, 2);
}

} // namespace
