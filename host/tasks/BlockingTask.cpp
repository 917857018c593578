#include "host/tasks/BlockingTask.h"

#include <utility>

BlockingTask::BlockingTask(Body body, AsyncTaskPriority priority)
    : AsyncTask(priority), m_body(std::move(body))
{}

BlockingTask::~BlockingTask() = default;

RcStatus BlockingTask::start(TaskEngine& engine)
{
    m_engine = &engine;
    {
        MutexGuard lock(m_mutex);
        m_done = false;
    }
    return engine.start(this);
}

RcStatus BlockingTask::wait()
{
    m_engine->waitUntil([this] { return isDone(); });
    MutexGuard lock(m_mutex);
    return m_outcome;
}

bool BlockingTask::isDone()
{
    MutexGuard lock(m_mutex);
    return m_done;
}

RcStatus BlockingTask::run()
{
    return m_body(this);
}

// The engine wakes the waiting thread afterwards, without touching the task, which that thread may
// have destroyed by then.
void BlockingTask::finished(RcStatus rc)
{
    MutexGuard lock(m_mutex);
    m_outcome = rc;
    m_done = true;
}

RcStatus runAndWait(TaskEngine& engine, std::function<RcStatus(AsyncTask*)> body,
                    AsyncTaskPriority priority)
{
    BlockingTask task(std::move(body), priority);
    const RcStatus rc = task.start(engine);
    return rc == RC_SUCCESS ? task.wait() : rc;
}
