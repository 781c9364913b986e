// The requests of the ports' driver, and how a terminal fulfils them. The preload library and the bench share this. It
// needs only the C library.
#pragma once

#include <cerrno>
#include <cstdint>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <termios.h>

namespace bench
{

constexpr std::uint32_t kSetConfig = 0x80260001;
constexpr std::uint32_t kDisableRx = 0x80260002;

// The record of the configuration request. A field counts if its bit in the mask is set. Bit 0 stands for baud, bit 1
// for parity, and so on.
struct DriverConfig {
    std::uint32_t mask;
    std::uint32_t baud;   // bit/s
    std::uint32_t parity; // 0 none, 1 odd, 2 even
    std::uint32_t stop;   // 0 one stop bit, 1 two stop bits
    std::uint32_t flow;   // 0 none, 1 RTS and CTS, 2 DTR and DSR
    std::uint32_t data;   // 0 five data bits, up to 3 eight data bits
};

struct SpeedRow {
    std::uint32_t baud;
    speed_t code;
};
inline constexpr SpeedRow kSpeeds[] = {
    {1200, B1200},   {2400, B2400},     {4800, B4800},     {9600, B9600},     {19200, B19200},   {38400, B38400},
    {57600, B57600}, {115200, B115200}, {230400, B230400}, {460800, B460800}, {921600, B921600},
};

// A field of the record. The flags are those of its values, from 0 on.
struct FieldRow {
    std::uint32_t bit;
    std::uint32_t DriverConfig::*field;
    tcflag_t all; // the flags that any value sets or clears
    std::uint32_t values;
    tcflag_t flags[4];
};
inline constexpr FieldRow kFields[] = {
    {2, &DriverConfig::parity, PARENB | PARODD | CMSPAR, 3, {0, PARENB | PARODD, PARENB}},
    {4, &DriverConfig::stop, CSTOPB, 2, {0, CSTOPB}},
    {8, &DriverConfig::flow, CRTSCTS, 2, {0, CRTSCTS}}, // no terminal has flow control by DTR and DSR
    {16, &DriverConfig::data, CSIZE, 4, {CS5, CS6, CS7, CS8}},
};

// Changes the settings as a record says. Returns false if no terminal has such a setting.
inline bool ApplyConfig(const DriverConfig &config, termios &settings)
{
    for (const FieldRow &row : kFields) {
        if ((config.mask & row.bit) == 0)
            continue;
        const std::uint32_t value = config.*row.field;
        if (value >= row.values)
            return false;
        settings.c_cflag = (settings.c_cflag & ~row.all) | row.flags[value];
    }
    if ((config.mask & 1) == 0)
        return true;
    for (const SpeedRow &row : kSpeeds)
        if (row.baud == config.baud)
            return cfsetispeed(&settings, row.code) == 0 && cfsetospeed(&settings, row.code) == 0;
    return false;
}

inline bool IsPseudoTerminal(int fd)
{
    struct stat status = {};
    return fstat(fd, &status) == 0 && major(status.st_rdev) >= 136 && major(status.st_rdev) <= 143;
}

// Gives a terminal its settings.
// 0       the terminal has them. A pseudo-terminal has no bits on a line, so only its speed counts.
// EINVAL  the terminal cannot do that. It has the settings of before.
// other   the error of the system, such as EIO for a terminal that is gone.
inline int SetTerminal(int fd, const termios &before, const termios &wanted)
{
    termios now = {};
    // The C library itself compares some of the settings (EINVAL), those of a pseudo-terminal as well.
    if ((tcsetattr(fd, TCSANOW, &wanted) != 0 && errno != EINVAL) || tcgetattr(fd, &now) != 0)
        return errno;
    const tcflag_t compared =
        IsPseudoTerminal(fd) ? 0 : CSIZE | PARENB | PARODD | CMSPAR | CSTOPB | CRTSCTS | CREAD | CLOCAL;
    if (cfgetospeed(&now) == cfgetospeed(&wanted) && ((now.c_cflag ^ wanted.c_cflag) & compared) == 0)
        return 0;
    tcsetattr(fd, TCSANOW, &before);
    return EINVAL;
}

// The two requests. The results are those of SetTerminal.
inline int ConfigureTerminal(int fd, const DriverConfig &config)
{
    termios before = {};
    if (tcgetattr(fd, &before) != 0)
        return errno;
    termios wanted = before;
    return ApplyConfig(config, wanted) ? SetTerminal(fd, before, wanted) : EINVAL;
}
inline int SwitchReceiver(int fd, bool on)
{
    termios before = {};
    if (tcgetattr(fd, &before) != 0)
        return errno;
    termios wanted = before;
    wanted.c_cflag = on ? wanted.c_cflag | CREAD : wanted.c_cflag & ~tcflag_t{CREAD};
    return SetTerminal(fd, before, wanted);
}

} // namespace bench
