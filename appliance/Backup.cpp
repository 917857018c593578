#include "appliance/Backup.h"

#include "RegionLocator/BackupInsertAndReportContainer.h"
#include "appliance/ChangeFilter.h"
#include "appliance/DeltaStream.h"
#include "appliance/LocatorDrain.h"
#include "appliance/OutputPath.h"
#include "appliance/SpanScan.h"
#include "host/infra/Clock.h"

namespace {

// Tells nothing: for steps whose length is not known beside the others'.
class QuietControl : public FlowControl
{
public:
    explicit QuietControl(FlowControl& outer) : m_outer(outer) {}
    bool stopRequested() override { return m_outer.stopRequested(); }

private:
    FlowControl& m_outer;
};

// A candidate that is given up again unless it has been committed.
class Candidate
{
public:
    Candidate(IncrementManager* manager, BackupStatistics* statistics)
        : m_manager(manager), m_statistics(*statistics)
    {
        if (m_manager == nullptr || !m_manager->isEnabled())
            m_manager = nullptr;
        else if (const RcStatus rc = m_manager->initNextIncrementCandidate(); rc != RC_SUCCESS)
            giveUp(rc);
    }
    ~Candidate()
    {
        if (m_manager != nullptr)
            m_manager->cancelNextIncrementCadidate();
    }
    Candidate(const Candidate&) = delete;
    Candidate& operator=(const Candidate&) = delete;

    IncrementManager* manager() const { return m_manager; }

    // The scan has reported everything up to this checkpoint, or failed to.
    void reported(RcStatus rc, CpId_t lastCheckpoint)
    {
        if (m_manager == nullptr)
            return;
        if (rc == RC_SUCCESS)
            rc = m_manager->setCandidateEndCheckpoint(lastCheckpoint);
        if (rc != RC_SUCCESS)
            giveUp(rc);
    }

    void commit()
    {
        if (m_manager == nullptr)
            return;
        if (const RcStatus rc = m_manager->commitNextIncrementCadidate(); rc != RC_SUCCESS) {
            giveUp(rc);
            return;
        }
        m_manager = nullptr;
        m_statistics.m_candidateKept = true;
    }

private:
    void giveUp(RcStatus rc)
    {
        m_statistics.m_candidateText = rcStatusText(rc);
        m_manager->cancelNextIncrementCadidate();
        m_manager = nullptr;
    }

    IncrementManager* m_manager;
    BackupStatistics& m_statistics;
};

class BackupRun
{
public:
    BackupRun(Mirror& mirror, TaskEngine& engine, const BackupOptions& options,
              FlowControl& control, BackupStatistics* statistics)
        : m_mirror(mirror), m_engine(engine), m_options(options), m_control(control),
          m_quiet(control), m_statistics(*statistics),
          m_locator(mirror.settings().m_id, RL_MMI_Backup),
          m_candidate(options.m_at.m_isCheckpoint ? options.m_increments : nullptr, statistics)
    {}

    Result run(const std::string& path)
    {
        // An increment reads the journal from the earlier point on, a full backup the target too.
        const ChosenPoint& oldest = m_options.m_since ? *m_options.m_since : m_options.m_at;
        if (Result result =
                m_mirror.usePoint(oldest.m_items, "a backup from " + oldest.name(), &m_use);
            !result.ok())
            return result;
        if (Result result = index(); !result.ok())
            return result;
        if (Result result = open(path); !result.ok())
            return result;
        if (Result result = drain(); !result.ok())
            return result;
        if (const RcStatus rc = m_use->confirmTarget(); rc != RC_SUCCESS)
            return Result::fromStatus(rc, "cannot finish the backup");
        if (Result result = m_writer->finish(); !result.ok())
            return result;
        m_statistics.m_dataBytes = m_writer->dataBytes();
        m_statistics.m_zeroBytes = m_writer->zeroBytes();
        m_statistics.m_fileBytes = m_writer->frameBytes();
        m_candidate.commit();
        return Result();
    }

private:
    Result index();
    Result reportLater(BackupInsertAndReportContainer& container, const JournalPtr& from,
                       CpId_t newest);
    Result open(const std::string& path);
    Result drain();
    Result write(u64 offsetBlocks, u64 lengthBlocks, const u8* data);
    Result put(u64 offsetBlocks, u64 lengthBlocks, const u8* data);

