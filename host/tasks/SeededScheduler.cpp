#include "host/tasks/SeededScheduler.h"

#include <algorithm>

#include "host/infra/Clock.h"

SeededScheduler::SeededScheduler(u64 seed) : m_random(seed)
{
    // The tasks at hand at one time are few; so ready() does not allocate in practice.
    m_ready.reserve(4096);
}

void SeededScheduler::start(RunTask run)
{
    m_run = std::move(run);
}

void SeededScheduler::stop() {}

void SeededScheduler::ready(AsyncTask* task, AsyncTaskQueue::AsyncTaskQueueID)
{
    // Under the lock to its end: the task may finish, and the engine end, as soon as it is free.
    std::lock_guard<std::mutex> lock(m_mutex);
    m_ready.push_back(task);
    m_wakeUp.wake();
}

bool SeededScheduler::runOne()
{
    AsyncTask* task = nullptr;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_ready.empty())
            return false;
        // The remainder favours low indices by next to nothing, and unlike the library's
        // distributions gives the same numbers everywhere.
        const size_t index = m_random() % m_ready.size();
        task = m_ready[index];
        m_ready.erase(m_ready.begin() + static_cast<std::ptrdiff_t>(index));
    }
    m_run(task);
    return true;
}

u64 SeededScheduler::runUntilIdle()
{
    u64 runs = 0;
    while (runOne())
        ++runs;
    return runs;
}

u64 SeededScheduler::readyTasks()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_ready.size();
}

u64 SeededScheduler::draw()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_random();
}

bool SeededScheduler::waitUntil(const std::function<bool()>& done, u64 deadlineMs)
{
    for (;;) {
        if (done())
            return true;
        if (runOne())
            continue;
        if (Clock::isDue(deadlineMs))
            return false;
        if (m_idleHook && m_idleHook())
            continue;
        const auto doneOrReady = [&] { return done() || readyTasks() > 0; };
        if (!m_wakeUp.waitUntil(doneOrReady, deadlineMs))
            return false;
    }
}

void SeededScheduler::wake()
{
    m_wakeUp.wake();
}
