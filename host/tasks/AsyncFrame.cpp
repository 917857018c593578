#include "common/headers/AsyncFrame.h"

#include <climits>

#include "common/headers/AsyncTaskControl.h"
#include "common/infra/Assert.h"
#include "host/tasks/FutureWait.h"

namespace {
// The state of a frame that is suspended in its last step: it has only its status to take back.
constexpr int ENDING = INT_MIN;
} // namespace

FrameGuard::FrameGuard(AsyncTask* task, AsyncFrame* frame) : m_task(task), m_frame(frame)
{
    if (!frame->m_onStack) {
        frame->m_onStack = true;
        frame->m_below = task->m_topFrame;
        task->m_topFrame = frame;
    }
    m_goOn = frame->m_state != ENDING;
}

FrameGuard::~FrameGuard()
{
    if (m_frame->m_rc == RC_WAIT) {
        // m_goOn tells whether the step that waits has named a next one.
        if (!m_goOn)
            m_frame->m_state = ENDING;
        return;
    }
    HARD_CHECK(m_task->m_topFrame == m_frame);
    m_task->m_topFrame = m_frame->m_below;
    SHIELD_DELETE(m_frame);
}

bool FrameGuard::loop()
{
    if (m_frame->m_rc == RC_WAIT || !m_goOn)
        return false;
    m_goOn = false;
    return true;
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

void FrameGuard::executeFuture(FutureStatus future, u64 timeout)
{
    m_frame->m_rc = FutureWait::start(m_task, future, timeout);
}

RcStatus FrameGuard::getRc() const
{
    return m_frame->m_rc;
}
