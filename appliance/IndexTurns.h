// Keeps two things apart that are each done in steps: taking trimmed items out of a journal's
// indexes, and copying one index into another. Whoever copied while items go could take along what
// the removal would not find in the copy.
//
//   turn       while one copies    while one removes
//   to copy    has it              waits
//   to remove  waits, as first     waits
//
// Thread safety: any thread.
#pragma once

#include <condition_variable>

#include "appliance/FlowControl.h"
#include "common/infra/Mutex.h"

class IndexTurns
{
public:
    enum class Kind
    {
        Copy,
        Removal,
    };

    IndexTurns() = default;
    IndexTurns(const IndexTurns&) = delete;
    IndexTurns& operator=(const IndexTurns&) = delete;

    // A turn, for the length of a scope.
    class Turn
    {
    public:
        Turn(IndexTurns& turns, Kind kind) : m_turns(turns), m_kind(kind) {}
        ~Turn();
        Turn(const Turn&) = delete;
        Turn& operator=(const Turn&) = delete;

        // Waits for it. False: control asked to stop meanwhile. Once.
        bool take(FlowControl& control);

    private:
        IndexTurns& m_turns;
        const Kind m_kind;
        bool m_has = false;
    };

private:
    Mutex m_mutex;
    std::condition_variable_any m_ended;
    u64 m_copies RL_GUARDED_BY(m_mutex) = 0;
    bool m_isRemoving RL_GUARDED_BY(m_mutex) = false;
    u64 m_removalsWaiting RL_GUARDED_BY(m_mutex) = 0;
};
