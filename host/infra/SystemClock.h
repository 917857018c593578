// The clock of the operating system, with one thread that calls its timers.
#pragma once

#include <condition_variable>
#include <mutex>
#include <thread>

#include "host/infra/Clock.h"
#include "host/infra/TimerQueue.h"

// The thread starts with the first timer. Timers are called on it, one after the other.
class SystemClock : public Clock
{
public:
    SystemClock() = default;
    ~SystemClock() override;
    SystemClock(const SystemClock&) = delete;
    SystemClock& operator=(const SystemClock&) = delete;

    u64 nowUs() override;
    u64 wallTimeUs() override;
    TimerId schedule(u64 deadlineMs, std::function<void()> callback) override;
    bool cancel(TimerId id) override;

    // Ends the thread after the call it is in, and waits for it. Timers that have not been called
    // stay known; the next schedule() starts the thread again and it serves them. Not from a timer.
    void shutdown();

    // The process-wide system clock; never destroyed, so shut down by who started threads.
    static SystemClock* systemInstance();

private:
    void serve();

    std::mutex m_mutex;
    std::condition_variable m_changed;
    TimerQueue m_timers;
    std::thread m_thread;
    bool m_running = false;
    bool m_stopping = false;
};
