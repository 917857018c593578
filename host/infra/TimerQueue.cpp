#include "host/infra/TimerQueue.h"

#include <new>

Clock::TimerId TimerQueue::add(u64 deadlineMs, Callback callback)
{
    const Clock::TimerId id = m_nextId++;
    // One without a limit is kept as well: it can be cancelled, and never becomes due.
    const auto timer = m_timers.emplace(Key(deadlineMs, id), std::move(callback)).first;
    try {
        m_deadlines.emplace(id, deadlineMs);
    } catch (const std::bad_alloc&) {
        m_timers.erase(timer);
        throw;
    }
    return id;
}

bool TimerQueue::remove(Clock::TimerId id, Callback* callback)
{
    const auto known = m_deadlines.find(id);
    if (known == m_deadlines.end())
        return false;
    const auto timer = m_timers.find(Key(known->second, id));
    *callback = std::move(timer->second);
    m_timers.erase(timer);
    m_deadlines.erase(known);
    return true;
}

bool TimerQueue::takeDue(u64 nowMs, Callback* callback)
{
    if (firstDeadlineMs() == Clock::NEVER || firstDeadlineMs() > nowMs)
        return false;
    const auto timer = m_timers.begin();
    *callback = std::move(timer->second);
    m_deadlines.erase(timer->first.second);
    m_timers.erase(timer);
    return true;
}

u64 TimerQueue::firstDeadlineMs() const
{
    return m_timers.empty() ? Clock::NEVER : m_timers.begin()->first.first;
}
