#include "appliance/ViewReader.h"

#include "common/infra/MemoryPoolImpl.h"
#include "host/tasks/BlockingTask.h"

// What one read holds; gives everything back when the frame ends, however it ends.
class ViewReader::Locals : public FrameLocals
{
public:
    Locals(View& view, u64 offsetBlocks, u32 lengthBlocks, u8* buffer, u64 deadlineMs)
        : m_view(view), m_offsetBlocks(offsetBlocks), m_lengthBlocks(lengthBlocks),
          m_buffer(buffer), m_deadlineMs(deadlineMs)
    {}

    ~Locals() override
    {
        if (m_locked)
            m_view.locator().unlockAndRestore(m_pieces, m_voucher);
        // Only now may somebody come who needs that nothing is locked.
        m_view.gate().leave(&m_ticket);
        if (m_voucher != nullptr)
            m_view.locator().getMemPool()->destroyVoucher(m_voucher);
    }

    // Whether some of the range is not the journal's.
    bool readsTarget() const
    {
        u64 blocks = 0;
        for (const SubRegionDescriptor& piece : m_pieces)
            blocks += piece.m_lengthBlocks;
        return blocks < m_lengthBlocks;
    }

    View& m_view;
    const u64 m_offsetBlocks;
    const u32 m_lengthBlocks;
    u8* const m_buffer;
    const u64 m_deadlineMs;

    LocatorGate::Ticket m_ticket;
    RegionLocatorVoucher* m_voucher = nullptr;
    std::vector<SubRegionDescriptor> m_pieces;
    bool m_locked = false;
    std::vector<RlIoReader::IoReadRequests> m_requests;
};

ViewReader::ViewReader(View& view)
    : m_view(view), m_driver(view.mirror().driver()),
      m_reader(&view.mirror().journal(), &m_driver, "view " + view.point().name(),
               view.mirror().settings().m_id),
      m_memory(Singleton<MemoryPoolImpl, MemoryPoolImpl>::instance()->getMmi("View_reads"))
{}

RcStatus ViewReader::read(AsyncTask* task, u64 offsetBlocks, u32 lengthBlocks, u8* buffer,
                          u64 deadlineMs)
{
    if (lengthBlocks == 0 || lengthBlocks > MAX_READ_BLOCKS || offsetBlocks > m_view.sizeBlocks() ||
        lengthBlocks > m_view.sizeBlocks() - offsetBlocks)
        return RC_BAD_ARGUMENT;
    AsyncFrame* frame = SHIELD_NEW_AS(AsyncFrameCallback<ViewReader>, "ViewReader frame",
                                      "ViewReader::read", this, &ViewReader::readFrame);
    frame->setLocals(SHIELD_NEW(Locals, m_view, offsetBlocks, lengthBlocks, buffer, deadlineMs));
    return readFrame(task, frame);
}

RcStatus ViewReader::readFrame(AsyncTask* task, AsyncFrame* frame)
{
    enum
    {
        ENTER,
        RESERVE,
        LOCK,
        READ,
        DONE,
        DRAINED,
    };
    RegionLocator& locator = m_view.locator();
    Locals& l = *static_cast<Locals*>(frame->getLocals());
    FrameGuard fg(task, frame);
    while (fg.loop()) {
        const RcStatus rc = fg.getState() == ENTER ? RC_SUCCESS : fg.getRc();
        switch (fg.getState()) {
        case ENTER:
            fg.executeFuture(m_view.gate().enter(&l.m_ticket, LocatorGate::Kind::Locker),
                             l.m_deadlineMs);
            fg.setState(RESERVE);
            break;
        case RESERVE: {
            if (rc != RC_SUCCESS)
                break;
            const auto found = m_view.pieces(l.m_offsetBlocks, l.m_lengthBlocks);
            l.m_voucher = locator.getMemPool()->createVoucher();
            fg.executeFuture(
                locator.getMemPool()->fillVoucher(
                    l.m_voucher,
                    RegionLocatorMemPool::getVoucherRequirement(RegionLocatorMemPool::LOOKUP_LOCKED,
                                                                static_cast<int>(found.size())),
                    l.m_deadlineMs, &l),
                Clock::NEVER);
            fg.setState(LOCK);
            break;
        }
        case LOCK:
            if (rc != RC_SUCCESS)
                break;
            fg.execute(locator.lookup(task, l.m_offsetBlocks, l.m_lengthBlocks, &l.m_pieces, true,
                                      l.m_voucher));
            fg.setState(READ);
            break;
        case READ: {
            // Of one that was parked, too: there may be no memory for what it is answered.
            if (rc != RC_SUCCESS)
                break;
            l.m_locked = true;
            m_view.gate().settled(&l.m_ticket);
            ScatteredBuf destination(l.m_buffer, l.m_lengthBlocks << BLOCK_SHIFT);
            l.m_requests.emplace_back(l.m_offsetBlocks, l.m_lengthBlocks, l.m_pieces, destination);
            fg.execute(m_reader.performReadFromSegments(
                task, l.m_requests, m_view.mirror().settings().m_id, AioPriority::Normal, m_memory,
                l.m_deadlineMs, nullptr, nullptr, nullptr));
            fg.setState(DONE);
            break;
        }
        case DONE:
            if (rc == RC_SUCCESS && l.readsTarget())
                fg.execute(m_view.confirmTarget());
            if (rc != RC_CORRUPTED_OBJECT)
                break;
            fg.executeFuture(m_driver.quiet(), Clock::NEVER);
            fg.setState(DRAINED);
            break;
        case DRAINED: fg.execute(RC_CORRUPTED_OBJECT); break;
        }
    }
    return fg.getRc();
}

RcStatus ViewReader::readNow(TaskEngine& engine, u64 offsetBlocks, u64 lengthBlocks, u8* buffer)
{
    while (lengthBlocks > 0) {
        const u32 now = static_cast<u32>(std::min<u64>(lengthBlocks, MAX_READ_BLOCKS));
        const RcStatus rc = runAndWait(engine, [&](AsyncTask* task) {
            return read(task, offsetBlocks, now, buffer, Clock::instance()->nowMs() + PATIENCE_MS);
        });
        if (rc != RC_SUCCESS)
            return rc;
        offsetBlocks += now;
        lengthBlocks -= now;
        buffer += u64{now} << BLOCK_SHIFT;
    }
    return RC_SUCCESS;
}
