// What is done to a mirror one at a time, and how it went: apply and trim, and checkpoints.
//
// A command goes before background work: that is told to stop at its next safe point, and the
// command waits for it. Between two commands the second is refused.
//
//   turn             a command asks        background work asks
//   nobody's         has it                has it
//   a command's      InUse                 refused
//   background's     waits, pre-empts it   refused
//
// Thread safety: any thread. Counters are atomics, for reports.
#pragma once

#include <atomic>
#include <condition_variable>

#include "appliance/Apply.h"
#include "appliance/MemoryReserve.h"
#include "appliance/Trim.h"
#include "common/infra/Mutex.h"

enum class JobOrigin
{
    Command,
    Background,
};

// How a job did since the mirror was opened.
struct JobRecord
{
    std::atomic<u64> m_done{0};
    std::atomic<u64> m_failed{0};
    std::atomic<u64> m_lastSuccessUs{0}; // since 1970 in UTC; 0: never
};

class MirrorJobs
{
public:
    // All outlive it. memory: lent to the jobs; null: none is kept for them.
    MirrorJobs(Mirror& mirror, TaskEngine& engine, MemoryReserve* memory = nullptr)
        : m_mirror(mirror), m_engine(engine), m_memory(memory)
    {}
    MirrorJobs(const MirrorJobs&) = delete;
    MirrorJobs& operator=(const MirrorJobs&) = delete;

    Mirror& mirror() { return m_mirror; }
    TaskEngine& engine() { return m_engine; }

    // As applyMirror() and trimMirror(); besides, InUse: another apply or trim is under way;
    // Interrupted: background work that a command pre-empted. Background work is asked to stop
    // through the control that it runs under.
    Result apply(JobOrigin origin, const ChosenPoint& to, const ApplyOptions& options,
                 FlowControl& control, ApplyStatistics* statistics);
    Result trim(JobOrigin origin, const ChosenPoint& to, const TrimOptions& options,
                FlowControl& control, TrimStatistics* statistics);

    // Sets a checkpoint; takes no turn.
    Result checkpoint(const std::string& tag, CheckpointInfo* checkpoint);

    // Whether a command waits for background work to end.
    bool isCommandWaiting() const { return m_commandsWaiting != 0; }

    const JobRecord& applies() const { return m_applies; }
    const JobRecord& trims() const { return m_trims; }
    const JobRecord& checkpoints() const { return m_checkpoints; }

    // Of the apply that is under way: from 0 to 1, and 1 while there is none.
    double applyProgress() const { return m_applyProgress; }
    // Bytes of the volume that the applied requests covered, since the mirror was opened.
    u64 appliedBytes() const { return m_appliedBytes; }

private:
    class Turn;
    class Control;

    Result takeTurn(JobOrigin origin, FlowControl& control);
    void endTurn();
    static void note(JobRecord& record, const Result& result);

    Mirror& m_mirror;
    TaskEngine& m_engine;
    MemoryReserve* const m_memory;
    JobRecord m_applies;
    JobRecord m_trims;
    JobRecord m_checkpoints;
    std::atomic<double> m_applyProgress{1};
    std::atomic<u64> m_appliedBytes{0};
    std::atomic<u32> m_commandsWaiting{0};

    Mutex m_mutex;
    std::condition_variable_any m_ended;
    bool m_busy RL_GUARDED_BY(m_mutex) = false;
    JobOrigin m_owner RL_GUARDED_BY(m_mutex) = JobOrigin::Command;
};
