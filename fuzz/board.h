// The board that an update finds in a fuzz target: files in memory, and a port with a device whose
// answers are a script. To be included by the one file of a target that has the calls below wrapped.
// A byte of the script is what the device sends next, but one from E0 to EF is an event, which happens
// to the next call that it can happen to. One that the call at hand cannot have is silence when it is the
// port that is read. When the script has ended the device is silent and everything works.
#pragma once

#include "fuzz/support.h"

#include "Common/OS/linux/oslinux.h"
#include "bench/frame.h"
#include "devlib/devmgr_serial.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <map>
#include <sys/select.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <utility>

class Board
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
    static constexpr std::size_t kScriptSize = 500;   // what comes behind would be more of the same
    static inline thread_local Board *here = nullptr; // of this thread

    // What was written at once, and all that was read between then and the next write.
    struct Exchange {
        bench::Bytes sent;
        bool failed; // short or not at all; sent is empty when the port took no output
        bench::Bytes received = {};
    };
    struct FileUse {
        std::string name;
        bool opened;
        bool open = opened;
        std::size_t read = 0;
        bool failed = false;
    };

    using Files = std::map<std::string, std::string>; // contents by name

    Board(Files files, std::string_view script)
        : files_(std::move(files)), script_(script.substr(0, kScriptSize)), callsLeft_(200 + 10 * script_.size())
    {
        here = this;
    }
    ~Board() { here = nullptr; }
    Board(const Board &) = delete;
    Board &operator=(const Board &) = delete;

    std::vector<Exchange> exchanges;
    std::vector<FileUse> uses;  // in order of the opens
    std::vector<bool> requests; // to the driver: taken or refused
    std::string port;           // the latest that was opened
    bool portOpen = false;

    const std::string &ContentsOf(const FileUse &use) { return files_[use.name]; }

    int Open(const std::string &path)
    {
        CountCall();
        if (!path.starts_with("/dev/")) {
            uses.push_back({path, !Happens(kFileFails) && files_.contains(path)});
            return uses.back().opened ? kFiles + static_cast<int>(uses.size()) - 1 : -1;
        }
        CHECK(!portOpen);
        portOpen = !Happens(kPortFails);
        if (portOpen)
            port = path;
        return portOpen ? kPort : -1;
    }

    int Close(int fd)
    {
        bool &open = fd == kPort ? portOpen : UseOf(fd).open;
        CHECK(open);
        open = false;
        return fd != kPort && Happens(kCloseFails) ? -1 : 0;
    }

    int Ioctl()
    {
        CHECK(portOpen);
        requests.push_back(!Happens(kRefusal));
        return requests.back() ? 0 : -1;
    }

    // Without a descriptor it is a pause, which is over at once.
    int Select(int fdCount, fd_set *readSet, const fd_set *writeSet, timeval *limit)
    {
        CountCall();
        if (fdCount == 0)
            return 0;
        CHECK(portOpen && fdCount == kPort + 1 && FD_ISSET(kPort, writeSet != nullptr ? writeSet : readSet));
        const int ready = Happens(kWaitFails) ? -1 : writeSet != nullptr ? !Happens(kSilence) : WaitForInput(limit);
        if (writeSet != nullptr && ready < 1)
            exchanges.push_back({{}, true});
        return ready;
    }

    ssize_t Write(const void *data, std::size_t size)
    {
        CountCall();
        CHECK(portOpen && size > 0);
        const auto *bytes = static_cast<const UInt8 *>(data);
        const bool failed = Happens(kShortWrite);
        exchanges.push_back({{bytes, bytes + size}, failed});
        if (!failed)
            return static_cast<ssize_t>(size);
        const std::size_t missing = NextByte();
        return missing == 0 || missing >= size ? -1 : static_cast<ssize_t>(size - missing);
    }

    ssize_t Read(int fd, void *buffer, std::size_t size)
    {
        CountCall();
        return fd == kPort ? ReadPort(static_cast<char *>(buffer), size)
                           : ReadFile(UseOf(fd), static_cast<char *>(buffer), size);
    }

    int Status(int fd, struct stat *status)
    {
        FileUse &use = UseOf(fd);
        use.failed = Happens(kCutFile);
        status->st_mode = S_IFREG;
        status->st_size = static_cast<off_t>(use.read) + (use.failed ? 1 : 0);
        return 0;
    }

    off_t Position(int fd) { return static_cast<off_t>(UseOf(fd).read); }

