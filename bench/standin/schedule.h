// Forces the order of two threads, so that a test can play one order after the other.
//
// A run has two parts. The first part goes alone up to a stop, and waits there. Then the other part goes alone: up to a
// stop of its own, to its end, or until it would have to wait. Then both go on.
//
// A stop is a call of our code that locks, unlocks, wakes, waits, copies, or touches a file. With ThreadSanitizer a
// stop is also an access to memory, but for constants and the thread's own stack. Each place is a stop three times at
// most. The linker leads these calls here (CMakeLists.txt, --wrap), and from here they go to their own functions.
// ThreadSanitizer does not see the turns. It still takes the parts for unordered, and reports accesses that only the
// turns keep apart.
//
// Owner:   the process. There is one run at a time. The thread that calls Run plays no part.
// Limits:  a part that goes alone may wait for something other than a lock or an event. It then has a second to come to
//          its stop. A run of ten seconds counts as a deadlock. It stops the program and prints the place of each part.
#pragma once

namespace schedule
{

// Who plays a part. Own: a thread that calls Play. Ticker: the timer task, for one pass over its timers.
enum class Player { Worker, Own, Ticker };

struct PartT {
    Player player = Player::Worker;
    void (*body)() = nullptr; // Worker only

    PartT() = default;
    PartT(Player who) : player(who) {}
    template <class Body> PartT(Body work) : body(work) {}
};

// Plays both parts. The part with the index first goes up to its stop-th stop, counted from 1.
// true   that stop was reached.
// false  the part ended or waited for an event before. There are no more orders.
bool Run(const PartT (&parts)[2], unsigned first, unsigned stop);

// Two threads call this to play Worker parts. The call waits for each body of that index, and runs it.
[[noreturn]] void Work(unsigned index);
void AwaitWorkers(); // waits until both threads have called Work

// Makes the calling thread play the part from here to its end. Waits for its turn.
void Play(unsigned index);

// Takes the ticks away from the timer task, which has to be running. From then on it makes passes only during a run:
// one at once if it plays a part, then ten for each millisecond.
void TakeTicks();

// While it is set, no thread can be created.
extern bool refuseThreads;

} // namespace schedule
