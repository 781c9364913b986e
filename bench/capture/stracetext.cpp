#include "bench/capture/stracetext.h"

#include "bench/capture/straceline.h"
#include "bench/rig/images.h"
#include "bench/standin/preload.h"

#include <algorithm>
#include <cctype>
#include <climits>
#include <deque>
#include <memory>
#include <set>
#include <unordered_map>
#include <utility>

namespace bench
{

namespace
{

constexpr char kDevice[] = "/dev/fpgaserial"; // and one digit
constexpr char kRelay[] = "/tmp/plaunch";
constexpr std::size_t kLongestLine = 16 << 20;
constexpr std::size_t kVersionText = 64; // more of a version file is not kept
constexpr std::int64_t kLargestPid = 1 << 22;
constexpr std::int64_t kLongestFile = 1LL << 40, kLongestRead = 1LL << 32;
constexpr WallTime kDay = std::chrono::hours(24);
constexpr WallTime kClockStep{1000};            // a clock that goes back by more than this was set
constexpr WallTime kLatest{100000000000000000}; // no sum of times overflows

} // namespace

// What the first reading finds.
struct StraceFindings {
    RunInfo info;
    std::vector<std::string> remarks; // on the text as a whole
    bool hasTimes = false;
    bool relative = false;   // numbers in front of lines count from the line before
    std::size_t program = 0; // the process that has to do with the ports
};

namespace
{

// ---- Lines

// Reads lines. The caller keeps the stream.
class Lines
{
public:
    explicit Lines(std::istream &stream) : stream_(stream), buffer_(kLongestLine)
    {
        stream_.clear();
        stream_.seekg(0);
    }

    // Number of the line that was read last. A line that was put together has the number of its first part.
    std::size_t number() const { return number_; }

    // Reads the next line. Without -o strace prints "Process 12 attached" into the middle of a call, which goes on in
    // the next line. Such a call is put together.
    bool Next(std::string_view &line)
    {
        number_ = ++read_;
        std::size_t size = 0;
        if (!Append(size))
            return false;
        for (std::size_t cut = CutOf({buffer_.data(), size}); cut > 0; cut = CutOf({buffer_.data(), size})) {
            size = cut;
            if (!Append(size))
                break;
            ++read_;
        }
        line = {buffer_.data(), size};
        return true;
    }

private:
    bool Append(std::size_t &size)
    {
        stream_.getline(buffer_.data() + size, static_cast<std::streamsize>(buffer_.size() - size));
        const auto count = static_cast<std::size_t>(stream_.gcount());
        if (stream_.fail() && !stream_.eof())
            throw StraceError(Format("line %zu: it is longer than %zu bytes", read_, kLongestLine));
        if (count == 0 && stream_.eof())
            return false;
        size += count - (stream_.eof() ? 0 : 1); // the end of the line counts
        return true;
    }

    // Where the text of strace begins that stands at the end of a piece of a call. 0: there is none.
    static std::size_t CutOf(std::string_view line)
    {
        constexpr std::string_view kBegin = "strace: Process ", kEnd = " attached";
        const std::size_t at = line.ends_with(kEnd) ? line.rfind(kBegin) : std::string_view::npos;
        return at == std::string_view::npos || line.substr(0, at).find('(') == std::string_view::npos ? 0 : at;
    }

    std::istream &stream_;
    std::vector<char> buffer_;
    std::size_t number_ = 0, read_ = 0;
};

// ---- Time

// Makes times of the wall clock from those in front of the lines.
class Clock
{
public:
    explicit Clock(bool relative) : relative_(relative) {}

    WallTime now() const { return now_; }

    // Takes the time of the next line. Returns how far the clock was set back; 0: it was not.
    WallTime Take(const StraceTime &time)
    {
        if (time.kind == StraceTime::Kind::kNone)
            return WallTime{0};
        WallTime next = time.value + shift_;
        if (time.kind == StraceTime::Kind::kNumber && relative_)
            next = now_ + time.value;
        if (time.kind == StraceTime::Kind::kOfDay && next < now_ - kDay / 2) {
            shift_ += kDay; // midnight
            next += kDay;
        }
        const WallTime back = std::max(now_ - next, WallTime{0});
        shift_ += back;
        now_ = std::min(std::max(now_, next), kLatest);
        shift_ = std::min(shift_, kLatest);
        return back > kClockStep ? back : WallTime{0};
    }

private:
    const bool relative_;
    WallTime now_{0}, shift_{0};
};

// Finds out what kind of times a text has.
class TimeStyle
{
public:
    void Take(const StraceTime &time)
    {
        has_ = has_ || time.kind != StraceTime::Kind::kNone;
        ofDay_ = ofDay_ || time.kind == StraceTime::Kind::kOfDay;
        whole_ = whole_ || time.wholeSeconds;
        if (time.kind != StraceTime::Kind::kNumber)
            return;
        numbers_ = true;
        large_ = large_ || time.value > kYears;
        falls_ = falls_ || time.value < last_ || time.value == WallTime{0};
        last_ = time.value;
    }

    // The clock of an appliance may begin at 1970. So a small number may be an absolute time. But these never fall.
    bool relative() const { return numbers_ && falls_ && !large_; }
    bool has() const { return has_; }

    std::vector<std::string> remarks() const
    {
        std::vector<std::string> remarks;
        if (!has_)
            remarks.emplace_back("! the text has no times (strace -ttt): the events are numbered a microsecond apart");
        else if (ofDay_ || relative())
            remarks.push_back(std::string("! the text has no date (strace -ttt): it begins ") +
                              (ofDay_ ? "on" : "at the first second of") + " 1970-01-01 here");
        if (whole_)
            remarks.emplace_back("! the times are whole seconds (strace -ttt has microseconds)");
        return remarks;
    }

private:
    static constexpr WallTime kYears = kDay * 1000; // no run takes that long
    bool has_ = false, ofDay_ = false, whole_ = false, numbers_ = false, large_ = false, falls_ = false;
    WallTime last_{0};
};

// ---- The order of events

// Hands out events in the order in which their calls began. A call keeps its place while others end before it.
class Order
{
public:
    using Place = std::optional<std::size_t>;