private:
    static constexpr int kPort = 400, kFiles = 500;

    FileUse &UseOf(int fd) { return uses.at(static_cast<std::size_t>(fd - kFiles)); }
    void CountCall() { CHECK(callsLeft_-- > 0); }
    UInt8 NextByte()
    {
        const UInt8 byte = script_.empty() ? 0 : static_cast<UInt8>(script_[0]);
        script_.remove_prefix(script_.empty() ? 0 : 1);
        return byte;
    }
    bool Happens(Event event)
    {
        const bool happens = !script_.empty() && static_cast<UInt8>(script_[0]) == event;
        script_.remove_prefix(happens ? 1 : 0);
        return happens;
    }

    int WaitForInput(timeval *limit)
    {
        if (Happens(kHangUp)) {
            hungUp_ = true;
            callsLeft_ += 10000; // the longest wait takes 4000 pauses
        }
        if (hungUp_)
            return isReadable_ = true;
        const bool seconds = Happens(kSecondsLeft);
        if (!script_.empty() && (!IsEvent(script_[0]) || static_cast<UInt8>(script_[0]) == kReadFails)) {
            *limit = seconds ? timeval{1, 0} : timeval{0, limit->tv_usec - 1};
            isReadable_ = true;
            return 1;
        }
        script_.remove_prefix(script_.empty() ? 0 : 1);
        *limit = {0, 0};
        return 0;
    }

    ssize_t ReadPort(char *buffer, std::size_t size)
    {
        CHECK(portOpen && !exchanges.empty());    // the host speaks first
        CHECK(std::exchange(isReadable_, false)); // or the read would wait without limit
        if (hungUp_ || Happens(kReadFails))
            return hungUp_ ? 0 : -1;
        const auto end = std::find_if(script_.begin(), script_.end(), IsEvent);
        const std::size_t count = std::min(size, static_cast<std::size_t>(end - script_.begin()));
        std::memcpy(buffer, script_.data(), count);
        exchanges.back().received.insert(exchanges.back().received.end(), buffer, buffer + count);
        script_.remove_prefix(count);
        return static_cast<ssize_t>(count);
    }

    ssize_t ReadFile(FileUse &use, char *buffer, std::size_t size)
    {
        CHECK(use.open);
        const bool interrupted = Happens(kInterrupted);
        use.failed = !interrupted && Happens(kFileBroken);
        if (interrupted || use.failed) {
            errno = interrupted ? EINTR : EIO;
            return -1;
        }
        const std::string_view rest = std::string_view(ContentsOf(use)).substr(use.read);
        const std::size_t count =
            std::min({size, rest.size(), Happens(kShortRead) ? std::size_t{NextByte()} + 1 : size});
        std::memcpy(buffer, rest.data(), count);
        use.read += count;
        return static_cast<ssize_t>(count);
    }

    Files files_;
    std::string_view script_; // what is left of it
    bool isReadable_ = false; // as a wait has said
    bool hungUp_ = false;
    std::size_t callsLeft_;
};

// To be called with no board there.
inline void SetUpPorts()
{
    SetSystemHardwareType(kKora); // on any other a script would be run
    DevMgrSerial_Init();          // only once
}

// Some bytes of it are FF and FE.
inline std::string Noise(std::size_t size)
{
    std::string noise(size, '\0');
    for (std::size_t i = 0; i < size; i++)
        noise[i] = static_cast<char>(i % 11 == 0 ? 0xFE + i % 2 : i * 37 >> 4);
    return noise;
}

