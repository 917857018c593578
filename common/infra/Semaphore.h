// A counting semaphore whose timed wait runs on the monotonic clock.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "common/infra/Types.h"

// Thread safety: every operation may be called from any thread.
class Semaphore
{
public:
    explicit Semaphore(u32 count = 0) : m_count(count) {}
    Semaphore(const Semaphore&) = delete;
    Semaphore& operator=(const Semaphore&) = delete;

    // Adds one unit and wakes one waiter.
    void post()
    {
        // Notified under the lock: the waiter may destroy the semaphore as soon as it wakes.
        std::lock_guard<std::mutex> lock(m_mutex);
        ++m_count;
        m_cond.notify_one();
    }

    // Takes one unit; sleeps until there is one.
    void wait()
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_cond.wait(lock, [this] { return m_count > 0; });
        --m_count;
    }

    // Takes one unit and returns true, or returns false after `milliseconds`.
    bool waitFor(u64 milliseconds)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        if (!m_cond.wait_until(
                lock, std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds),
                [this] { return m_count > 0; }))
            return false;
        --m_count;
        return true;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_cond;
    u32 m_count;
};
