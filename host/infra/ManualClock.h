// A clock that stands still until it is moved; for tests and the simulation.
#pragma once

#include "common/infra/Mutex.h"
#include "host/infra/Clock.h"
#include "host/infra/TimerQueue.h"

// Due timers are called on the thread that moves the clock, each at the moment of its own deadline:
// a callback sees the clock stand there, and what it schedules before the end of the move fires in
// the same move. One thread at a time moves the clock.
class ManualClock : public Clock
{
public:
    explicit ManualClock(u64 startMs = 1000, u64 wallTimeUs = 1'000'000'000'000'000);

    u64 nowUs() override;
    u64 wallTimeUs() override;
    TimerId schedule(u64 deadlineMs, std::function<void()> callback) override;
    bool cancel(TimerId id) override;

    // Moves by so many milliseconds; 0 calls only what is due already.
    void advanceMs(u64 milliseconds);

    // Moves to the first timer's deadline and calls what is due there; false without timers.
    bool advanceToNextTimer();

    // The first timer's deadline, or NEVER; and how many timers there are.
    u64 nextDeadlineMs();
    size_t timerCount();

private:
    void moveTo(u64 targetUs);

    Mutex m_mutex;
    u64 m_nowUs RL_GUARDED_BY(m_mutex);
    const u64 m_wallOffsetUs; // wall time of monotonic 0
    TimerQueue m_timers RL_GUARDED_BY(m_mutex);
};
