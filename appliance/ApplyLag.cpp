#include "appliance/ApplyLag.h"

#include <algorithm>

#include "appliance/SpanScan.h"
#include "host/infra/Clock.h"

namespace {

constexpr double MICROS = 1e6;

// Adds up what the items of a scan cover.
class BytesCounter : public SfsMetaDataContainer
{
public:
    FutureStatus prepareToAdd(int, u64) override { return makeSetFuture(RC_SUCCESS); }
    void unPrepareToAdd() override {}
    RcStatus addMetaData(const SfsDiskMetaItem& item, const JournalPtr&) override
    {
        if (item.getType() != SfsMetaType::CHECKPOINT)
            m_bytes += u64{item.getUncompressedLengthBlocks()} * BLOCK_BYTES;
        return RC_SUCCESS;
    }
    RcStatus metaGrainStarted(SfsDevAddr) override { return RC_SUCCESS; }
    bool isAddMetaDataDesireOffload() override { return false; }

    u64 m_bytes = 0;
};

} // namespace

Result ApplyLag::measure(FlowControl& control)
{
    Mirror& mirror = m_jobs.mirror();
    const ApplyState applied = mirror.applyState();
    m_startJournaled = m_journaled();
    m_startApplied = m_jobs.appliedBytes();
    if (applied.m_items == mirror.journal().itemCount())
        return Result();
    if (Result result = mirror.flush(); !result.ok())
        return result;
    ScanOptions options;
    if (applied.m_next.grain != SFS_DEV_ADDR_INVALID &&
        pageOfJournalPtr(applied.m_next) >= mirror.journal().begin().m_page)
        options.start = applied.m_next;
    BytesCounter counter;
    ScanResult scanned;
    Result result = scanJournal(mirror, counter, options, mirror.journal().itemCount(),
                                "measure what is to be applied", control, &scanned);
    m_startBytes = counter.m_bytes;
    return result;
}

u64 ApplyLag::bytes() const
{
    // In this order: what is applied was journaled before.
    const u64 applied = m_jobs.appliedBytes() - m_startApplied;
    const u64 journaled = m_startBytes + m_journaled() - m_startJournaled;
    return journaled - std::min(journaled, applied);
}

u64 ApplyLag::items() const
{
    const u64 applied = m_jobs.mirror().applyState().m_items;
    const u64 journaled = m_jobs.mirror().journal().itemCount();
    return journaled - std::min(journaled, applied);
}

double ApplyLag::seconds() const
{
    const u64 applied = m_jobs.mirror().applyState().m_items;
    const u64 nowUs = Clock::instance()->wallTimeUs();
    for (const JournalCheckpoint& one : m_jobs.mirror().journal().checkpoints()) {
        if (one.m_itemsBefore > applied)
            return static_cast<double>(nowUs - std::min(nowUs, one.m_timestampUs)) / MICROS;
    }
    return 0;
}
