// Takes a locator's regions off in view order, reads them from the journal and writes them to a
// volume. The next regions are read while the last ones are being written.
//
// Thread safety: one plain thread.
#pragma once

#include <functional>
#include <memory>
#include <vector>

#include "RegionLocator/RegionLocator.h"
#include "Sfs/JournalIoReader.h"
#include "appliance/FlowControl.h"
#include "appliance/Mirror.h"
#include "host/tasks/TaskEngine.h"

// A failure of the target volume, with what to do where it is for want of room.
Result targetFailure(RcStatus rc, const std::string& what);

class Drain
{
public:
    // All outlive it. Nobody else locks regions of the locator. stepBlocks: most that one step
    // takes; at least the longest region.
    Drain(Mirror& mirror, TaskEngine& engine, RegionLocator& locator, TargetVolume& target,
          u32 stepBlocks);
    // Waits for what is in flight.
    ~Drain();
    Drain(const Drain&) = delete;
    Drain& operator=(const Drain&) = delete;

    // Reads everything that is to be drained, and makes sure of a step's memory, before anything is
    // changed: what turns out damaged only half way would leave the target of no point at all, for
    // good. Interrupted; Damaged: the message names the first blocks that cannot be read; Failed.
    // REQUIRES: before the first step; nobody else changes the locator meanwhile.
    // progress: of all the locator's blocks, how many were looked at.
    Result check(FlowControl& control, const std::function<void(u64 blocks)>& progress);

    // Reads the next regions, waits for the writes of the step before, and starts those of this
    // one. *more: whether there is anything left to wait for. After a failure only the destructor
    // may come; what was taken off before is written.
    Result step(bool* more);

    // Waits for the writes in flight and takes their regions off.
    Result finishWrites();

    // All below is written, though perhaps not durable. All ones: everything.
    u64 doneBelow() { return m_locator.getFirstOffest(); }

    u64 dataBlocks() const { return m_dataBlocks; }
    u64 zeroBlocks() const { return m_zeroBlocks; }

private:
    struct Batch
    {
        std::vector<SubRegionDescriptor> m_regions; // locked
        std::unique_ptr<u8[]> m_buffer;             // data of those that have any, in order
        u64 m_bufferBlocks = 0;
        FutureStatus m_written;
    };

    Result lockNext(Batch& batch);
    RcStatus readBatch(Batch& batch);
    Result unreadable(Batch& batch, RcStatus rc);
    Result startWrites(Batch& batch);
    Result reserve(u64 regions);

    TaskEngine& m_engine;
    RegionLocator& m_locator;
    TargetVolume& m_target;
    const u32 m_stepBlocks;
    JournalIoReader m_reader;
    ModuleMemoryInformation* m_memory; // charged with compressed bytes being read
    RegionLocatorVoucher* m_voucher;
    Batch m_batches[2];
    u32 m_current = 0;       // the batch that is read next
    bool m_inFlight = false; // the other one's writes
    u64 m_dataBlocks = 0;
    u64 m_zeroBlocks = 0;
};