    Order(StraceText::Sink sink, const StraceFindings &known) : sink_(std::move(sink)), known_(known) {}

    // Keeps a place for the events of a call that has begun.
    Place Keep()
    {
        if (!sink_)
            return std::nullopt;
        waiting_.push_back({.decided = false, .events = {}});
        return first_ + waiting_.size() - 1;
    }

    // Adds an event at a place that is kept, or else at the end.
    void Add(Place place, Event event)
    {
        if (!sink_)
            return;
        waitingSize_ += sizeof event + event.bytes.size();
        if (place && *place >= first_)
            waiting_[*place - first_].events.push_back(std::move(event));
        else
            waiting_.push_back({.decided = true, .events = {std::move(event)}});
        HandOut();
    }

    // There are no more events for that place.
    void End(Place place)
    {
        if (place && *place >= first_)
            waiting_[*place - first_].decided = true;
        HandOut();
    }

private:
    struct Entry {
        bool decided;
        std::vector<Event> events;
    };
    static constexpr std::size_t kMostWaiting = 32 << 20; // bytes; then a call that does not end loses its place

    void HandOut()
    {
        for (; !waiting_.empty() && (waiting_.front().decided || waitingSize_ > kMostWaiting); ++first_) {
            for (Event &event : waiting_.front().events) {
                waitingSize_ -= sizeof event + event.bytes.size();
                Send(event);
            }
            waiting_.pop_front();
        }
    }

    void Send(Event &event)
    {
        for (const std::string &remark : std::exchange(begun_, true) ? std::vector<std::string>() : known_.remarks)
            SendAt({.begin = event.begin, .end = event.begin, .note = remark});
        SendAt(event);
    }

    void SendAt(Event event)
    {
        if (!known_.hasTimes)
            event.begin = event.end = last_ + WallTime{1};
        event.begin = last_ = std::max(event.begin, last_);
        event.end = std::max(event.end, event.begin);
        sink_(event);
    }

    const StraceText::Sink sink_; // empty: nobody wants the events
    const StraceFindings &known_;
    std::deque<Entry> waiting_;
    std::size_t first_ = 0; // place of the first that waits
    std::size_t waitingSize_ = 0;
    bool begun_ = false;
    WallTime last_{0};
};

// ---- Files of the update

class Images
{
public:
    struct File {
        std::optional<std::int64_t> size;
        std::int64_t seen = 0; // bytes
        bool missing = false;
        Bytes head; // of a version file
    };

    // Null if the path is none of an update's files.
    File *Find(const std::string &path)
    {
        const auto found = files_.find(path.substr(path.rfind('/') + 1));
        return found == files_.end() ? nullptr : &found->second;
    }

    void Describe(RunInfo &info, std::vector<std::string> &remarks) const
    {
        for (const char *name : {kMicroImage, kCameraImage, kSystemImage, kCameraVersion, kSystemVersion}) {
            const File &file = files_.at(name);
            const bool isText = name == std::string_view(kCameraVersion) || name == std::string_view(kSystemVersion);
            const std::string begin = name;
            if (file.seen == 0 && !file.size) {
                if (file.missing)
                    info.files.push_back(begin + " missing");
            } else if (isText) {
                info.files.push_back(begin + " text " + Shown(file.head));
            } else {
                info.files.push_back(begin +
                                     Format(" %lld bytes", static_cast<long long>(file.size.value_or(file.seen))));
                if (!file.size)
                    remarks.push_back("! the text does not show the end of " + begin + ", which may be longer");
            }
        }
    }

private:
    static std::string Shown(const Bytes &bytes)
    {
        std::string text;
        for (const std::uint8_t byte : bytes)
            text += std::isprint(byte) != 0 && byte != '\\' ? std::string(1, static_cast<char>(byte))
                                                            : Format("\\x%02X", byte);
        return text;
    }

