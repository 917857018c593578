#include "appliance/Trim.h"

#include <algorithm>

#include "appliance/MemoryPatience.h"
#include "appliance/View.h"
#include "appliance/ZeroesTrim.h"
#include "host/infra/Clock.h"
#include "host/journal/JournalTrim.h"
#include "host/tasks/BlockingTask.h"

namespace {

// Items between two looks at the outside.
constexpr u64 LOOK_EVERY = 256;

class Trimmer
{
public:
    Trimmer(Mirror& mirror, TaskEngine& engine, const TrimOptions& options, FlowControl& control,
            TrimStatistics* statistics)
        : m_mirror(mirror), m_journal(mirror.journal()), m_engine(engine), m_options(options),
          m_control(control), m_statistics(*statistics)
    {}

    Result run(const ChosenPoint& to);

private:
    Result plan(u64 items);
    using Indexes = std::vector<JournalIndex*>;

    Result checkReaders(const Indexes& indexes);
    Result begin(const Indexes& indexes);
    void countLastGrain(); // which is not counted by the plan
    Result removeFrom(u64 oldPage);
    RcStatus removeItems(const std::vector<SfsDiskMetaItem>& items);
    RcStatus removeItem(const Indexes& indexes, const SfsDiskMetaItem& item);

    Mirror& m_mirror;
    JournalStore& m_journal;
    TaskEngine& m_engine;
    const TrimOptions& m_options;
    FlowControl& m_control;
    TrimStatistics& m_statistics;
    JournalTrimPlan m_plan;
};

Result Trimmer::run(const ChosenPoint& to)
{
    const u64 applied = m_mirror.applyState().m_items;
    if (to.m_items > applied)
        return Result(ResultCode::InUse,
                      "the target holds the journal up to item:" + std::to_string(applied) +
                          " only; apply to " + to.name() + " first");
    if (m_mirror.report().m_skippedPages > 0)
        return Result(ResultCode::Damaged, "what is damaged cannot be trimmed");
    if (!m_options.m_dryRun) {
        // What is not durable lies behind the point, and is not looked at.
        if (Result result = m_mirror.flushUpTo(to.m_items); !result.ok())
            return result;
    }
    if (Result result = plan(to.m_items); !result.ok())
        return result;
    const JournalBegin old = m_journal.begin();
    // A trim that could not take its items out of all indexes has left its grains to this one.
    const bool unfinished = m_mirror.untakenPage() < old.m_page;
    if (m_plan.m_begin.m_page == old.m_page && !unfinished)
        return m_options.m_dryRun ? Result()
                                  : removeTrimmedZeroes(m_mirror, m_control, m_statistics.m_items);
    m_statistics.m_items = m_plan.m_begin.m_items - old.m_items;
    m_statistics.m_dataGrains = m_plan.m_dataGrains;
    m_statistics.m_metaGrains = m_plan.m_metaGrains;
    m_statistics.m_bytes = m_plan.m_freedBlocks * (BLOCK_BYTES + sizeof(u32)) +
                           (m_plan.m_begin.m_page - old.m_page) * BLOCK_BYTES;
    if (m_options.m_dryRun && m_plan.m_noDataBefore == m_journal.endPage() &&
        m_journal.durableItemCount() == m_journal.itemCount())
        countLastGrain();
    if (!m_options.m_dryRun && m_control.stopRequested())
        return Result(ResultCode::Interrupted, "interrupted before anything was trimmed");
    // Beforehand, so that nobody who writes has to wait for it.
    if (!m_options.m_dryRun) {
        const RcStatus rc = m_journal.syncMetadata(journalPtr(m_plan.m_begin.m_page, 0));
        if (rc != RC_SUCCESS)
            return Result::fromStatus(rc, "cannot make the journal durable");
    }
    // What is journaled by now is in the indexes after this.
    if (!m_mirror.gracePeriod().wait(m_control))
        return Result(ResultCode::Interrupted, "interrupted before anything was trimmed");
    {
        // Nobody copies an index between the new beginning and the removal, nor later while a
        // removal is not done (untakenPage()). Who has copied one and is not in the list yet has
        // a use that refuses the new beginning. One that is built by a scan from now on has nothing
        // that goes.
        IndexTurns::Turn turn(m_mirror.indexTurns(), IndexTurns::Kind::Removal);
        if (!m_options.m_dryRun && !turn.take(m_control))
            return Result(ResultCode::Interrupted, "interrupted before anything was trimmed");
        Result result;
        m_mirror.withIndexes([&](const Indexes& indexes) { result = begin(indexes); });
        if (!result.ok() || m_options.m_dryRun)
            return result;
        const u64 from = std::min(old.m_page, m_mirror.untakenPage());
        m_mirror.setUntakenPage(from);
        if (result = removeFrom(from); !result.ok())
            return result;
    }
    // Where a reader keeps them, the grains are left to the next trim, as if not all were taken.
    if (!m_mirror.gracePeriod().wait(m_control))
        return Result(ResultCode::Interrupted, "interrupted; the next trim goes on");
    m_mirror.setUntakenPage(~u64{0});
    u64 removed = 0;
    if (const RcStatus rc = m_journal.removeTrimmed(&removed); rc != RC_SUCCESS)
        return Result::fromStatus(rc, "cannot remove the journal's grains");
    // Last, as nothing is given back by it.
    return removeTrimmedZeroes(m_mirror, m_control, m_statistics.m_items);
}

Result Trimmer::plan(u64 items)
{
    // Checkpoints that can be served stay, also those right at the target's point, and those that
    // are set while we look.
    const u64 applied = m_mirror.applyState().m_items;
    u64 lastPage = m_journal.endPage();
    for (const JournalCheckpoint& one : m_journal.checkpoints()) {
        if (one.m_itemsBefore >= applied)
            lastPage = std::min(lastPage, pageOfJournalPtr(one.m_ptr));
    }
    m_plan =
        planJournalTrim(m_journal, items, lastPage, [this] { return m_control.stopRequested(); });
    if (m_plan.m_rc == RC_ABORTED)
        return Result(ResultCode::Interrupted, "interrupted before anything was trimmed");
    return m_plan.m_rc == RC_SUCCESS
               ? Result()
               : Result(Result::fromStatus(m_plan.m_rc, "").code(),
                        "cannot read what is to be trimmed: " + (m_plan.m_message.empty()
                                                                     ? rcStatusText(m_plan.m_rc)
                                                                     : m_plan.m_message));
}

// Whoever reads what goes and cannot be told. Indexes of this process can, once they are built.
Result Trimmer::checkReaders(const Indexes& indexes)
{
    std::vector<std::string> own;
    for (const JournalIndex* index : indexes) {
        if (index->use() != nullptr)
            own.push_back(index->use()->file());
    }
    std::vector<UseInfo> uses;
    if (Result result = listUses(m_mirror.storage(), own, &uses); !result.ok())
        return result;
    for (const UseInfo& use : uses) {
        if (use.m_firstPage < m_plan.m_begin.m_page)
            return Result(ResultCode::InUse, use.description() + " reads what would be trimmed");
    }
    return Result();
}

Result Trimmer::begin(const Indexes& indexes)
{
    PinLatch latch;
    if (Result result = latch.take(m_mirror.storage()); !result.ok())
        return result;
    if (Result result = checkReaders(indexes); !result.ok() || m_options.m_dryRun)
        return result;
    const RcStatus rc =
        m_journal.setBegin(m_plan.m_begin, m_plan.m_freedBlocks, m_plan.m_noDataBefore);
    if (rc == RC_SUCCESS && m_journal.begin().m_firstGrain > m_plan.m_begin.m_firstGrain)
        countLastGrain();
    return Result::fromStatus(rc, "cannot give the journal a new beginning");
}

void Trimmer::countLastGrain()
{
    if (m_plan.m_begin.m_lastGrain == 0 || m_plan.m_begin.m_firstGrain > m_plan.m_begin.m_lastGrain)
        return; // there is none, or it has gone already
    ++m_statistics.m_dataGrains;
    m_statistics.m_bytes += m_plan.m_begin.m_deadBlocks * (BLOCK_BYTES + sizeof(u32));
}

// A step at a time, so that indexes can be opened and closed in between.
Result Trimmer::removeFrom(u64 oldPage)
{
    bool hasIndexes = false;
    m_mirror.withIndexes([&](const Indexes& indexes) { hasIndexes = !indexes.empty(); });
    if (!hasIndexes)
        return Result();
    u64 done = 0;
    std::vector<SfsDiskMetaItem> step;
    step.reserve(LOOK_EVERY);
    RcStatus rc = visitJournalItems(
        m_journal, oldPage, m_plan.m_begin.m_page, [&](const SfsDiskMetaItem& item) {
            step.push_back(item);
            if (step.size() < LOOK_EVERY)
                return RC_SUCCESS;
            const RcStatus one = removeItems(step);
            done += step.size();
            step.clear();
            m_control.progress(std::min(done, m_statistics.m_items), m_statistics.m_items);
            return one == RC_SUCCESS && m_control.stopRequested() ? RC_ABORTED : one;
        });
    if (rc == RC_SUCCESS)
        rc = removeItems(step);
    if (rc == RC_ABORTED)
        return Result(ResultCode::Interrupted, "interrupted; the next trim goes on");
    return Result::fromStatus(rc, "cannot take what was trimmed out of the open indexes; its space "
                                  "is given back by the next trim");
}

RcStatus Trimmer::removeItems(const std::vector<SfsDiskMetaItem>& items)
{
    MemoryPatience patience(m_control);
    size_t done = 0;
    for (;;) {
        RcStatus rc = RC_SUCCESS;
        m_mirror.withIndexes([&](const Indexes& indexes) {
            while (done < items.size() && rc == RC_SUCCESS) {
                rc = removeItem(indexes, items[done]);
                done += rc == RC_SUCCESS;
            }
        });
        if (rc != RC_NO_MEMORY)
            return rc;
        // Without the list: an index that closes gives its memory back, but not before it has left
        // the list.
        if (rc = patience.wait(done); rc != RC_SUCCESS)
            return rc;
    }
}

// Where it fails it can be tried again: the indexes that are done have nothing of the item any
// more.
RcStatus Trimmer::removeItem(const Indexes& indexes, const SfsDiskMetaItem& item)
{
    for (JournalIndex* index : indexes) {
        bool removed = false;
        if (item.is_io_type_with_ud()) {
            if (const RcStatus rc = removeIoFromIndex(*index, m_engine, item, &removed);
                rc != RC_SUCCESS)
                return rc;
        } else if (item.getType() == SfsMetaType::ZEROS && index->isLive()) {
            noteTrimmedZeroes(m_mirror, *index, item);
        }
        m_statistics.m_removedIos += removed;
    }
    return RC_SUCCESS;
}

} // namespace

