// A task of the asynchronous engine: work that gives its thread back whenever it has to wait.
//
// A task runs on a worker until an operation answers RC_WAIT; then its frames (AsyncFrame.h)
// remember where it stands, the worker goes on to other tasks, and whoever completes the operation
// puts the task back on a ready queue with the operation's status.
#pragma once

#include <atomic>

#include "common/infra/RcStatus.h"
#include "common/infra/Semaphore.h"

class AsyncFrame;

enum class AsyncTaskPriority : u32
{
    Normal = 0,
    Low = 1,
    Lowest = 2,
};

// Thread safety: a task runs on one thread at a time. setResult() is called by whoever completes
// an operation of the task, before it puts the task back on a queue.
class AsyncTask
{
public:
    explicit AsyncTask(AsyncTaskPriority priority = AsyncTaskPriority::Normal)
        : m_priority(priority)
    {}
    virtual ~AsyncTask() = default;
    AsyncTask(const AsyncTask&) = delete;
    AsyncTask& operator=(const AsyncTask&) = delete;

    AsyncTaskPriority getPriority() const { return m_priority; }

    // A number that an operation hands to the task beside its status.
    void setResult(u64 result) { m_result = result; }
    u64 getResult() const { return m_result; }

protected:
    // The task's body, run once on a worker. RC_WAIT: it goes on in its frames; any other status
    // is the outcome of the task.
    virtual RcStatus run() { return RC_SUCCESS; }

    // Called on a worker with the outcome, as the engine's last use of the task: it may delete the
    // task or wake the thread that will.
    virtual void finished(RcStatus) {}

private:
    friend class TaskRunner; // the host engine's hands on a task
    friend class FrameGuard;

    // Where the engine has the task.
    enum RunState : u32
    {
        Idle,              // parked, or not started
        Queued,            // on a ready queue
        Running,           // on a worker
        RunningAndEnqueued // on a worker that has not yet come back from the call that waits,
                           // while the operation has completed already
    };

    AsyncTaskPriority m_priority;
    u64 m_result = 0;
    // Link of the ready queue, which so needs no memory; an engine may do without.
    [[maybe_unused]] AsyncTask* m_nextReady = nullptr;
    AsyncFrame* m_topFrame = nullptr; // the innermost frame; each knows the one below
    RcStatus m_resumeRc = RC_SUCCESS; // what to resume with; written before the state changes
    bool m_started = false;
    std::atomic<u32> m_runState{Idle};
};
