#include "appliance/Apply.h"

#include <algorithm>

#include "RegionLocator/RegionLocatorMetaDataContainer.h"
#include "appliance/Drain.h"
#include "appliance/MemoryPatience.h"
#include "appliance/SpanScan.h"
#include "common/infra/MemoryPoolImpl.h"
#include "host/infra/Clock.h"
#include "host/journal/JournalScanner.h"

namespace {

constexpr u64 MEMORY_TIMEOUT_MS = 5000;
// Where memory turned out to be short.
constexpr u32 SCARCE_BATCH_ITEMS = 64;
// Of what finds room with nothing beside it: the drain locks regions, which takes two tokens each,
// and reads.
constexpr u64 STEP_PART = 8;
constexpr u64 PROGRESS_PARTS = 1 << 20;
constexpr CpId_t NO_CHECKPOINT = ~CpId_t{0};

class Applier
{
public:
    Applier(Mirror& mirror, TaskEngine& engine, const ChosenPoint& to, const ApplyOptions& options,
            FlowControl& control, ApplyStatistics* statistics)
        : m_mirror(mirror), m_engine(engine), m_to(to), m_options(options), m_control(control),
          m_statistics(*statistics), m_state(mirror.applyState())
    {}

    Result run();

private:
    Result prepare();
    Result step();
    Result buildIndex();
    Result scan(bool* fits);
    bool hasRoomToDrain();
    Result dropDone();
    void measure();
    Result check(Drain& drain);
    Result begin();
    Result drain(Drain& drain);
    Result note(Drain& drain);
    Result finish();
    void tellProgress(u64 done, u64 all);

