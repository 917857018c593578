#include "host/tasks/FutureWait.h"

#include <new>

#include "common/headers/AsyncTaskControl.h"

RcStatus FutureWait::start(AsyncTask* task, const FutureStatus& future, u64 deadlineMs)
{
    if (future.isSet())
        return future.get();
    if (Clock::isDue(deadlineMs))
        return RC_TIMED_OUT;
    const bool hasTimer = deadlineMs != Clock::NEVER;
    FutureWait* wait = SHIELD_NEW(FutureWait, task, hasTimer ? 2 : 1);
    if (hasTimer) {
        // First the timer, so that its id is known to an update() that comes inside attach().
        wait->m_clock = Clock::instance();
        try {
            wait->m_timer = wait->m_clock->schedule(deadlineMs, [wait] { wait->deadlineCame(); });
        } catch (const std::bad_alloc&) {
            SHIELD_DELETE(wait);
            return RC_NO_MEMORY;
        }
    }
    // The task may be woken in here; its engine remembers that until the frames have returned.
    future.attach(wait);
    return RC_WAIT;
}

void FutureWait::update(const RcStatus& rc)
{
    if (m_timer != Clock::NO_TIMER && m_clock->cancel(m_timer))
        letGo(); // for the timer, which will not come
    wakeOnce(rc);
    letGo();
}

void FutureWait::deadlineCame()
{
    wakeOnce(RC_TIMED_OUT);
    letGo();
}

void FutureWait::wakeOnce(RcStatus rc)
{
    if (m_isDecided.exchange(true, std::memory_order_acq_rel))
        return;
    AsyncTaskControlPriority::getControl(m_task->getPriority())
        ->enqueueToReadyQueue(m_task, AsyncTaskQueue::ASYNC_TASK_Q_ID__RDY_CONTROL, rc);
}

void FutureWait::letGo()
{
    if (m_owners.fetch_sub(1, std::memory_order_acq_rel) == 1)
        SHIELD_DELETE(this);
}
