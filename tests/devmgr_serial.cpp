// The serial drivers on pseudo-terminals and a make-believe FPGA driver.
#include "devlib/devmgr_serial.h"

#include "Common/OS/linux/oslinux.h"
#include "bench/standin/ptyboard.h"
#include "tests/tasks.h"

#include <fcntl.h>
#include <map>
#include <unistd.h>
#include <utility>

namespace
{

constexpr UInt32 kFpga = 1, kCpu = 5; // instances

// An open port.
struct Port {
    UInt32 devid = 0;
    DevMgrSerial_CB_t *record = nullptr;

    explicit Port(UInt32 instance)
    {
        if (CBList == nullptr)
            SetSystemHardwareType(kKora), DevMgrSerial_Init();
        EXPECT_EQ(0u, dev_open("Ser", instance, &devid));
        record = low_pointer<DevMgrSerial_CB_t>(devid);
    }
    template <class Record> UInt32 Control(UInt32 ctlCode, Record value) const
    {
        IORB iorb{};
        iorb.pBuffer = reinterpret_cast<char *>(&value);
        dev_ioctl(devid, &iorb, ctlCode);
        return iorb.err;
    }
    UInt32 Configure(UInt32 ctrlBitMask, UInt32 baudRate) const
    {
        return Control(kSerialConfigure, DevmgrSerial_Config_t{ctrlBitMask, baudRate});
    }
    void Enable(UInt32 status) const { EXPECT_EQ(0u, Control(kSerialEnable, status)); }
    void SetCallbacks(DevmgrSerial_CBInfo_t *pCBInfo) const { EXPECT_EQ(0u, Control(kSerialSetCallbacks, pCBInfo)); }
    // The text, or the error's number.
    std::string Read(UInt32 reqLen, UInt32 timeout) const
    {
        char buffer[16];
        IORB iorb{};
        iorb_init(&iorb, buffer, nullptr, reqLen, nullptr, timeout);
        dev_read(devid, &iorb);
        return iorb.err == 0 ? std::string(buffer, iorb.actLen) : std::to_string(iorb.err);
    }
    UInt32 Write(UInt32 timeout, const std::string &text) const
    {
        IORB iorb{};
        std::string data = text;
        iorb_init(&iorb, data.data(), nullptr, static_cast<UInt32>(data.size()), nullptr, timeout);
        dev_write(devid, &iorb);
        EXPECT_EQ(iorb.err == 0 ? text.size() : 0, iorb.actLen);
        return iorb.err;
    }
};

bool HasTask()
{
    UInt32 tid = 0;
    return t_ident("seri", 0, &tid) == 0;
}

// What callbacks saw.
struct Seen {
    std::atomic<UInt32> bytes{0}, writes{0};
    char text[64] = {};
    UInt32 writesThen = 0;        // at the end of the last receive callback
    std::function<void()> action; // of the next one
    DevmgrSerial_CBInfo_t callbacks = {nullptr, Receive, this};

