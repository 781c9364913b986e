// The Serial API over the real drivers on make-believe ports.
#include "devlib/serialapi.h"

#include "Common/OS/linux/oslinux.h"
#include "Common/OS/linux/psosapi/semaphore.h"
#include "bench/standin/ptyboard.h"
#include "devlib/haldenflash/updateport.h"
#include "tests/tasks.h"

#include <fcntl.h>
#include <unistd.h>

namespace
{

constexpr int kPort = 1, kCpuPort = 4;

// The seven fields in their order: rate, data bits, parity, stop bits, DTR/DSR, RTS/CTS, XON/XOFF.
RS232Cfg Settings(const std::array<UInt32, 7> &fields)
{
    return std::bit_cast<RS232Cfg>(fields);
}
const struct rs232_cfg_t kSettings = Settings({0, 3, 0, 0});

eErrorT Open(int port, const RS232Cfg &cfg = kSettings)
{
    return Serial_Open(
        port, nullptr, [](void *, void *) {}, nullptr, &cfg);
}

struct RefusalRow {
    RS232Cfg cfg;
    const char *failing;
    int failures;
    std::string trace;
};
struct SettingsRow {
    RS232Cfg cfg;
    tcflag_t format, inputFlags;
    speed_t speed;
};

// What a call prints and its result.
template <class Call> std::string Trace(Call call)
{
    int result = 0;
    const std::string text = Printed([&] { result = call(); });
    return text + std::to_string(result);
}

std::vector<int> EveryCall(int port)
{
    char buffer[2];
    return {Serial_Close(port),
            Serial_Enable(port, SERIAL_DIRECTION_BOTH),
            Serial_Disable(port, SERIAL_DIRECTION_RX),
            Serial_Read(port, buffer, 1, 1),
            Serial_Write(port, buffer, 1, 1),
            Serial_GetCfg(port, &kSettings)};
}

class SerialApi : public testing::Test
{
protected:
    SerialApi()
    {
        const std::string end = " Mutex lock failed, err: 9\n-23";
        EXPECT_EQ("SERIALAPI: In Open, Port: 1 Mutex Lock failed...., err: 9\n-23", Trace([] { return Open(kPort); }));
        EXPECT_EQ("SERIALAPI: In CLOSE, Port: 1" + end, Trace([] { return Serial_Close(kPort); }));
        EXPECT_EQ("SERIALAPI: In PSH OPEN, Port: 7" + end, Trace([] { return Serial_Open_PSH(7, &kSettings); }));
        EXPECT_EQ("SERIALAPI: In PSH CLOSE, Port: 7" + end, Trace([] { return Serial_Close_PSH(7); }));
        EXPECT_EQ(0, pipe2(fake.commands, O_NONBLOCK));
        SetSystemHardwareType(kKora);
        DevMgrSerial_Init();
    }
};

TEST_F(SerialApi, RefusesPortsOutOfRangeOrClosed)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EQ(std::vector<int>(6, kBadParameter), EveryCall(8));
    for (const int result : {+Open(8), +Serial_Open_PSH(8, &kSettings), +Serial_Close_PSH(8)})
        EXPECT_EQ(kBadParameter, result);
    EXPECT_EQ(kBadParameter, Serial_Open(kPort, nullptr, nullptr, nullptr, nullptr));
    EXPECT_EQ(kBadParameter, Serial_Open_PSH(kPort, nullptr));
    EXPECT_EQ(kBadParameter, Serial_Read(kPort, nullptr, 1, 1));
    EXPECT_EQ(kBadParameter, Serial_GetCfg(kPort, nullptr));
    EXPECT_EQ(std::vector<int>(6, kItemNotFound), EveryCall(7));
    EXPECT_DEATH(Serial_Close(-1), "failed: port >= 0,");
}

