// The parts of the reader of strace's text. Other modules do not include this file.
//   stracetext.cpp          lines of the text, and the two readings
//   stracetext_order.cpp    times, and the order of events
//   stracetext_images.cpp   what the text tells of the update's files
//   stracetext_threads.cpp  processes and threads, and calls that are not printed in one piece
//   stracetext_calls.cpp    what each call does to descriptors, ports and files
#pragma once

#include "bench/capture/straceline.h"
#include "bench/capture/stracetext.h"

#include <deque>
#include <map>
#include <memory>
#include <set>
#include <unordered_map>

namespace bench::strace
{

inline constexpr WallTime kLatest{100000000000000000}; // no sum of times overflows

// What the first reading finds.
struct Findings {
    RunInfo info = {};
    std::vector<std::string> remarks = {}; // on the text as a whole
    bool hasTimes = false;
    bool relative = false;   // numbers in front of lines count from the line before
    std::size_t program = 0; // the process that has to do with the ports
};

// ---- Times and order

// Makes times of the wall clock from those in front of the lines.
class Clock
{
public:
    explicit Clock(bool relative) : relative_(relative) {}

    WallTime now() const { return now_; }
    // Takes the time of the next line. Returns how far the clock was set back; 0: it was not.
    WallTime Take(const StraceTime &time);

private:
    const bool relative_;
    WallTime now_{0}, shift_{0};
};

// Finds out what kind of times a text has.
class TimeStyle
{
public:
    void Take(const StraceTime &time);
    bool has() const { return has_; }
    // The clock of an appliance may begin at 1970. So a small number may be an absolute time. But these never fall.
    bool relative() const { return falls_ && !large_; }
    std::vector<std::string> remarks() const;

private:
    bool has_ = false, ofDay_ = false, whole_ = false, large_ = false, falls_ = false;
    WallTime last_{0};
};

// Hands out events in the order in which their calls began. A call keeps its place while others end before it.
class Order
{
public:
    using Place = std::optional<std::size_t>;

    // An empty sink: nobody wants the events. The caller keeps the findings.
    Order(StraceText::Sink sink, const Findings &known) : sink_(std::move(sink)), known_(known) {}

    // Keeps a place for the events of a call that has begun.
    Place Keep();
    // Adds an event at a place that is kept, or else at the end.
    void Add(Place place, Event event);
    // There are no more events for that place.
    void End(Place place);

private:
    struct Entry {
        bool decided;
        std::vector<Event> events;
    };

    void HandOut();
    void Send(Event event);

    const StraceText::Sink sink_;
    const Findings &known_;
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
        std::optional<std::int64_t> size = {};
        std::int64_t seen = 0; // bytes
        bool missing = false;
        Bytes head = {}; // its first bytes
    };

    Images();
    // Null if the path is none of these files.
    File *Find(const std::string &path);
    // Adds to the files of the run, and to the remarks.
    void Describe(RunInfo &info, std::vector<std::string> &remarks) const;

private:
    std::map<std::string, File> files_;
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
    std::shared_ptr<OpenFile> file = {};
    bool closesOnExec = false;
};
using Table = std::map<std::int64_t, Slot>;

struct Process {
    std::size_t number; // in the order of their beginnings; a process that executes a program gets another
    int leader;         // id of its first thread
    std::string command = {}, program = {};
};

class Follower;

enum CallTrait : unsigned {
    kPlain = 0,
    kData = 1,   // the first argument is a descriptor; what passes may concern a port
    kEarly = 2,  // its events have the time of its beginning
    kAtOnce = 4, // what it does is done when it begins
    kForks = 8,
};

struct CallRow {
    std::string_view name;
    void (Follower::*play)();
    unsigned traits = kPlain;

    bool Is(CallTrait trait) const { return (traits & trait) != 0; }
};

// Null if the call does not matter.
const CallRow *RowOf(std::string_view name);

