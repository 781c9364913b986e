#include "bench/capture/stracetext_inner.h"

#include "bench/standin/preload.h"

#include <algorithm>
#include <cctype>
#include <climits>
#include <utility>

namespace bench::strace
{

namespace
{

constexpr std::string_view kDevice = "/dev/fpgaserial"; // and one digit
constexpr std::string_view kRelay = "/tmp/plaunch";
constexpr std::size_t kVersionText = 64; // more of a version file is not kept
constexpr std::int64_t kLongestFile = 1LL << 40;
constexpr std::int64_t kCloseOnExec = 02000000; // O_CLOEXEC
constexpr std::int64_t kLastStandard = 2;       // descriptor

constexpr CallRow kCalls[] = {
    {"open", &Follower::Open, kEarly},
    {"creat", &Follower::Open, kEarly},
    {"openat", &Follower::OpenAt, kEarly},
    {"openat2", &Follower::OpenAt, kEarly},
    {"close", &Follower::Close, kAtOnce},
    {"close_range", &Follower::CloseRange},
    {"dup", &Follower::Duplicate},
    {"dup2", &Follower::Duplicate},
    {"dup3", &Follower::Duplicate},
    {"fcntl", &Follower::Control},
    {"fcntl64", &Follower::Control},
    {"pipe", &Follower::MakeDescriptor},
    {"pipe2", &Follower::MakeDescriptor},
    {"socket", &Follower::MakeDescriptor},
    {"socketpair", &Follower::MakeDescriptor},
    {"accept", &Follower::MakeDescriptor},
    {"accept4", &Follower::MakeDescriptor},
    {"memfd_create", &Follower::MakeDescriptor},
    {"eventfd2", &Follower::MakeDescriptor},
    {"epoll_create1", &Follower::MakeDescriptor},
    {"timerfd_create", &Follower::MakeDescriptor},
    {"ioctl", &Follower::Request, kData | kEarly},
    {"read", &Follower::Read, kData},
    {"readv", &Follower::Read, kData},
    {"pread64", &Follower::ReadAtPlace, kData},
    {"preadv", &Follower::ReadAtPlace, kData},
    {"write", &Follower::Write, kData | kEarly},
    {"writev", &Follower::Write, kData | kEarly},
    {"pwrite64", &Follower::Write, kData | kEarly},
    {"pwritev", &Follower::Write, kData | kEarly},
    {"lseek", &Follower::Seek},
    {"_llseek", &Follower::SeekFar},
    {"stat", &Follower::State},
    {"stat64", &Follower::State},
    {"fstat", &Follower::State},
    {"fstat64", &Follower::State},
    {"newfstatat", &Follower::State},
    {"fstatat64", &Follower::State},
    {"statx", &Follower::State},
    {"select", &Follower::Wait, kAtOnce},
    {"_newselect", &Follower::Wait, kAtOnce},
    {"pselect6", &Follower::Wait, kAtOnce},
    {"pselect6_time64", &Follower::Wait, kAtOnce},
    {"fork", &Follower::Fork, kForks},
    {"vfork", &Follower::Fork, kForks},
    {"clone", &Follower::Fork, kForks},
    {"clone3", &Follower::Fork, kForks},
    {"unshare", &Follower::Unshare},
    {"execve", &Follower::Execute},
    {"execveat", &Follower::Execute},
    {"exit_group", &Follower::Exit},
};

// What strace -y shows behind a descriptor, with its brackets.
std::string_view ShownOf(std::string_view descriptor)
{
    const std::size_t open = descriptor.find('<');
    return open == std::string_view::npos ? std::string_view() : descriptor.substr(open);
}

// Flags as names or as a number.
bool HasFlag(std::string_view flags, std::string_view name, std::int64_t value)
{
    return flags.find(name) != std::string_view::npos || (StraceNumber(flags).value_or(0) & value) != 0;
}

// An argument that strace shows as a name or as a number.
bool IsConstant(std::string_view argument, std::string_view name, std::int64_t value)
{
    return argument.substr(0, argument.find(' ')) == name || StraceNumber(argument) == value;
}

// Microseconds in "{tv_sec=3, tv_nsec=5000}", "{tv_sec=3, tv_usec=5}" and "{3, 5}".
std::optional<std::int64_t> TimeOutOf(std::string_view text, bool nanoseconds)
{
    constexpr std::int64_t kLongest = 1000000000; // seconds
    const auto parts = SplitStrace(text.substr(text.starts_with("{") ? 1 : 0));
    const auto valueOf = [](std::string_view part) {
        return StraceNumber(part.substr(part.find('=') + 1)).value_or(-1);
    };
    if (parts.size() < 2)
        return std::nullopt;
    const std::int64_t seconds = valueOf(parts[0]), rest = valueOf(parts[1]);
    if (seconds < 0 || seconds > kLongest || rest < 0 || rest > kLongest)
        return std::nullopt;
    return seconds * 1000000 + rest / (nanoseconds ? 1000 : 1);
}

// The number of an ioctl. strace may show the parts of the number instead: the direction, the type, the request's own
// number and the size. The direction has another name on each kind of machine.
std::uint32_t RequestOf(std::string_view text)
{
    constexpr std::string_view kParts = "_IOC(";
    constexpr std::uint32_t kHead = kSetConfig & ~0xFFU, kSize = (kHead >> 16) & 0xFF;
    if (!text.starts_with(kParts))
        return static_cast<std::uint32_t>(StraceNumber(text).value_or(0)); // the sign may be extended
    const auto parts = SplitStrace(text.substr(kParts.size()));
    const bool ours = parts.size() == 4 && parts[0] != "_IOC_NONE" && StraceNumber(parts[1]) == 0 &&
                      StraceNumber(parts[3]) == std::int64_t{kSize};
    return ours ? kHead | static_cast<std::uint32_t>(StraceNumber(parts[2]).value_or(0)) : 0;
}

// Number of bytes in a list such as [{iov_base="ab", iov_len=2}, {"c", 1}].
std::optional<std::int64_t> SizeOfPieces(std::string_view list)
{
    std::int64_t sum = 0;
    for (const std::string_view piece : SplitStrace(list.substr(list.starts_with("[") ? 1 : 0))) {
        const auto parts = SplitStrace(piece.substr(piece.starts_with("{") ? 1 : 0));
        const std::string_view last = parts.empty() ? std::string_view() : parts.back();
        const auto size = StraceNumber(last.substr(last.find('=') + 1));
        if (!size || *size < 0 || *size > INT_MAX)
            return std::nullopt;
        sum += *size;
    }
    return sum;
}

std::string PathOf(std::string_view argument)
{
    const auto string = ParseStraceString(argument, PATH_MAX);
    return string ? std::string(string->bytes.begin(), string->bytes.end()) : "";
}

} // namespace

const CallRow *RowOf(std::string_view name)
{
    static const auto rows = [] {
        std::unordered_map<std::string_view, const CallRow *> table;
        for (const CallRow &row : kCalls)
            table.emplace(row.name, &row);
        return table;
    }();
    const auto found = rows.find(name);
    return found == rows.end() ? nullptr : found->second;
}

// ---- Descriptors

std::string_view Follower::Argument(std::size_t index) const
{
    return index < call_.arguments.size() ? call_.arguments[index] : std::string_view();
}

int Follower::PortOf(std::string_view path) const
{
    if (const auto found = ports_.find(std::string(path)); found != ports_.end())
        return found->second;
    const bool numbered = path.size() == kDevice.size() + 1 && path.starts_with(kDevice) &&
                          std::isdigit(static_cast<unsigned char>(path.back())) != 0;
    return numbered ? path.back() - '0' : kNoPort;
}

// The file of a descriptor. What strace shows behind the number counts more than the calls before, because some of them
// may be missing in the text. Null if that is no descriptor.
std::shared_ptr<OpenFile> Follower::FileOf(std::string_view descriptor)
{
    const auto number = StraceNumber(descriptor);
    if (!number || *number < 0)
        return nullptr;
    const std::string_view shown = ShownOf(descriptor);
    std::shared_ptr<OpenFile> &file = (*thread_->table)[*number].file;
    if (file && file->shown.empty() && !file->unknown)
        file->shown = shown;
    if (file && (shown.empty() || file->shown == shown))
        return file;
    file = std::make_shared<OpenFile>(OpenFile{
        .port = PortOf(StracePath(descriptor).value_or("")), .shown = std::string(shown), .unknown = shown.empty()});
    if (file->port != kNoPort)
        Remark(file->port, "the text does not show how descriptor " + std::to_string(*number) + " was opened");
    return file;
}

// The port that a call with data concerns, kNoPort if it concerns none. A descriptor that may be one and is not known
// is said once.
int Follower::DataPort(std::string_view descriptor)
{
    if (openPort_ != kNoPort)
        return openPort_;
    const auto file = call_.error() == "EBADF" ? nullptr : FileOf(descriptor);
    if (!file)
        return kNoPort;
    const std::int64_t number = StraceNumber(descriptor).value_or(0);
    if (number > kLastStandard && std::exchange(file->unknown, false))
        Remark(kNoPort, "the text does not show what descriptor " + std::to_string(number) +
                            " is, so its bytes are left out (strace -y names it)");
    return file->port;
}

void Follower::Put(std::int64_t descriptor, Slot slot)
{
    if (const auto at = thread_->table->find(descriptor); at != thread_->table->end())
        Drop(at);
    thread_->table->emplace(descriptor, std::move(slot));
}

// Takes a descriptor out of the table. The port is closed when the last one goes.
void Follower::Drop(Table::iterator at)
{
    const std::shared_ptr<OpenFile> file = std::move(at->second.file);
    thread_->table->erase(at);
    if (file->port != kNoPort && file.use_count() == 1)
        Note(file->port, "close");
}

void Follower::Open()
{
    OpenPath(0);
}

void Follower::OpenAt()
{
    OpenPath(1);
}

void Follower::OpenPath(std::size_t index)
{
    const std::string path = PathOf(Argument(index));
    const std::int64_t descriptor = call_.number().value_or(-1);
    Slot slot = {.file = std::make_shared<OpenFile>(),
                 .closesOnExec = HasFlag(Argument(index + 1), "O_CLOEXEC", kCloseOnExec)};
    OpenFile &file = *slot.file;
    file.shown = ShownOf(call_.result);
    file.image = images_.Find(path);
    file.port = PortOf(path);
    if (file.port == kNoPort)
        file.port = PortOf(StracePath(call_.result).value_or(""));
    const int port = file.port;
    const bool matters = port != kNoPort || path == kRelay;
    if (matters)
        Touch(2);
    if (file.image != nullptr)
        file.image->missing = file.image->missing || call_.error() == "ENOENT";
    if (descriptor >= 0)
        Put(descriptor, std::move(slot));
    if (!matters || call_.error().starts_with("ERESTART"))
        return;
    if (call_.number())
        Note(port, (port == kNoPort ? "open relay" : "open") + Refusal());
    else
        Remark(port, "the result of this open is not known");
}

// " refused EIO" behind a note, or nothing if the call did not fail.
std::string Follower::Refusal() const
{
    const std::string error(call_.error());
    return error.empty() ? "" : " refused " + error;
}

// It takes effect when it begins: another thread may get the number before it ends.
void Follower::Close()
{
    const auto at = thread_->table->find(StraceNumber(Argument(0)).value_or(-1));
    const int port = PortOf(StracePath(Argument(0)).value_or(""));
    if (at != thread_->table->end())
        Drop(at);
    else if (port != kNoPort)
        Note(port, "close");
}

void Follower::CloseRange()
{
    const auto first = StraceNumber(Argument(0)), last = StraceNumber(Argument(1));
    if (call_.number() != 0 || !first)
        return;
    if (HasFlag(Argument(2), "CLOSE_RANGE_UNSHARE", 2))
        thread_->table = std::make_shared<Table>(*thread_->table);
    const bool atExec = HasFlag(Argument(2), "CLOSE_RANGE_CLOEXEC", 4);
    for (auto slot = thread_->table->lower_bound(*first);
         slot != thread_->table->end() && slot->first <= last.value_or(INT_MAX);) { // "~0U" is no number
        const auto at = slot++;
        if (atExec)
            at->second.closesOnExec = true;
        else
            Drop(at);
    }
}

void Follower::Duplicate()
{
    const std::int64_t copy = call_.number().value_or(-1);
    if (copy < 0 || StraceNumber(Argument(0)) == copy)
        return;
    if (const auto file = FileOf(Argument(0)))
        Put(copy, {file, HasFlag(Argument(2), "O_CLOEXEC", kCloseOnExec)});
}

void Follower::Control()
{
    const std::string_view command = Argument(1);
    const std::int64_t result = call_.number().value_or(-1);
    const auto file = result < 0 ? nullptr : FileOf(Argument(0));
    if (!file)
        return;
    const bool closing = IsConstant(command, "F_DUPFD_CLOEXEC", 1030);
    if (closing || IsConstant(command, "F_DUPFD", 0))
        Put(result, {file, closing});
    else if (IsConstant(command, "F_SETFD", 2))
        (*thread_->table)[*StraceNumber(Argument(0))].closesOnExec = HasFlag(Argument(2), "FD_CLOEXEC", 1);
}

// The result is a descriptor, or the argument is a list of two.
void Follower::MakeDescriptor()
{
    if (call_.number().value_or(-1) < 0)
        return;
    std::vector<std::string_view> made = {call_.result};
    for (const std::string_view argument : call_.arguments)
        if (argument.starts_with("["))
            made = SplitStrace(argument.substr(1));
    const bool closes = text_.find("CLOEXEC") != std::string_view::npos;
    for (const std::string_view descriptor : made)
        if (const auto number = StraceNumber(descriptor))
            Put(*number, {std::make_shared<OpenFile>(OpenFile{.shown = std::string(ShownOf(descriptor))}), closes});
}

// ---- Bytes and requests

void Follower::Note(int port, const std::string &note)
{
    order_.Add(place_, {.begin = begin_, .end = begin_, .port = port, .note = note});
}

void Follower::Remark(int port, const std::string &text)
{
    Note(port, "! line " + std::to_string(line_) + ": " + text);
}

// Says why a call on a port moved no byte. Returns the number of bytes that it moved.
std::size_t Follower::Moved(int port)
{
    const auto count = call_.number();
    const std::string name(call_.name);
    const bool reads = name.find("read") != std::string::npos;
    if (call_.error().starts_with("ERESTART")) // the program does not see that
        return 0;
    if (!count)
        Remark(port, "the result of this " + name + " is not known");
    else if (*count < 0)
        Note(port, (reads ? "read" : "write") + Refusal());
    else if (*count == 0 && reads && silent_.insert(port).second)
        Remark(port, "this read brought no byte; later ones that bring no byte either are left out");
    if (count > 0 && reads)
        silent_.erase(port);
    return static_cast<std::size_t>(std::max<std::int64_t>(count.value_or(0), 0));
}

// The bytes of a call that moved that many.
void Follower::Transfer(Way way, int port, std::size_t count)
{
    Touch(3);
    const std::string call = " of this " + std::string(call_.name);
    std::optional<StraceString> string = ParseStraceStrings(Argument(1), count);
    const std::size_t there = string ? string->bytes.size() : 0;
    if (there < count && string && string->cut)
        throw StraceError(Format("line %zu: strace has cut the bytes", line_) + call +
                          "; the option -s 262144 keeps them");
    if (there < count)
        Remark(port, Format("the text has %zu of the %zu bytes", there, count) + call);
    const WallTime first = way == Way::kToDevice ? begin_ : end_; // a read may wait for its bytes
    if (there > 0)
        order_.Add(place_, {.begin = first, .end = end_, .port = port, .way = way, .bytes = std::move(string->bytes)});
}

void Follower::Read()
{
    const int port = DataPort(Argument(0));
    if (port == kNoPort) {
        if (const auto file = FileOf(Argument(0)); file && file->image != nullptr)
            ReadImage(*file);
    } else if (const std::size_t count = Moved(port)) {
        Transfer(Way::kToHost, port, count);
    }
}

void Follower::ReadAtPlace()
{
    const int port = DataPort(Argument(0));
    const std::size_t count = port == kNoPort ? 0 : Moved(port);
    if (count > 0)
        Remark(port, Format("the %zu bytes of this ", count) + std::string(call_.name) +
                         " are left out, because other reads may bring them again");
}

void Follower::Write()
{
    const int port = DataPort(Argument(0));
    if (port == kNoPort)
        return;
    const bool pieces = call_.name == "writev" || call_.name == "pwritev";
    const std::int64_t asked = (pieces ? SizeOfPieces(Argument(1)) : StraceNumber(Argument(2))).value_or(0);
    const std::size_t count = Moved(port);
    if (count > 0)
        Transfer(Way::kToDevice, port, count);
    if (call_.number() >= 0 && call_.number() < asked) {
        begin_ = end_;
        Note(port, Format("write %zu of %lld bytes", count, static_cast<long long>(asked)));
    }
}

void Follower::Request()
{
    const std::uint32_t request = RequestOf(Argument(1));
    const bool matters = request == kSetConfig || request == kDisableRx;
    const int port = matters ? DataPort(Argument(0)) : kNoPort;
    if (port == kNoPort || call_.error().starts_with("ERESTART"))
        return;
    const bool disables = static_cast<std::uint32_t>(StraceNumber(Argument(2)).value_or(0)) != 0;
    const std::string note = request == kSetConfig ? "config mask ? baud ? parity ? stop ? flow ? data ?"
                             : disables            ? "rx disabled"
                                                   : "rx enabled";
    if (call_.number())
        Note(port, note + Refusal());
    else
        Remark(port, "the result of this request is not known: " + note);
}

// ---- Sizes of files

void Follower::ReadImage(OpenFile &file)
{
    const std::int64_t count = call_.number().value_or(-1);
    if (count < 0 || count > kLongestFile)
        return;
    Images::File &image = *file.image;
    const auto string = file.position == 0 ? ParseStraceString(Argument(1), kVersionText) : std::nullopt;
    if (string && image.head.size() < string->bytes.size())
        image.head = string->bytes;
    if (count == 0 && file.position >= image.seen)
        image.size = file.position;
    file.position = std::min(file.position + count, kLongestFile);
    image.seen = std::max(image.seen, file.position);
}

void Follower::Seek()
{
    SeekTo(call_.number().value_or(-1));
}

// The place is in an argument: _llseek(4, 0, [6144], SEEK_END) = 0.
void Follower::SeekFar()
{
    const std::string_view list = Argument(2).starts_with("[") ? Argument(2) : Argument(3);
    if (call_.number() == 0)
        SeekTo(StraceNumber(list.substr(list.starts_with("[") ? 1 : 0)).value_or(-1));
}

void Follower::SeekTo(std::int64_t place)
{
    const auto file = place < 0 || place > kLongestFile ? nullptr : FileOf(Argument(0));
    if (!file || file->image == nullptr)
        return;
    file->position = place;
    if (IsConstant(call_.arguments.back(), "SEEK_END", 2) && StraceNumber(Argument(1)) == 0)
        file->image->size = place;
}

// stat and its kin: the first arguments are a descriptor or a path, or both.
void Follower::State()
{
    constexpr std::string_view kSize = "_size=";
    Images::File *image = nullptr;
    for (std::size_t index = 0; index < 2 && image == nullptr; ++index) {
        const std::string_view argument = Argument(index);
        const auto file = argument.starts_with("{") || argument.starts_with("\"") ? nullptr : FileOf(argument);
        image = file ? file->image : images_.Find(PathOf(argument));
    }
    if (image == nullptr)
        return;
    image->missing = image->missing || call_.error() == "ENOENT";
    const std::size_t at = text_.rfind(kSize);
    if (call_.number() == 0 && at != std::string_view::npos)
        image->size = StraceNumber(text_.substr(at + kSize.size()));
}

// ---- Waits

// A wait of the main thread without descriptors.
void Follower::Wait()
{
    const bool pure = Argument(1) == "NULL" && Argument(2) == "NULL" && Argument(3) == "NULL";
    const auto time = TimeOutOf(Argument(4), call_.name.starts_with("pselect6"));
    const bool again = std::exchange(thread_->waitResumes, call_.error().starts_with("ERESTART"));
    if (pure && time && !again && IsProgram() && thread_->id == thread_->process->leader)
        Note(kNoPort, "wait " + std::to_string(*time));
}

} // namespace bench::strace