TEST_F(SerialApi, CarriesBytesOnceOpenAndEnabled)
{
    char buffer[4] = {};
    EXPECT_EQ("DevMgrFPGASerial_Open() ...\nSERIALAPI: Serial_Open() is SUCCESSFUL at Iteration:1 ...\n0",
              Trace([] { return Open(kPort); }));
    EXPECT_EQ(kAlreadyInUse, Open(kPort));
    EXPECT_EQ(std::vector<std::string>{"/dev/fpgaserial1"}, fake.opened);
    EXPECT_EQ("SERIALAPI: In WRITE, Port: 1 Device Manager write failed, err: 6\n0",
              Trace([] { return Serial_Write(kPort, "x", 1, 0); }));
    EXPECT_EQ(kNoError, Serial_Enable(kPort, SERIAL_DIRECTION_TX));
    EXPECT_EQ(3, Serial_Write(kPort, "out", 3, 1000));
    EXPECT_EQ("out", fake.Receive(3, fake.master));
    fake.Send("in");
    EXPECT_EQ(2, Serial_Read(kPort, buffer, 2, 1000000));
    EXPECT_STREQ("in", buffer);
    EXPECT_EQ("0", Trace([&] { return Serial_Read(kPort, buffer, 2, 1000); }));
    std::size_t written = 0;
    while (Serial_Write(kPort, "x", 1, 1000) != 0) // as long as there is room
        written++;
    StartTask("read", [written] { tm_wkafter(5), fake.Receive(written + 2, fake.master); });
    EXPECT_EQ(2, genericWriteRs232Port(kPort, reinterpret_cast<const UInt8 *>("ok"), 2)); // however long it takes
    UInt32 tid = 0;
    EXPECT_TRUE(Eventually([&] { return t_ident("read", 0, &tid) != 0; })); // closing does not end its read
    close(fake.master);
    const std::string trace = Trace([&] { return Serial_Read(kPort, buffer, 2, 0); });
    EXPECT_LT(trace.find("SERIALAPI: In READ, Port: 1 Device Manager read failed, err: 3\n0"), trace.size());
    EXPECT_EQ(kNoError, Serial_Close(kPort));
    EXPECT_EQ(kItemNotFound, Serial_Close(kPort));
}

TEST_F(SerialApi, TriesToOpenTenTimesTwoTicksApart)
{
    fake.failures["open"] = 19;
    const UInt32 start = RealTimeMilliSeconds();
    const std::string trace = Trace([] { return Open(kPort); });
    EXPECT_GE(RealTimeMilliSeconds() - start, 179u);
    EXPECT_EQ(10u, fake.opened.size());
    const std::string end = "DevMgrFPGASerial_Open() ...\n########## FAILED to open serial port ... "
                            "serialCB->devCB.fd[d-1 -- 0xffffffff] ...\n"
                            "SERIALAPI: In OPEN, Port: 1 Device Manager open returned err: 9\n"
                            "SERIALAPI: GIVE UP in Serial_Open() ... at Iteration:10 ...\n-25";
    EXPECT_EQ(end, trace.substr(trace.size() - end.size()));
    EXPECT_EQ(kItemNotFound, Serial_Close(kPort));
    EXPECT_NE(std::string::npos, Trace([] { return Open(kPort); }).find("SUCCESSFUL at Iteration:10 ...\n0"));
}

TEST_F(SerialApi, KeepsAPortReservedWhileItIsBeingOpened)
{
    fake.hold = true;
    fake.failures["open"] = 10;
    [[maybe_unused]] const UInt32 tid = StartTask("open", [] { Open(kPort); });
    ASSERT_TRUE(Eventually([] { return Serial_GetCfg(kPort, &kSettings) == kNoError; }));
    EXPECT_EQ(kAlreadyInUse, Open(kPort));
    EXPECT_EQ((std::vector<int>{-25, -25, -25, -25, -25, 0}), EveryCall(kPort));
#ifndef __SANITIZE_ADDRESS__ // which mistakes the unwound frames of a cancelled task for live ones
    t_delete(tid);
#endif
    fake.hold = false;
    EXPECT_TRUE(Eventually([] { return NumTasks() == 0; }));
    EXPECT_EQ(std::vector<int>(6, kItemNotFound), EveryCall(kPort));
}

