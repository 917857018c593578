#include "host/tasks/ThreadScheduler.h"

#include <algorithm>
#include <chrono>
#include <system_error>

#include "host/infra/Clock.h"
#include "host/tasks/WakeUp.h"

ThreadScheduler::ThreadScheduler(u32 workers)
    : m_workers(workers > 0 ? workers : std::max(1u, std::thread::hardware_concurrency()))
{}

ThreadScheduler::~ThreadScheduler()
{
    stop();
}

void ThreadScheduler::start(RunTask run)
{
    m_run = std::move(run);
    m_stopping = false;
    m_threads.reserve(m_workers);
    try {
        while (m_threads.size() < m_workers)
            m_threads.emplace_back([this] { work(); });
    } catch (const std::system_error&) {
        if (m_threads.empty())
            throw; // fewer are slower, none does nothing
    }
}

void ThreadScheduler::ready(AsyncTask* task, AsyncTaskQueue::AsyncTaskQueueID queue)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_queues.push(task, queue);
    if (m_sleeping > 0)
        m_taskReady.notify_one();
}

void ThreadScheduler::stop()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stopping = true;
        m_taskReady.notify_all();
    }
    for (std::thread& thread : m_threads)
        thread.join();
    m_threads.clear();
}

void ThreadScheduler::work()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
        AsyncTask* task = m_queues.pop();
        if (task != nullptr) {
            lock.unlock();
            m_run(task);
            lock.lock();
        } else if (m_stopping) {
            return;
        } else {
            ++m_sleeping;
            m_taskReady.wait(lock);
            --m_sleeping;
        }
    }
}

bool ThreadScheduler::waitUntil(const std::function<bool()>& done, u64 deadlineMs)
{
    return m_wakeUp.waitUntil(done, deadlineMs);
}

void ThreadScheduler::wake()
{
    m_wakeUp.wake();
}
