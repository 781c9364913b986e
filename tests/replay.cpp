#include "bench/rig/replay.h"
#include "bench/capture/images.h"
#include "bench/devices/host.h"
#include "bench/devices/micro.h"
#include "bench/options.h"
#include "bench/rig/images.h"
#include "bench/rig/recorder.h"
#include "bench/rig/run.h"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>

namespace
{

namespace fs = std::filesystem;
using namespace bench;
using std::string;
using Texts = std::vector<string>;

bool Has(const string &text, const string &part)
{
    return text.find(part) != string::npos;
}

// A folder for one test.
class Replays : public testing::TestWithParam<string>
{
protected:
    Replays() { fs::create_directory(folder_); }
    ~Replays() override { fs::remove_all(folder_); }

    string At(const string &name) const { return folder_ + "/" + name; }
    RunResult Command(const Texts &words, std::vector<Signal> signals = {})
    {
        RunOptions options = {.executable = HALDENBENCH_BINARY, .arguments = {"haldenbench"}};
        options.arguments.insert(options.arguments.end(), words.begin(), words.end());
        options.signals = std::move(signals);
        options.environment["TMPDIR"] = fs::absolute(folder_);
        return bench::Run(options);
    }
    string Write(const Capture &capture) const
    {
        std::ofstream file(At("changed.pcapng"), std::ios::binary);
        CaptureWriter writer(file, capture.info);
        for (const Event &event : capture.events)
            writer.Write(event);
        writer.Finish();
        return At("changed.pcapng");
    }

