// Lines to real devices. A line of the bench stands for the adapter: its pseudo-terminal is the terminal, and a device
// in software is behind it. tests/socat has what needs two processes.
#include "bench/rig/realline.h"
#include "bench/devices/host.h"
#include "bench/rig/images.h"
#include "bench/standin/driver.h"

#include <fcntl.h>
#include <filesystem>
#include <future>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/ioctl.h>

namespace
{

using namespace bench;
using std::string;

TEST(Driver, RequestsBecomeSettings)
{
    constexpr tcflag_t kFormat = CSIZE | PARENB | PARODD | CSTOPB | CRTSCTS, kRefused = 1U << 31;
    const struct {
        DriverConfig config;
        tcflag_t format;
        speed_t speed;
    } cases[] = {
        {{3, 115200, 2, 1, 1, 0}, CS8 | PARENB, B115200}, // only speed and parity
        {{31, 9600, 1, 1, 1, 2}, CS7 | PARENB | PARODD | CSTOPB | CRTSCTS, B9600},
        {{30, 1, 0, 0, 0, 0}, CS5, B38400},
        {{1, 14400, 0, 0, 0, 0}, kRefused, 0},
        {{2, 0, 3, 0, 0, 0}, kRefused, 0},
        {{8, 0, 0, 0, 2, 0}, kRefused, 0},
    };
    for (const auto &[config, format, speed] : cases) {
        termios settings = {};
        settings.c_cflag = CS8;
        cfsetospeed(&settings, B38400);
        EXPECT_EQ(ApplyConfig(config, settings), format != kRefused);
        if (format != kRefused) {
            EXPECT_EQ(settings.c_cflag & kFormat, format);
            EXPECT_EQ(cfgetospeed(&settings), speed);
        }
    }
}

class RealLines : public testing::Test
{
protected:
    RealLines()
    {
        char path[] = "/tmp/reallineXXXXXX";
        options.directory = mkdtemp(path);
        options.executable = HALDENFLASH_BINARY;
        options.arguments = {"haldenflash", "micro"};
        options.preload = HALDENBENCH_PRELOAD;
        options.environment = {{"TALVORA_BOARDID", "KORA"}};
        options.waitDivisor = 100;
        WriteSamples(options.directory, {});
        adapter.emplace(micro);
        adapter->Start();
    }
    ~RealLines() override { std::filesystem::remove_all(options.directory); }

    Port &port() { return options.ports[kMicroPort]; }

    // Runs the update, and again if a busy machine makes the device late. The adapter has stopped then.
    RunResult RunToTheEnd(std::uint64_t (&tapped)[2])
    {
        for (int left = 3;; --left) {
            tapped[0] = tapped[1] = 0;
            RunResult result = bench::Run(options);
            adapter->Stop();
            if (micro.version() == 0x21 || left == 0)
                return result;
            adapter->Start();
        }
    }