// A call that has begun and not ended.
struct OpenCall {
    const CallRow *row = nullptr; // null: there is no such call, or it does not matter
    std::string text = {};
    WallTime begin{0};
    std::size_t line = 0;
    int port = kNoPort; // that its descriptor led to when the call began
    Order::Place place = {};
    bool cut = false; // its line has no end, and there is no row
};

struct Thread {
    int id = 0;
    std::shared_ptr<Process> process = {};
    std::shared_ptr<Table> table = {};
    OpenCall call = {};
    bool orphan = true;       // nobody is known to have started it
    std::size_t born = 0;     // line of the call that started it, or of its own first line
    bool waitResumes = false; // the kernel starts its wait again
};

// ---- The calls

// Follows the processes of a text, their descriptors, and what passes on the ports.
class Follower
{
public:
    // The caller keeps ports and findings.
    Follower(const StraceText::PortPaths &ports, const Findings &known, StraceText::Sink sink)
        : ports_(ports), known_(known), order_(std::move(sink), known), clock_(known.relative)
    {
    }

    void Take(std::string_view line, std::size_t number);
    // The text has ended. Returns what was found in it.
    Findings Finish();

    // The calls, one function for each kind. They find the call in call_.
    void Open();
    void OpenAt();
    void Close();
    void CloseRange();
    void Duplicate();
    void Control();
    void MakeDescriptor();
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

private:
    void TakeCall(Thread &thread, const StraceLine &line);
    void TakeBeginning(Thread &thread, const StraceLine &line);
    void TakeEnd(Thread &thread, const StraceLine &line);
    void TakeFragment(std::string_view line);
    void PlayEnd(Thread &thread, const OpenCall &open);
    void Play(const CallRow &row, Thread &thread);
    void Abandon(Thread &thread);
    void MissEnd(const CallRow &row, std::string_view text, int port, std::size_t line);
    int PortOfCall(const CallRow &row, std::string_view text) const;

    Thread &ThreadOf(const StraceLine &line);
    Thread &NameUnnamed(int id);
    Thread &Begin(int id);
    void Adopt(Thread &parent, int id, std::string_view call, std::size_t line);
    void EndThread(int id, std::string_view how);
    void Supersede(Thread &thread, int other);
    void NoteEnd(std::string_view how);
    void Touch(int interest);
    bool IsProgram() const { return thread_->process->number == known_.program; }

    // Of the call that is played.
    std::string_view Argument(std::size_t index) const;
    int PortOf(std::string_view path) const;
    std::shared_ptr<OpenFile> FileOf(std::string_view descriptor);
    int DataPort(std::string_view descriptor);
    void Put(std::int64_t descriptor, Slot slot);
    void Drop(Table::iterator at);
    void OpenPath(std::size_t index);
    std::string Refusal() const;
    std::size_t Moved(int port);
    void Transfer(Way way, int port, std::size_t count);
    void ReadImage(OpenFile &file);
    void SeekTo(std::int64_t place);
    void Note(int port, const std::string &note);
    void Remark(int port, const std::string &text);

    const StraceText::PortPaths &ports_;
    const Findings &known_;
    Order order_;
    Clock clock_;
    TimeStyle style_;
    Images images_;
    Findings found_;
    int interest_ = 0;      // in the process that is found_.program
    std::size_t calls_ = 0; // lines that only strace prints

    std::unordered_map<int, Thread> threads_;
    int alone_ = 0;         // whose lines have no id; 0 is a thread whose id is not known yet
    std::set<int> forking_; // in a call that starts another
    std::size_t processes_ = 0;
    std::set<int> silent_; // ports whose latest read brought no byte

    bool ended_ = false;                 // the program
    std::optional<std::int64_t> status_; // that the program asked for

    // The call that is played.
    Thread *thread_ = nullptr;
    StraceCall call_;
    std::string_view text_;
    WallTime begin_{0}, end_{0};
    std::size_t line_ = 0;   // that remarks name
    int openPort_ = kNoPort; // that its descriptor led to when the call began
    Order::Place place_;
};

} // namespace bench::strace
