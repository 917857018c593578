#include "appliance/Drain.h"

#include <algorithm>

#include "common/infra/MemoryPoolImpl.h"
#include "host/infra/Clock.h"
#include "host/tasks/BlockingTask.h"

namespace {

// Longer runs are written in pieces of this, in flight together.
constexpr u32 WRITE_BLOCKS = 1024;
// Where nothing is, a lookup goes over so much at once: not all of a huge volume, as many pieces
// may lie behind a gap.
constexpr u32 EMPTY_WINDOW_BLOCKS = 1 << 22;
constexpr u64 PATIENCE_MS = 30000;

} // namespace

Result targetFailure(RcStatus rc, const std::string& what)
{
    return rc == RC_NO_SPACE
               ? Result(ResultCode::NoSpace,
                        what + ": its disk is full; make room there and run the apply again, it "
                               "goes on")
               : Result::fromStatus(rc, what);
}

Drain::Drain(Mirror& mirror, TaskEngine& engine, RegionLocator& locator, TargetVolume& target,
             u32 stepBlocks)
    : m_engine(engine), m_locator(locator), m_target(target), m_stepBlocks(stepBlocks),
      m_reader(&mirror.journal(), &mirror.driver(), "apply", mirror.settings().m_id),
      m_memory(Singleton<MemoryPoolImpl, MemoryPoolImpl>::instance()->getMmi("Apply_reads")),
      m_voucher(locator.getMemPool()->createVoucher())
{}

Drain::~Drain()
{
    if (m_inFlight)
        m_batches[1 - m_current].m_written.get();
    m_locator.getMemPool()->destroyVoucher(m_voucher);
}

Result Drain::reserve(u64 regions)
{
    RegionLocatorMemPool* pool = m_locator.getMemPool();
    pool->clearVoucher(m_voucher);
    const RcStatus rc =
        pool->fillVoucher(m_voucher,
                          RegionLocatorMemPool::getVoucherRequirement(
                              RegionLocatorMemPool::LOOKUP_LOCKED, static_cast<int>(regions)),
                          Clock::instance()->nowMs() + PATIENCE_MS, this)
            .get();
    return Result::fromStatus(rc, "no memory to apply the journal's pieces");
}

Result Drain::lockNext(Batch& batch)
{
    batch.m_regions.clear();
    const u64 locked = m_inFlight ? m_batches[1 - m_current].m_regions.size() : 0;
    const u64 left = m_locator.getItemCount() - locked;
    if (left == 0)
        return Result();
    if (Result result = reserve(std::min<u64>(left, m_stepBlocks)); !result.ok())
        return result;
    const RcStatus rc = runAndWait(m_engine, [&](AsyncTask* task) {
        return m_locator.getFirstBlocksAndLock(task, m_stepBlocks, &batch.m_regions, m_voucher);
    });
    return Result::fromStatus(rc, "cannot take the next pieces to apply");
}

Result Drain::check(FlowControl& control, const std::function<void(u64 blocks)>& progress)
{
    if (Result result = reserve(std::min<u64>(m_locator.getItemCount(), m_stepBlocks));
        !result.ok())
        return result;
    // By lookups, as iterators would end all changes of the locator.
    Batch& batch = m_batches[m_current];
    u64 done = 0;
    u32 windowBlocks = m_stepBlocks;
    for (u64 offset = m_locator.getFirstOffest(); offset < m_target.lengthBlocks();) {
        m_locator.lookup(nullptr, offset, windowBlocks, &batch.m_regions, false, nullptr);
        if (batch.m_regions.empty()) {
            offset += windowBlocks;
            windowBlocks = std::min(2 * windowBlocks, EMPTY_WINDOW_BLOCKS);
            continue;
        }
        if (windowBlocks > m_stepBlocks) {
            offset = batch.m_regions.front().m_viewOffsetBlocks;
            windowBlocks = m_stepBlocks;
            continue;
        }
        offset += windowBlocks;
        u64 dataBlocks = 0;
        for (const SubRegionDescriptor& region : batch.m_regions) {
            done += region.m_lengthBlocks;
            dataBlocks += region.isAllZeroes() ? 0 : region.m_lengthBlocks;
        }
        if (const RcStatus rc = readBatch(batch); rc != RC_SUCCESS)
            return unreadable(batch, rc);
        control.moved(dataBlocks * BLOCK_BYTES);
        progress(done);
        if (control.stopRequested())
            return Result(ResultCode::Interrupted, "interrupted before anything was applied");
    }
    batch.m_regions.clear();
    return Result();
}

