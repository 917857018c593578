// A task engine of one thread and one queue.
#pragma once

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

#include "common/headers/AsyncTaskControl.h"

// Runs tasks one at a time, in the order in which they became ready, and is the control object of
// every priority while it lives. The contracts know the engine of a host by this name.
//
// Thread safety: start() and enqueueToReadyQueue() from any thread.
class TaskRunner : public AsyncTaskControl
{
public:
    TaskRunner();
    // Ends the thread once the queue is empty. REQUIRES: no task is parked.
    ~TaskRunner() override;

    // Runs the task's body; the task is not owned and tells its end by finished().
    void start(AsyncTask* task);

    void enqueueToReadyQueue(AsyncTask* task, AsyncTaskQueue::AsyncTaskQueueID queue,
                             RcStatus status) override;

private:
    void work();
    void runTask(AsyncTask* task, std::unique_lock<std::mutex>& lock);
    static RcStatus goOn(AsyncTask* task, RcStatus status);

    std::mutex m_mutex;
    std::condition_variable m_cond;
    std::deque<AsyncTask*> m_ready;
    bool m_stop = false;
    std::thread m_thread; // last: it uses all the others
};