    std::map<std::string, File, std::less<>> files_ = {
        {kMicroImage, {}}, {kCameraImage, {}}, {kSystemImage, {}}, {kCameraVersion, {}}, {kSystemVersion, {}}};
};

// ---- Processes

// What a descriptor leads to. Copies of a descriptor share it.
struct OpenFile {
    int port = kNoPort;
    Images::File *image = nullptr;
    std::int64_t position = 0;
    std::string shown = {}; // as strace -y shows it
    bool unknown = false;   // the text does not tell what it is
};

struct Slot {
    std::shared_ptr<OpenFile> file;
    bool closesOnExec = false;
};
using Table = std::map<std::int64_t, Slot>;

struct Process {
    std::size_t number; // in the order of their beginnings; a process that executes a program gets another
    int leader;         // id of its first thread
    std::string command = {}, program = {};
};

struct CallRow;

// A call that has begun and not ended.
struct OpenCall {
    const CallRow *row = nullptr; // null: there is none, or it does not matter
    std::string text = {};
    WallTime begin{0};
    std::size_t line = 0;
    int port = kNoPort; // that its descriptor led to when the call began
    Order::Place place = {};
    bool cut = false; // its line has no end, and there is no row
};

struct Thread {
    int id = 0;
    std::shared_ptr<Process> process;
    std::shared_ptr<Table> table;
    OpenCall call = {};
    bool orphan = true;       // nobody is known to have started it
    std::size_t born = 0;     // line of the call that started it, or of its own first line
    bool waitResumes = false; // the kernel starts its wait again
};

std::string_view AnglesOf(std::string_view descriptor)
{
    const std::size_t open = descriptor.find('<');
    return open == std::string_view::npos ? std::string_view() : descriptor.substr(open);
}

bool HasFlag(std::string_view text, std::string_view name, std::int64_t value)
{
    const std::int64_t number = StraceNumber(text).value_or(0);
    return text.find(name) != std::string_view::npos || (number & value) != 0;
}

// The flags of clone and clone3.
bool HasCloneFlag(std::string_view text, std::string_view name, std::int64_t value)
{
    constexpr std::string_view kWord = "flags=";
    const std::size_t at = text.find(kWord);
    return at != std::string_view::npos && HasFlag(text.substr(at + kWord.size()), name, value);
}

// Microseconds in "{tv_sec=3, tv_nsec=5000}", "{tv_sec=3, tv_usec=5}" and "{3, 5}".
std::optional<std::int64_t> TimeOutOf(std::string_view text, bool nanoseconds)
{
    constexpr std::int64_t kLongest = 1000000000; // seconds
    if (!text.starts_with("{"))
        return std::nullopt;
    const auto parts = SplitStrace(text.substr(1));
    if (parts.size() < 2)
        return std::nullopt;
    const auto valueOf = [](std::string_view part) { return StraceNumber(part.substr(part.find('=') + 1)); };
    const auto seconds = valueOf(parts[0]), rest = valueOf(parts[1]);
    if (!seconds || !rest || *seconds < 0 || *seconds > kLongest || *rest < 0 || *rest > kLongest)
        return std::nullopt;
    return *seconds * 1000000 + *rest / (nanoseconds ? 1000 : 1);
}

// The driver's request that an ioctl carries; 0: it is another. strace knows the parts of the number: the size 0x26,
// the type 0, the request's own number. The direction has another name on each kind of machine.
std::uint32_t RequestOf(std::string_view text)
{
    if (text.starts_with("_IOC(")) {
        const auto parts = SplitStrace(text.substr(5));
        constexpr std::uint32_t kHead = kSetConfig & ~0xFFU;
        const bool ours = parts.size() == 4 && parts[0] != "_IOC_NONE" && StraceNumber(parts[1]) == 0 &&
                          StraceNumber(parts[3]) == std::int64_t{(kHead >> 16) & 0xFF};
        return ours ? kHead | static_cast<std::uint32_t>(StraceNumber(parts[2]).value_or(0)) : 0;
    }
    return static_cast<std::uint32_t>(StraceNumber(text).value_or(0)); // the sign may be extended
}

std::optional<int> SignalNumber(std::string_view name)
{
    static constexpr std::string_view kNames[] = {"HUP",  "INT",    "QUIT", "ILL",   "TRAP", "ABRT", "BUS",  "FPE",
                                                  "KILL", "USR1",   "SEGV", "USR2",  "PIPE", "ALRM", "TERM", "STKFLT",
                                                  "CHLD", "CONT",   "STOP", "TSTP",  "TTIN", "TTOU", "URG",  "XCPU",
                                                  "XFSZ", "VTALRM", "PROF", "WINCH", "IO",   "PWR",  "SYS"};
    if (name.starts_with("SIGRT_"))
        return 32 + static_cast<int>(StraceNumber(name.substr(6)).value_or(0) & 0x1F);
    const auto *found =
        std::find(std::begin(kNames), std::end(kNames), name.substr(std::min<std::size_t>(3, name.size())));
    if (found == std::end(kNames))
        return std::nullopt;
    return static_cast<int>(found - std::begin(kNames)) + 1;
}

// Bytes that a list of pieces has, such as [{iov_base="ab", iov_len=2}, {"c", 1}].
std::optional<std::int64_t> AskedOf(std::string_view list)
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

// The words of an array of strings, with quotes where a shell needs them.
std::string CommandOf(std::string_view list)
{
    std::string command;
    for (const std::string_view part : SplitStrace(list.starts_with("[") ? list.substr(1) : list)) {
        const auto string = ParseStraceString(part);
        if (!string)
            continue;
        std::string word(string->bytes.begin(), string->bytes.end());
        word += string->cut ? "..." : "";
        const bool plain =
            !word.empty() && word.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                                    "0123456789_@%+=:,./-") == std::string::npos;
        for (std::size_t at = 0; !plain && (at = word.find('\'', at)) != std::string::npos; at += 4)
            word.replace(at, 1, "'\\''");
        command += (command.empty() ? "" : " ") + (plain ? word : "'" + word + "'");
    }
    return command;
}

// ---- The calls

// Follows the processes of a text, their descriptors, and what passes on the ports.
class Follower
{
public:
    Follower(const StraceText::PortPaths &ports, const StraceFindings &known, StraceText::Sink sink)
        : ports_(ports), known_(known), order_(std::move(sink), known), clock_(known.relative)
    {
    }

    void Take(std::string_view line, std::size_t number);
    // The text has ended. Returns what was found in it.
    StraceFindings Finish();

    // The calls, one function for each kind. They find the call in call_.
    void Open();
    void OpenAt();
    void Close();
    void CloseRange();
    void Duplicate();
    void Control();
    void Request();
    void Read();
    void ReadAtPlace();
    void Write();
    void Seek();
    void SeekFar();
    void State();
    void Wait();
    void Fork();
    void Unshare();
    void Execute();
    void Exit();
    void MakeDescriptor();

private:
    Thread &ThreadOf(const StraceLine &line);
    Thread &Begin(int id);
    void Adopt(Thread &parent, int id, std::string_view call, std::size_t line);
    void TakeCall(Thread &thread, const StraceLine &line);
    void TakeBeginning(Thread &thread, const StraceLine &line);
    void TakeEnd(Thread &thread, const StraceLine &line);
    void TakeFragment(std::string_view line);
    void Abandon(Thread &thread);
    void MissEnd(const CallRow &row, std::string_view text, int port, std::size_t line);
    void EndThread(int id, std::string_view how);
    void Play(const CallRow &row, Thread &thread);

