#include "bench/standin/scriptboard.h"

#include "Common/OS/osassert.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#define CHECK(condition) os_assert(condition, #condition)

namespace bench
{

namespace
{

constexpr int kPort = 400, kFiles = 500; // descriptors

} // namespace

ScriptBoard::ScriptBoard(Files files, std::string_view script)
    : Board(Threads::kThisOne), files_(std::move(files)), script_(script.substr(0, kScriptSize)),
      callsLeft_(200 + 10 * script_.size())
{
}

// ---- The script

void ScriptBoard::CountCall()
{
    CHECK(callsLeft_-- > 0);
}

UInt8 ScriptBoard::NextByte()
{
    const UInt8 byte = script_.empty() ? 0 : static_cast<UInt8>(script_[0]);
    script_.remove_prefix(script_.empty() ? 0 : 1);
    return byte;
}

bool ScriptBoard::Happens(Event event)
{
    const bool happens = !script_.empty() && static_cast<UInt8>(script_[0]) == event;
    script_.remove_prefix(happens ? 1 : 0);
    return happens;
}

// The driver is asked on an open port only.
bool ScriptBoard::Fails(const char *call)
{
    CHECK(portOpen && std::strcmp(call, "ioctl") == 0);
    return Happens(kRefusal);
}

// ---- Files and port alike

std::optional<int> ScriptBoard::Open(const char *path, int /*flags*/)
{
    CountCall();
    return std::string_view(path).starts_with("/dev/") ? OpenPort(path) : OpenFile(path);
}

std::optional<int> ScriptBoard::Close(int fd)
{
    bool &open = fd == kPort ? portOpen : UseOf(fd).open;
    CHECK(open);
    open = false;
    return fd != kPort && Happens(kCloseFails) ? -1 : 0;
}

std::optional<ssize_t> ScriptBoard::Read(int fd, void *buffer, std::size_t size)
{
    CountCall();
    return fd == kPort ? ReadPort(static_cast<char *>(buffer), size)
                       : ReadFile(UseOf(fd), static_cast<char *>(buffer), size);
}

// ---- The port

int ScriptBoard::OpenPort(const char *path)
{
    CHECK(!portOpen);
    portOpen = !Happens(kPortFails);
    if (portOpen)
        port = path;
    return portOpen ? kPort : -1;
}

std::optional<ssize_t> ScriptBoard::Write(int /*fd*/, const void *data, std::size_t size)
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

// A call without a descriptor is a pause. It is over at once.
std::optional<int> ScriptBoard::Select(int count, fd_set *reads, fd_set *writes, timeval *limit)
{
    CountCall();
    if (count == 0)
        return 0;
    CHECK(portOpen && count == kPort + 1 && FD_ISSET(kPort, writes != nullptr ? writes : reads));
    if (writes != nullptr)
        return WaitForOutput();
    return Happens(kWaitFails) ? -1 : WaitForInput(limit);
}

int ScriptBoard::WaitForOutput()
{
    const int ready = Happens(kWaitFails) ? -1 : Happens(kSilence) ? 0 : 1;
    if (ready < 1)
        exchanges.push_back({{}, true});
    return ready;
}

int ScriptBoard::WaitForInput(timeval *limit)
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

ssize_t ScriptBoard::ReadPort(char *buffer, std::size_t size)
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

// ---- Files

ScriptBoard::FileUse &ScriptBoard::UseOf(int fd)
{
    return uses.at(static_cast<std::size_t>(fd - kFiles));
}

int ScriptBoard::OpenFile(const char *path)
{
    uses.push_back({path, !Happens(kFileFails) && files_.contains(path)});
    return uses.back().opened ? kFiles + static_cast<int>(uses.size()) - 1 : -1;
}

ssize_t ScriptBoard::ReadFile(FileUse &use, char *buffer, std::size_t size)
{
    CHECK(use.open);
    const bool interrupted = Happens(kInterrupted);
    use.failed = !interrupted && Happens(kFileBroken);
    if (interrupted || use.failed) {
        errno = interrupted ? EINTR : EIO;
        return -1;
    }
    const std::string_view rest = std::string_view(ContentsOf(use)).substr(use.read);
    const std::size_t count = std::min({size, rest.size(), Happens(kShortRead) ? std::size_t{NextByte()} + 1 : size});
    std::memcpy(buffer, rest.data(), count);
    use.read += count;
    return static_cast<ssize_t>(count);
}

int ScriptBoard::Status(int fd, struct stat64 *status)
{
    FileUse &use = UseOf(fd);
    use.failed = Happens(kCutFile);
    status->st_mode = S_IFREG;
    status->st_size = static_cast<off64_t>(use.read) + (use.failed ? 1 : 0);
    return 0;
}

} // namespace bench
