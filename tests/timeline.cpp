#include "bench/capture/timeline.h"
#include "bench/capture/show.h"
#include "bench/capture/svg.h"
#include "bench/capture/timeaxis.h"

#include <gtest/gtest.h>
#include <regex>
#include <set>
#include <sstream>

namespace
{

using namespace bench;
using std::string;

const Bytes kRequest = {0xFF, 0x44, 0, 4, 1, 0xFE, 1, 0xFE, 1, 0xFE, 1}, kRetry = {0xFF, 0x48, 0, 3, 0, 0, 0};
const Bytes kAcked = {0x15, 0x06}, kRefused = {0x15, 0x0F};

// A block without data. The number is from 3 on, so that the checksum needs no further stuffing.
Bytes BlockOf(std::uint8_t number)
{
    return {0xFF, 0x48, 0, 5, 0, number, 0xFE, 1, 0xFE, 1, static_cast<std::uint8_t>(-number)};
}

// A run in the making. Each event begins a millisecond behind the one before.
struct Story {
    Capture capture = {{"haldenflash micro", "haldenflash, 9 bytes", {"haldenmicro.bin 6144 bytes"}, "a test"}, {}};
    WallTime now{1763900000000000}; // 2025-11-23 12:13:20

    void Note(int port, const string &note) { Add({.port = port, .note = note}, 0); }
    void Send(const Bytes &bytes) { Add({.port = kMicroPort, .way = Way::kToDevice, .bytes = bytes}, 500); }
    void Answer(const Bytes &bytes) { Add({.port = kMicroPort, .way = Way::kToHost, .bytes = bytes}, 100); }
    void Add(Event event, int length)
    {
        event.begin = now;
        event.end = now + WallTime(length);
        capture.events.push_back(event);
        now += WallTime(1000);
    }
    string Text() const
    {
        std::ostringstream text;
        Show(DigestOf(capture), text);
        return text.str();
    }
    string Picture() const
    {
        std::ostringstream picture;
        Timeline(DigestOf(capture), picture);
        return picture.str();
    }
};

Story FaultyRun()
{
    Story run;
    run.Note(kMicroPort, "open");
    for (const auto &[message, answer] : std::initializer_list<std::pair<Bytes, Bytes>>{{kRequest, {0x12}},
                                                                                        {BlockOf(5), kAcked},
                                                                                        {BlockOf(6), kRefused},
                                                                                        {kRetry, kAcked},
                                                                                        {BlockOf(7), {1, 2}}}) {
        run.Send(message);
        run.Answer(answer);
    }
    run.Send(BlockOf(7));
    run.Note(kMicroPort, "close");
    run.Note(kNoPort, "a note of a later version");
    run.Note(kNoPort, "wait 3000000");
    run.Note(kNoPort, "exit 255");
    return run;
}

TEST(Show, TellsAFaultyRun)
{
    EXPECT_EQ(FaultyRun().Text(), R"(command   haldenflash micro
program   haldenflash, 9 bytes
source    a test
file      haldenmicro.bin 6144 bytes
date      2025-11-23 12:13:20 UTC
duration  0.015000 s

       time s  line  way    bytes         gap s      answer s  message
     0.000000  micro   -        -             -             -  open
     0.001000  micro   >       11             -             -  status request ! no answer
     0.002000  micro   <        1      0.000500             -  noise
     0.003000  micro   >       11      0.000900             -  block 5 with 0 bytes
     0.004000  micro   <        2      0.000500      0.000500  ack
     0.005000  micro   >       11      0.000900             -  block 6 with 0 bytes
     0.006000  micro   <        2      0.000500      0.000500  nack
     0.007000  micro   >        7      0.000900             -  retry of block 6
     0.008000  micro   <        2      0.000500      0.000500  ack
     0.009000  micro   >       11      0.000900             -  block 7 with 0 bytes
     0.010000  micro   <        2      0.000500      0.000500  unknown verdict ! unknown verdict 02
     0.011000  micro   >       11      0.000900             -  block 7 with 0 bytes ! no answer
     0.012000  micro   -        -      0.000500             -  close
     0.014000  -       -        -             -             -  wait 3000000
     0.015000  -       -        -             -             -  exit 255

line     messages  blocks  accepted  refused  unknown  silent  retries  noise  to device   to host   use %
micro          11       4         1        1        1       1        2      1         62         9    45.2

end      exit 255
)");
}

TEST(Show, TakesNoAnswerBehindNoise)
{
    Story run;
    run.Send(kRequest);
    run.Send({1, 2});
    Bytes version(15, 0x20);
    version[0] = 0xFF;
    version[1] = 0x14;
    run.Answer(version);
    EXPECT_NE(run.Text().find("status request ! no answer\n"), string::npos);
}

TEST(Timeline, GivesEachBlockTheFormOfItsVerdict)
{
    const string picture = FaultyRun().Picture();
    const std::regex shape(R"re(class="(\w+)"><title>([^<\n]*)\n)re");
    std::set<string> shapes;
    for (std::sregex_iterator i(picture.begin(), picture.end(), shape), end; i != end; ++i)
        shapes.insert((*i)[1].str() + ": " + (*i)[2].str());
    EXPECT_EQ(shapes,
              (std::set<string>{"accepted: ack", "accepted: block 5 with 0 bytes", "accepted: retry of block 6",
                                "noise: noise", "refused: block 6 with 0 bytes", "refused: nack",
                                "silence: block 7 with 0 bytes", "silence: status request",
                                "unknown: block 7 with 0 bytes", "unknown: unknown verdict ! unknown verdict 02"}));
}

TEST(Timeline, ShowsOneRefusalAmongTenThousandMessages)
{
    Story run;
    for (int i = 0; i < 5000; ++i) {
        run.Send(BlockOf(static_cast<std::uint8_t>(3 + i % 100)));
        run.Answer(i == 2486 ? kRefused : kAcked);
    }
    const auto begin = std::chrono::steady_clock::now();
    const string picture = run.Picture();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(20)); // a slow board is given time
    EXPECT_LT(picture.size(), 2000000U);
    const std::size_t refused = picture.find("class=\"refused\"><title>");
    const std::regex shape(R"(class="refused"><title>)");
    EXPECT_EQ(std::distance(std::sregex_iterator(picture.begin(), picture.end(), shape), {}), 3) << "one in each lane";
    EXPECT_NE(picture.compare(picture.find("class=", refused + 1), 16, "class=\"accepted\""), 0) << "it is on top";
    EXPECT_NE(run.Text().find("    4999        1        0 "), string::npos);
}

