// The asynchronous task engine.
//
// A task becomes ready when it is started and each time an operation of it completes. The engine's
// scheduler decides when a ready task runs and on which thread; the engine runs it until it waits
// again or ends.
//
//   TaskEngine engine(std::make_unique<ThreadScheduler>(2));
//   engine.open();
//   RcStatus rc = runAndWait(engine, [&](AsyncTask* task) { return reader.read(task, ...); });
//   engine.stop();
//
// Thread safety: start() and enqueueing from any thread; open() and stop() from the owner's.
// Invariants: 1. a task runs on one thread at a time, and finished() is its last use;
//             2. a completion is never lost: one that comes before the call that answered RC_WAIT
//                has returned makes the task ready again as soon as it has;
//             3. one engine is open in a process at a time, for completions find it through
//                AsyncTaskControlPriority.
#pragma once

#include <memory>

#include "common/headers/AsyncTaskControl.h"
#include "common/infra/Mutex.h"
#include "host/infra/Clock.h"
#include "host/tasks/Scheduler.h"

class TaskEngine
{
public:
    explicit TaskEngine(std::unique_ptr<Scheduler> scheduler);
    // REQUIRES: stopped, or no task is left, which it then stops itself.
    ~TaskEngine();
    TaskEngine(const TaskEngine&) = delete;
    TaskEngine& operator=(const TaskEngine&) = delete;

    // Starts the scheduler and makes the engine the process's. RC_IN_USE while another one is.
    RcStatus open();

    // Makes the task ready to run for the first time. Not owned: the task lives until finished().
    // RC_ABORTED when the engine is not open; the task is then untouched.
    RcStatus start(AsyncTask* task);

    // Waits until every task that was started has finished, those that wait for an operation or
    // start meanwhile included, then ends the scheduler. RC_TIMED_OUT when `deadlineMs` comes
    // first: the engine is then open as before and nothing is lost. Not from a task.
    RcStatus stop(u64 deadlineMs = Clock::NEVER);

    // Sleeps, or runs tasks here where the scheduler has no threads, until done() or the deadline;
    // returns done(). For a plain thread that waits for the engine's work. Not from a task.
    bool waitUntil(const std::function<bool()>& done, u64 deadlineMs = Clock::NEVER);
    void wake() { m_scheduler->wake(); }

    // Tasks that were started and have not finished.
    u64 liveTasks();

    Scheduler& getScheduler() { return *m_scheduler; }

private:
    class Control : public AsyncTaskControl
    {
    public:
        explicit Control(TaskEngine& engine) : m_engine(engine) {}
        void enqueueToReadyQueue(AsyncTask* task, AsyncTaskQueue::AsyncTaskQueueID queue,
                                 RcStatus status) override;

    private:
        TaskEngine& m_engine;
    };

    void runTask(AsyncTask* task);

    std::unique_ptr<Scheduler> m_scheduler;
    Control m_control{*this};
    Mutex m_mutex;
    bool m_isOpen RL_GUARDED_BY(m_mutex) = false;
    u64 m_liveTasks RL_GUARDED_BY(m_mutex) = 0;
};