    // Of the call that is played.
    std::string_view Argument(std::size_t index) const;
    bool IsPort(std::string_view descriptor, int &port);
    std::shared_ptr<OpenFile> FileOf(std::string_view descriptor);
    int PortOf(std::string_view path) const;
    void OpenPath(std::size_t index);
    void Put(std::int64_t descriptor, Slot slot);
    void Drop(Table::iterator at);
    std::size_t Moved(int port);
    void Transfer(Way way, int port, std::size_t count, std::optional<StraceString> string);
    void ReadImage(OpenFile &file);
    void SeekTo(OpenFile &file, std::int64_t place);
    void Touch(int interest);
    void Note(int port, const std::string &note, std::optional<WallTime> time = {});
    void Remark(int port, const std::string &text);
    bool IsProgram() const { return thread_->process->number == known_.program; }

    const StraceText::PortPaths &ports_;
    const StraceFindings &known_;
    Order order_;
    Clock clock_;
    TimeStyle style_;
    Images images_;
    StraceFindings found_;
    int interest_ = 0; // in the process that is found_.program

    std::size_t line_ = 0;
    std::size_t calls_ = 0; // lines that only strace prints
    std::unordered_map<int, Thread> threads_;
    int alone_ = 0;         // whose lines have no id; 0 is a thread whose id is not known yet
    std::set<int> forking_; // in a call that starts another
    std::size_t processes_ = 0;
    std::set<int> silent_; // ports whose latest read brought no byte

    // The end of the program.
    bool ended_ = false;
    std::optional<std::pair<WallTime, std::int64_t>> status_; // that it asked for

    // The call that is played.
    Thread *thread_ = nullptr;
    StraceCall call_;
    std::string_view text_;
    WallTime begin_{0}, end_{0};
    std::size_t at_ = 0; // line that remarks name
    int openPort_ = kNoPort;
    Order::Place place_;
};

enum CallTrait : unsigned {
    kPlain = 0,
    kDescriptor = 1, // the first argument is one
    kData = 2,       // bytes or requests pass, which may concern a port
    kEarly = 4,      // its events have the time of its beginning
    kAtOnce = 8,     // what it does is done when it begins
    kForks = 16,
};

struct CallRow {
    std::string_view name;
    void (Follower::*play)();
    unsigned traits = kPlain;
};

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
    {"ioctl", &Follower::Request, kDescriptor | kData | kEarly},
    {"read", &Follower::Read, kDescriptor | kData},
    {"readv", &Follower::Read, kDescriptor | kData},
    {"pread64", &Follower::ReadAtPlace, kDescriptor | kData},
    {"preadv", &Follower::ReadAtPlace, kDescriptor | kData},
    {"write", &Follower::Write, kDescriptor | kData | kEarly},
    {"writev", &Follower::Write, kDescriptor | kData | kEarly},
    {"pwrite64", &Follower::Write, kDescriptor | kData | kEarly},
    {"pwritev", &Follower::Write, kDescriptor | kData | kEarly},
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
    {"pipe", &Follower::MakeDescriptor},
    {"pipe2", &Follower::MakeDescriptor},
    {"socketpair", &Follower::MakeDescriptor},
    {"socket", &Follower::MakeDescriptor},
    {"accept", &Follower::MakeDescriptor},
    {"accept4", &Follower::MakeDescriptor},
    {"memfd_create", &Follower::MakeDescriptor},
    {"eventfd2", &Follower::MakeDescriptor},
    {"epoll_create1", &Follower::MakeDescriptor},
    {"timerfd_create", &Follower::MakeDescriptor},
};

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

// ---- Lines

void Follower::Take(std::string_view text, std::size_t number)
{
    line_ = at_ = number;
    const StraceLine line = ParseStraceLine(text);
    if (line.kind == StraceLine::Kind::kForeign) {
        TakeFragment(text);
        return;
    }
    style_.Take(line.time);
    const WallTime back = clock_.Take(line.time);
    begin_ = end_ = clock_.now();
    Thread &thread = ThreadOf(line);
    thread_ = &thread;
    if (back > WallTime{0})
        Remark(kNoPort, Format("the clock was set back by %lld us; the times do not follow it",
                               static_cast<long long>(back.count())));
    switch (line.kind) {
    case StraceLine::Kind::kCall:
        TakeCall(thread, line);
        break;
    case StraceLine::Kind::kUnfinished:
        TakeBeginning(thread, line);
        break;
    case StraceLine::Kind::kResumed:
        TakeEnd(thread, line);
        break;
    case StraceLine::Kind::kEnded:
        ++calls_;
        EndThread(thread.id, line.text);
        break;
    case StraceLine::Kind::kOther:
    case StraceLine::Kind::kForeign:
        break;
    }
}

void Follower::TakeCall(Thread &thread, const StraceLine &line)
{
    Abandon(thread);
    const CallRow *row = RowOf(line.name);
    if (row == nullptr && calls_ > 0) // the usual line
        return;
    if (!ParseStraceCall(line.text, call_)) {
        thread.call.cut = true;
        if (row != nullptr)
            MissEnd(*row, line.text, kNoPort, line_);
        return;
    }
    ++calls_;
    if (row == nullptr)
        return;
    begin_ = clock_.now();
    at_ = line_;
    text_ = line.text;
    Play(*row, thread);
}