    const string folder_ = "replay." + std::to_string(getpid());
};

const string kCaptures = TESTS_DIR "/captures/", kGoodRun = kCaptures + "both_updated.pcapng";

// ---- Every file in tests/captures

Texts CaptureNames()
{
    Texts names;
    for (const auto &entry : fs::directory_iterator(kCaptures))
        names.push_back(entry.path().stem());
    std::sort(names.begin(), names.end());
    return names;
}

TEST_P(Replays, Agree)
{
    const RunResult result = Command({"--replay", kCaptures + GetParam() + ".pcapng", "--fast", "--strict"});
    EXPECT_EQ(result.status, 0) << result.output << result.errors;
    EXPECT_TRUE(Has(result.output, "replay: the program agrees with the capture")) << result.output;
    EXPECT_TRUE(fs::is_empty(folder_)) << "the images were rebuilt there";
}

// Changes one bit of a message of the host. The messages stay as many as they were. Returns where it is.
string ChangeByte(Capture &capture)
{
    const std::size_t count = MessagesOf(capture.events).size();
    for (auto event = capture.events.rbegin(); event != capture.events.rend(); ++event) {
        for (std::size_t at = event->way == Way::kToDevice ? 4 : ~0U; at < event->bytes.size(); ++at) {
            event->bytes[at] ^= 1;
            const std::vector<Message> messages = MessagesOf(capture.events);
            std::size_t number = 0;
            for (const Message &message : messages) {
                const bool counts = message.event.port == event->port && message.event.way == Way::kToDevice;
                number += counts ? 1 : 0;
                if (counts && messages.size() == count && message.event.bytes == event->bytes)
                    return Format("message %zu to %s, %s, byte offset %zu\n", number, PortName(event->port).c_str(),
                                  message.name.c_str(), at);
            }
            event->bytes[at] ^= 1;
        }
    }
    return "there is no such byte";
}

// The images are those that were sent. So the program still sends what it sent then, and the capture tells otherwise.
TEST_P(Replays, NameTheByteThatDiffers)
{
    Capture capture = ReadCapture(kCaptures + GetParam() + ".pcapng");
    WriteFiles(RebuildFiles(capture), At("images"));
    const string place = ChangeByte(capture);
    const RunResult result = Command({"--replay", Write(capture), "--fast", "--dir", At("images")});
    EXPECT_EQ(result.status, 1);
    EXPECT_TRUE(Has(result.output, "replay: the program leaves the capture at " + place)) << place << result.output;
}

INSTANTIATE_TEST_SUITE_P(Captures, Replays, testing::ValuesIn(CaptureNames()),
                         [](const auto &test) { return test.param; });

// ---- What such files do not show

class Replaying : public Replays
{
};

// The capture has nothing but what passed on the lines, as one that was made from system calls.
TEST_F(Replaying, NeedsNothingButTheMessages)
{
    for (const char *name : {"both_updated", "blocks_refused"}) {
        Capture capture = ReadCapture(kCaptures + name + ".pcapng");
        capture.info.files.clear();
        const RunResult result = Command({"--replay", Write(capture), "--fast"});
        EXPECT_TRUE(Has(result.output, "agrees")) << name << result.output << result.errors;
    }
}

TEST_F(Replaying, NamesWhatIsMissingOrTooMuch)
{
    Capture micro = ReadCapture(kGoodRun);
    std::erase_if(micro.events, [](const Event &event) { return event.port == kCameraPort; });
    const string microOnly = Write(micro);
    const struct {
        Texts words;
        const char *output, *errors;
    } cases[] = {
        {{"--replay", kGoodRun, "--", "/bin/sleep", "3"},
         "replay: message 1 to micro, status request does not come\n",
         "replay: still waits for message 1 to micro, status request\n"},
        {{"--replay", kGoodRun, "--", HALDENFLASH_BINARY, "micro", "q"},
         "replay: message 2 to micro, block 0 with 512 bytes does not come\n"
         "replay: the program ends with exit 1; in the capture it ended with exit 0\n",
         ""},
        {{"--replay", microOnly, "--", HALDENFLASH_BINARY, "all"},
         "replay: the program sends more to camera than in the capture: version query\n"
         "replay:   now:  [82] 06 77\n",
         ""},
        {{"--replay", microOnly, "--strict", "--", HALDENFLASH_BINARY, "micro"},
         "replay: step 20 of the program is another\n"
         "replay:   then: wait 3000000\n"
         "replay:   now:  nothing\n",
         ""},
    };
    for (const auto &[words, output, errors] : cases) {
        Texts all = {"--fast"};
        all.insert(all.end(), words.begin(), words.end());
        const RunResult result = Command(all);
        EXPECT_TRUE(Has(result.output, output)) << result.output;
        EXPECT_EQ(result.errors, errors);
        EXPECT_EQ(result.status, 1);
    }
}

TEST_F(Replaying, ACommandLineIsTheSameBehindItsQuotes)
{
    const Texts words = {"a b", "", "it's", "\"x\"", "back\\slash", "plain-1.0"};
    EXPECT_EQ(Quoted(words), R"('a b' '' 'it'\''s' '"x"' 'back\slash' plain-1.0)");
    EXPECT_EQ(Unquoted(Quoted(words)), words);
    EXPECT_EQ(Unquoted(R"( a\ b "c \"d" )"), (Texts{"a b", "c \"d"}));
}

// The microcontroller runs the last version there is, and one block came to it.
TEST(RebuiltImages, HaveTheSameEffect)
{
    Bytes version(15, 0xFF);
    version[1] = 0x14;
    Capture capture = {{"haldenflash micro q", "", {"farsightsys.bin missing"}, ""},
                       {{.port = kMicroPort, .way = Way::kToDevice, .bytes = FrameOf(0x44, {1})},
                        {.port = kMicroPort, .way = Way::kToHost, .bytes = version},
                        {.port = kCameraPort, .note = "open"},
                        {.note = "exit 1"}}};
    EXPECT_EQ(RebuildFiles(capture).contents[kMicroImage], Bytes{1});
    capture.events.back().note = "exit 0";
    EXPECT_EQ(RebuildFiles(capture).contents[kMicroImage], Bytes{0xFF});
    capture.events.push_back({.port = kMicroPort, .way = Way::kToDevice, .bytes = BlockOf(0x48, 0, 512)});
    const Texts remarks = RebuildFiles(capture).remarks;
    EXPECT_EQ(remarks[0], "haldenmicro.bin: 512 of 6144 bytes were sent; the others are not known, and are zero here; "
                          "its size is not known either");
    EXPECT_EQ(remarks.size(), 4U);
}

