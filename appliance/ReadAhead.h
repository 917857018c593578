// Several large reads of a view in flight, handed out in the order in which they were asked for.
//
// Thread safety: one plain thread.
#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <new>
#include <vector>

#include "appliance/UncachedWriter.h"
#include "appliance/ViewReader.h"
#include "host/tasks/BlockingTask.h"

class ReadAhead
{
public:
    // slots: how many reads are in flight at most; slotBlocks: the longest of them.
    ReadAhead(ViewReader& reader, TaskEngine& engine, u32 slots, u32 slotBlocks);
    // Waits for what is in flight.
    ~ReadAhead();
    ReadAhead(const ReadAhead&) = delete;
    ReadAhead& operator=(const ReadAhead&) = delete;

    bool full() const { return m_inFlight.size() == m_slots; }
    bool empty() const { return m_inFlight.empty(); }

    // Starts the next read. REQUIRES: not full, a length of 1 to slotBlocks inside the view.
    Result start(u64 offsetBlocks, u32 lengthBlocks);

    // Waits for the oldest read and hands it to `use`; its memory is free again afterwards. The
    // failure of the read, which names its blocks, or that of `use`. REQUIRES: not empty.
    using Use = std::function<Result(u64 offsetBlocks, u32 lengthBlocks, const u8* data)>;
    Result finish(const Use& use);

private:
    // Aligned, so that what was read can be written around the page cache.
    struct Free
    {
        void operator()(u8* buffer) const { ::operator delete[](buffer, ALIGNMENT); }
    };
    using Buffer = std::unique_ptr<u8[], Free>;
    static constexpr std::align_val_t ALIGNMENT{UncachedWriter::ALIGNMENT_BYTES};

    struct Slot
    {
        u64 m_offsetBlocks = 0;
        u32 m_lengthBlocks = 0;
        Buffer m_buffer;
        std::unique_ptr<BlockingTask> m_task;
    };

    static Result failure(RcStatus rc, const Slot& slot);

    ViewReader& m_reader;
    TaskEngine& m_engine;
    const u32 m_slots;
    const u32 m_slotBlocks;
    std::deque<Slot> m_inFlight; // the oldest first
    std::vector<Buffer> m_free;
};