void Follower::TakeBeginning(Thread &thread, const StraceLine &line)
{
    Abandon(thread);
    ++calls_;
    const CallRow *row = RowOf(line.name);
    if (row == nullptr)
        return;
    thread.call = {.row = row, .text = std::string(line.text), .begin = clock_.now(), .line = line_};
    if ((row->traits & kForks) != 0)
        forking_.insert(thread.id);
    if ((row->traits & kDescriptor) != 0) {
        const std::string_view descriptor = line.text.substr(line.text.find('(') + 1);
        const auto slot = thread.table->find(StraceNumber(descriptor).value_or(-1));
        if (slot != thread.table->end())
            thread.call.port = slot->second.file->port;
    }
    if ((row->traits & kEarly) != 0)
        thread.call.place = order_.Keep();
    if ((row->traits & kAtOnce) != 0 && ParseStraceCall(thread.call.text += ") = 0", call_)) {
        begin_ = clock_.now();
        at_ = line_;
        Play(*row, thread);
    }
}

void Follower::TakeEnd(Thread &thread, const StraceLine &line)
{
    ++calls_;
    OpenCall open = std::exchange(thread.call, {});
    forking_.erase(thread.id);
    const CallRow *row = RowOf(line.name);
    if (open.row == nullptr) {
        if (!open.cut && row != nullptr && (row->traits & kData) != 0)
            Remark(kNoPort, "the beginning of this " + std::string(row->name) + " is missing");
        return;
    }
    if ((open.row->traits & kAtOnce) != 0) {
        thread.waitResumes = line.text.find("= ? ERESTART") != std::string_view::npos;
        return;
    }
    open.text += line.text;
    if (ParseStraceCall(open.text, call_)) {
        begin_ = open.begin;
        end_ = clock_.now();
        text_ = open.text;
        at_ = open.line;
        openPort_ = open.port;
        place_ = open.place;
        Play(*open.row, thread);
    } else {
        MissEnd(*open.row, open.text, open.port, open.line);
    }
    openPort_ = kNoPort;
    place_.reset();
    order_.End(open.place);
}

// A line that is not of strace. It matters if it is the rest of a call whose beginning was cut off.
void Follower::TakeFragment(std::string_view line)
{
    const std::size_t at = line.find(") = ");
    const bool result = at != std::string_view::npos && at > 0 && StraceNumber(line.substr(at + 4)).has_value();
    if (result)
        Remark(kNoPort, "this line has no beginning");
}

void Follower::Play(const CallRow &row, Thread &thread)
{
    thread_ = &thread;
    if (call_.duration)
        end_ = std::min(begin_ + *call_.duration, kLatest);
    (this->*row.play)();
    if (row.play != &Follower::Wait)
        thread.waitResumes = false;
}

// The thread goes on, or has ended, without the end of its call.
void Follower::Abandon(Thread &thread)
{
    const OpenCall open = std::exchange(thread.call, {});
    forking_.erase(thread.id);
    if (open.row == nullptr)
        return;
    thread_ = &thread;
    begin_ = open.begin;
    place_ = open.place;
    if ((open.row->traits & kAtOnce) == 0)
        MissEnd(*open.row, open.text, open.port, open.line);
    place_.reset();
    order_.End(open.place);
}

void Follower::MissEnd(const CallRow &row, std::string_view text, int port, std::size_t line)
{
    at_ = line;
    text.remove_prefix(std::min(text.find('(') + 1, text.size()));
    if ((row.traits & kDescriptor) != 0 && port == kNoPort) {
        const auto slot = thread_->table->find(StraceNumber(text).value_or(-1));
        port = slot != thread_->table->end() ? slot->second.file->port : PortOf(StracePath(text).value_or(""));
    } else if (row.play == &Follower::Open || row.play == &Follower::OpenAt) {
        const auto path = ParseStraceString(text, PATH_MAX);
        port = path ? PortOf({reinterpret_cast<const char *>(path->bytes.data()), path->bytes.size()}) : kNoPort;
    }
    if (port != kNoPort)
        Remark(port, "the end of this " + std::string(row.name) + " is missing, so its result is not known");
}

// ---- Processes

// A line without an id is of the only thread there is. That thread's id comes with its first line that has one.
Thread &Follower::ThreadOf(const StraceLine &line)
{
    if (!line.pid)
        return Begin(alone_);
    if (threads_.contains(*line.pid))
        return threads_.at(*line.pid);
    const auto unnamed = threads_.find(0);
    const bool child = !forking_.empty() && line.kind != StraceLine::Kind::kResumed;
    if (unnamed != threads_.end() && !child) {
        auto node = threads_.extract(unnamed);
        node.key() = alone_ = node.mapped().id = *line.pid;
        if (node.mapped().process->leader == 0)
            node.mapped().process->leader = *line.pid;
        if (forking_.erase(0) > 0)
            forking_.insert(*line.pid);
        return threads_.insert(std::move(node)).position->second;
    }
    if (child && forking_.size() == 1) {
        Thread &parent = threads_.at(*forking_.begin());
        Adopt(parent, *line.pid, parent.call.text, parent.call.line);
    }
    return Begin(*line.pid);
}

// Finds a thread. One that is not known yet is a process, and nobody knows who started it.
Thread &Follower::Begin(int id)
{
    const auto [at, fresh] = threads_.try_emplace(id);
    Thread &thread = at->second;
    if (fresh) {
        thread.id = id;
        thread.process = std::make_shared<Process>(Process{.number = ++processes_, .leader = id});
        thread.table = std::make_shared<Table>();
        thread.born = line_;
    }
    return thread;
}