// The value of a version's text.
inline Int32 Version(std::string_view text)
{
    constexpr std::string_view kDigits[] = {"0123456789abcdef", "0123456789ABCDEF", "0123456789:;<=>?",
                                            "__________*+,-./"};
    Int32 value = 0;
    for (const char character : text.substr(0, 6)) {
        std::size_t digit = std::string_view::npos;
        for (const std::string_view digits : kDigits)
            digit = character == '_' ? digit : std::min(digit, digits.find(character));
        if (digit == std::string_view::npos)
            break;
        value = value * 16 + static_cast<Int32>(digit);
    }
    return value;
}

// Follows an update through what the board saw of it. Whatever is not as it is said to be stops the
// program.
class Replay
{
public:
    explicit Replay(Board &board) : board_(board) {}

    // The next file that is opened.
    const Board::FileUse &Uses(const std::string &name)
    {
        CHECK(uses_ < board_.uses.size() && board_.uses[uses_].name == name);
        return board_.uses[uses_++];
    }

    // The next bytes that are written. Returns false when that failed.
    bool Sends(const bench::Bytes &bytes)
    {
        CHECK(received_ == Received().size() && !Ended());
        const Board::Exchange &exchange = board_.exchanges[exchanges_++];
        received_ = 0;
        CHECK(exchange.sent == bytes || (exchange.sent.empty() && exchange.failed));
        return !exchange.failed;
    }

    bool SendsFrame(UInt8 type, const bench::Bytes &data)
    {
        CHECK(!Ended());
        const bench::Bytes &wire = board_.exchanges[exchanges_].sent;
        bench::FrameDecoder decoder;
        for (const UInt8 byte : wire)
            CHECK(decoder.Feed(byte) != bench::FrameDecoder::Event::kDeviation);
        CHECK(decoder.BetweenFrames() && decoder.frame().type == type && decoder.frame().data == data);
        return Sends(wire);
    }

    // The next bytes that are read, fewer if they did not come.
    bench::Bytes Takes(std::size_t count)
    {
        const bench::Bytes &received = Received();
        const auto begin = received.begin() + static_cast<std::ptrdiff_t>(received_);
        received_ = std::min(received.size(), received_ + count);
        return bench::Bytes(begin, received.begin() + static_cast<std::ptrdiff_t>(received_));
    }

    // Whether nothing was written any more.
    bool Ended() const { return exchanges_ == board_.exchanges.size(); }
    bool Complete() const { return Ended() && received_ == Received().size() && uses_ == board_.uses.size(); }

private:
    const bench::Bytes &Received() const
    {
        static const bench::Bytes kNone;
        return exchanges_ == 0 ? kNone : board_.exchanges[exchanges_ - 1].received;
    }

    Board &board_;
    std::size_t uses_ = 0, exchanges_ = 0, received_ = 0;
};

// The result that an update owes to what happened on the board; exchange is what it does on an open
// port, and returns its result.
template <class Exchange> int ExpectedResult(Board &board, const char *port, Exchange exchange)
{
    int result = -1;
    if (!board.port.empty() && board.requests.at(0) && board.requests.at(1)) {
        Replay replay(board);
        result = exchange(replay);
        CHECK(replay.Complete() && board.requests.size() == 3);
        result = board.requests[2] ? result : -1;
    }
    CHECK(board.port.empty() || board.port == port);
    CHECK(!board.portOpen && std::none_of(board.uses.begin(), board.uses.end(), [](auto &use) { return use.open; }));
    return result;
}

// ---- The wrapped calls; a stream is no more than the number of its file
// NOLINTBEGIN(misc-definitions-in-headers): one file of a target includes this

int RealOpen(const char *path, int flags, ...) __asm__("__real_open");
int BoardOpen(const char *path, int flags, ...) __asm__("__wrap_open");
int BoardOpen(const char *path, int flags, ...)
{
    return Board::here != nullptr ? Board::here->Open(path) : RealOpen(path, flags, 0666);
}

int BoardOpen64(const char *path, int flags, ...) __asm__("__wrap_open64");
int BoardOpen64(const char *path, int flags, ...)
{
    return BoardOpen(path, flags);
}

