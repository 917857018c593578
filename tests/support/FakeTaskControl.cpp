#include "tests/support/FakeTaskControl.h"

FakeTaskControl::FakeTaskControl()
{
    for (u32 i = 0; i < m_queues.size(); ++i) {
        m_queues[i].m_owner = this;
        m_queues[i].m_priority = static_cast<AsyncTaskPriority>(i);
        m_queues[i].m_before =
            AsyncTaskControlPriority::setControl(m_queues[i].m_priority, &m_queues[i]);
    }
}

FakeTaskControl::~FakeTaskControl()
{
    for (const Queue& queue : m_queues)
        AsyncTaskControlPriority::setControl(queue.m_priority, queue.m_before);
}

std::vector<EnqueuedTask> FakeTaskControl::enqueued() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_enqueued;
}

void FakeTaskControl::Queue::enqueueToReadyQueue(AsyncTask* task,
                                                 AsyncTaskQueue::AsyncTaskQueueID queue,
                                                 RcStatus status)
{
    std::lock_guard<std::mutex> lock(m_owner->m_mutex);
    m_owner->m_enqueued.push_back({task, m_priority, queue, status});
}
