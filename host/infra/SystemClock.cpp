#include "host/infra/SystemClock.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <new>

#include "common/infra/Singleton.h"

namespace {
template <class SomeClock> u64 microsecondsOf()
{
    const auto now = SomeClock::now().time_since_epoch();
    return static_cast<u64>(std::chrono::duration_cast<std::chrono::microseconds>(now).count());
}
} // namespace

SystemClock::~SystemClock()
{
    shutdown();
}

SystemClock* SystemClock::systemInstance()
{
    return Singleton<SystemClock, SystemClock>::instance();
}

u64 SystemClock::nowUs()
{
    return microsecondsOf<std::chrono::steady_clock>();
}

u64 SystemClock::wallTimeUs()
{
    return microsecondsOf<std::chrono::system_clock>();
}

Clock::TimerId SystemClock::schedule(u64 deadlineMs, std::function<void()> callback)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    const u64 firstBefore = m_timers.firstDeadlineMs();
    const TimerId id = m_timers.add(deadlineMs, std::move(callback));
    if (!m_running && !m_stopping) {
        try {
            m_thread = std::thread([this] { serve(); });
        } catch (const std::exception&) {
            // Nobody knows of it, so nobody may be called.
            std::function<void()> uncalled;
            m_timers.remove(id, &uncalled);
            throw std::bad_alloc();
        }
        m_running = true;
    } else if (deadlineMs < firstBefore) {
        m_changed.notify_all();
    }
    return id;
}

bool SystemClock::cancel(TimerId id)
{
    std::function<void()> callback;
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_timers.remove(id, &callback);
}

void SystemClock::shutdown()
{
    std::thread ending;
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        if (!m_running || m_stopping)
            return;
        m_stopping = true;
        m_changed.notify_all();
        ending = std::move(m_thread);
    }
    ending.join();
    std::lock_guard<std::mutex> lock(m_mutex);
    m_running = false;
    m_stopping = false;
}

void SystemClock::serve()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    while (!m_stopping) {
        std::function<void()> callback;
        if (m_timers.takeDue(nowMs(), &callback)) {
            lock.unlock();
            callback();
            callback = nullptr; // what it holds is dropped without the lock, too
            lock.lock();
            continue;
        }
        const u64 deadlineMs = m_timers.firstDeadlineMs();
        // A deadline beyond a day is looked at again in between: far ones would overflow the
        // conversion to nanoseconds.
        constexpr u64 LONGEST_SLEEP_MS = 86'400'000;
        const u64 now = nowMs();
        const u64 sleepMs = std::min(LONGEST_SLEEP_MS, deadlineMs > now ? deadlineMs - now : 0);
        m_changed.wait_until(lock,
                             std::chrono::steady_clock::now() + std::chrono::milliseconds(sleepMs));
    }
}
