#include "host/infra/ManualClock.h"

#include <algorithm>

ManualClock::ManualClock(u64 startMs, u64 wallTimeUs)
    : m_nowUs(startMs * 1000), m_wallOffsetUs(wallTimeUs - startMs * 1000)
{}

u64 ManualClock::nowUs()
{
    MutexGuard lock(m_mutex);
    return m_nowUs;
}

u64 ManualClock::wallTimeUs()
{
    return m_wallOffsetUs + nowUs();
}

Clock::TimerId ManualClock::schedule(u64 deadlineMs, std::function<void()> callback)
{
    MutexGuard lock(m_mutex);
    return m_timers.add(deadlineMs, std::move(callback));
}

bool ManualClock::cancel(TimerId id)
{
    std::function<void()> callback; // outlives the lock: what it holds may use the clock
    MutexGuard lock(m_mutex);
    return m_timers.remove(id, &callback);
}

void ManualClock::advanceMs(u64 milliseconds)
{
    moveTo(nowUs() + milliseconds * 1000);
}

bool ManualClock::advanceToNextTimer()
{
    const u64 deadlineMs = nextDeadlineMs();
    if (deadlineMs == NEVER)
        return false;
    moveTo(std::max(nowUs(), deadlineMs * 1000));
    return true;
}

u64 ManualClock::nextDeadlineMs()
{
    MutexGuard lock(m_mutex);
    return m_timers.firstDeadlineMs();
}

size_t ManualClock::timerCount()
{
    MutexGuard lock(m_mutex);
    return m_timers.size();
}

void ManualClock::moveTo(u64 targetUs)
{
    for (;;) {
        std::function<void()> callback;
        {
            MutexGuard lock(m_mutex);
            const u64 deadlineMs = m_timers.firstDeadlineMs();
            if (!m_timers.takeDue(targetUs / 1000, &callback)) {
                m_nowUs = std::max(m_nowUs, targetUs);
                return;
            }
            m_nowUs = std::max(m_nowUs, deadlineMs * 1000);
        }
        callback();
    }
}