    Mirror& m_mirror;
    TaskEngine& m_engine;
    const BackupOptions& m_options;
    FlowControl& m_control;
    QuietControl m_quiet;
    BackupStatistics& m_statistics;
    std::unique_ptr<PointUse> m_use; // keeps apply and trim from what is read
    RegionLocator m_locator;
    Candidate m_candidate;
    std::unique_ptr<DeltaWriter> m_writer;
    std::unique_ptr<View> m_then; // the earlier point, when it is compared with
    std::unique_ptr<ChangeFilter> m_filter;
};

// One scan of the journal: from the earlier point to the later one into the locator, and on from
// there as reports.
Result BackupRun::index()
{
    const ChosenPoint& at = m_options.m_at;
    ScanOptions options;
    if (m_options.m_since)
        if (Result result = startAfter(m_mirror, *m_options.m_since, &options.start); !result.ok())
            return result;
    BackupInsertAndReportContainer container(m_mirror.settings().m_id, &m_locator,
                                             m_candidate.manager());
    CpId_t newest = ~CpId_t{0};
    if (at.m_isCheckpoint) {
        newest = m_mirror.window().m_checkpoints.back().m_id;
        container.init(at.m_checkpoint.m_id, newest);
    } else {
        container.init(newest, newest);
        options.limitItems = at.m_items;
    }
    const u64 items = at.m_items - (m_options.m_since ? m_options.m_since->m_items : 0);
    ScanResult scanned;
    if (Result result = scanJournal(m_mirror, container, options, items, "index " + at.name(),
                                    m_quiet, &scanned);
        !result.ok())
        return result;
    m_statistics.m_itemsIndexed = scanned.logicalItems;
    if (at.m_isCheckpoint && !container.reachedBackupViewCheckpoint())
        return Result(ResultCode::Damaged, "the journal has lost " + at.name());
    return m_candidate.manager() != nullptr ? reportLater(container, scanned.next, newest)
                                            : Result();
}

Result BackupRun::reportLater(BackupInsertAndReportContainer& container, const JournalPtr& from,
                              CpId_t newest)
{
    // The scan goes on with the checkpoint that has ended its first part.
    ScanOptions options;
    options.start = from;
    ScanResult scanned;
    if (Result result =
            scanJournal(m_mirror, container, options, 0, "report later writes", m_quiet, &scanned);
        !result.ok())
        return result;
    m_candidate.reported(container.ioReportFailureRc(), newest);
    return Result();
}

Result BackupRun::open(const std::string& path)
{
    const u64 id = m_mirror.settings().m_id;
    if (m_options.m_compare) {
        if (Result result = View::build(m_mirror, *m_options.m_since, m_quiet, &m_then);
            !result.ok())
            return result;
        m_filter = std::make_unique<ChangeFilter>(*m_then, m_engine);
    }
    DeltaHeader header;
    if (m_options.m_since)
        header.m_from = deltaPointName(id, *m_options.m_since);
    header.m_to = deltaPointName(id, m_options.m_at);
    header.m_sizeBytes = m_mirror.settings().m_sizeBytes;
    m_statistics.m_from = header.m_from;
    m_statistics.m_to = header.m_to;
    return DeltaWriter::open(path, header, &m_writer);
}

Result BackupRun::drain()
{
    const u64 blocks = m_locator.getTotalRegionBlocks();
    u64 done = 0;
    LocatorDrain drain(m_mirror, m_locator, m_engine,
                       m_options.m_since ? LocatorDrain::Content::JournalOnly
                                         : LocatorDrain::Content::Whole);
    const auto use = [&](u64 offsetBlocks, u64 lengthBlocks, const u8* data) {
        done += lengthBlocks;
        return write(offsetBlocks, lengthBlocks, data);
    };
    for (bool more = true; more;) {
        if (m_control.stopRequested())
            return Result(ResultCode::Interrupted, "interrupted; run the backup again");
        if (Result result = drain.next(use, &more); !result.ok())
            return result;
        if (m_options.m_since)
            m_control.progress(done, blocks);
        else
            m_control.progress(drain.position(), m_mirror.settings().sizeBlocks());
    }
    return Result();
}

Result BackupRun::write(u64 offsetBlocks, u64 lengthBlocks, const u8* data)
{
    if (m_filter == nullptr)
        return put(offsetBlocks, lengthBlocks, data);
    return m_filter->differing(offsetBlocks, lengthBlocks, data, [&](u64 offset, u64 length) {
        return put(offset, length,
                   data != nullptr ? data + ((offset - offsetBlocks) << BLOCK_SHIFT) : nullptr);
    });
}

Result BackupRun::put(u64 offsetBlocks, u64 lengthBlocks, const u8* data)
{
    if (data != nullptr)
        return m_writer->data(offsetBlocks << BLOCK_SHIFT, data, lengthBlocks << BLOCK_SHIFT);
    // What a full backup does not mention reads as zeroes.
    if (!m_options.m_since)
        return Result();
    return m_writer->zeroes(offsetBlocks << BLOCK_SHIFT, lengthBlocks << BLOCK_SHIFT);
}

} // namespace

Result backupMirror(Mirror& mirror, TaskEngine& engine, const std::string& path,
                    const BackupOptions& options, FlowControl& control,
                    BackupStatistics* statistics)
{
    const u64 startedUs = Clock::instance()->nowUs();
    *statistics = BackupStatistics();
    if (options.m_since) {
        if (Result result = checkSpan(*options.m_since, options.m_at); !result.ok())
            return result;
        if (options.m_since->name() == options.m_at.name())
            return Result::usage(options.m_at.name() + " is the point to start from as well");
    } else if (options.m_compare) {
        return Result::usage("a full backup has nothing to compare with");
    }
    if (Result result = checkOutputPath(path, mirror.settings().m_target); !result.ok())
        return result;
    Result result = BackupRun(mirror, engine, options, control, statistics).run(path);
    statistics->m_seconds = static_cast<double>(Clock::instance()->nowUs() - startedUs) / 1e6;
    return result;
}
