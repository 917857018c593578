// Time as the host sees it, and timers on it.
//
// The process has one current clock. It is the system's unless a test or the simulation names
// another one, so that deadlines, time-outs and time stamps all move together.
//
// Deadlines are absolute milliseconds of the monotonic clock: 0 (like every moment that has
// passed) means now or not at all, NEVER means no limit.
//
// Thread safety: every operation from any thread.
// Invariants: 1. nowMs() never goes back;
//             2. a timer fires at most once, never before its deadline, with no lock of the clock
//                held, and timers that are due together fire in the order of their deadlines, of
//                equal ones in the order in which they were scheduled.
#pragma once

#include <functional>

#include "common/infra/Types.h"

class Clock
{
public:
    using TimerId = u64;
    static constexpr u64 NEVER = ~u64{0};
    static constexpr TimerId NO_TIMER = 0;

    virtual ~Clock() = default;

    // Milliseconds and microseconds of the monotonic clock, of one origin.
    u64 nowMs() { return nowUs() / 1000; }
    virtual u64 nowUs() = 0;

    // Microseconds since 1970 in UTC. May jump; for time stamps only.
    virtual u64 wallTimeUs() = 0;

    // Calls back once `deadlineMs` has come, on a thread of the clock's choice; never for NEVER.
    // The callback is short, does not wait, and may use the clock. It is destroyed after its call,
    // or by cancel(). Returns an id that is never used again, and never NO_TIMER. Throws
    // std::bad_alloc, and there is no timer, where it finds no room or no thread.
    virtual TimerId schedule(u64 deadlineMs, std::function<void()> callback) = 0;

    // Takes a timer back. True: it has not been called and never will be. False: it has been
    // called, is being called now, or was never known.
    virtual bool cancel(TimerId id) = 0;

    // The process-wide clock: the one last named, or the system's.
    static Clock* instance();

    // Names the process-wide clock and returns the one before; null brings the system's back. Not
    // owned. Timers stay with the clock that they were scheduled on.
    static Clock* setInstance(Clock* clock);

    // Whether a deadline has come by the process-wide clock.
    static bool isDue(u64 deadlineMs)
    {
        return deadlineMs != NEVER && deadlineMs <= instance()->nowMs();
    }
};
