// A task that a plain thread starts and waits for.
#pragma once

#include <functional>

#include "host/tasks/TaskEngine.h"

// Runs `body` as a task of the engine and sleeps until it is done; returns its outcome. The body
// may answer RC_WAIT like any task: the outcome of the operation that waits is then the task's.
// RC_ABORTED when the engine is not open. Not from a task.
RcStatus runAndWait(TaskEngine& engine, std::function<RcStatus(AsyncTask*)> body,
                    AsyncTaskPriority priority = AsyncTaskPriority::Normal);

// The same in two steps, for a thread that has several tasks in flight. Lives until wait() has
// returned. Thread safety: start() and wait() from one thread.
class BlockingTask : public AsyncTask
{
public:
    using Body = std::function<RcStatus(AsyncTask*)>;

    explicit BlockingTask(Body body, AsyncTaskPriority priority = AsyncTaskPriority::Normal);
    ~BlockingTask() override;

    RcStatus start(TaskEngine& engine);

    // The outcome. REQUIRES: start() succeeded.
    RcStatus wait();

protected:
    RcStatus run() override;
    void finished(RcStatus rc) override;

private:
    bool isDone();

    Body m_body;
    TaskEngine* m_engine = nullptr;
    Mutex m_mutex;
    bool m_done RL_GUARDED_BY(m_mutex) = false;
    RcStatus m_outcome RL_GUARDED_BY(m_mutex) = RC_WAIT;
};
