#include "host/tasks/TaskEngine.h"

#include <atomic>

#include "common/infra/Assert.h"
#include "host/tasks/TaskRunner.h"

namespace {

constexpr AsyncTaskPriority PRIORITIES[] = {AsyncTaskPriority::Normal, AsyncTaskPriority::Low,
                                            AsyncTaskPriority::Lowest};

// Set while this thread runs a task, where waiting for the engine would wait for itself.
thread_local bool t_isInTask = false;

std::atomic<TaskEngine*> s_openEngine{nullptr};

} // namespace

TaskEngine::TaskEngine(std::unique_ptr<Scheduler> scheduler) : m_scheduler(std::move(scheduler)) {}

TaskEngine::~TaskEngine()
{
    stop();
}

RcStatus TaskEngine::open()
{
    TaskEngine* none = nullptr;
    if (!s_openEngine.compare_exchange_strong(none, this))
        return RC_IN_USE;
    for (const AsyncTaskPriority priority : PRIORITIES)
        AsyncTaskControlPriority::setControl(priority, &m_control);
    m_scheduler->start([this](AsyncTask* task) { runTask(task); });
    MutexGuard lock(m_mutex);
    m_isOpen = true;
    return RC_SUCCESS;
}

RcStatus TaskEngine::start(AsyncTask* task)
{
    {
        MutexGuard lock(m_mutex);
        if (!m_isOpen)
            return RC_ABORTED;
        ++m_liveTasks;
    }
    TaskRunner::begin(task);
    m_scheduler->ready(task, AsyncTaskQueue::ASYNC_TASK_Q_ID__RDY_DATA);
    return RC_SUCCESS;
}

void TaskEngine::Control::enqueueToReadyQueue(AsyncTask* task,
                                              AsyncTaskQueue::AsyncTaskQueueID queue,
                                              RcStatus status)
{
    if (TaskRunner::completed(task, status))
        m_engine.m_scheduler->ready(task, queue);
}

void TaskEngine::runTask(AsyncTask* task)
{
    RcStatus outcome = RC_SUCCESS;
    t_isInTask = true;
    const TaskRunner::RunResult result = TaskRunner::run(task, &outcome);
    if (result == TaskRunner::Finished)
        TaskRunner::tellFinished(task, outcome);
    t_isInTask = false;
    switch (result) {
    case TaskRunner::Parked: return;
    case TaskRunner::Ready:
        // Behind the others rather than at once: a task whose operations always complete early
        // would keep the thread for itself.
        m_scheduler->ready(task, AsyncTaskQueue::ASYNC_TASK_Q_ID__RDY_CONTROL);
        return;
    case TaskRunner::Finished: break;
    }
    {
        MutexGuard lock(m_mutex);
        --m_liveTasks;
    }
    m_scheduler->wake();
}

u64 TaskEngine::liveTasks()
{
    MutexGuard lock(m_mutex);
    return m_liveTasks;
}

bool TaskEngine::waitUntil(const std::function<bool()>& done, u64 deadlineMs)
{
    HARD_CHECK(!t_isInTask);
    return m_scheduler->waitUntil(done, deadlineMs);
}

RcStatus TaskEngine::stop(u64 deadlineMs)
{
    bool wasOpen = false;
    // Closed in the same moment in which no task is left, so that none can slip in between.
    const auto closeWhenIdle = [this, &wasOpen] {
        MutexGuard lock(m_mutex);
        if (m_isOpen && m_liveTasks > 0)
            return false;
        wasOpen = wasOpen || m_isOpen;
        m_isOpen = false;
        return true;
    };
    if (!waitUntil(closeWhenIdle, deadlineMs))
        return RC_TIMED_OUT;
    if (!wasOpen)
        return RC_SUCCESS;
    m_scheduler->stop();
    for (const AsyncTaskPriority priority : PRIORITIES)
        AsyncTaskControlPriority::setControl(priority, nullptr);
    s_openEngine.store(nullptr);
    return RC_SUCCESS;
}
