// A board for fuzzing, without time and without the system. Its files are in memory. The device at its port answers
// from a script. Only the thread that makes the board meets it.
// Script:  a byte is what the device sends next. But a byte from E0 to EF is an event. It happens to the next call that
//          it can happen to. A read of the port that it cannot happen to gets silence. Behind the end of the script the
//          device is silent and every call works.
// Errors:  a call that no program may make here stops the program, such as a read that would wait for ever.
#pragma once

#include "bench/standin/board.h"
#include "bench/text.h"

#include <map>
#include <string_view>

namespace bench
{

class ScriptBoard : public Board
{
public:
    enum Event : UInt8 {
        kPortFails = 0xE0, // does not open
        kFileFails,        // does not open
        kRefusal,          // the driver refuses a request
        kShortWrite,       // a write is short by the number in the next byte; 0: it fails
        kWaitFails,
        kSilence,     // the port takes no output, or the time of a read runs out
        kReadFails,   // a read of the port fails
        kSecondsLeft, // the next byte comes when whole seconds of the time are left
        kInterrupted, // a read of a file is interrupted
        kFileBroken,  // a read of a file fails
        kShortRead,   // a read of a file brings one byte more than the number in the next byte
        kCutFile,     // at its end a file claims to be longer
        kCloseFails,  // the close of a file fails, but the file is closed
        kHangUp,      // from now on the port is readable, and there is nothing to read
    };
    static bool IsEvent(char byte) { return (byte & 0xF0) == 0xE0; }
    static constexpr std::size_t kScriptSize = 500; // a longer script would bring nothing new

    // One write, and all bytes that were read before the next write.
    struct Exchange {
        Bytes sent;
        bool failed; // the write was short or failed; sent is empty if the port took no output
        Bytes received = {};
    };
    struct FileUse {
        std::string name;
        bool opened;
        bool open = opened;
        std::size_t read = 0;
        bool failed = false;
    };

    using Files = std::map<std::string, std::string>; // contents by name

    ScriptBoard(Files files, std::string_view script);

    std::vector<Exchange> exchanges;
    std::vector<FileUse> uses; // in order of the opens
    std::string port;          // the port that was opened last
    bool portOpen = false;

    const std::string &ContentsOf(const FileUse &use) { return files_[use.name]; }

private:
    std::optional<int> Open(const char *path, int flags) override;
    std::optional<int> Close(int fd) override;
    std::optional<ssize_t> Read(int fd, void *buffer, std::size_t size) override;
    std::optional<ssize_t> Write(int fd, const void *data, std::size_t size) override;
    std::optional<int> Select(int count, fd_set *reads, fd_set *writes, timeval *limit) override;
    bool SkipsPauses() const override { return true; }
    bool HasFiles() const override { return true; }
    int Status(int fd, struct stat64 *status) override;
    off64_t Position(int fd) override { return static_cast<off64_t>(UseOf(fd).read); }
    bool Fails(const char *call) override;

    FileUse &UseOf(int fd);
    void CountCall();
    UInt8 NextByte();
    bool Happens(Event event);
    int OpenFile(const char *path);
    int OpenPort(const char *path);
    int WaitForOutput();
    int WaitForInput(timeval *limit);
    ssize_t ReadPort(char *buffer, std::size_t size);
    ssize_t ReadFile(FileUse &use, char *buffer, std::size_t size);

    Files files_;
    std::string_view script_; // the rest of it
    bool isReadable_ = false; // the last wait has found input
    bool hungUp_ = false;
    std::size_t callsLeft_;
};

} // namespace bench