// A camera block is accepted, a system block with the same number gets a piece of an answer.
TEST(Timeline, DrawsWhatIsAcceptedAndHowLongNothingCame)
{
    Story run;
    const auto block = [](std::uint8_t type) { return Bytes{0xFF, type, 0, 6, 0, 0, 33, 0xFE, 1, 0xFE, 1, 223}; };
    run.Note(kNoPort, "wait 5000");
    run.Add({.port = kCameraPort, .way = Way::kToDevice, .bytes = block(0x88)}, 500);
    run.Add({.port = kCameraPort, .way = Way::kToHost, .bytes = kAcked}, 100);
    run.Add({.port = kCameraPort, .way = Way::kToDevice, .bytes = block(0x89)}, 500);
    run.Add({.port = kCameraPort, .way = Way::kToHost, .bytes = {0x15}}, 0);
    run.Note(kCameraPort, "! no act of the program");
    run.now += WallTime(993600);
    run.Note(kNoPort, "exit 0");
    const string picture = run.Picture();
    for (const char *part : {"the program waits 1 ms, from 0 s", "camera: from 1 ms to 1 s", "no answer in 996 ms",
                             "V376H1296\" class=\"curve\"><title>1 of the 2 bytes"})
        EXPECT_NE(picture.find(part), string::npos) << part;
    EXPECT_EQ(picture.find("class=\"wait\"><title>", picture.rfind(">camera<")), string::npos) << "it was before";
    const LineTotals line = DigestOf(run.capture).lines.at(kCameraPort);
    EXPECT_EQ(line.retries, 0U);
    EXPECT_EQ(line.noise, 1U);
}

