// Reads a view's content from its lowest block to its highest while it drains the view's locator.
//
//   get first blocks and lock (a step) -> pieces, and the target's data between them -> reads
//   (units), several in flight -> handed out in order -> unlock and remove
//
// So the memory of the index goes back while the view is read. A step is asked for only while some
// region is not locked: a get-first that finds all of them locked would park.
//
// Thread safety: one plain thread, which has the locator to itself.
#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <vector>

#include "RegionLocator/RegionLocator.h"
#include "RegionLocator/RlIoReader.h"
#include "appliance/Mirror.h"
#include "appliance/TrackedDriver.h"
#include "host/tasks/BlockingTask.h"

class LocatorDrain
{
public:
    enum class Content
    {
        JournalOnly, // what the locator covers
        Whole,       // and the target volume's data in the gaps
    };

    // All outlive the drain.
    LocatorDrain(Mirror& mirror, RegionLocator& locator, TaskEngine& engine, Content content);
    // Waits for what is in flight, and puts back what it holds.
    ~LocatorDrain();
    LocatorDrain(const LocatorDrain&) = delete;
    LocatorDrain& operator=(const LocatorDrain&) = delete;

    // Hands the next runs of blocks to `use`, ascending; data: null for zeroes. *more is false when
    // nothing was left. The failure of a read, which names its blocks, or that of `use`; the drain
    // is then of no more use.
    using Use = std::function<Result(u64 offsetBlocks, u64 lengthBlocks, const u8* data)>;
    Result next(const Use& use, bool* more);

    // The block up to which everything has been handed out.
    u64 position() const { return m_finished; }

private:
    // Regions locked by one get-first; removed when the last read of them is done.
    class Step;

    struct Run
    {
        u64 m_offsetBlocks;
        u64 m_lengthBlocks;
        bool m_isZero;
        std::vector<SubRegionDescriptor> m_pieces;
    };

    // What one request reads.
    struct Unit
    {
        std::vector<Run> m_runs;
        std::shared_ptr<Step> m_step; // null where nothing is of the journal
        std::unique_ptr<u8[]> m_buffer;
        std::vector<RlIoReader::IoReadRequests> m_requests;
        std::unique_ptr<BlockingTask> m_task; // null where there is nothing to read
        u64 m_dataBlocks = 0;
        u64 m_end = 0; // everything before this block belongs to this unit or one before
    };

    Result lockStep();
    Result plan(Unit* unit);
    Result planTarget(u64 untilBlocks, Unit* unit);
    void addRun(Unit* unit, u64 offsetBlocks, u64 lengthBlocks, const SubRegionDescriptor* piece);
    Result start(std::unique_ptr<Unit> unit);
    Result finishOldest(const Use& use);

    Mirror& m_mirror;
    RegionLocator& m_locator;
    TaskEngine& m_engine;
    const Content m_content;
    const u64 m_sizeBlocks;
    TrackedDriver m_driver;
    RlIoReader m_reader;
    ModuleMemoryInformation* m_memory; // charged with compressed bytes being read

    std::shared_ptr<Step> m_step; // being planned
    size_t m_nextPiece = 0;
    u64 m_heldRegions = 0; // by all steps that are not removed yet
    bool m_failed = false; // what is still held goes back into the locator
    u64 m_position = 0;    // everything before has been planned
    u64 m_finished = 0;
    std::deque<std::unique_ptr<Unit>> m_inFlight;
};
