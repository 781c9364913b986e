// Forces the order of two threads, so that orders can be explored one after the other instead of being hoped for.
//
// Of the two parts of a run the first one goes alone up to a stop, and waits there. Then the other one goes alone: up
// to a stop of its own, to its end, or until it would have to wait. Then both go on.
//
// A stop is a call of our code that locks, unlocks, wakes, waits, copies, or touches a file. Where ThreadSanitizer is
// compiled in, it is every access as well that is not to the thread's own stack or to constants, the first three times
// at a place. The linker leads these calls here (CMakeLists.txt, --wrap) and from here to where they were going.
// ThreadSanitizer does not see the parts take turns: it still takes them for unordered, and reports what only the turns
// keep apart.
//
// Owner:   one process, one run at a time; Run is called by a thread that plays no part.
// Limits:  a part that goes alone has a second to come to its stop when it waits for something other than a lock or an
//          event; a run of ten seconds is taken for a deadlock, and stops the program with the place of each part.
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

// Plays both parts. The part with the index first goes up to its stop-th stop, counted from 1. Returns false when it
// ended, or waited for an event, before that one: there are no more orders.
bool Run(const PartT (&parts)[2], unsigned first, unsigned stop);

// For the two threads that play Worker parts for good: waits for the bodies of that index, and runs them.
[[noreturn]] void Work(unsigned index);
void AwaitWorkers(); // until both have called it

// Makes the calling thread play the part from here to its end. Waits until it is its turn.
void Play(unsigned index);

// Takes the ticks away from the timer task, which has to be running: it makes a pass only during a run, at once when it
// plays a part, and else, and afterwards, ten for each millisecond.
void TakeTicks();
unsigned Ticks(); // passes since then

// While it is set no thread can be created.
extern bool refuseThreads;

} // namespace schedule
