#include "bench/capture/stracetext_inner.h"

#include <algorithm>
#include <climits>
#include <utility>

namespace bench::strace
{

namespace
{

constexpr std::int64_t kLargestPid = 1 << 22;

// The flags of clone and clone3, as names or as a number.
bool HasCloneFlag(std::string_view call, std::string_view name, std::int64_t value)
{
    constexpr std::string_view kWord = "flags=";
    const std::size_t at = call.find(kWord);
    if (at == std::string_view::npos)
        return false;
    const std::string_view flags = call.substr(at + kWord.size());
    return flags.find(name) != std::string_view::npos || (StraceNumber(flags).value_or(0) & value) != 0;
}

// The number of a signal as strace names it.
std::optional<int> SignalNumber(std::string_view name)
{
    static constexpr std::string_view kNames[] = {
        "SIGHUP",  "SIGINT",    "SIGQUIT", "SIGILL",   "SIGTRAP", "SIGABRT", "SIGBUS",  "SIGFPE",
        "SIGKILL", "SIGUSR1",   "SIGSEGV", "SIGUSR2",  "SIGPIPE", "SIGALRM", "SIGTERM", "SIGSTKFLT",
        "SIGCHLD", "SIGCONT",   "SIGSTOP", "SIGTSTP",  "SIGTTIN", "SIGTTOU", "SIGURG",  "SIGXCPU",
        "SIGXFSZ", "SIGVTALRM", "SIGPROF", "SIGWINCH", "SIGIO",   "SIGPWR",  "SIGSYS"};
    constexpr std::string_view kRealTime = "SIGRT_";
    if (name.starts_with(kRealTime))
        return 32 + static_cast<int>(StraceNumber(name.substr(kRealTime.size())).value_or(0) & 0x1F);
    const auto *found = std::find(std::begin(kNames), std::end(kNames), name);
    if (found == std::end(kNames))
        return std::nullopt;
    return static_cast<int>(found - std::begin(kNames)) + 1;
}

// The words of an array of strings, as a shell needs them.
std::string CommandOf(std::string_view list)
{
    std::vector<std::string> words;
    for (const std::string_view part : SplitStrace(list.substr(list.starts_with("[") ? 1 : 0)))
        if (const auto string = ParseStraceString(part))
            words.push_back(std::string(string->bytes.begin(), string->bytes.end()) + (string->cut ? "..." : ""));
    return Quoted(words);
}

std::string TextOf(const std::optional<StraceString> &string)
{
    return string ? std::string(string->bytes.begin(), string->bytes.end()) : "";
}

} // namespace

// ---- Lines

void Follower::Take(std::string_view text, std::size_t number)
{
    line_ = number;
    const StraceLine line = ParseStraceLine(text);
    if (line.kind == StraceLine::Kind::kForeign) {
        TakeFragment(text);
        return;
    }
    style_.Take(line.time);
    const WallTime back = clock_.Take(line.time);
    begin_ = end_ = clock_.now();
    if (back > WallTime{0})
        Remark(kNoPort, Format("the clock was set back by %lld us; the times here do not follow it",
                               static_cast<long long>(back.count())));
    Thread &thread = ThreadOf(line);
    thread_ = &thread;
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
    if (row == nullptr && calls_ > 0) // as most lines are
        return;
    if (!ParseStraceCall(line.text, call_)) {
        thread.call.cut = true;
        if (row != nullptr)
            MissEnd(*row, line.text, kNoPort, line_);
        return;
    }
    ++calls_;
    text_ = line.text;
    if (row != nullptr)
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
    if (row->Is(kForks))
        forking_.insert(thread.id);
    if (row->Is(kData))
        thread.call.port = PortOfCall(*row, line.text);
    if (row->Is(kEarly))
        thread.call.place = order_.Keep();
    if (row->Is(kAtOnce) && ParseStraceCall(thread.call.text += ") = 0", call_))
        Play(*row, thread);
}

void Follower::TakeEnd(Thread &thread, const StraceLine &line)
{
    ++calls_;
    OpenCall open = std::exchange(thread.call, {});
    forking_.erase(thread.id);
    if (open.row == nullptr) {
        const CallRow *row = RowOf(line.name);
        if (!open.cut && row != nullptr && row->Is(kData))
            Remark(kNoPort, "the beginning of this " + std::string(row->name) + " is missing");
    } else if (open.row->Is(kAtOnce)) {
        thread.waitResumes = line.text.find("= ? ERESTART") != std::string_view::npos;
    } else {
        open.text += line.text;
        PlayEnd(thread, open);
    }
}

// Plays a call that was printed in two pieces. It is all in the open call's text.
void Follower::PlayEnd(Thread &thread, const OpenCall &open)
{
    begin_ = open.begin;
    line_ = open.line;
    place_ = open.place;
    openPort_ = open.port;
    text_ = open.text;
    if (ParseStraceCall(open.text, call_))
        Play(*open.row, thread);
    else
        MissEnd(*open.row, open.text, open.port, open.line);
    openPort_ = kNoPort;
    place_.reset();
    order_.End(open.place);
}

// A line that is not of strace. It may be the rest of a call whose beginning was cut off.
void Follower::TakeFragment(std::string_view line)
{
    constexpr std::string_view kResult = ") = ";
    const std::size_t at = line.find(kResult);
    if (at != std::string_view::npos && at > 0 && StraceNumber(line.substr(at + kResult.size())))
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

// The thread goes on, or has ended, and the end of its call was not there.
void Follower::Abandon(Thread &thread)
{
    const OpenCall open = std::exchange(thread.call, {});
    forking_.erase(thread.id);
    if (open.row == nullptr)
        return;
    thread_ = &thread;
    begin_ = open.begin;
    place_ = open.place;
    if (!open.row->Is(kAtOnce))
        MissEnd(*open.row, open.text, open.port, open.line);
    place_.reset();
    begin_ = clock_.now();
    order_.End(open.place);
}

// Says that the end of a call is missing, if the call concerns a port.
void Follower::MissEnd(const CallRow &row, std::string_view text, int port, std::size_t line)
{
    if (port == kNoPort)
        port = PortOfCall(row, text);
    if (port == kNoPort)
        return;
    const std::size_t now = std::exchange(line_, line);
    Remark(port, "the end of this " + std::string(row.name) + " is missing, so its result is not known");
    line_ = now;
}

// The port that a call concerns which may not be complete. kNoPort if it concerns none, or if that is not known.
int Follower::PortOfCall(const CallRow &row, std::string_view text) const
{
    text.remove_prefix(std::min(text.find('(') + 1, text.size()));
    if (row.Is(kData)) {
        const auto slot = thread_->table->find(StraceNumber(text).value_or(-1));
        return slot != thread_->table->end() ? slot->second.file->port : PortOf(StracePath(text).value_or(""));
    }
    const bool opens = row.play == &Follower::Open || row.play == &Follower::OpenAt;
    return opens ? PortOf(TextOf(ParseStraceString(text, PATH_MAX))) : kNoPort;
}

Findings Follower::Finish()
{
    if (calls_ == 0)
        throw StraceError("there is no line of strace in the text");
    std::set<int> ids;
    for (const auto &[id, thread] : threads_)
        ids.insert(id);
    for (const int id : ids)
        Abandon(threads_.at(id));
    if (!ended_) {
        begin_ = clock_.now();
        Note(kNoPort, status_ ? "exit " + std::to_string(*status_) : "! the text does not show the end of the program");
    }
    found_.info.source = "haldencap " HALDENBENCH_VERSION ", from strace";
    found_.remarks = style_.remarks();
    images_.Describe(found_.info, found_.remarks);
    found_.hasTimes = style_.has();
    found_.relative = style_.relative();
    return std::move(found_);
}

// ---- Processes and threads

// A line without an id is of the only thread there is. The id of that thread comes with its first line that has one.
Thread &Follower::ThreadOf(const StraceLine &line)
{
    const int id = line.pid.value_or(alone_);
    if (threads_.contains(id) || !line.pid)
        return Begin(id);
    const bool child = !forking_.empty() && line.kind != StraceLine::Kind::kResumed;
    if (!child && threads_.contains(0))
        return NameUnnamed(id);
    if (child && forking_.size() == 1) {
        Thread &parent = threads_.at(*forking_.begin());
        Adopt(parent, id, parent.call.text, parent.call.line);
    }
    return Begin(id);
}

// Gives the thread 0 its id.
Thread &Follower::NameUnnamed(int id)
{
    auto node = threads_.extract(0);
    Thread &thread = node.mapped();
    node.key() = thread.id = alone_ = id;
    if (thread.process->leader == 0)
        thread.process->leader = id;
    if (forking_.erase(0) > 0)
        forking_.insert(id);
    return threads_.insert(std::move(node)).position->second;
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

// line is that of the call. A thread that is there already is the child if it appeared behind the beginning of the
// call. Otherwise its id was used before.
void Follower::Adopt(Thread &parent, int id, std::string_view call, std::size_t line)
{
    const auto found = threads_.find(id);
    const bool known = found != threads_.end();
    if (id == parent.id || (known && found->second.born == line && !found->second.orphan))
        return;
    if (known && (!found->second.orphan || found->second.born < line))
        EndThread(id, "");
    thread_ = &parent;
    Thread &child = Begin(id);
    child.orphan = false;
    child.born = line;
    if (HasCloneFlag(call, "CLONE_THREAD", 0x10000))
        child.process = parent.process;
    const std::shared_ptr<Table> own = child.table;
    child.table = parent.table;
    if (HasCloneFlag(call, "CLONE_FILES", 0x400))
        return;
    child.table = std::make_shared<Table>(*parent.table);
    for (const auto &[number, slot] : *own) // what it did before its start was known
        child.table->insert_or_assign(number, slot);
}

void Follower::EndThread(int id, std::string_view how)
{
    constexpr std::string_view kSuperseded = "superseded by execve in pid ";
    Thread &thread = threads_.at(id);
    Abandon(thread);
    thread_ = &thread;
    if (how.starts_with(kSuperseded)) {
        Supersede(thread, static_cast<int>(StraceNumber(how.substr(kSuperseded.size())).value_or(-1) & INT_MAX));
        return;
    }
    if (id == thread.process->leader && IsProgram() && !ended_)
        NoteEnd(how);
    threads_.erase(id);
    if (threads_.size() == 1)
        alone_ = threads_.begin()->first;
}

// Another thread of the process executes a program. It goes on with this one's id.
void Follower::Supersede(Thread &thread, int other)
{
    const auto at = threads_.find(other);
    if (at == threads_.end() || other == thread.id)
        return;
    const int id = thread.id;
    if (forking_.erase(other) > 0)
        forking_.insert(id);
    thread = std::move(at->second);
    thread.id = id;
    threads_.erase(at);
}

void Follower::NoteEnd(std::string_view how)
{
    constexpr std::string_view kExited = "exited with ", kKilled = "killed by ";
    ended_ = how.starts_with(kExited) || how.starts_with(kKilled);
    if (how.starts_with(kExited)) {
        Note(kNoPort, "exit " + std::to_string(StraceNumber(how.substr(kExited.size())).value_or(0)));
    } else if (how.starts_with(kKilled)) {
        const std::string_view name = how.substr(kKilled.size());
        if (const auto signal = SignalNumber(name.substr(0, name.find(' '))))
            Note(kNoPort, "signal " + std::to_string(*signal));
        else
            Remark(kNoPort, "the program was ended by " + std::string(name));
    }
}

// The process that has most to do with the ports is the program: 1: it was executed, 2: it opens ports, 3: bytes pass.
void Follower::Touch(int interest)
{
    if (interest <= interest_)
        return;
    interest_ = interest;
    found_.program = thread_->process->number;
    found_.info.command = thread_->process->command;
    found_.info.program = thread_->process->program;
}

void Follower::Fork()
{
    const std::int64_t child = call_.number().value_or(0);
    if (child > 0 && child <= kLargestPid)
        Adopt(*thread_, static_cast<int>(child), text_, line_);
}

void Follower::Unshare()
{
    if (call_.number() == 0 && text_.find("CLONE_FILES") != std::string_view::npos)
        thread_->table = std::make_shared<Table>(*thread_->table);
}

void Follower::Execute()
{
    if (call_.number() != 0)
        return;
    const std::size_t path = call_.name == "execveat" ? 1 : 0;
    std::string program = TextOf(ParseStraceString(Argument(path), PATH_MAX));
    program.erase(0, program.rfind('/') + 1);
    thread_->process = std::make_shared<Process>(Process{.number = ++processes_,
                                                         .leader = thread_->id,
                                                         .command = CommandOf(Argument(path + 1)),
                                                         .program = std::move(program)});
    thread_->table = std::make_shared<Table>(*thread_->table);
    for (auto slot = thread_->table->begin(); slot != thread_->table->end();) {
        const auto at = slot++;
        if (at->second.closesOnExec)
            Drop(at);
    }
    Touch(1);
}

void Follower::Exit()
{
    if (IsProgram())
        status_ = StraceNumber(Argument(0)).value_or(0) & 0xFF;
}

} // namespace bench::strace