// line is that of the call. A thread that is there already is the child, if it appeared behind the beginning of the
// call. Otherwise its id was used before.
void Follower::Adopt(Thread &parent, int id, std::string_view call, std::size_t line)
{
    const auto found = threads_.find(id);
    if (id == parent.id || (found != threads_.end() && found->second.born == line && !found->second.orphan))
        return;
    if (found != threads_.end() && (!found->second.orphan || found->second.born < line))
        EndThread(id, "");
    thread_ = &parent;
    Thread &child = Begin(id);
    child.orphan = false;
    child.born = line;
    if (HasCloneFlag(call, "CLONE_THREAD", 0x10000))
        child.process = parent.process;
    if (HasCloneFlag(call, "CLONE_FILES", 0x400)) {
        child.table = parent.table;
    } else {
        auto table = std::make_shared<Table>(*parent.table);
        for (const auto &[number, slot] : *child.table) // what it did before its start was known
            table->insert_or_assign(number, slot);
        child.table = std::move(table);
    }
}

void Follower::EndThread(int id, std::string_view how)
{
    constexpr std::string_view kExited = "exited with ", kKilled = "killed by ",
                               kReplaced = "superseded by execve in pid ";
    const auto at = threads_.find(id);
    if (at == threads_.end())
        return;
    Thread &thread = at->second;
    thread_ = &thread;
    Abandon(thread);
    const bool programs = id == thread.process->leader && IsProgram() && !ended_;
    if (how.starts_with(kReplaced)) {
        const auto other = threads_.find(static_cast<int>(StraceNumber(how.substr(kReplaced.size())).value_or(-1)));
        if (other == threads_.end() || other == at)
            return;
        Thread next = std::move(other->second);
        forking_.erase(other->first);
        threads_.erase(other);
        next.id = id;
        threads_.at(id) = std::move(next);
        return;
    }
    if (programs && how.starts_with(kExited)) {
        ended_ = true;
        Note(kNoPort, "exit " + std::to_string(StraceNumber(how.substr(kExited.size())).value_or(0)), clock_.now());
    } else if (programs && how.starts_with(kKilled)) {
        ended_ = true;
        const std::string_view name = how.substr(kKilled.size(), how.find(' ', kKilled.size()) - kKilled.size());
        if (const auto signal = SignalNumber(name))
            Note(kNoPort, "signal " + std::to_string(*signal), clock_.now());
        else
            Remark(kNoPort, "the program was ended by a signal with an unknown name");
    }
    threads_.erase(at);
    if (threads_.size() == 1)
        alone_ = threads_.begin()->first;
}

void Follower::Fork()
{
    const std::int64_t child = call_.number().value_or(0);
    if (child > 0 && child <= kLargestPid)
        Adopt(*thread_, static_cast<int>(child), text_, at_);
}

void Follower::Unshare()
{
    if (call_.number() == 0 && HasFlag(Argument(0), "CLONE_FILES", 0x400))
        thread_->table = std::make_shared<Table>(*thread_->table);
}

void Follower::Execute()
{
    if (call_.number() != 0)
        return;
    const bool at = call_.name == "execveat";
    const auto path = ParseStraceString(Argument(at ? 1 : 0), PATH_MAX);
    std::string program = path ? std::string(path->bytes.begin(), path->bytes.end()) : "";
    program.erase(0, program.rfind('/') + 1);
    thread_->process = std::make_shared<Process>(Process{.number = ++processes_,
                                                         .leader = thread_->id,
                                                         .command = CommandOf(Argument(at ? 2 : 1)),
                                                         .program = std::move(program)});
    thread_->table = std::make_shared<Table>(*thread_->table);
    for (auto slot = thread_->table->begin(); slot != thread_->table->end();) {
        const auto next = std::next(slot);
        if (slot->second.closesOnExec)
            Drop(slot);
        slot = next;
    }
    Touch(1);
}

void Follower::Exit()
{
    if (IsProgram())
        status_ = {begin_, StraceNumber(Argument(0)).value_or(0) & 0xFF};
}

// The process that has most to do with the ports is the program: 1: it is one, 2: it opens ports, 3: bytes pass.
void Follower::Touch(int interest)
{
    if (interest <= interest_)
        return;
    interest_ = interest;
    found_.program = thread_->process->number;
    found_.info.command = thread_->process->command;
    found_.info.program = thread_->process->program;
}

StraceFindings Follower::Finish()
{
    if (calls_ == 0)
        throw StraceError("there is no line of strace in the text");
    std::vector<int> ids;
    for (const auto &[id, thread] : threads_)
        ids.push_back(id);
    std::sort(ids.begin(), ids.end());
    for (const int id : ids)
        Abandon(threads_.at(id));
    if (!ended_ && status_)
        order_.Add({},
                   {.begin = status_->first, .end = status_->first, .note = "exit " + std::to_string(status_->second)});
    else if (!ended_)
        order_.Add(
            {},
            {.begin = clock_.now(), .end = clock_.now(), .note = "! the text does not show the end of the program"});
    found_.info.source = "strace";
    found_.remarks = style_.remarks();
    images_.Describe(found_.info, found_.remarks);
    found_.hasTimes = style_.has();
    found_.relative = style_.relative();
    return std::move(found_);
}

// ---- Descriptors

std::string_view Follower::Argument(std::size_t index) const
{
    return index < call_.arguments.size() ? call_.arguments[index] : std::string_view();
}

int Follower::PortOf(std::string_view path) const
{
    constexpr std::string_view kPrefix = kDevice;
    if (const auto found = ports_.find(std::string(path)); found != ports_.end())
        return found->second;
    const bool numbered = path.size() == kPrefix.size() + 1 && path.starts_with(kPrefix) &&
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
    const std::string_view shown = AnglesOf(descriptor);
    Slot &slot = (*thread_->table)[*number];
    if (slot.file && (shown.empty() || slot.file->shown == shown))
        return slot.file;
    if (slot.file && slot.file->shown.empty() && !slot.file->unknown) {
        slot.file->shown = shown;
        return slot.file;
    }
    slot.file = std::make_shared<OpenFile>();
    slot.file->unknown = shown.empty();
    slot.file->shown = shown;
    slot.file->port = PortOf(StracePath(descriptor).value_or(""));
    if (slot.file->port != kNoPort)
        Remark(slot.file->port, "the text does not show how descriptor " + std::to_string(*number) + " was opened");
    return slot.file;
}

