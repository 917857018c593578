// One thread, and the order of the ready tasks decided by a seed: the same seed over the same work
// gives the same history.
#pragma once

#include <functional>
#include <mutex>
#include <random>
#include <utility>
#include <vector>

#include "host/tasks/Scheduler.h"
#include "host/tasks/WakeUp.h"

// Tasks run only inside runUntilIdle(), runOne() and waitUntil(), on the thread that calls them.
// Priorities are ignored: an order that breaks something is found sooner when every order may come.
class SeededScheduler : public Scheduler
{
public:
    explicit SeededScheduler(u64 seed);

    // Called by waitUntil() when no task is ready and what it waits for is not there: makes
    // something happen (moves a manual clock, completes an IO) and returns true, or false when
    // nothing is left to happen here; then waitUntil() sleeps until another thread does something.
    void setIdleHook(std::function<bool()> hook) { m_idleHook = std::move(hook); }

    // Runs one ready task; false when there was none.
    bool runOne();

    // Runs tasks until none is ready; returns how many runs that took.
    u64 runUntilIdle();

    u64 readyTasks();

    // The next number of the seed's sequence, by which two runs can be compared at their ends.
    u64 draw();

    void start(RunTask run) override;
    void ready(AsyncTask* task, AsyncTaskQueue::AsyncTaskQueueID queue) override;
    void stop() override;
    bool waitUntil(const std::function<bool()>& done, u64 deadlineMs) override;
    void wake() override;

private:
    RunTask m_run;
    std::function<bool()> m_idleHook;
    std::mt19937_64 m_random;
    std::mutex m_mutex;
    std::vector<AsyncTask*> m_ready;
    WakeUp m_wakeUp;
};