TEST(Timeline, EndsWithTheLastByte)
{
    Story run;
    run.Add({.port = kMicroPort, .way = Way::kToDevice, .bytes = kRequest}, 5000);
    run.Note(kNoPort, "exit 0");
    EXPECT_EQ(DigestOf(run.capture).duration(), WallTime(5000));
    EXPECT_EQ(Number(-0.5), "-0.5");
}

TEST(Timeline, EscapesWhatXmlCannotHave)
{
    Story run;
    run.capture.info.command = "<a> & \"\xC3\xA4\xFF\x01\x7F\xC2\x85\"";
    for (const char *note : {"! <b>", "! 2", "! 3", "! 4", "! 5", "! 6", "open relay"}) // marks at one place
        run.Note(kNoPort, note);
    run.Note(kMicroPort, "write 1 of 3 bytes");
    run.now += WallTime(10000000);
    run.Note(kNoPort, "exit 1");
    const string picture = run.Picture();
    EXPECT_NE(picture.find(">&lt;a&gt; &amp; &quot;\xC3\xA4?????&quot;<"), string::npos);
    EXPECT_EQ(picture.find("<b>"), string::npos);
    EXPECT_NE(picture.find("href=\"#finding\" x=\"136\""), string::npos);
    EXPECT_NE(picture.find("href=\"#failed\" x=\"136\""), string::npos);
    EXPECT_NE(picture.find("\nand more</title>"), string::npos);
    EXPECT_NE(picture.find("class=\"bad\""), string::npos);
}

TEST(Timeline, DrawsARunWithoutEvents)
{
    EXPECT_NE(Story().Picture().find("Nothing was recorded."), string::npos);
    EXPECT_NE(Story().Picture().find("end not recorded"), string::npos);
}

TEST(Axis, FoldsOnlyIfLittleHappens)
{
    const Span shown = {WallTime(0), WallTime(1000000)};
    const auto span = [](int begin, int end) { return Span{WallTime(begin), WallTime(end)}; };
    const TimeAxis folded(shown, {span(0, 1000), span(999000, 1000000)}, 0, 1000, true);
    ASSERT_EQ(folded.folds().size(), 1U);
    EXPECT_EQ(folded.folds()[0].span.begin, WallTime(1000));
    EXPECT_NEAR(folded.At(WallTime(500000)), 500, 1e-6);
    EXPECT_GT(folded.At(WallTime(1000)), 400);
    const TimeAxis scaled(shown, {span(0, 500000), span(100, 200)}, 0, 1000, true);
    EXPECT_TRUE(scaled.folds().empty());
    EXPECT_NEAR(scaled.At(WallTime(250000)), 250, 1e-6);
    EXPECT_EQ(scaled.Ticks(WallTime(0))[1].label, "0.1 s");
    const TimeAxis twice(shown, {span(0, 1000), span(300100, 301100), span(999000, 1000000)}, 0, 1000, true);
    ASSERT_EQ(twice.folds().size(), 2U);
    EXPECT_EQ(twice.folds()[0].span.end, WallTime(300100));
    for (const TimeAxis::Tick &tick : twice.Ticks(WallTime(0)))
        EXPECT_FALSE(tick.x > twice.folds()[0].left && tick.x < twice.folds()[0].right);
    EXPECT_EQ(TimeAxis(shown, {span(0, 1000)}, 0, 1000, true).folds().size(), 1U);
    const TimeAxis minutes({WallTime(0), WallTime(200000000)}, {}, 0, 1000, false);
    EXPECT_EQ(minutes.Ticks(WallTime(0))[3].label, "1:30 min");
}

} // namespace
