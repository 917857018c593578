// A task that waits for a future, perhaps with a deadline.
#pragma once

#include <atomic>

#include "common/headers/AsyncTask.h"
#include "common/infra/Future.h"
#include "host/infra/Clock.h"

// The future and the timer race for the task; the first one puts it back on a ready queue, the
// other one finds it gone and touches nothing. The object belongs to both and lives until the later
// one has let go: a future that is set long after the deadline still finds its observer, though
// neither the task nor the frame need exist any more.
class FutureWait : public FutureObserver<RcStatus>
{
public:
    // The future's value when it is set; RC_TIMED_OUT when it is not and the deadline has come;
    // else RC_WAIT, and the task is put back with the one or the other. RC_WAIT is no value of a
    // future that a task waits for.
    static RcStatus start(AsyncTask* task, const FutureStatus& future, u64 deadlineMs);

    FutureWait(AsyncTask* task, u32 owners) : m_task(task), m_owners(owners) {}

    void update(const RcStatus& rc) override;

private:
    void deadlineCame();
    void wakeOnce(RcStatus rc);
    void letGo();

    AsyncTask* const m_task; // only for who wins m_isDecided
    Clock* m_clock = nullptr;
    Clock::TimerId m_timer = Clock::NO_TIMER;
    std::atomic<bool> m_isDecided{false};
    std::atomic<u32> m_owners;
};
