#include "host/tasks/ReadyQueues.h"

#include "common/infra/Assert.h"
#include "host/tasks/TaskRunner.h"

void ReadyQueues::Fifo::push(AsyncTask* task)
{
    TaskRunner::nextReady(task) = nullptr;
    if (m_first == nullptr)
        m_first = task;
    else
        TaskRunner::nextReady(m_last) = task;
    m_last = task;
}

AsyncTask* ReadyQueues::Fifo::pop()
{
    AsyncTask* task = m_first;
    m_first = TaskRunner::nextReady(task);
    TaskRunner::nextReady(task) = nullptr;
    return task;
}

AsyncTask* ReadyQueues::Level::pop()
{
    if (m_goingOn.empty() || (!m_starting.empty() && m_startingPassedOver >= PATIENCE_STARTING)) {
        m_startingPassedOver = 0;
        return m_starting.pop();
    }
    if (!m_starting.empty())
        ++m_startingPassedOver;
    return m_goingOn.pop();
}

void ReadyQueues::push(AsyncTask* task, AsyncTaskQueue::AsyncTaskQueueID queue)
{
    const u32 index = static_cast<u32>(task->getPriority());
    HARD_CHECK(index < m_levels.size());
    Level& level = m_levels[index];
    if (queue == AsyncTaskQueue::ASYNC_TASK_Q_ID__RDY_CONTROL)
        level.m_goingOn.push(task);
    else
        level.m_starting.push(task);
    ++m_size;
}

AsyncTask* ReadyQueues::pop()
{
    // The lowest level that has lost patience goes first, else the highest that holds a task.
    Level* chosen = nullptr;
    for (Level& level : m_levels) {
        if (!level.empty() && (chosen == nullptr || level.m_passedOver >= PATIENCE_LOWER_PRIORITY))
            chosen = &level;
    }
    if (chosen == nullptr)
        return nullptr;
    for (Level& level : m_levels) {
        if (&level != chosen && !level.empty())
            ++level.m_passedOver;
    }
    chosen->m_passedOver = 0;
    --m_size;
    return chosen->pop();
}
