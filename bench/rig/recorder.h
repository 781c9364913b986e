// Gathers the events of a run while it goes on: the bytes of the lines, and the calls and waits that the preload
// library notes.
// Owner:   the caller keeps the recorder as long as its lines carry bytes.
// Locking: Note may be called at any time from any thread. The sink runs in a thread of the recorder.
#pragma once

#include "bench/capture/event.h"
#include "bench/rig/calllog.h"
#include "bench/rig/line.h"

#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <thread>

namespace bench
{

// The note of a logged call, in the words of event.h. The note is empty if captures do not have this call.
Event NoteOf(const CallLog::Entry &entry);

class Recorder
{
public:
    // Gets the events in portions, about every 50 ms. Those of one port are in the order of their time, unless the
    // machine stands still for longer. The sink throws nothing.
    using Sink = std::function<void(const std::vector<Event> &events)>;

    explicit Recorder(Sink sink);
    ~Recorder() { Finish(); }
    Recorder(const Recorder &) = delete;
    Recorder &operator=(const Recorder &) = delete;

    // Takes the line's tap. It is called before the line is started.
    void Watch(int port, Line &line);
    // Begins to record. Without a log there are only bytes and notes. The caller keeps the log until Finish.
    void Start(const CallLog *log);
    // Adds a note with the present time.
    void Note(int port, const std::string &note);
    // Hands the rest to the sink, and ends. It is called when the lines are stopped and the program has ended. The call
    // does nothing on a recorder that is not started.
    void Finish();

private:
    WallTime WallOf(std::chrono::steady_clock::duration sinceBoot) const;
    void Add(Event event);
    void Work();
    void Gather(bool ended);
    void GatherCalls(bool ended);
    void TakeCall(Event event);
    void TakeBytes(Event &event);
    void HandOut(bool all);

    const Sink sink_;
    const WallTime offset_; // of the wall clock; it is taken once, so that no change of that clock disturbs the order
    const CallLog *log_ = nullptr;
    std::mutex mutex_;
    std::condition_variable wake_;
    std::vector<Event> arrived_; // under mutex_
    bool ending_ = false;        // under mutex_
    // Only the thread uses these.
    std::size_t logPosition_ = 0;
    std::map<int, std::vector<WallTime>> writes_; // by port; those whose bytes have not arrived yet
    std::map<int, WallTime> clear_;               // by port; the end of the latest bytes
    std::vector<Event> pending_;
    std::thread thread_;
};

} // namespace bench