// Whether a call with data concerns a port. A descriptor that may be one and is not known is said once.
bool Follower::IsPort(std::string_view descriptor, int &port)
{
    port = openPort_;
    if (port != kNoPort)
        return true;
    if (call_.error() == "EBADF")
        return false;
    const auto file = FileOf(descriptor);
    if (!file)
        return false;
    const std::int64_t number = StraceNumber(descriptor).value_or(0);
    if (file->unknown && number > 2) {
        file->unknown = false;
        Remark(kNoPort, "the text does not show what descriptor " + std::to_string(number) +
                            " is, so its bytes are left out (strace -y names it)");
    }
    port = file->port;
    return port != kNoPort;
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
    if (file && file->port != kNoPort && file.use_count() == 1)
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
    const auto string = ParseStraceString(Argument(index), PATH_MAX);
    const std::string path = string ? std::string(string->bytes.begin(), string->bytes.end()) : "";
    const std::string error(call_.error());
    Slot slot = {.file = std::make_shared<OpenFile>(),
                 .closesOnExec = HasFlag(Argument(index + 1), "O_CLOEXEC", 02000000)};
    OpenFile &file = *slot.file;
    file.shown = AnglesOf(call_.result);
    file.port = PortOf(path);
    if (file.port == kNoPort)
        file.port = PortOf(StracePath(call_.result).value_or(""));
    file.image = images_.Find(path);
    if (file.image != nullptr)
        file.image->missing = file.image->missing || error == "ENOENT";
    if (file.port != kNoPort)
        Touch(2);
    if (!error.starts_with("ERESTART") && !error.empty() && path == kRelay)
        Note(kNoPort, "open relay refused " + error);
    else if (!error.starts_with("ERESTART") && !error.empty() && file.port != kNoPort)
        Note(file.port, "open refused " + error);
    const std::int64_t descriptor = call_.number().value_or(-1);
    if (descriptor < 0)
        return;
    if (path == kRelay)
        Note(kNoPort, "open relay");
    const int port = file.port;
    Put(descriptor, std::move(slot));
    if (port != kNoPort)
        Note(port, "open");
}

// It takes effect when it begins: another thread may get the number before it ends.
void Follower::Close()
{
    const auto at = thread_->table->find(StraceNumber(Argument(0)).value_or(-1));
    const auto port = PortOf(StracePath(Argument(0)).value_or(""));
    if (at != thread_->table->end())
        Drop(at);
    else if (port != kNoPort)
        Note(port, "close");
}

void Follower::CloseRange()
{
    const auto first = StraceNumber(Argument(0)), last = StraceNumber(Argument(1));
    if (call_.number() != 0 || !first || !last)
        return;
    if (HasFlag(Argument(2), "CLOSE_RANGE_UNSHARE", 2))
        thread_->table = std::make_shared<Table>(*thread_->table);
    const bool atExec = HasFlag(Argument(2), "CLOSE_RANGE_CLOEXEC", 4);
    const std::int64_t end = Argument(1).starts_with("~") ? INT64_MAX : *last;
    for (auto slot = thread_->table->lower_bound(*first); slot != thread_->table->end() && slot->first <= end;) {
        const auto next = std::next(slot);
        if (atExec)
            slot->second.closesOnExec = true;
        else
            Drop(slot);
        slot = next;
    }
}

void Follower::Duplicate()
{
    const auto copy = call_.number();
    if (!copy || *copy < 0 || StraceNumber(Argument(0)) == copy)
        return;
    if (const auto file = FileOf(Argument(0)))
        Put(*copy, {file, HasFlag(Argument(2), "O_CLOEXEC", 02000000)});
}

void Follower::Control()
{
    constexpr std::int64_t kDuplicate = 0, kSetFlags = 2, kDuplicateClosing = 1030;
    const std::string_view command = Argument(1);
    const auto number = StraceNumber(command);
    const bool closing = command == "F_DUPFD_CLOEXEC" || number == kDuplicateClosing;
    const auto copy = call_.number();
    const auto file = copy && *copy >= 0 ? FileOf(Argument(0)) : nullptr;
    if (!file)
        return;
    if (closing || command == "F_DUPFD" || number == kDuplicate)
        Put(*copy, {file, closing});
    else if (command == "F_SETFD" || number == kSetFlags)
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
    for (const std::string_view descriptor : made) {
        Slot slot = {.file = std::make_shared<OpenFile>(),
                     .closesOnExec = text_.find("CLOEXEC") != std::string_view::npos};
        slot.file->shown = AnglesOf(descriptor);
        if (const auto number = StraceNumber(descriptor))
            Put(*number, std::move(slot));
    }
}

// ---- Events

void Follower::Note(int port, const std::string &note, std::optional<WallTime> time)
{
    const WallTime at = time.value_or(begin_);
    order_.Add(place_, {.begin = at, .end = at, .port = port, .note = note});
}

void Follower::Remark(int port, const std::string &text)
{
    Note(port, "! line " + std::to_string(at_) + ": " + text);
}

// What is said of a call that moved no byte, or whose number of bytes is not known. Returns the number of bytes.
std::size_t Follower::Moved(int port)
{
    const auto count = call_.number();
    const std::string error(call_.error()), name(call_.name);
    const bool writes = name.find("write") != std::string::npos;
    if (error.starts_with("ERESTART")) // the program does not see that
        return 0;
    if (!count) {
        Remark(port, "the result of this " + name + " is not known");
        return 0;
    }
    if (*count < 0)
        Note(port, (writes ? "write refused " : "read refused ") + error);
    else if (*count == 0 && !writes && silent_.insert(port).second)
        Remark(port, "this read brought no byte, and so do those behind it that are not in the capture");
    if (*count > 0 && !writes)
        silent_.erase(port);
    return *count > 0 ? static_cast<std::size_t>(*count) : 0;
}