RcStatus removeIoFromIndex(JournalIndex& index, TaskEngine& engine, const SfsDiskMetaItem& item,
                           bool* removed)
{
    *removed = false;
    const SubRegionDescriptor io(SfsItemDescriptor::genFromSfsDiskMetaItem(item));
    // Most of what goes was overridden long ago.
    for (const SubRegionDescriptor& piece : index.pieces(io.m_viewOffsetBlocks, io.m_lengthBlocks))
        *removed = *removed || (!piece.isAllZeroes() &&
                                piece.getOrigIoFifoOffsetLbs() == io.getOrigIoFifoOffsetLbs());
    if (!*removed)
        return RC_SUCCESS;
    RegionLocator& locator = index.locator();
    RegionLocatorMemPool* pool = locator.getMemPool();
    LocatorGate::Ticket ticket;
    RcStatus rc = index.gate().enter(&ticket, LocatorGate::Kind::Locker).get();
    RegionLocatorVoucher* voucher = pool->createVoucher();
    if (rc == RC_SUCCESS)
        rc = pool->fillVoucher(voucher,
                               RegionLocatorMemPool::getVoucherRequirement(
                                   RegionLocatorMemPool::LOCK_AND_REMOVE, 1),
                               0, &ticket)
                 .get();
    if (rc == RC_SUCCESS)
        rc = runAndWait(engine,
                        [&](AsyncTask* task) { return locator.lockAndRemove(task, io, voucher); });
    index.gate().leave(&ticket);
    pool->destroyVoucher(voucher);
    return rc;
}

Result trimMirror(Mirror& mirror, TaskEngine& engine, const ChosenPoint& to,
                  const TrimOptions& options, FlowControl& control, TrimStatistics* statistics)
{
    const u64 startedUs = Clock::instance()->nowUs();
    Result result = Trimmer(mirror, engine, options, control, statistics).run(to);
    statistics->m_seconds = static_cast<double>(Clock::instance()->nowUs() - startedUs) / 1e6;
    return result;
}
