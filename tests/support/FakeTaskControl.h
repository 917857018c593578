// The ready queues of all priorities, for as long as it lives: they note what is put on them.
#pragma once

#include <array>
#include <mutex>
#include <vector>

#include "common/headers/AsyncTaskControl.h"

struct EnqueuedTask
{
    AsyncTask* m_task;
    AsyncTaskPriority m_priority; // of the control object that was asked for
    AsyncTaskQueue::AsyncTaskQueueID m_queue;
    RcStatus m_status;
};

// Thread safety: tasks are enqueued by any thread; one FakeTaskControl at a time.
class FakeTaskControl
{
public:
    FakeTaskControl();
    ~FakeTaskControl();
    FakeTaskControl(const FakeTaskControl&) = delete;
    FakeTaskControl& operator=(const FakeTaskControl&) = delete;

    std::vector<EnqueuedTask> enqueued() const;

private:
    class Queue : public AsyncTaskControl
    {
    public:
        void enqueueToReadyQueue(AsyncTask* task, AsyncTaskQueue::AsyncTaskQueueID queue,
                                 RcStatus status) override;

        FakeTaskControl* m_owner = nullptr;
        AsyncTaskPriority m_priority = AsyncTaskPriority::Normal;
        AsyncTaskControl* m_before = nullptr;
    };

    mutable std::mutex m_mutex;
    std::vector<EnqueuedTask> m_enqueued;
    std::array<Queue, 3> m_queues;
};
