// The part of the pool that asks for blocks, and runs what is left to do without the lock.
#include "host/infra/PoolBlockRequest.h"

#include <new>

#include "common/infra/Assert.h"

// Asks for a block. Returns the request when it has been answered on the spot, a heap that gives
// nothing included; else it belongs to requestCompleted(), and null is returned.
std::unique_ptr<PoolCore::BlockRequest> PoolCore::issue(std::unique_ptr<BlockRequest> request,
                                                        u32 blockBytes)
{
    try {
        FutureStatus answer = m_hooks.allocateBlock(blockBytes, &request->m_block);
        // Not isSet(): an observer that came before this one may be writing the address only now.
        answer.attach(request.get());
    } catch (const std::bad_alloc&) {
        request->m_rc = RC_NO_MEMORY;
        return request;
    }
    BlockRequest* issued = request.release();
    return std::unique_ptr<BlockRequest>(issued->made() ? issued : nullptr);
}

void PoolCore::requestCompleted(BlockRequest* request)
{
    const std::unique_ptr<BlockRequest> owned(request);
    const std::shared_ptr<PoolCore> keep = shared_from_this();
    PoolActions actions;
    {
        MutexGuard lock(m_mutex);
        blockArrived(*request, actions);
        pump(actions);
        beginHooks(actions);
    }
    runHooks(actions);
    settle(actions);
}

void PoolCore::blockArrived(const BlockRequest& request, PoolActions& actions)
{
    requestEnded();
    RcStatus rc = request.m_rc;
    if (rc == RC_SUCCESS) {
        if (m_blocks.accepts(request.m_block)) {
            m_blocks.addBlock(request.m_block);
            return;
        }
        LogItem(LogModuleCommon, ErrorLevel, __PRETTY_FUNCTION__, 3)
            << "a memory pool was given a block that is not aligned to its size" << std::endl;
        actions.m_blockBytes = m_blocks.blockBytes();
        if (request.m_block != nullptr)
            actions.m_free.push(request.m_block);
        rc = RC_BAD_ARGUMENT;
    }
    // A request that this pool has cancelled itself says nothing about the fills that came since.
    const bool wasCancelledHere =
        rc == RC_ABORTED && (request.m_mayBeCancelled || request.m_cancels != m_cancels);
    if (!wasCancelledHere && !request.m_noWait)
        failFirst(rc, actions);
}

void PoolCore::requestEnded()
{
    if (--m_requestedBlocks == 0)
        m_cancelSent = false;
    m_quiet.notify_all();
}

// Ends the first fill in the queue unless it can be served.
void PoolCore::failFirst(RcStatus rc, PoolActions& actions)
{
    if (!m_waiters.empty() && m_blocks.freeChunks() < m_waiters.begin()->second.m_chunks)
        end(m_waiters.begin(), rc, actions);
}

void PoolCore::beginHooks(const PoolActions& actions)
{
    if (actions.hasHooks())
        ++m_hooksRunning;
    if (actions.m_cancel) {
        ++m_cancels;
        ++m_cancelsRunning;
    }
}

void PoolCore::endHooks()
{
    if (--m_hooksRunning == 0)
        m_quiet.notify_all();
}

void PoolCore::freeBlocks(PoolActions& actions)
{
    while (u8* block = actions.m_free.pop())
        m_hooks.freeBlock(block, actions.m_blockBytes);
}

void PoolCore::runHooks(PoolActions& actions)
{
    while (actions.hasHooks()) {
        freeBlocks(actions);
        if (actions.m_cancel)
            m_hooks.cancelAllocations();
        const bool asked = actions.m_allocate;
        bool isHeapEmpty = false;
        std::unique_ptr<BlockRequest> request;
        if (asked) {
            request.reset(new (std::nothrow) BlockRequest(
                shared_from_this(), false, actions.m_cancelsBefore, actions.m_cancelsRunning));
            isHeapEmpty = request == nullptr;
            if (!isHeapEmpty)
                request = issue(std::move(request), actions.m_blockBytes);
        }

        MutexGuard lock(m_mutex);
        endHooks();
        if (actions.m_cancel)
            --m_cancelsRunning;
        actions.m_allocate = false;
        actions.m_cancel = false;
        if (isHeapEmpty) {
            requestEnded();
            failFirst(RC_NO_MEMORY, actions);
            pump(actions);
        } else if (request != nullptr) {
            blockArrived(*request, actions);
            pump(actions);
        } else if (asked && m_waiters.empty() && m_requestedBlocks > 0) {
            // Everybody left while the request was being made, too early for it to be cancelled.
            actions.m_cancel = true;
        }
        beginHooks(actions);
    }
}

void PoolCore::settle(PoolActions& actions)
{
    for (const auto& [number, done] : actions.m_done) {
        if (done.m_timer != Clock::NO_TIMER)
            done.m_clock->cancel(done.m_timer);
        done.m_future.set(done.m_rc);
    }
    actions.m_done.clear();
}
