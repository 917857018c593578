// Tells a background thread to stop, also while it waits.
//
// Thread safety: any thread.
#pragma once

#include <chrono>
#include <condition_variable>

#include "common/infra/Mutex.h"
#include "common/infra/Types.h"

class StopSignal
{
public:
    void set()
    {
        MutexGuard guard(m_mutex);
        m_set = true;
        m_changed.notify_all();
    }

    bool isSet() const
    {
        MutexGuard guard(m_mutex);
        return m_set;
    }

    // Waits so long, or until it is told to stop: then true.
    bool waitMs(u64 milliseconds)
    {
        const auto until =
            std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
        MutexGuard guard(m_mutex);
        while (!m_set && m_changed.wait_until(m_mutex, until) == std::cv_status::no_timeout) {
        }
        return m_set;
    }

private:
    mutable Mutex m_mutex;
    std::condition_variable_any m_changed;
    bool m_set RL_GUARDED_BY(m_mutex) = false;
};