    static void Receive(void *context, void *data)
    {
        auto *seen = static_cast<Seen *>(context);
        const auto *received = static_cast<DevmgrSerial_CBdata_t *>(data);
        std::memcpy(seen->text + seen->bytes, received->buff, received->NumBytes);
        if (const auto action = std::exchange(seen->action, nullptr))
            action();
        seen->writesThen = seen->writes;
        seen->bytes += received->NumBytes;
    }
    static void Transmit(void *context) { static_cast<Seen *>(context)->writes++; }
};

// How a callback stops its own port.
struct StopRow {
    const char *name;
    std::function<void()> action;
    bool hasTask; // afterwards
};

TEST(SerialInit, RegistersEightPortsOnce)
{
    SetSystemHardwareType(kKora);
    for (int i = 0; i < 2; i++)
        EXPECT_EQ("DevMgrSerial_Init\n", Printed([] { EXPECT_EQ(0u, DevMgrSerial_Init()); }));
    for (UInt32 port = 0; port < kNumSerialPorts; port++) {
        EXPECT_EQ(&CBList[port], Port(port + 1).record);
        EXPECT_EQ(port, CBList[port].portnum);
        EXPECT_EQ(port == 4 || port > 5, CBList[port].devCB.write == DevMgrCPUSerial_Write) << port;
    }
    EXPECT_EQ((std::vector<std::string>{"/dev/fpgaserial0", "/dev/fpgaserial1", "/dev/fpgaserial4", "/dev/fpgaserial5",
                                        "/dev/ttyS1", "/dev/fpgaserial6", "/dev/ttyUSB0", "/dev/ttyUSB1"}),
              fake.opened);
    UInt32 devid = 0;
    EXPECT_EQ(kDevNotFound, dev_open("Ser", 9, &devid));
}

class BothFamilies : public testing::TestWithParam<UInt32>
{
protected:
    const bool isFpga = GetParam() == kFpga;
    Port port{GetParam()};
};
INSTANTIATE_TEST_SUITE_P(Serial, BothFamilies, testing::Values(kFpga, kCpu),
                         [](const auto &row) { return row.param == kCpu ? "Cpu" : "Fpga"; });

TEST_P(BothFamilies, TimedReadReturnsWhatArrived)
{
    UInt32 start = RealTimeMilliSeconds();
    EXPECT_EQ("", port.Read(4, 100000));
    EXPECT_GE(RealTimeMilliSeconds() - start, 99u);
    fake.Send("abc");
    EXPECT_EQ("abc", port.Read(4, 300000));
    fake.Send("ab");
    StartTask("send", [] { tm_wkafter(5), fake.Send("cde"); });
    start = RealTimeMilliSeconds();
    EXPECT_EQ("abcd", port.Read(4, 4000000));
    EXPECT_LT(RealTimeMilliSeconds() - start, 3900u);
    EXPECT_EQ("e", port.Read(4, 0));
    EXPECT_TRUE(Eventually([] { return NumTasks() == 0; }));
    close(fake.master);
    const std::string output =
        Printed([this] { EXPECT_EQ("3", port.Read(4, 0)) << "SERIAL_READ_ERROR: nobody there"; });
    EXPECT_EQ(isFpga ? 0 : std::string::npos, output.find("DevMgrFPGASerial_Read(): Err: ")) << output;
    EXPECT_EQ(isFpga, output.ends_with(" ReqLen: 4\n")) << output;
    EXPECT_EQ("", port.Read(4, 1000));
    port.record->devCB.fd = FD_SETSIZE; // no wait can take it
    EXPECT_EQ("", port.Read(4, 4000000));
    Seen seen;
    port.Enable(PORT_TX_ENABLE | PORT_RX_ENABLE), port.SetCallbacks(&seen.callbacks);
    EXPECT_EQ(SERIAL_WRITE_ERROR, port.Write(1000, "x"));
    EXPECT_TRUE(Eventually([] { return NumTasks() == 0; })); // its task as well
    port.record->devCB.fd = -1;
    EXPECT_EQ(SERIAL_INVALID_PARAM, dev_close(port.devid));
}

TEST_P(BothFamilies, RefuseWhatIsNotThere)
{
    const DEVCB &dev = port.record->devCB;
    const auto err = [](auto call, DEVCB *pDev) {
        IORB iorb{};
        return call(pDev, &iorb), iorb.err;
    };
    fake.failures["open"] = 1;
    EXPECT_EQ(SERIAL_ERROR_UNKNOWN, dev.open(&port.record->devCB));
    EXPECT_EQ(SERIAL_INVALID_PARAM, dev.open(nullptr));
    EXPECT_EQ(SERIAL_INVALID_PARAM, dev.close(nullptr));
    for (DEVCB *pDev : {static_cast<DEVCB *>(nullptr), &port.record->devCB}) // a port without a buffer, too
        for (auto *call : {dev.read, dev.write, dev.ioctl})
            EXPECT_EQ(SERIAL_INVALID_PARAM, err(call, pDev));
    fake.failures["tcsetattr"] = fake.failures["ioctl"] = 1;
    EXPECT_EQ(SERIAL_ERROR_UNKNOWN, port.Control(kSerialEnable, UInt32{PORT_RX_ENABLE}));
    EXPECT_FALSE(HasTask());
}

TEST_P(BothFamilies, WriteNeedsAnEnabledTransmitterAndRoom)
{
    EXPECT_EQ(SERIAL_TX_DISABLED, port.Write(0, "x"));
    port.Enable(PORT_TX_ENABLE);
    EXPECT_EQ(0u, port.Write(0, "abc"));
    EXPECT_EQ(0u, port.Write(1000, "d"));
    EXPECT_EQ("abcd", fake.Receive(4, fake.master));
    UInt32 err = 0;
    for (int i = 0; i < 1000000 && err == 0; i++)
        err = port.Write(1000, "x");
    EXPECT_EQ(SERIAL_TIMEOUT, err);
    port.Enable(PORT_TX_DISABLE);
    EXPECT_EQ(SERIAL_TX_DISABLED, port.Write(1000, "x"));
    EXPECT_EQ(SERIAL_UNKNOWN_IOCTL, port.Control(4, 0));
}

TEST_P(BothFamilies, OnlyAnFpgaPortKeepsItsEnablesAndContext)
{
    Seen seen;
    port.SetCallbacks(&seen.callbacks), port.Enable(PORT_TX_ENABLE | PORT_RX_ENABLE);
    EXPECT_TRUE(HasTask());
    close(fake.master), tm_wkafter(2);    // the task goes on, though there is nothing to read any more
    EXPECT_EQ(0u, dev_close(port.devid)); // with its task running
    EXPECT_FALSE(HasTask());
    EXPECT_EQ(0u, port.record->asyncThread_running);
    EXPECT_EQ(0u, port.record->threadID);
    Port again(GetParam());
    EXPECT_EQ(isFpga ? SERIAL_NOERROR : SERIAL_TX_DISABLED, again.Write(0, "x"));
    EXPECT_EQ(isFpga ? 1 : 0, again.record->rx_enabled);
    EXPECT_EQ(isFpga ? &seen : nullptr, again.record->cbInfo.Context_Data);
    EXPECT_EQ(nullptr, again.record->cbInfo.rxCBFunc);
}

TEST_P(BothFamilies, CallbacksRunInTheTaskUntilBothDirectionsAreOff)
{
    Seen first, second;
    port.Enable(PORT_RX_ENABLE);
    EXPECT_EQ(!isFpga, HasTask()); // a CPU port's task runs without callbacks as well
    port.SetCallbacks(&first.callbacks), port.Enable(PORT_TX_DISABLE); // reception still needs the task
    fake.Send("hello");
    EXPECT_TRUE(Eventually([&] { return first.bytes >= 5; }));
    EXPECT_STREQ("hello", first.text);
    second.callbacks.txCBFunc = Seen::Transmit;
    port.SetCallbacks(&second.callbacks); // while the task runs
    fake.Send("you");
    EXPECT_TRUE(Eventually([&] { return second.bytes >= 3; }));
    EXPECT_EQ(0u, second.writes);
    port.Enable(PORT_TX_ENABLE | PORT_RX_DISABLE);
    EXPECT_TRUE(Eventually([&] { return second.writes >= 2; }));
    port.Enable(PORT_TX_DISABLE);
    EXPECT_FALSE(HasTask());
    port.Enable(PORT_RX_ENABLE);
    EXPECT_TRUE(HasTask());
    port.SetCallbacks(nullptr);
    EXPECT_FALSE(HasTask());
}

TEST_P(BothFamilies, ForgetATaskWhoseWaitFailed)
{
    const int fd = std::exchange(port.record->devCB.fd, FD_SETSIZE);
    Seen seen;
    port.SetCallbacks(&seen.callbacks), port.Enable(PORT_RX_ENABLE);
    EXPECT_TRUE(Eventually([] { return NumTasks() == 0; }));
    EXPECT_EQ(1u, port.record->asyncThread_running);
    EXPECT_EQ(0u, port.record->threadID);
    std::atomic<bool> over{false};
    StartTask("othr", [&] {
        while (!over)
            tm_wkafter(1);
    });
    port.record->devCB.fd = fd;
    EXPECT_EQ(0u, dev_close(port.devid));
    EXPECT_EQ(0u, port.record->asyncThread_running);
    EXPECT_EQ(1, NumTasks()); // it lives
    over = true;
    EXPECT_TRUE(Eventually([] { return NumTasks() == 0; }));
}

TEST_P(BothFamilies, LetACallbackStopItsOwnPort)
{
    int ends[2];
    ASSERT_EQ(0, pipe2(ends, O_NONBLOCK));
    ASSERT_EQ(1, write(ends[1], "x", 1));
    const auto disable = [this] { port.Enable(PORT_TX_DISABLE | PORT_RX_DISABLE); };
    const auto restart = [&] {
        disable(), port.Enable(PORT_RX_ENABLE);
        EXPECT_EQ(1, NumTasks()); // it goes on in the same task
    };
    const StopRow rows[] = {
        {"both directions", disable, false},
        {"and on again", restart, true},
        {"only the task", [this] { DevMgrSerial_Stop_AsyncThread(port.record); }, false},
        {"no callbacks", [this] { port.SetCallbacks(nullptr); }, false},
        {"close", [&] { dev_close(port.devid), dup2(ends[0], port.record->devCB.fd); }, false},
    };
    for (const StopRow &row : rows) {
        SCOPED_TRACE(row.name);
        Seen seen;
        seen.action = row.action;
        seen.callbacks.txCBFunc = Seen::Transmit;
        port.SetCallbacks(&seen.callbacks), port.Enable(PORT_RX_ENABLE | PORT_TX_ENABLE);
        fake.Send("a");
        EXPECT_TRUE(Eventually([&] { return seen.bytes == 1 && HasTask() == row.hasTask; }));
        EXPECT_EQ(seen.writesThen, seen.writes); // none of them leaves the transmitter on
        const Port open(GetParam());
        port.SetCallbacks(&seen.callbacks), port.Enable(PORT_RX_ENABLE);
        fake.Send("b");
        EXPECT_TRUE(Eventually([&] { return seen.bytes == 2; }));
        disable();
        EXPECT_FALSE(HasTask());
    }
    EXPECT_EQ("x", fake.Receive(1, ends[0])); // nobody read from the closed port's descriptor
}

TEST_P(BothFamilies, WaitForACallbackThatStoppedItsOwnPort)
{
    std::atomic<bool> stopped{false}, go{false};
    const auto stopAndStay = [&] {
        const CancelOffHold computing;
        port.Enable(PORT_TX_DISABLE | PORT_RX_DISABLE);
        stopped = true;
        while (!go)
            tm_wkafter(1);
    };
    Seen first, second;
    first.action = second.action = stopAndStay;
    port.SetCallbacks(&first.callbacks), port.Enable(PORT_RX_ENABLE);
    fake.Send("a");
    EXPECT_TRUE(Eventually([&] { return stopped.load(); }));
    port.Enable(PORT_RX_ENABLE); // a second task
    fake.Send("b");
    tm_wkafter(5);
    EXPECT_EQ(0u, first.bytes); // which waits
    go = true;
    EXPECT_TRUE(Eventually([&] { return first.bytes == 2; }));
    stopped = go = false;
    port.SetCallbacks(&second.callbacks);
    fake.Send("c");
    EXPECT_TRUE(Eventually([&] { return stopped.load(); }));
    StartTask("wait", [&] { tm_wkafter(5), go = true; });
    EXPECT_EQ(0u, dev_close(port.devid));
    EXPECT_EQ(1u, second.bytes); // the callback has returned
    EXPECT_FALSE(HasTask());
}

TEST(SerialAssertion, StopsTheProgram)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    Port port(kCpu);
    UInt32 err = 0;
    EXPECT_DEATH(DevMgrCPUSerial_Read(&port.record->devCB, nullptr), "failed: pIORB,");
    EXPECT_DEATH(DevMgrFPGASerial_Write(nullptr, nullptr), "failed: pIORB,");
    EXPECT_DEATH(DevMgrCPUSerial_Ioctl(nullptr, nullptr), "failed: pIORB,");
    EXPECT_DEATH(DevMgrFPGASerial_Ioctl(nullptr, nullptr), "failed: pIORB,");
    EXPECT_DEATH(DevMgrSerial_Start_AsyncThread(nullptr, &err), "failed: pPort,");
    EXPECT_DEATH(DevMgrSerial_Start_AsyncThread(port.record, nullptr), "failed: pErr,");
    EXPECT_DEATH(DevMgrSerial_Stop_AsyncThread(nullptr), "failed: pPort,");
    EXPECT_DEATH(DevMgrSerial_asyncDataSendRecv(0, 0, 0, 0), "failed: pPort,");
}

TEST(FpgaConfigure, SendsWhatTheInstanceTakes)
{
    constexpr UInt32 kMask = kSerialDataBits6 | kSerialParityOdd | kSerialTwoStopBits | kSerialRtsCts;
    const Port fixed(2), full(3); // instances
    EXPECT_EQ(0u, fixed.Configure(kMask, 9600));
    EXPECT_EQ(0u, full.Configure(kMask, 115200));
    for (const UInt32 rate : {1200u, 9599u, 115201u})
        EXPECT_EQ(SERIAL_INVALID_PARAM, full.Configure(kMask, rate));
    ASSERT_EQ(2u, fake.config.size());
    const UInt32 words[2][6] = {{3, 9600, 1, 0, 0, 0}, {31, 115200, 1, 1, 0, 1}};
    EXPECT_EQ(0, std::memcmp(words, fake.config.data(), sizeof words));
    fake.failures["ioctl"] = 1;
    EXPECT_EQ("DevMgrFPGASerial_Ioctl(): ^^^^^^^^^^^Setting Configuration in FPGA Serial Driver failed, err: -1...\n",
              Printed([&] { EXPECT_EQ(SERIAL_ERROR_UNKNOWN, full.Configure(0, 9600)); }));
}

} // namespace