// The fuzzer has streams of its own, to write findings.
inline bool IsOnBoard(FILE *stream)
{
    constexpr std::intptr_t kNumbers = 1 << 20; // no stream is at so low an address
    return reinterpret_cast<std::intptr_t>(stream) < kNumbers;
}

int RealNumber(FILE *stream) __asm__("__real_fileno");
int BoardNumber(FILE *stream) __asm__("__wrap_fileno");
int BoardNumber(FILE *stream)
{
    return IsOnBoard(stream) ? static_cast<int>(reinterpret_cast<std::intptr_t>(stream)) : RealNumber(stream);
}

FILE *RealOpenStream(const char *path, const char *mode) __asm__("__real_fopen64");
FILE *BoardOpenStream(const char *path, const char *mode) __asm__("__wrap_fopen64");
FILE *BoardOpenStream(const char *path, const char *mode)
{
    if (Board::here == nullptr)
        return RealOpenStream(path, mode);
    const int fd = Board::here->Open(path);
    return fd < 0 ? nullptr : reinterpret_cast<FILE *>(static_cast<std::intptr_t>(fd));
}

int RealCloseStream(FILE *stream) __asm__("__real_fclose");
int BoardCloseStream(FILE *stream) __asm__("__wrap_fclose");
int BoardCloseStream(FILE *stream)
{
    return IsOnBoard(stream) ? Board::here->Close(BoardNumber(stream)) : RealCloseStream(stream);
}

// Only of files on the board.
int BoardStatus(int fd, struct stat *status) __asm__("__wrap_fstat64");
int BoardStatus(int fd, struct stat *status)
{
    return Board::here->Status(fd, status);
}

off_t BoardPosition(int fd, off_t offset, int from) __asm__("__wrap_lseek64");
off_t BoardPosition(int fd, off_t /*offset*/, int /*from*/)
{
    return Board::here->Position(fd);
}

int RealClose(int fd) __asm__("__real_close");
int BoardClose(int fd) __asm__("__wrap_close");
int BoardClose(int fd)
{
    return Board::here != nullptr ? Board::here->Close(fd) : RealClose(fd);
}

int BoardIoctl(int fd, unsigned long request, ...) __asm__("__wrap_ioctl");
int BoardIoctl(int /*fd*/, unsigned long /*request*/, ...)
{
    return Board::here->Ioctl();
}

int RealSelect(int fdCount, fd_set *reads, fd_set *writes, fd_set *others, timeval *limit) __asm__("__real_select");
int BoardSelect(int fdCount, fd_set *reads, fd_set *writes, fd_set *others, timeval *limit) __asm__("__wrap_select");
int BoardSelect(int fdCount, fd_set *reads, fd_set *writes, fd_set *others, timeval *limit)
{
    return Board::here != nullptr ? Board::here->Select(fdCount, reads, writes, limit)
                                  : RealSelect(fdCount, reads, writes, others, limit);
}

int RealSleep(const timespec *time, timespec *left) __asm__("__real_nanosleep");
int BoardSleep(const timespec *time, timespec *left) __asm__("__wrap_nanosleep");
int BoardSleep(const timespec *time, timespec *left)
{
    return Board::here != nullptr ? 0 : RealSleep(time, left);
}

ssize_t RealWrite(int fd, const void *data, std::size_t size) __asm__("__real_write");
ssize_t BoardWrite(int fd, const void *data, std::size_t size) __asm__("__wrap_write");
ssize_t BoardWrite(int fd, const void *data, std::size_t size)
{
    return Board::here != nullptr ? Board::here->Write(data, size) : RealWrite(fd, data, size);
}

ssize_t RealRead(int fd, void *buffer, std::size_t size) __asm__("__real_read");
ssize_t BoardRead(int fd, void *buffer, std::size_t size) __asm__("__wrap_read");
ssize_t BoardRead(int fd, void *buffer, std::size_t size)
{
    return Board::here != nullptr ? Board::here->Read(fd, buffer, size) : RealRead(fd, buffer, size);
}
// NOLINTEND(misc-definitions-in-headers)
