// When and on which thread a ready task runs: the engine's replaceable policy.
#pragma once

#include <functional>

#include "common/headers/AsyncTaskControl.h"

// Thread safety: ready() from any thread; the rest from the thread that owns the engine.
class Scheduler
{
public:
    // Runs one ready task until it waits or ends.
    using RunTask = std::function<void(AsyncTask*)>;

    virtual ~Scheduler() = default;

    // From now on ready tasks are to be handed to `run`, one call at a time for a task.
    virtual void start(RunTask run) = 0;

    // The task is ready. Allocates nothing: the task itself is the link of the queue.
    virtual void ready(AsyncTask* task, AsyncTaskQueue::AsyncTaskQueueID queue) = 0;

    // Ends all threads. REQUIRES: no task is ready or running.
    virtual void stop() = 0;

    // Sleeps, or runs tasks on this thread where the policy has no threads of its own, until
    // done() is true or `deadlineMs` has come; returns whether it is true. done() takes only locks
    // of the caller's own and is called again after each call of wake().
    virtual bool waitUntil(const std::function<bool()>& done, u64 deadlineMs) = 0;

    // Something that a done() looks at may have changed.
    virtual void wake() = 0;
};
