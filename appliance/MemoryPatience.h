// How long somebody goes on who got no memory at once while it held what others need to give
// memory back: it lets that go, waits here, and tries again.
//
//   no memory -> let go -> wait(): a moment -> try again
//                          no progress for too long -> no memory
//
// Thread safety: one thread.
#pragma once

#include <chrono>
#include <thread>

#include "appliance/FlowControl.h"
#include "common/infra/RcStatus.h"
#include "host/infra/Clock.h"

class MemoryPatience
{
public:
    // Without progress, in all.
    static constexpr u64 TIMEOUT_MS = 5000;

    // control: outlives this.
    explicit MemoryPatience(FlowControl& control) : m_control(control) {}

    // done: how far it is, in a unit of its own. RC_SUCCESS: try again; RC_NO_MEMORY: there was
    // none since it first waited at this point; RC_ABORTED: control asked to stop.
    RcStatus wait(u64 done)
    {
        const u64 nowMs = Clock::instance()->nowMs();
        if (done != m_done)
            m_sinceMs = nowMs;
        m_done = done;
        if (m_control.stopRequested())
            return RC_ABORTED;
        if (nowMs - m_sinceMs >= TIMEOUT_MS)
            return RC_NO_MEMORY;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        return RC_SUCCESS;
    }

private:
    FlowControl& m_control;
    u64 m_done = ~u64{0};
    u64 m_sinceMs = 0;
};
