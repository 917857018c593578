// Ready tasks on worker threads.
#pragma once

#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "host/tasks/ReadyQueues.h"
#include "host/tasks/Scheduler.h"
#include "host/tasks/WakeUp.h"

class ThreadScheduler : public Scheduler
{
public:
    // workers: 0 for one a processor.
    explicit ThreadScheduler(u32 workers = 0);
    ~ThreadScheduler() override;

    void start(RunTask run) override;
    void ready(AsyncTask* task, AsyncTaskQueue::AsyncTaskQueueID queue) override;
    void stop() override;
    bool waitUntil(const std::function<bool()>& done, u64 deadlineMs) override;
    void wake() override;

private:
    void work();

    const u32 m_workers;
    RunTask m_run;
    std::mutex m_mutex;
    std::condition_variable m_taskReady;
    ReadyQueues m_queues;
    u32 m_sleeping = 0; // workers that wait for a task
    bool m_stopping = false;
    std::vector<std::thread> m_threads;

    // Who waits in waitUntil(). Apart, so that the hot path does not meet its mutex.
    WakeUp m_wakeUp;
};