    Micro micro{0x20};
    std::optional<Line> adapter;
    RunOptions options;
};

TEST_F(RealLines, FlashTheDeviceAndGiveTheTerminalBack)
{
    const Descriptor terminal(open(adapter->path().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    termios before = {}, during = {}, after = {};
    tcgetattr(terminal.get(), &before);
    {
        RealLine line(adapter->path(), port());
        std::uint64_t tapped[2] = {};
        port().line->tap = [&](LineFault::Way way, auto bytes, auto, auto) { tapped[way] += bytes.size(); };
        const RunResult result = RunToTheEnd(tapped);
        EXPECT_EQ(result.status, 0) << result.output;
        EXPECT_EQ(Judge(micro, options.directory).text,
                  "micro: version 21, 12 blocks, 6144 bytes, 0 findings: holds haldenmicro.bin");
        EXPECT_EQ(line.Complaint(), "");
        EXPECT_EQ(tapped[LineFault::kToDevice], adapter->carried(LineFault::kToDevice));
        EXPECT_EQ(tapped[LineFault::kToHost], adapter->carried(LineFault::kToHost));
        tcgetattr(terminal.get(), &during);
    }
    tcgetattr(terminal.get(), &after);
    EXPECT_EQ(cfgetospeed(&during), B115200);
    EXPECT_EQ(cfgetospeed(&after), cfgetospeed(&before));
    EXPECT_EQ(after.c_cflag, before.c_cflag);
}

TEST_F(RealLines, RefuseWhatADriverWouldRefuse)
{
    const string file = options.directory + "/" + kMicroImage;
    const auto complaint = [this](const string &path, int error) {
        options.ports.clear();
        const RealLine line(path, port());
        EXPECT_EQ(port().openError, error);
        EXPECT_EQ(bench::Run(options).status, 255);
        return line.Complaint();
    };
    EXPECT_EQ(complaint("nowhere", ENOENT), "nowhere: there is no such device");
    EXPECT_EQ(complaint(file, ENOTTY), file + ": this is not a terminal");
    {
        const Terminal other(adapter->path());
        EXPECT_EQ(complaint(adapter->path(), EBUSY), adapter->path() + ": another program uses it");
    }
    const Descriptor other(open(adapter->path().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    ASSERT_EQ(ioctl(other.get(), TIOCEXCL), 0);
    EXPECT_EQ(complaint(adapter->path(), EBUSY), adapter->path() + ": another program uses it");
    EXPECT_THROW(ServedLine(micro, "nowhere", 115200), TerminalError);
}

TEST_F(RealLines, RefuseASpeedAndKeepTheSettings)
{
    const Terminal terminal(adapter->path());
    EXPECT_EQ(ConfigureTerminal(terminal.fd(), {1, 57600, 0, 0, 0, 0}), 0);
    EXPECT_EQ(ConfigureTerminal(terminal.fd(), {3, 14400, 2, 0, 0, 0}), EINVAL);
    EXPECT_EQ(terminal.speed(), 57600U);
    EXPECT_EQ(SwitchReceiver(terminal.fd(), true), 0);
    adapter.reset();
    EXPECT_EQ(SwitchReceiver(terminal.fd(), false), EIO);
}

TEST_F(RealLines, TakeAsMuchAsTheTerminalCan)
{
    const Descriptor other(open(adapter->path().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    const Bytes request = FrameOf(0x44, {1});
    ASSERT_GT(write(other.get(), request.data(), request.size()), 0);
    pollfd answered = {other.get(), POLLIN, 0};
    ASSERT_EQ(poll(&answered, 1, 5000), 1);
    const Terminal terminal(adapter->path());
    TerminalPeer peer(terminal);
    EXPECT_EQ(peer.Fetch(), Bytes()) << "it came before";
    adapter->Stop();
    peer.Receive(Bytes(100000, 0x12));
    EXPECT_TRUE(peer.full());
    adapter->Start();
    for (int tries = 5000; tries > 0 && peer.full() && peer.Fetch(); --tries)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_FALSE(peer.full());
}

TEST_F(RealLines, AreServedWithEvenParityUntilASignal)
{
    const Descriptor other(open(adapter->path().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    std::signal(SIGINT, SIG_IGN);
    const EndSignals signals;
    ServedLines lines;
    lines.emplace_back(micro, adapter->path(), 57600);
    termios settings = {};
    tcgetattr(other.get(), &settings);
    EXPECT_EQ(settings.c_cflag & PARODD, 0U);
    raise(SIGHUP);
    signals.Await(lines);
    EXPECT_EQ(std::signal(SIGINT, SIG_IGN), SIG_IGN);
}

TEST_F(RealLines, ThatHangUpEndTheRunByTheProgramsOwnMeans)
{
    std::atomic<std::size_t> carried = 0;
    adapter->Stop();
    adapter->tap = [&](LineFault::Way, auto bytes, auto, auto) { carried += bytes.size(); };
    adapter->Start();
    const RealLine line(adapter->path(), port());
    std::future<RunResult> run = std::async(std::launch::async, bench::Run, options);
    while (carried < 3000 && run.wait_for(std::chrono::milliseconds(1)) != std::future_status::ready)
        ;
    const string path = adapter->path();
    const Descriptor program(open(port().line->path().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    adapter.reset();
    const RunResult result = run.get();
    EXPECT_EQ(line.Complaint(), path + " hung up");
    pollfd hung = {program.get(), 0, 0};
    EXPECT_EQ(poll(&hung, 1, 5000), 1) << "the program's end did not hang up";
    EXPECT_FALSE(result.killed);
    EXPECT_LT(result.seconds, 10);
    EXPECT_EQ(result.status, 255) << result.output;
}

} // namespace