// Which of them it was, as far as that can still be found out.
Result Drain::unreadable(Batch& batch, RcStatus rc)
{
    Batch alone;
    for (const SubRegionDescriptor& region : batch.m_regions) {
        alone.m_regions.assign(1, region);
        const RcStatus one = readBatch(alone);
        if (one == RC_SUCCESS)
            continue;
        const u64 address = region.getOrigIoFifoOffsetLbs();
        return Result::fromStatus(
            one, "cannot read the journal's data of blocks " +
                     std::to_string(region.m_viewOffsetBlocks) + " to " +
                     std::to_string(region.m_viewOffsetBlocks + region.m_lengthBlocks - 1) +
                     " (data grain " + std::to_string(SFS_GRAIN_OF(address)) + ", IO at block " +
                     std::to_string(address % SFS_GRAIN_BLOCKS) + ")");
    }
    return Result::fromStatus(rc, "cannot read the journal's data");
}

RcStatus Drain::readBatch(Batch& batch)
{
    u64 blocks = 0;
    for (const SubRegionDescriptor& region : batch.m_regions)
        blocks += region.isAllZeroes() ? 0 : region.m_lengthBlocks;
    if (blocks == 0)
        return RC_SUCCESS;
    if (batch.m_bufferBlocks < blocks) {
        batch.m_buffer.reset(new u8[blocks * BLOCK_BYTES]);
        batch.m_bufferBlocks = blocks;
    }
    std::vector<ScatteredBuf> buffers;
    buffers.reserve(batch.m_regions.size()); // referred to: they stay where they are
    std::vector<ActiveApplyIO> pieces;
    u8* next = batch.m_buffer.get();
    for (const SubRegionDescriptor& region : batch.m_regions) {
        if (region.isAllZeroes())
            continue;
        const u32 bytes = u32{region.m_lengthBlocks} * BLOCK_BYTES;
        buffers.emplace_back(next, bytes);
        pieces.emplace_back(region, &buffers.back());
        next += bytes;
    }
    return runAndWait(m_engine, [&](AsyncTask* task) {
        std::vector<IODescriptorEx> uncompressed;
        std::vector<IODescriptorExCompressed> compressed;
        m_reader.fillIoDescriptorVectors(pieces, &uncompressed, &compressed);
        return m_reader.performReadFromJournalIoDescriptors(
            task, uncompressed, compressed, AioPriority::Low, m_memory,
            Clock::instance()->nowMs() + PATIENCE_MS, nullptr, nullptr, nullptr);
    });
}

Result Drain::startWrites(Batch& batch)
{
    std::vector<IODescriptor> writes;
    u8* next = batch.m_buffer.get();
    u64 end = ~u64{0}; // of the data written last
    for (const SubRegionDescriptor& region : batch.m_regions) {
        if (region.isAllZeroes()) {
            const RcStatus rc =
                m_target.writeZeroes(region.m_viewOffsetBlocks, region.m_lengthBlocks);
            if (rc != RC_SUCCESS)
                return targetFailure(rc, "cannot write zeroes to the target volume");
            m_zeroBlocks += region.m_lengthBlocks;
            continue;
        }
        u64 offset = region.m_viewOffsetBlocks;
        u32 left = region.m_lengthBlocks;
        m_dataBlocks += left;
        while (left > 0) {
            const bool joins = offset == end && writes.back().m_lengthBlocks < WRITE_BLOCKS;
            const u32 room = WRITE_BLOCKS - (joins ? writes.back().m_lengthBlocks : 0);
            const u32 now = std::min(left, room);
            if (!joins) {
                writes.emplace_back();
                writes.back().m_bRead = false;
                writes.back().m_offsetBlocks = offset;
            }
            IODescriptor& write = writes.back();
            write.m_lengthBlocks += now;
            // What lies one behind the other in the view does so in the buffer.
            next += u64{now} * BLOCK_BYTES;
            write.m_data = ScatteredBuf(next - u64{write.m_lengthBlocks} * BLOCK_BYTES,
                                        write.m_lengthBlocks * BLOCK_BYTES);
            offset += now;
            left -= now;
            end = offset;
        }
    }
    batch.m_written =
        writes.empty() ? makeSetFuture(RC_SUCCESS) : m_target.write(writes, AioPriority::Low);
    return Result();
}

Result Drain::finishWrites()
{
    if (!m_inFlight)
        return Result();
    Batch& batch = m_batches[1 - m_current];
    m_inFlight = false;
    const RcStatus rc = batch.m_written.get();
    if (rc != RC_SUCCESS)
        return targetFailure(rc, "cannot write to the target volume");
    if (Result result = reserve(batch.m_regions.size()); !result.ok())
        return result;
    m_locator.unlockAndRemove(batch.m_regions, m_voucher);
    batch.m_regions.clear();
    return Result();
}

Result Drain::step(bool* more)
{
    Batch& batch = m_batches[m_current];
    if (Result result = lockNext(batch); !result.ok())
        return result;
    if (const RcStatus rc = readBatch(batch); rc != RC_SUCCESS)
        return unreadable(batch, rc);
    if (Result result = finishWrites(); !result.ok())
        return result;
    *more = !batch.m_regions.empty();
    if (!*more)
        return Result();
    if (Result result = startWrites(batch); !result.ok())
        return result;
    m_current = 1 - m_current;
    m_inFlight = true;
    return Result();
}
