#include "host/tasks/WakeUp.h"

#include "host/infra/Clock.h"

bool WakeUp::waitUntil(const std::function<bool()>& done, u64 deadlineMs)
{
    // The deadline is the clock's, which a test may move: a timer wakes this thread, not the
    // condition variable's own notion of time.
    bool isTimerCalled = false;
    Clock* clock = nullptr;
    Clock::TimerId timer = Clock::NO_TIMER;
    bool isDone = false;
    for (;;) {
        u64 wakesSeen;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            wakesSeen = m_wakes;
        }
        isDone = done();
        if (isDone || Clock::isDue(deadlineMs))
            break;
        if (deadlineMs != Clock::NEVER && clock == nullptr) {
            clock = Clock::instance();
            timer = clock->schedule(deadlineMs, [this, &isTimerCalled] {
                std::lock_guard<std::mutex> lock(m_mutex);
                isTimerCalled = true;
                ++m_wakes;
                m_woken.notify_all();
            });
        }
        std::unique_lock<std::mutex> lock(m_mutex);
        m_woken.wait(lock, [&] { return m_wakes != wakesSeen; });
    }
    if (clock != nullptr && !clock->cancel(timer)) {
        // The timer is being called, and uses this frame until it has let go of the mutex.
        std::unique_lock<std::mutex> lock(m_mutex);
        m_woken.wait(lock, [&] { return isTimerCalled; });
    }
    return isDone;
}

void WakeUp::wake()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    ++m_wakes;
    m_woken.notify_all();
}