// The line is faster than the devices' one, and the program has stopped to wait when the reply comes.
TEST_F(Replaying, KeepsAVerdictTooLate)
{
    WriteSamples(folder_, {});
    WriteFile(At("run"), Bytes(1000000)); // which goes
    Command({"--dir", folder_, "--fast", "--faults", "camera:block1=late:4500", "--capture", At("run"), "--",
             HALDENFLASH_BINARY, "farsight"});
    const RunResult result = Command({"--replay", At("run"), "--fast"});
    EXPECT_EQ(result.status, 0) << result.output << result.errors;
}

// The captured run had shorter pauses. The reply came in the second one.
TEST(AScript, CountsTimesInThePausesOfTheReplay)
{
    using namespace std::chrono_literals;
    const auto wait = [](WallTime begin) { return Event{.begin = begin, .end = begin, .note = "wait 3000000"}; };
    const std::vector<Event> events = {
        {.begin = 1s, .end = 1s, .port = 0, .way = Way::kToDevice, .bytes = {1}},
        wait(1s + 100us),
        wait(1s + 40ms),
        {.begin = 1s + 55ms, .end = 1s + 55ms, .port = 0, .way = Way::kToHost, .bytes = {2}}};
    EXPECT_EQ(ScriptOf(events, false).messages[0].replies[0].delay, 3s + 10ms + 1500ms - 95us);
    EXPECT_EQ(ScriptOf(events, true).messages[0].replies[0].delay, 55ms - 95us);
}

TEST(AScript, KeepsOnlyRepliesTooLate)
{
    using namespace std::chrono_literals;
    const auto script = [](const char *note) {
        return ScriptOf(
            {{.begin = 1s, .end = 1s + 1ms, .port = 0, .way = Way::kToDevice, .bytes = {0x82, 6, 0x77}},
             {.begin = 1s + 2ms, .end = 1s + 2ms, .port = 0, .note = note},
             {.begin = 1s + 5ms, .end = 1s + 5ms, .port = 0, .way = Way::kToHost, .bytes = {2}},
             {.begin = 1s + 9ms, .end = 1s + 9ms, .port = 0, .way = Way::kToDevice, .bytes = {0x82, 6, 0x77}}},
            true);
    };
    EXPECT_EQ(script("close").messages[0].replies[0].delay, 4ms);
    EXPECT_EQ(script("wait 1000").messages[0].replies[0].delay, 0ms);
    EXPECT_EQ(script("close").messages[1].gap, 8ms);
}

// The program leaves the capture. What it sends on another line then does not count.
TEST(AReplay, TellsWhereTheProgramLeft)
{
    Capture capture = {{},
                       {{.port = 1, .way = Way::kToHost, .bytes = {8}},
                        {.port = 1, .way = Way::kToDevice, .bytes = {1, 2, 3}},
                        {.port = 7, .note = "open refused ENOENT"}}};
    Replay replay(capture, true), same(capture, true);
    EXPECT_EQ(replay.peer(1).Receive({}).size(), 1U);
    replay.peer(1).Receive(Bytes{1, 2, 7});
    replay.peer(0).Receive(Bytes{5});
    EXPECT_EQ(replay.Differences({}).back(), "  now:  01 02 [07]");
    same.peer(1).Receive(Bytes{1, 2, 3, 4}); // the capture may have been cut off there
    RunResult stopped;
    stopped.killed = true;
    EXPECT_EQ(same.Differences(stopped), Texts{"the program had to be stopped"});
    Line line(same.peer(7));
    RunOptions options;
    options.ports[7].line = &line;
    same.Order(options);
    EXPECT_EQ(options.ports[7].line, nullptr);
}

