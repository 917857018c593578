#include "appliance/IndexTurns.h"

#include <chrono>

namespace {

// Between two looks at whether the one that waits is to stop.
constexpr auto LOOK_EVERY = std::chrono::milliseconds(20);

} // namespace

bool IndexTurns::Turn::take(FlowControl& control)
{
    IndexTurns& turns = m_turns;
    MutexGuard guard(turns.m_mutex);
    if (m_kind == Kind::Copy) {
        while (turns.m_isRemoving || turns.m_removalsWaiting > 0) {
            if (control.stopRequested())
                return false;
            turns.m_ended.wait_for(turns.m_mutex, LOOK_EVERY);
        }
        ++turns.m_copies;
    } else {
        ++turns.m_removalsWaiting;
        while (turns.m_isRemoving || turns.m_copies > 0) {
            if (control.stopRequested()) {
                --turns.m_removalsWaiting;
                return false;
            }
            turns.m_ended.wait_for(turns.m_mutex, LOOK_EVERY);
        }
        --turns.m_removalsWaiting;
        turns.m_isRemoving = true;
    }
    m_has = true;
    return true;
}

IndexTurns::Turn::~Turn()
{
    if (!m_has)
        return;
    MutexGuard guard(m_turns.m_mutex);
    if (m_kind == Kind::Copy)
        --m_turns.m_copies;
    else
        m_turns.m_isRemoving = false;
    m_turns.m_ended.notify_all();
}
