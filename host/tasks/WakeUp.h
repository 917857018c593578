// A plain thread that waits for a condition which others make true.
#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>

#include "common/infra/Types.h"

// Thread safety: any thread. done() is called without a lock of this object, so it may take others.
class WakeUp
{
public:
    // Sleeps until done() or the deadline of the process-wide clock; returns done(). It is asked
    // again after each wake().
    bool waitUntil(const std::function<bool()>& done, u64 deadlineMs);

    // What a done() looks at may have changed; call it after the change.
    void wake();

private:
    std::mutex m_mutex;
    std::condition_variable m_woken;
    u64 m_wakes = 0;
};
