// A board for fuzzing, without time and without the system: files in memory, and a port with a device whose answers are
// a script. Only the thread that makes it meets it.
// A byte of the script is what the device sends next, but one from E0 to EF is an event, which happens to the next call
// that it can happen to. One that the call at hand cannot have is silence when it is the port that is read. When the
// script has ended the device is silent and everything works.
// A call that no program may make here, such as a read that would wait for ever, stops the program.
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
        kRefusal,          // of a request to the driver
        kShortWrite,       // by as many bytes as the next byte says; 0: it fails
        kWaitFails,
        kSilence,     // the port takes no output; or nothing comes for so long
        kReadFails,   // of the port
        kSecondsLeft, // when the next byte comes, whole seconds
        kInterrupted, // a read of a file
        kFileBroken,  // a read of a file fails
        kShortRead,   // of a file, of as many bytes as the next byte says and one
        kCutFile,     // a file says at its end that it is longer
        kCloseFails,  // of a file, which is closed all the same
        kHangUp,      // the port is readable from now on, and there is nothing to read
    };
    static bool IsEvent(char byte) { return (byte & 0xF0) == 0xE0; }
    static constexpr std::size_t kScriptSize = 500; // what comes behind would be more of the same

    // What was written at once, and all that was read between then and the next write.
    struct Exchange {
        Bytes sent;
        bool failed; // short or not at all; sent is empty when the port took no output
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
    std::string port;          // the latest that was opened
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
    std::string_view script_; // what is left of it
    bool isReadable_ = false; // as a wait has said
    bool hungUp_ = false;
    std::size_t callsLeft_;
};

} // namespace bench