// A busy machine sees the bytes of the first write before the log has it, and those of the others with some delay.
TEST(ARecorder, BeginsNoMessageBeforeTheReplyInFront)
{
    using namespace std::chrono_literals;
    const CallLog log;
    std::ofstream file(log.Path(), std::ios::binary | std::ios::in);
    string lines = "100 \twrite 1\n200 \twrite 1\n660 \twrite 1\n661 \twrite 1 refused EIO\n"
                   "70__0 \twrite 1\n";     // the bytes of the second never come
    std::ranges::replace(lines, '_', '\0'); // and a program that was killed left a hole
    const auto used = static_cast<std::uint32_t>(lines.size());
    file.write(reinterpret_cast<const char *>(&used), sizeof used) << lines << std::flush;
    std::size_t position = 0;
    EXPECT_EQ(log.Read(position, false).size(), 4U);
    EXPECT_EQ(NoteOf({{}, "lost close", ""}).note, "");
    Micro micro(1);
    Line line(micro);
    std::vector<WallTime> begins;
    Recorder recorder([&](const std::vector<Event> &events) {
        for (const Event &event : events)
            begins.push_back(event.begin - events.front().begin);
    });
    recorder.Watch(1, line);
    recorder.Start(&log);
    const auto pass = [&](LineFault::Way way, std::chrono::microseconds begin, std::chrono::microseconds end) {
        line.tap(way, Bytes{1}, Line::Clock::time_point(begin), Line::Clock::time_point(end));
    };
    pass(LineFault::kToDevice, 50us, 150us);
    pass(LineFault::kToHost, 500us, 500us);
    pass(LineFault::kToDevice, 400us, 600us);
    pass(LineFault::kToHost, 650us, 650us);
    pass(LineFault::kToHost, 720us, 720us); // this one was not waited for
    pass(LineFault::kToDevice, 800us, 900us);
    pass(LineFault::kToDevice, 850us, 950us);
    recorder.Finish();
    EXPECT_EQ(begins, (std::vector<WallTime>{0us, 400us, 400us, 550us, 561us, 600us, 620us, 800us}));
}

TEST_F(Replaying, RefusesCallsThatNoRunCanRepeat)
{
    Capture capture = ReadCapture(kGoodRun);
    capture.events.push_back({.begin = capture.events.back().begin, .port = kMicroPort, .note = "read refused EIO"});
    const RunResult result = Command({"--replay", Write(capture)});
    EXPECT_EQ(result.errors,
              "haldenbench: the capture cannot be replayed: no run can repeat \"read refused EIO\" of micro\n");
    EXPECT_EQ(result.status, 1);
    for (const auto &[first, second] : std::initializer_list<std::pair<const char *, const char *>>{
             {"open", "open refused ENOENT"},
             {"open", "open refused EBUSY"},
             {"rx enabled refused EIO", "rx disabled refused EIO"}})
        EXPECT_THROW(FailedCallsOf({{.port = 0, .note = first}, {.port = 0, .note = second}}), std::runtime_error);
    std::erase_if(capture.events, [](const Event &event) { return !event.note.starts_with("wait"); });
    EXPECT_EQ(Command({"--replay", Write(capture)}).errors,
              "haldenbench: the capture cannot be replayed: it has no message of a program, and no end of one\n");
}

// The bench is killed in the first pause of the program, behind the microcontroller's update.
TEST_F(Replaying, AKilledBenchLeavesAReadableCapture)
{
    WriteSamples(folder_, {});
    const RunResult result = Command({"--dir", folder_, "--capture", "-", "--", HALDENFLASH_BINARY, "micro"},
                                     {{std::chrono::milliseconds(2500), SIGKILL}});
    std::istringstream stream(result.output);
    const Capture capture = ReadCapture(stream);
    EXPECT_TRUE(Has(capture.info.command, "haldenflash micro"));
    EXPECT_EQ(capture.info.files.back(), "farsightsysver text 0307\\x0A");
    EXPECT_EQ(capture.events.back().note, "wait 3000000");
    EXPECT_TRUE(Has(result.errors, "########### Flashing Halden Micro Controller")) << "the rest is not in the stream";
}

} // namespace