TEST_F(SerialApi, LeavesThePortClosedWhenItCannotBeSetUp)
{
    const std::string mapped = "Serial API Error - Unknown Error\n-34";
    const std::string config = "SERIALAPI: In OPEN, Port: 4 Device Manager config failed, err: 9\n" + mapped;
    const std::string callbacks = "SERIALAPI: In OPEN, Port: 4 Device Manager set callback failed, err: 9\n" + mapped;
    std::string tries;
    for (const char digit : {'0', '1', '2', '3', '4'})
        tries += std::string("DevMgrCPUSerial_Ioctl(): Setting IN Baudrate failed...Try: ") + digit + "\n";
    const RefusalRow rows[] = {
        {Settings({9, 3, 0, 0}), "", 0, "-3"},
        {Settings({0, 4, 0, 0}), "", 0, "-3"},
        {Settings({0, 3, 3, 0}), "", 0, "-3"},
        {Settings({0, 3, 0, 3}), "", 0, "-3"},
        {kSettings, "cfsetispeed", 5, tries + config},
        {kSettings, "tcsetattr", 1, "DevMgrCPUSerial_Ioctl(): Setting terminal options failed...\n" + config},
        {kSettings, "tcgetattr", -2, callbacks},
    };
    for (const RefusalRow &row : rows) {
        fake.failures[row.failing] = row.failures;
        EXPECT_EQ("SERIALAPI: Serial_Open() is SUCCESSFUL at Iteration:1 ...\n" + row.trace,
                  Trace([&] { return Open(kCpuPort, row.cfg); }));
        EXPECT_EQ(kItemNotFound, Serial_Close(kCpuPort));
        EXPECT_TRUE(fake.line.c_ispeed == 0 || row.failures < 0); // nothing applied, unless it got that far
    }
    EXPECT_EQ(std::size(rows), CBList[kCpuPort].devCB.numCloses);
    EXPECT_EQ(kNoError, Open(kCpuPort));
}

TEST_F(SerialApi, ConfiguresATerminalLine)
{
    const SettingsRow rows[] = {
        {Settings({0, 0, 2, 0, 1, 1, 1}), CS5 | CRTSCTS, 0, B115200},
        {Settings({1, 1, 1, 1, 1, 0, 1}), CS6 | PARENB | PARODD | CSTOPB, IXON | IXOFF, B57600},
        {Settings({4, 2, 0, 2, 1, 0, 0}), CS7 | PARENB | CSTOPB | CRTSCTS, 0, B19200}, // 14400
        {Settings({8, 3, 2, 0, 0, 0, 0}), CS8, 0, B1200},
    };
    const termios &line = fake.line;
    const auto format = [&] { return line.c_cflag & (CSIZE | PARENB | PARODD | CSTOPB | CRTSCTS | CREAD); };
    for (const SettingsRow &row : rows) {
        std::memset(&fake.line, 0xFF, sizeof fake.line);
        EXPECT_EQ(kNoError, Open(kCpuPort, row.cfg));
        EXPECT_EQ(row.format, format());
        EXPECT_EQ(row.inputFlags, line.c_iflag);
        EXPECT_EQ(row.speed, line.c_ispeed);
        EXPECT_EQ(row.speed, cfgetospeed(&line));
        EXPECT_EQ(0u, line.c_oflag & OPOST);
        EXPECT_EQ(0u, line.c_lflag & (ICANON | ISIG | ECHO | ECHOE | ECHOK | ECHONL));
        EXPECT_NE(0u, line.c_lflag & IEXTEN) << "left alone";
        EXPECT_EQ(0xFF, line.c_cc[VMIN]) << "left alone";
        EXPECT_EQ(kNoError, Serial_Enable(kCpuPort, SERIAL_DIRECTION_RX));
        EXPECT_EQ(row.format | CREAD, format());
        EXPECT_EQ(kNoError, Serial_Disable(kCpuPort, SERIAL_DIRECTION_TX));
        EXPECT_EQ(row.format, format());
        EXPECT_EQ(kNoError, Serial_Close(kCpuPort));
    }
}