    Mirror& m_mirror;
    TaskEngine& m_engine;
    const ChosenPoint& m_to;
    const ApplyOptions& m_options;
    FlowControl& m_control;
    ApplyStatistics& m_statistics;
    ApplyState m_state;
    std::shared_ptr<TargetVolume> m_target;
    u64 m_most = ~u64{0}; // items that a step may have
    // Of a step:
    u64 m_stepItems = 0;                     // the point that it goes to
    JournalPtr m_next = JournalPtr::invalid; // of the first item behind it
    bool m_goesOn = false;                   // where one to the same point was cut off
    u64 m_itemBytes = 0;                     // that its items cover
    std::unique_ptr<RegionLocator> m_locator;
    u64 m_allBlocks = 0;     // that are to be written
    u64 m_checkedBlocks = 0; // read beforehand
    u64 m_notedBlocks = 0;   // written when how far it came was noted last
    u64 m_notedMs = 0;
};

Result Applier::run()
{
    m_statistics.m_fromItems = m_state.m_items;
    m_statistics.m_toItems = m_to.m_items;
    if (m_to.m_items < m_state.firstItems())
        return Result(ResultCode::NotFound,
                      "no point " + m_to.name() + "; " + describeWindow(m_mirror.window()));
    m_statistics.m_items = m_to.m_items - m_state.m_items;
    m_statistics.m_resumed = m_state.underWay() && m_state.m_towardItems == m_to.m_items;
    if (m_to.m_items == m_state.m_items)
        return Result();
    if (Result result = prepare(); !result.ok())
        return result;
    while (m_state.m_items < m_to.m_items) {
        if (Result result = step(); !result.ok())
            return result;
        m_most = m_most > ~u64{0} / 2 ? m_most : 2 * m_most;
    }
    if (!m_options.m_dryRun)
        return Result();
    PinLatch latch;
    if (Result result = latch.take(m_mirror.storage()); !result.ok())
        return result;
    return checkPins(m_mirror.storage(), m_to.m_items);
}

// Before the first step.
Result Applier::prepare()
{
    if (m_mirror.report().m_skippedPages > 0)
        return Result(ResultCode::Damaged, "what is damaged cannot be applied");
    if (Result result = m_mirror.flushUpTo(m_to.m_items); !result.ok())
        return result;
    if (m_options.m_dryRun)
        return Result();
    // What the target is to hold must not be lost from the journal by a crash.
    if (const RcStatus rc = m_mirror.journal().syncMetadata(m_state.m_next); rc != RC_SUCCESS)
        return Result::fromStatus(rc, "cannot make the journal durable");
    return m_mirror.openTargetForWriting(&m_target);
}

Result Applier::step()
{
    if (Result result = buildIndex(); !result.ok())
        return result;
    m_goesOn = m_state.underWay() && m_state.m_towardItems == m_stepItems;
    if (m_goesOn) {
        if (Result result = dropDone(); !result.ok())
            return result;
    }
    if (m_options.m_dryRun) {
        measure();
        m_statistics.m_itemBytes += m_itemBytes;
        m_state = {m_stepItems, std::max(m_state.m_towardItems, m_stepItems), 0, m_next};
        return Result();
    }
    Drain drain(m_mirror, m_engine, *m_locator, *m_target, m_options.m_stepBlocks);
    m_allBlocks = m_locator->getTotalRegionBlocks();
    m_checkedBlocks = 0;
    m_notedBlocks = 0;
    if (!m_goesOn) {
        if (Result result = check(drain); !result.ok())
            return result;
    }
    if (Result result = begin(); !result.ok())
        return result;
    if (Result result = this->drain(drain); !result.ok())
        return result;
    return finish();
}

// Of all that is left, or of as much as there is memory for.
Result Applier::buildIndex()
{
    MemoryPatience patience(m_control);
    for (;;) {
        m_stepItems = m_state.m_items + std::min(m_most, m_to.m_items - m_state.m_items);
        bool fits = false;
        if (Result result = scan(&fits); !result.ok() || fits)
            return result;
        if (m_stepItems > m_state.m_items + 1) {
            m_most = std::max<u64>(1, (m_stepItems - m_state.m_items) / STEP_PART);
            continue;
        }
        m_most = 1;
        m_locator.reset();
        const RcStatus rc = patience.wait(0);
        if (rc == RC_ABORTED)
            return Result(ResultCode::Interrupted, "interrupted; run it again and it goes on");
        if (rc != RC_SUCCESS)
            return Result::failed(
                "the memory limit leaves no room to apply anything: close views, or give it more");
    }
}

// Up to the step's point. *fits: whether there was memory; else the step's point is where it ended.
Result Applier::scan(bool* fits)
{
    m_locator.reset();
    m_locator = std::make_unique<RegionLocator>(m_mirror.settings().m_id, RL_MMI_Apply);
    JournalScanner scanner(m_mirror.journal());
    ScanOptions options;
    prepareAtOnce(options);
    if (m_most != ~u64{0})
        options.batchItems = SCARCE_BATCH_ITEMS;
    options.limitItems = m_stepItems;
    // A trim may have gone on beyond, where no items were between.
    if (m_state.m_next.grain != SFS_DEV_ADDR_INVALID &&
        pageOfJournalPtr(m_state.m_next) >= m_mirror.journal().begin().m_page)
        options.start = m_state.m_next;
    options.progress = [&](u64, u64) {
        if (m_control.stopRequested())
            scanner.cancel();
    };
    RegionLocatorMetaDataContainer_Insert* container = m_locator->getInsertContainer();
    container->init(NO_CHECKPOINT);
    const ScanResult scanned = scanner.scan(*container, options);
    m_next = scanned.next;
    if (scanned.rc == RC_ABORTED)
        return Result(ResultCode::Interrupted, m_state.m_items == m_statistics.m_fromItems
                                                   ? "interrupted before anything was applied"
                                                   : "interrupted; run it again and it goes on");
    if (isForWantOfMemory(scanned)) {
        m_stepItems = std::max(m_state.m_items, scanned.itemsBefore);
        *fits = false;
        return Result();
    }
    if (scanned.rc != RC_SUCCESS)
        return Result(Result::fromStatus(scanned.rc, "").code(),
                      "cannot build the index of what is to be applied: " +
                          (scanned.message.empty() ? rcStatusText(scanned.rc) : scanned.message));
    if (scanned.itemsBefore != m_stepItems)
        return Result(ResultCode::Damaged, "the journal ends before " + m_to.name());
    m_itemBytes = m_locator->getStatistics().m_bytesInserted;
    *fits = hasRoomToDrain();
    return Result();
}

// Whether there is memory beside the index for what draining it takes: locks, and a read.
bool Applier::hasRoomToDrain()
{
    RegionLocatorMemPool* pool = m_locator->getMemPool();
    const u64 regions = std::min<u64>(m_locator->getItemCount(), m_options.m_stepBlocks);
    RegionLocatorVoucher* voucher = pool->createVoucher();
    RcStatus rc =
        pool->fillVoucher(voucher,
                          RegionLocatorMemPool::getVoucherRequirement(
                              RegionLocatorMemPool::LOOKUP_LOCKED, static_cast<int>(regions)),
                          0, this)
            .get();
    if (rc == RC_SUCCESS) {
        auto* processPool = Singleton<MemoryPoolImpl, MemoryPoolImpl>::instance();
        ScatteredBuf read;
        rc = processPool->fillBufNoWait(&read, processPool->getChunkSize(),
                                        processPool->getMmi("Apply_reads"));
        read.deleteContent();
    }
    pool->destroyVoucher(voucher);
    return rc == RC_SUCCESS;
}

// What an apply to the same point that was cut off has written, and made durable.
Result Applier::dropDone()
{
    RegionLocatorMemPool* pool = m_locator->getMemPool();
    RegionLocatorVoucher* voucher = pool->createVoucher();
    RcStatus rc = RC_SUCCESS;
    constexpr u64 STEP_BLOCKS = u64{1} << 31;
    while (rc == RC_SUCCESS && m_locator->getFirstOffest() < m_state.m_doneBlocks) {
        const u64 offset = m_locator->getFirstOffest();
        const u64 length = std::min(m_state.m_doneBlocks - offset, STEP_BLOCKS);
        rc = pool->fillVoucher(
                     voucher,
                     RegionLocatorMemPool::getVoucherRequirement(RegionLocatorMemPool::REMOVE, 1),
                     Clock::instance()->nowMs() + MEMORY_TIMEOUT_MS, this)
                 .get();
        if (rc == RC_SUCCESS)
            m_locator->remove(offset, static_cast<u32>(length), voucher);
        pool->clearVoucher(voucher);
    }
    pool->destroyVoucher(voucher);
    return Result::fromStatus(rc, "no memory to go on with what was applied before");
}

// For a dry run, of a locator that is of no other use any more.
void Applier::measure()
{
    const RegionMap::const_iterator end = m_locator->getConstEndIterator();
    for (auto at = m_locator->getConstBeginIterator(); at != end; ++at)
        (at->isAllZeroes() ? m_statistics.m_zeroBytes : m_statistics.m_dataBytes) +=
            u64{at->m_lengthBlocks} * BLOCK_BYTES;
}

// Holds first, as they are looked at in no time.
Result Applier::check(Drain& drain)
{
    {
        PinLatch latch;
        if (Result result = latch.take(m_mirror.storage()); !result.ok())
            return result;
        if (Result result = checkPins(m_mirror.storage(), m_to.m_items); !result.ok())
            return result;
    }
    return drain.check(m_control, [&](u64 blocks) {
        m_checkedBlocks = blocks;
        tellProgress(blocks, 2 * m_allBlocks);
    });
}

Result Applier::begin()
{
    PinLatch latch;
    if (Result result = latch.take(m_mirror.storage()); !result.ok())
        return result;
    if (Result result = checkPins(m_mirror.storage(), m_to.m_items); !result.ok())
        return result;
    if (m_goesOn)
        return Result();
    // A step on the way of one that was cut off, for which there was more memory, writes again what
    // that one has.
    m_state.m_towardItems = std::max(m_state.m_towardItems, m_stepItems);
    m_state.m_doneBlocks = 0;
    return m_mirror.setApplyState(m_state);
}

Result Applier::note(Drain& drain)
{
    if (Result result = drain.finishWrites(); !result.ok())
        return result;
    if (const RcStatus rc = m_target->sync(); rc != RC_SUCCESS)
        return targetFailure(rc, "cannot make the target volume durable");
    // "Done" says what is of the point that the state goes to.
    if (m_state.m_towardItems == m_stepItems)
        m_state.m_doneBlocks = std::min(drain.doneBelow(), m_mirror.settings().sizeBlocks());
    m_notedBlocks = drain.dataBlocks() + drain.zeroBlocks();
    m_notedMs = Clock::instance()->nowMs();
    return m_mirror.setApplyState(m_state);
}

Result Applier::drain(Drain& drain)
{
    const u64 dataBytes = m_statistics.m_dataBytes;
    const u64 zeroBytes = m_statistics.m_zeroBytes;
    m_notedMs = Clock::instance()->nowMs();
    for (bool more = true; more;) {
        const u64 dataBlocks = drain.dataBlocks();
        if (Result result = drain.step(&more); !result.ok())
            return result;
        // What is read and what is written are the same: it is moved once.
        m_control.moved((drain.dataBlocks() - dataBlocks) * BLOCK_BYTES);
        const u64 done = drain.dataBlocks() + drain.zeroBlocks();
        m_statistics.m_dataBytes = dataBytes + drain.dataBlocks() * BLOCK_BYTES;
        m_statistics.m_zeroBytes = zeroBytes + drain.zeroBlocks() * BLOCK_BYTES;
        tellProgress(m_checkedBlocks + done, m_checkedBlocks + m_allBlocks);
        if (!more)
            break;
        const bool stop = m_control.stopRequested();
        const double seconds = static_cast<double>(Clock::instance()->nowMs() - m_notedMs) / 1e3;
        if (stop || done - m_notedBlocks >= m_options.m_noteEveryBlocks ||
            seconds >= m_options.m_noteEverySeconds) {
            if (Result result = note(drain); !result.ok())
                return result;
        }
        if (stop)
            return Result(ResultCode::Interrupted, "interrupted; run it again and it goes on");
    }
    return Result();
}

Result Applier::finish()
{
    if (const RcStatus rc = m_target->sync(); rc != RC_SUCCESS)
        return targetFailure(rc, "cannot make the target volume durable");
    m_state = {m_stepItems, std::max(m_state.m_towardItems, m_stepItems), 0, m_next};
    if (Result result = m_mirror.setApplyState(m_state); !result.ok())
        return result;
    m_statistics.m_itemBytes += m_itemBytes;
    return Result();
}

void Applier::tellProgress(u64 done, u64 all)
{
    const double part = all == 0 ? 1 : static_cast<double>(done) / static_cast<double>(all);
    const double items = static_cast<double>(m_state.m_items - m_statistics.m_fromItems) +
                         part * static_cast<double>(m_stepItems - m_state.m_items);
    m_control.progress(
        static_cast<u64>(items / static_cast<double>(m_statistics.m_items) * PROGRESS_PARTS),
        PROGRESS_PARTS);
}

} // namespace

Result checkPins(Storage& storage, u64 items)
{
    std::vector<Hold> holds;
    if (Result result = listHolds(storage, &holds); !result.ok())
        return result;
    for (const Hold& hold : holds) {
        if (hold.m_items < items)
            return Result(ResultCode::InUse,
                          "the hold '" + hold.m_name + "' keeps " + hold.m_point +
                              ", which lies before item:" + std::to_string(items));
    }
    std::vector<UseInfo> uses;
    if (Result result = listUses(storage, {}, &uses); !result.ok())
        return result;
    for (const UseInfo& use : uses) {
        if (use.m_items < items)
            return Result(ResultCode::InUse,
                          use.description() +
                              " is in use and lies before item:" + std::to_string(items));
    }
    return Result();
}

Result applyMirror(Mirror& mirror, TaskEngine& engine, const ChosenPoint& to,
                   const ApplyOptions& options, FlowControl& control, ApplyStatistics* statistics)
{
    const u64 startedUs = Clock::instance()->nowUs();
    Result result = Applier(mirror, engine, to, options, control, statistics).run();
    statistics->m_seconds = static_cast<double>(Clock::instance()->nowUs() - startedUs) / 1e6;
    return result;
}
