#include "appliance/MirrorJobs.h"

#include <algorithm>
#include <chrono>

#include "host/infra/Clock.h"

namespace {

// Between two looks at whether the one that waits for its turn is to stop.
constexpr auto LOOK_EVERY = std::chrono::milliseconds(50);

} // namespace

// A turn, until the end of the scope.
class MirrorJobs::Turn
{
public:
    explicit Turn(MirrorJobs& jobs) : m_jobs(jobs) {}
    ~Turn()
    {
        if (m_has)
            m_jobs.endTurn();
    }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;

    Result take(JobOrigin origin, FlowControl& control)
    {
        Result result = m_jobs.takeTurn(origin, control);
        m_has = result.ok();
        return result;
    }

private:
    MirrorJobs& m_jobs;
    bool m_has = false;
};

// Passes on what the caller's control says, and stops background work that is in a command's way.
class MirrorJobs::Control : public FlowControl
{
public:
    Control(MirrorJobs& jobs, JobOrigin origin, FlowControl& outer, std::atomic<double>* progress)
        : m_jobs(jobs), m_origin(origin), m_outer(outer), m_progress(progress)
    {
        if (m_progress != nullptr)
            *m_progress = 0;
    }
    ~Control() override
    {
        if (m_progress != nullptr)
            *m_progress = 1;
    }
    Control(const Control&) = delete;
    Control& operator=(const Control&) = delete;

    void progress(u64 done, u64 total) override
    {
        if (m_progress != nullptr && total != 0)
            *m_progress = std::min(1.0, static_cast<double>(done) / static_cast<double>(total));
        m_outer.progress(done, total);
    }

    void moved(u64 bytes) override { m_outer.moved(bytes); }

    bool stopRequested() override
    {
        return m_outer.stopRequested() ||
               (m_origin == JobOrigin::Background && m_jobs.m_commandsWaiting != 0);
    }

private:
    MirrorJobs& m_jobs;
    const JobOrigin m_origin;
    FlowControl& m_outer;
    std::atomic<double>* m_progress; // null: not reported
};

Result MirrorJobs::takeTurn(JobOrigin origin, FlowControl& control)
{
    const auto refused = [] {
        return Result(ResultCode::InUse, "another apply or trim is under way");
    };
    MutexGuard guard(m_mutex);
    if (origin == JobOrigin::Background) {
        if (m_busy || m_commandsWaiting != 0)
            return refused();
    } else {
        if ((m_busy && m_owner == JobOrigin::Command) || m_commandsWaiting != 0)
            return refused();
        ++m_commandsWaiting;
        bool stop = false;
        while (m_busy && !stop) {
            m_ended.wait_for(m_mutex, LOOK_EVERY);
            stop = m_busy && control.stopRequested();
        }
        --m_commandsWaiting;
        if (stop)
            return Result(ResultCode::Interrupted, "interrupted before anything was done");
    }
    m_busy = true;
    m_owner = origin;
    return Result();
}

void MirrorJobs::endTurn()
{
    MutexGuard guard(m_mutex);
    m_busy = false;
    m_ended.notify_all();
}

void MirrorJobs::note(JobRecord& record, const Result& result)
{
    if (result.ok()) {
        record.m_lastSuccessUs = Clock::instance()->wallTimeUs();
        ++record.m_done;
    } else if (result.code() != ResultCode::Interrupted) {
        ++record.m_failed;
    }
}

Result MirrorJobs::apply(JobOrigin origin, const ChosenPoint& to, const ApplyOptions& options,
                         FlowControl& control, ApplyStatistics* statistics)
{
    Turn turn(*this);
    if (Result result = turn.take(origin, control); !result.ok())
        return result;
    Control inner(*this, origin, control, options.m_dryRun ? nullptr : &m_applyProgress);
    const MemoryReserve::Loan loan(m_memory);
    Result result = applyMirror(m_mirror, m_engine, to, options, inner, statistics);
    if (!options.m_dryRun) {
        note(m_applies, result);
        m_appliedBytes += statistics->m_itemBytes;
    }
    return result;
}

Result MirrorJobs::trim(JobOrigin origin, const ChosenPoint& to, const TrimOptions& options,
                        FlowControl& control, TrimStatistics* statistics)
{
    Turn turn(*this);
    if (Result result = turn.take(origin, control); !result.ok())
        return result;
    Control inner(*this, origin, control, nullptr);
    const MemoryReserve::Loan loan(m_memory);
    Result result = trimMirror(m_mirror, m_engine, to, options, inner, statistics);
    if (!options.m_dryRun)
        note(m_trims, result);
    return result;
}

Result MirrorJobs::checkpoint(const std::string& tag, CheckpointInfo* checkpoint)
{
    CpId_t id = 0;
    Result result = m_mirror.checkpoint(tag, &id);
    note(m_checkpoints, result);
    if (!result.ok())
        return result;
    checkpoint->m_id = id;
    checkpoint->m_tag = tag;
    for (const JournalCheckpoint& one : m_mirror.journal().checkpoints()) {
        if (one.m_id == id)
            *checkpoint = {one.m_id, one.m_timestampUs, one.m_tag, one.m_itemsBefore};
    }
    return result;
}
