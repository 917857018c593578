// The timers of a clock, ordered by deadline. A plain data structure: its owner holds the lock.
#pragma once

#include <map>
#include <unordered_map>
#include <utility>
#include <vector>

#include "host/infra/Clock.h"

class TimerQueue
{
public:
    using Callback = std::function<void()>;

    Clock::TimerId add(u64 deadlineMs, Callback callback);

    // Takes the timer out and moves its callback to *callback, so that the owner can destroy it
    // without its lock; false when it is not here.
    bool remove(Clock::TimerId id, Callback* callback);

    // Takes the first timer out if it is due at `nowMs`; false when none is.
    bool takeDue(u64 nowMs, Callback* callback);

    // The deadline of the first timer, or NEVER.
    u64 firstDeadlineMs() const;

    size_t size() const { return m_deadlines.size(); }

private:
    // Ids grow, so that timers of one deadline keep the order in which they came.
    using Key = std::pair<u64, Clock::TimerId>;

    std::map<Key, Callback> m_timers;
    std::unordered_map<Clock::TimerId, u64> m_deadlines;
    Clock::TimerId m_nextId = Clock::NO_TIMER + 1;
};