// The bytes of a call that moved that many.
void Follower::Transfer(Way way, int port, std::size_t count, std::optional<StraceString> string)
{
    Touch(3);
    const std::string name(call_.name);
    if (!string) {
        Remark(port, Format("the text does not have the %zu bytes of this ", count) + name);
        return;
    }
    if (string->bytes.size() < count && string->cut)
        throw StraceError(Format("line %zu: strace has cut the bytes of this ", at_) + name +
                          "; the option -s 262144 keeps them");
    if (string->bytes.size() < count)
        Remark(port, Format("the text has only %zu of the %zu bytes of this ", string->bytes.size(), count) + name);
    const WallTime first = way == Way::kToDevice ? begin_ : end_;
    order_.Add(place_, {.begin = first, .end = end_, .port = port, .way = way, .bytes = std::move(string->bytes)});
}

void Follower::Read()
{
    int port = kNoPort;
    if (!IsPort(Argument(0), port)) {
        const auto file = FileOf(Argument(0));
        if (file && file->image != nullptr)
            ReadImage(*file);
        return;
    }
    if (const std::size_t count = Moved(port))
        Transfer(Way::kToHost, port, count, ParseStraceStrings(Argument(1), count));
}

void Follower::ReadAtPlace()
{
    int port = kNoPort;
    if (!IsPort(Argument(0), port))
        return;
    if (const std::size_t count = Moved(port))
        Remark(port, Format("this %s has %zu bytes; they are left out, because other reads may bring them again",
                            std::string(call_.name).c_str(), count));
}

void Follower::ReadImage(OpenFile &file)
{
    const std::int64_t count = std::min<std::int64_t>(call_.number().value_or(-1), kLongestRead);
    if (count < 0)
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

void Follower::Write()
{
    int port = kNoPort;
    if (!IsPort(Argument(0), port))
        return;
    const std::size_t count = Moved(port);
    const bool whole = call_.name == "writev" || call_.name == "pwritev";
    const std::optional<std::int64_t> asked = whole ? AskedOf(Argument(1)) : StraceNumber(Argument(2));
    if (count > 0)
        Transfer(Way::kToDevice, port, count, ParseStraceStrings(Argument(1), count));
    if (asked && call_.number() >= 0 && static_cast<std::size_t>(*asked) > count) {
        begin_ = end_;
        Note(port, Format("write %zu of %lld bytes", count, static_cast<long long>(*asked)));
    }
}

void Follower::Request()
{
    const std::uint32_t request = RequestOf(Argument(1));
    if (request != kSetConfig && request != kDisableRx)
        return;
    int port = kNoPort;
    if (!IsPort(Argument(0), port) || call_.error().starts_with("ERESTART"))
        return;
    const std::string error(call_.error());
    std::string note = "config mask ? baud ? parity ? stop ? flow ? data ?";
    if (request == kDisableRx)
        note = static_cast<std::uint32_t>(StraceNumber(Argument(2)).value_or(0)) != 0 ? "rx disabled" : "rx enabled";
    if (call_.number() || !error.empty())
        Note(port, note + (error.empty() ? "" : " refused " + error));
    else
        Remark(port, "the result of this request is not known: " + note);
}

// ---- Sizes of files

void Follower::Seek()
{
    const auto file = FileOf(Argument(0));
    const auto place = call_.number();
    if (!file || file->image == nullptr || !place || *place < 0)
        return;
    SeekTo(*file, *place);
}

// The place is in an argument: _llseek(4, 0, [6144], SEEK_END) = 0.
void Follower::SeekFar()
{
    const auto file = FileOf(Argument(0));
    const std::string_view list = Argument(2).starts_with("[") ? Argument(2) : Argument(3);
    const std::int64_t place = StraceNumber(list.substr(list.starts_with("[") ? 1 : 0)).value_or(-1);
    if (file && file->image != nullptr && call_.number() == 0 && place >= 0)
        SeekTo(*file, place);
}

void Follower::SeekTo(OpenFile &file, std::int64_t place)
{
    const std::string_view whence = call_.arguments.back();
    file.position = std::min(place, kLongestFile);
    if ((whence == "SEEK_END" || whence == "2") && StraceNumber(Argument(1)) == 0)
        file.image->size = place;
}

// stat and its kin: the first arguments are a descriptor or a path, or both.
void Follower::State()
{
    constexpr std::string_view kSize = "_size=";
    Images::File *image = nullptr;
    for (std::size_t index = 0; index < 2 && image == nullptr; ++index) {
        const std::string_view argument = Argument(index);
        const auto path = argument.starts_with("\"") ? ParseStraceString(argument, PATH_MAX) : std::nullopt;
        if (path)
            image = images_.Find({path->bytes.begin(), path->bytes.end()});
        else if (const auto file = argument.starts_with("{") ? nullptr : FileOf(argument))
            image = file->image;
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

} // namespace

// ---- The text

StraceText::StraceText(std::istream &text, PortPaths ports)
    : text_(text), ports_(std::move(ports)), findings_(std::make_unique<StraceFindings>())
{
    *findings_ = Follow({});
}

StraceText::~StraceText() = default;

const RunInfo &StraceText::info() const
{
    return findings_->info;
}

void StraceText::HandOut(const Sink &sink)
{
    Follow(sink);
}

StraceFindings StraceText::Follow(const Sink &sink)
{
    Follower follower(ports_, *findings_, sink);
    Lines lines(text_);
    for (std::string_view line; lines.Next(line);)
        follower.Take(line, lines.number());
    return follower.Finish();
}

} // namespace bench