TEST_F(SerialApi, RefusesACallbackWhatWouldWaitForItself)
{
    static std::vector<int> results;
    static std::atomic<int> calls;
    const auto callback = [](void *, void *) {
        if (calls == 0)
            results = {Serial_Close(kPort),
                       Open(kCpuPort),
                       Serial_Close_PSH(7),
                       Serial_Open_PSH(7, &kSettings),
                       Serial_Stop_PSHSession(7, 1),
                       static_cast<int>(Serial_Lock_PortDevids()),
                       Serial_Write(kPort, "x", 1, 1000)};
        calls++;
    };
    EXPECT_EQ(kNoError, Serial_Open(kPort, nullptr, callback, nullptr, &kSettings));
    EXPECT_EQ(kNoError, Serial_Enable(kPort, SERIAL_DIRECTION_BOTH));
    for (const int call : {1, 2}) { // it still delivers
        fake.Send("a");
        ASSERT_TRUE(Eventually([call] { return calls == call; }));
    }
    EXPECT_EQ((std::vector<int>{-4, -4, -4, -4, -4, kSmNotAvailable, 1}), results);
    EXPECT_EQ("", fake.Receive(99, fake.commands[0])); // the script was not asked
    EXPECT_EQ(kNoError, Serial_Close(kPort));
}

#ifndef __SANITIZE_ADDRESS__ // which mistakes the unwound frames of a cancelled task for live ones
TEST_F(SerialApi, ClosesTheDeviceOfATaskThatIsDeletedWhileItOpens)
{
    std::setvbuf(stdout, nullptr, _IONBF, 0); // its line ends the task
    fake.cancel = true;
    const UInt32 tid = StartTask("open", [] { Open(kCpuPort); });
    EXPECT_TRUE(Eventually([] { return !fake.cancel; }));
    t_delete(tid);
    EXPECT_EQ(1u, CBList[kCpuPort].devCB.numCloses);
    EXPECT_EQ(0u, CBList[kCpuPort].devCB.state);
    EXPECT_EQ(kNoError, Open(kCpuPort));
}
#endif

TEST_F(SerialApi, CrossesTheSingleDirectionsOfDisable)
{
    using EnablesT = std::pair<int, int>; // of the transmitter and of the receiver
    const auto after = [](eErrorT result, eErrorT expected = kNoError) {
        EXPECT_EQ(expected, result);
        return EnablesT(CBList[kPort].tx_enabled, CBList[kPort].rx_enabled);
    };
    ASSERT_EQ(kNoError, Open(kPort));
    EXPECT_EQ(EnablesT(0, 1), after(Serial_Enable(kPort, SERIAL_DIRECTION_RX)));
    EXPECT_EQ(EnablesT(1, 1), after(Serial_Enable(kPort, SERIAL_DIRECTION_TX)));
    EXPECT_EQ(EnablesT(0, 1), after(Serial_Disable(kPort, SERIAL_DIRECTION_RX)));
    EXPECT_EQ(EnablesT(1, 1), after(Serial_Enable(kPort, SERIAL_DIRECTION_BOTH)));
    EXPECT_EQ(EnablesT(1, 0), after(Serial_Disable(kPort, SERIAL_DIRECTION_TX)));
    EXPECT_EQ(EnablesT(0, 0), after(Serial_Disable(kPort, SERIAL_DIRECTION_BOTH)));
    EXPECT_EQ(EnablesT(0, 0), after(Serial_Enable(kPort, SERIAL_DIRECTION_NONE), kBadParameter));
    fake.failures["ioctl"] = 2;
    const std::string end = ", Port: 1 Device Manager ioctl failed, err: 9\nSerial API Error - Unknown Error\n-34";
    EXPECT_EQ("SERIALAPI: In DISABLE" + end, Trace([] { return Serial_Disable(kPort, SERIAL_DIRECTION_TX); }));
    EXPECT_EQ("SERIALAPI: In ENABLE" + end, Trace([] { return Serial_Enable(kPort, SERIAL_DIRECTION_RX); }));
    EXPECT_EQ((std::vector<unsigned long>{0, 0, 1, 1, 1, 0}), fake.reception);
    EXPECT_EQ(EnablesT(0, 0), after(kNoError)) << "a refused request changes nothing";
    EXPECT_EQ(EnablesT(1, 1), after(Serial_Enable(kPort, SERIAL_DIRECTION_BOTH)));
    EXPECT_EQ(EnablesT(0, 0), after(static_cast<eErrorT>(ReleaseUpdatePort(kPort))));
}

