#include "appliance/ReadAhead.h"

ReadAhead::ReadAhead(ViewReader& reader, TaskEngine& engine, u32 slots, u32 slotBlocks)
    : m_reader(reader), m_engine(engine), m_slots(slots),
      m_slotBlocks(std::min(slotBlocks, ViewReader::MAX_READ_BLOCKS))
{}

ReadAhead::~ReadAhead()
{
    for (Slot& slot : m_inFlight)
        slot.m_task->wait();
}

Result ReadAhead::start(u64 offsetBlocks, u32 lengthBlocks)
{
    Slot slot;
    slot.m_offsetBlocks = offsetBlocks;
    slot.m_lengthBlocks = lengthBlocks;
    if (m_free.empty()) {
        slot.m_buffer.reset(new (ALIGNMENT) u8[u64{m_slotBlocks} << BLOCK_SHIFT]);
    } else {
        slot.m_buffer = std::move(m_free.back());
        m_free.pop_back();
    }
    u8* buffer = slot.m_buffer.get();
    slot.m_task =
        std::make_unique<BlockingTask>([this, offsetBlocks, lengthBlocks, buffer](AsyncTask* task) {
            return m_reader.read(task, offsetBlocks, lengthBlocks, buffer,
                                 Clock::instance()->nowMs() + ViewReader::PATIENCE_MS);
        });
    const RcStatus rc = slot.m_task->start(m_engine);
    if (rc != RC_SUCCESS)
        return Result::fromStatus(rc, "cannot start a read");
    m_inFlight.push_back(std::move(slot));
    return Result();
}

Result ReadAhead::failure(RcStatus rc, const Slot& slot)
{
    const u64 last = slot.m_offsetBlocks + slot.m_lengthBlocks - 1;
    std::string what = "cannot read the view's blocks " + std::to_string(slot.m_offsetBlocks) +
                       " to " + std::to_string(last);
    if (rc == RC_TIMED_OUT || rc == RC_NO_MEMORY)
        what += ": no memory was free in time, the memory limit may be too small";
    return Result::fromStatus(rc, what);
}

Result ReadAhead::finish(const Use& use)
{
    Slot slot = std::move(m_inFlight.front());
    m_inFlight.pop_front();
    const RcStatus rc = slot.m_task->wait();
    Result result;
    if (rc == RC_SUCCESS)
        result = use(slot.m_offsetBlocks, slot.m_lengthBlocks, slot.m_buffer.get());
    else
        result = failure(rc, slot);
    m_free.push_back(std::move(slot.m_buffer));
    return result;
}
