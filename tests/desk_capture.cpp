// Captures and the programs that come with Wireshark.
#include "bench/capture/capturefile.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <unistd.h>

namespace
{

using namespace bench;
using std::string;

constexpr WallTime kStart(1700000000000000);
const std::vector<Event> kEvents = {
    {.begin = kStart, .end = kStart, .port = kCameraPort, .note = "open refused EBUSY"},
    {kStart + WallTime(2), kStart + WallTime(250), kCameraPort, Way::kToDevice, {0x82, 0x06, 0x77}},
    {kStart + WallTime(251), kStart + WallTime(251), kCameraPort, Way::kToHost, {0x31}},
    {.begin = kStart + WallTime(300), .end = kStart + WallTime(300), .note = "exit 0"},
};
const RunInfo kRun = {"haldenflash camera", "haldenflash, 9 bytes", {"farsight.bin missing"}, "test 1"};

// A folder with the capture a.pcapng.
class Desk : public testing::Test
{
protected:
    Desk()
    {
        std::filesystem::create_directory(folder_);
        std::ofstream file(folder_ / "a.pcapng", std::ios::binary);
        CaptureWriter writer(file, kRun);
        for (const Event &event : kEvents)
            writer.Write(event);
        writer.Finish();
    }
    ~Desk() override { std::filesystem::remove_all(folder_); }

    int Call(const string &command) const
    {
        return std::system(("cd " + folder_.string() + " && " + command + " 2>errors").c_str());
    }
    Capture Read(const char *name) const { return ReadCapture(folder_ / name); }

    const std::filesystem::path folder_ =
        std::filesystem::temp_directory_path() / ("desk_capture." + std::to_string(getpid()));
};

struct ToolCase {
    const char *name, *command;
};
constexpr ToolCase kTools[] = {
    {"Editcap", "editcap -F pcapng a.pcapng b.pcapng"},
    {"EditcapWithComments", "editcap -a 1:hello -a 2:'ends of the world' --capture-comment remark a.pcapng b.pcapng"},
    {"Mergecap",
     "editcap a.pcapng 1.pcapng 1 2 && editcap a.pcapng 2.pcapng 3 4 && mergecap -w b.pcapng 1.pcapng 2.pcapng"},
    {"MergecapWithInterfacesApart", "editcap a.pcapng 1.pcapng 1 2 && editcap a.pcapng 2.pcapng 3 4 && "
                                    "mergecap -I none -w b.pcapng 1.pcapng 2.pcapng"},
    {"DumpcapFromAPipe", "cat a.pcapng | dumpcap -q -i - -w b.pcapng"},
    {"Tshark", "tshark -r a.pcapng -w b.pcapng"},
    {"Sections", "editcap a.pcapng 1.pcapng 1 2 && editcap a.pcapng 2.pcapng 3 4 && cat 1.pcapng 2.pcapng >b.pcapng"},
};

void PrintTo(const ToolCase &test, std::ostream *stream)
{
    *stream << test.name;
}

class DeskTool : public Desk, public testing::WithParamInterface<ToolCase>
{
};
INSTANTIATE_TEST_SUITE_P(Capture, DeskTool, testing::ValuesIn(kTools), [](auto &i) { return i.param.name; });

TEST_P(DeskTool, KeepsTheEvents)
{
    ASSERT_EQ(Call(GetParam().command), 0);
    EXPECT_EQ(Read("b.pcapng").events, kEvents);
}

TEST_F(Desk, CapinfosReadsACapture)
{
    EXPECT_EQ(Call("capinfos -c -E -l a.pcapng >lines && grep -q 'packets: *4$' lines && grep -q 'USER 0' lines"), 0);
}

TEST_F(Desk, TsharkShowsACapture)
{
    EXPECT_EQ(
        Call("tshark -r a.pcapng -T fields -e frame.interface_name -e frame.packet_flags_direction -e frame.len "
             "-e frame.comment -Y 'frame.interface_name == \"camera\"' >lines && "
             "printf 'camera\\t0x00000002\\t3\\tends 248 us later\\ncamera\\t0x00000001\\t1\\t\\n' | cmp - lines"),
        0);
}

} // namespace