TEST(SerialErrors, HaveATextAndAResult)
{
    const std::pair<int, std::string> rows[] = {
        {0, "0"},
        {1, "Serial API Error - Not Supported\n-27"},
        {2, "Serial API Error - Invalid Parameter\n-3"},
        {3, "Serial API Error - Read System call failed\n-34"},
        {4, "Serial API Error - Write System call failed\n-34"},
        {5, "Serial API Error - Invalid Parameter\n-3"},
        {6, "Serial API Error - TX Disabled\n-4"},
        {7, "Serial API Error - RX Disabled\n-4"},
        {8, "Serial API Error - Timeout\n-35"},
        {9, "Serial API Error - Unknown Error\n-34"},
        {48, "0"},
    };
    for (const auto &row : rows)
        EXPECT_EQ(row.second, Trace([&] { return Serial_Get_AppErr(DevMgrSerial_error_t(row.first)); })) << row.first;
}

TEST_F(SerialApi, ClosesTheScriptsSessionsOnOtherBoards)
{
    EXPECT_EQ("", fake.Receive(99, fake.commands[0])); // not on this one
    SetSystemHardwareType(kQuillmark);
    Serial_Init();
    EXPECT_EQ("./config_port close ttyFPGAS4\n./config_port close ttyFPGAS5\n", fake.Receive(99, fake.commands[0]));
}

TEST_F(SerialApi, LeavesAPortOfTheScriptAlone)
{
    const RS232Cfg cfg = Settings({SERIAL_BAUDRATE_NONE, 2, SERIAL_PARITY_NO, SERIAL_STOPBITS_1_5, 1, 1, 1});
    EXPECT_EQ(kNoError, Serial_Open_PSH(kCpuPort, &cfg));
    EXPECT_EQ("./config_port close ttyS1\n./config_port open ttyS1 9600 7 none 2 dtrdsr\n",
              fake.Receive(99, fake.commands[0]));
    fake.failures["relay"] = 1;
    EXPECT_EQ("SERIALAPI: In PSH CLOSE, Port: 4 System call failed, err: -1\n-34",
              Trace([] { return Serial_Close_PSH(kCpuPort); }));
    EXPECT_EQ(kAlreadyInUse, Serial_Open_PSH(kCpuPort, &cfg));
    EXPECT_EQ(kAlreadyInUse, Open(kCpuPort));
    EXPECT_EQ((std::vector<int>{-25, 0, 0, -25, -25, 0}), EveryCall(kCpuPort));
    EXPECT_EQ(0u, Serial_Lock_PortDevids());
    EXPECT_EQ(kNoError, Serial_Stop_PSHSession(kCpuPort, 1));
    EXPECT_EQ(0u, Serial_Unlock_PortDevids());
    EXPECT_EQ(std::vector<int>(6, kItemNotFound), EveryCall(kCpuPort));
    fake.answer = "5\n";
    EXPECT_EQ("SERIALAPI: In PSH CLOSE, Port: 4 System call failed, err: 5\n"
              "SERIALAPI: In PSH OPEN, Port: 4 System call failed, err: 5\n-34",
              Trace([] { return Serial_Open_PSH(kCpuPort, &kSettings); }));
    EXPECT_EQ(kNoError, Open(kCpuPort));
}

} // namespace
