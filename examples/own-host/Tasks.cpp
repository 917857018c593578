#include "Tasks.h"

#include <atomic>

#include "common/headers/AsyncFrame.h"
#include "common/headers/MultiFuture.h"

namespace {

constexpr AsyncTaskPriority PRIORITIES[] = {AsyncTaskPriority::Normal, AsyncTaskPriority::Low,
                                            AsyncTaskPriority::Lowest};

std::atomic<AsyncTaskControl*> g_controls[3];

// Puts a task back on the queue when a future is set.
class ResumeTask : public FutureObserver<RcStatus>
{
public:
    explicit ResumeTask(AsyncTask* task) : m_task(task) {}

    void update(const RcStatus& rc) override
    {
        AsyncTaskControlPriority::getControl(m_task->getPriority())
            ->enqueueToReadyQueue(m_task, AsyncTaskQueue::ASYNC_TASK_Q_ID__RDY_CONTROL, rc);
        SHIELD_DELETE(this);
    }

private:
    AsyncTask* m_task;
};

} // namespace

AsyncTaskControl* AsyncTaskControlPriority::getControl(AsyncTaskPriority priority)
{
    return g_controls[static_cast<u32>(priority)];
}

AsyncTaskControl* AsyncTaskControlPriority::setControl(AsyncTaskPriority priority,
                                                       AsyncTaskControl* control)
{
    return g_controls[static_cast<u32>(priority)].exchange(control);
}

TaskRunner::TaskRunner() : m_thread([this] { work(); })
{
    for (const AsyncTaskPriority priority : PRIORITIES)
        AsyncTaskControlPriority::setControl(priority, this);
}

TaskRunner::~TaskRunner()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stop = true;
        m_cond.notify_one();
    }
    m_thread.join();
    for (const AsyncTaskPriority priority : PRIORITIES)
        AsyncTaskControlPriority::setControl(priority, nullptr);
}

void TaskRunner::start(AsyncTask* task)
{
    enqueueToReadyQueue(task, AsyncTaskQueue::ASYNC_TASK_Q_ID__RDY_DATA, RC_SUCCESS);
}

void TaskRunner::enqueueToReadyQueue(AsyncTask* task, AsyncTaskQueue::AsyncTaskQueueID,
                                     RcStatus status)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    task->m_resumeRc = status;
    // A task that is still on its way back from the call that waits is taken up again there.
    if (task->m_runState == AsyncTask::Running) {
        task->m_runState = AsyncTask::RunningAndEnqueued;
        return;
    }
    task->m_runState = AsyncTask::Queued;
    m_ready.push_back(task);
    m_cond.notify_one();
}

void TaskRunner::work()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    while (true) {
        m_cond.wait(lock, [this] { return m_stop || !m_ready.empty(); });
        if (m_ready.empty())
            return;
        AsyncTask* task = m_ready.front();
        m_ready.pop_front();
        runTask(task, lock);
    }
}

void TaskRunner::runTask(AsyncTask* task, std::unique_lock<std::mutex>& lock)
{
    while (true) {
        task->m_runState = AsyncTask::Running;
        const RcStatus status = task->m_resumeRc;
        lock.unlock();
        const RcStatus rc = goOn(task, status);
        if (rc != RC_WAIT)
            task->finished(rc); // the last use of the task
        lock.lock();
        if (rc != RC_WAIT)
            return;
        if (task->m_runState == AsyncTask::Running) {
            task->m_runState = AsyncTask::Idle;
            return;
        }
    }
}

// Runs the task until it waits or ends; a frame that ends hands its status to the one below.
RcStatus TaskRunner::goOn(AsyncTask* task, RcStatus status)
{
    RcStatus rc = status;
    if (!task->m_started) {
        task->m_started = true;
        return task->run();
    }
    while (task->m_topFrame != nullptr) {
        AsyncFrame* frame = task->m_topFrame;
        frame->m_rc = rc;
        rc = frame->callback(task);
        if (rc == RC_WAIT)
            return rc;
    }
    return rc;
}

FrameGuard::FrameGuard(AsyncTask* task, AsyncFrame* frame) : m_task(task), m_frame(frame)
{
    if (m_frame->m_onStack)
        return;
    m_frame->m_onStack = true;
    m_frame->m_below = m_task->m_topFrame;
    m_task->m_topFrame = m_frame;
}

FrameGuard::~FrameGuard()
{
    if (m_frame->m_rc == RC_WAIT)
        return;
    m_task->m_topFrame = m_frame->m_below;
    SHIELD_DELETE(m_frame);
}

bool FrameGuard::loop()
{
    const bool goOn = m_goOn && m_frame->m_rc != RC_WAIT;
    m_goOn = false;
    return goOn;
}

int FrameGuard::getState() const
{
    return m_frame->m_state;
}

void FrameGuard::setState(int state)
{
    m_frame->m_state = state;
    m_goOn = true;
}

void FrameGuard::execute(RcStatus rc)
{
    m_frame->m_rc = rc;
}

// The futures of this host are set by work that ends by itself, so no timeout is kept.
void FrameGuard::executeFuture(FutureStatus future, u64 /*timeout*/)
{
    m_frame->m_rc = RC_WAIT;
    future.attach(SHIELD_NEW(ResumeTask, m_task));
}

RcStatus FrameGuard::getRc() const
{
    return m_frame->m_rc;
}

// Waits for one after the other, on the caller's thread: where this host makes a future, it is set
// already.
FutureStatus MultiFuture_Status::createMultiFuture(const std::vector<FutureStatus>& futures)
{
    RcStatus result = RC_SUCCESS;
    for (const FutureStatus& future : futures) {
        const RcStatus rc = future.get();
        if (result == RC_SUCCESS)
            result = rc;
    }
    return makeSetFuture(result);
}
