#include "host/tasks/TaskRunner.h"

#include "common/infra/Assert.h"

void TaskRunner::begin(AsyncTask* task)
{
    u32 expected = AsyncTask::Idle;
    const bool wasIdle = task->m_runState.compare_exchange_strong(expected, AsyncTask::Queued,
                                                                  std::memory_order_acq_rel);
    HARD_CHECK(wasIdle && !task->m_started);
}

bool TaskRunner::completed(AsyncTask* task, RcStatus rc)
{
    HARD_CHECK(rc != RC_WAIT);
    task->m_resumeRc = rc;
    u32 state = AsyncTask::Running;
    if (task->m_runState.compare_exchange_strong(state, AsyncTask::RunningAndEnqueued,
                                                 std::memory_order_acq_rel))
        return false;
    // It was not running, and it waits, so nobody else changes the state now, unless the run came
    // back this very moment.
    HARD_CHECK(state == AsyncTask::Idle);
    const bool wasIdle = task->m_runState.compare_exchange_strong(state, AsyncTask::Queued,
                                                                  std::memory_order_acq_rel);
    HARD_CHECK(wasIdle);
    return true;
}

TaskRunner::RunResult TaskRunner::run(AsyncTask* task, RcStatus* outcome)
{
    task->m_runState.store(AsyncTask::Running, std::memory_order_relaxed);
    RcStatus rc;
    if (!task->m_started) {
        task->m_started = true;
        rc = task->run();
        HARD_CHECK(rc == RC_WAIT || task->m_topFrame == nullptr);
    } else {
        rc = runFrames(task, task->m_resumeRc);
    }
    if (rc != RC_WAIT) {
        task->m_started = false;
        task->m_runState.store(AsyncTask::Idle, std::memory_order_relaxed);
        *outcome = rc;
        return Finished;
    }
    u32 state = AsyncTask::Running;
    if (task->m_runState.compare_exchange_strong(state, AsyncTask::Idle, std::memory_order_acq_rel))
        return Parked;
    HARD_CHECK(state == AsyncTask::RunningAndEnqueued);
    task->m_runState.store(AsyncTask::Queued, std::memory_order_relaxed);
    return Ready;
}

RcStatus TaskRunner::runFrames(AsyncTask* task, RcStatus rc)
{
    while (rc != RC_WAIT && task->m_topFrame != nullptr) {
        AsyncFrame* frame = task->m_topFrame;
        frame->m_rc = rc;
        rc = frame->callback(task);
        // A frame that ended has taken itself off; one that did not would be run for ever.
        HARD_CHECK(rc == RC_WAIT || task->m_topFrame != frame);
    }
    return rc;
}
