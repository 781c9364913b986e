#include "bench/capture/timeline.h"
#include "bench/capture/show.h"
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
        run.Answer(i == 2500 ? kRefused : kAcked);
    }
    const auto begin = std::chrono::steady_clock::now();
    const string picture = run.Picture();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(20)); // a slow board is given time
    EXPECT_LT(picture.size(), 2000000U);
    EXPECT_NE(picture.find("class=\"refused\"><title>"), string::npos);
}

TEST(Timeline, EscapesWhatXmlCannotHave)
{
    Story run;
    run.capture.info.command = "<a> & \"\xC3\xA4\xFF\x01\"";
    run.Note(kMicroPort, "! <b>");
    const string picture = run.Picture();
    EXPECT_NE(picture.find(">&lt;a&gt; &amp; &quot;\xC3\xA4??&quot;<"), string::npos);
    EXPECT_EQ(picture.find("<b>"), string::npos);
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
    const TimeAxis scaled(shown, {span(0, 500000)}, 0, 1000, true);
    EXPECT_TRUE(scaled.folds().empty());
    EXPECT_NEAR(scaled.At(WallTime(250000)), 250, 1e-6);
    EXPECT_EQ(scaled.Ticks(WallTime(0))[1].label, "0.1 s");
}

} // namespace
