#include "bench/capture/images.h"
#include "bench/options.h"
#include "bench/rig/images.h"
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
        EXPECT_TRUE(Has(result.errors, errors)) << result.errors;
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

TEST_F(Replaying, RefusesCallsThatNoRunCanRepeat)
{
    Capture capture = ReadCapture(kGoodRun);
    capture.events.push_back({.begin = capture.events.back().begin, .port = kMicroPort, .note = "read refused EIO"});
    const RunResult result = Command({"--replay", Write(capture)});
    EXPECT_EQ(result.errors,
              "haldenbench: the capture cannot be replayed: no run can repeat \"read refused EIO\" of micro\n");
    EXPECT_EQ(result.status, 1);
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
    EXPECT_EQ(capture.events.back().note, "wait 3000000");
    EXPECT_TRUE(Has(result.errors, "########### Flashing Halden Micro Controller")) << "the rest is not in the stream";
}

} // namespace
