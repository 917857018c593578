#include "host/infra/PoolCore.h"

#include <algorithm>
#include <new>

#include "common/infra/Assert.h"
#include "host/infra/PoolBlockRequest.h"

void PoolCore::init(u32 chunkSizeBytes, u64 keepBytes, u64 maxBytes)
{
    destroy();
    MutexGuard lock(m_mutex);
    HARD_CHECK(chunkSizeBytes > 0);
    m_chunkBytes = chunkSizeBytes;
    m_keepBytes = keepBytes;
    m_maxBytes = maxBytes;
}

void PoolCore::destroy()
{
    PoolActions actions;
    {
        MutexGuard lock(m_mutex);
        // A request of which nobody waits for the outcome any more may still be on its way.
        while (m_requestedBlocks > 0 || m_hooksRunning > 0) {
            if (m_requestedBlocks > 0 && m_hooksRunning == 0) {
                ++m_cancels;
                ++m_hooksRunning;
                m_mutex.unlock();
                m_hooks.cancelAllocations();
                m_mutex.lock();
                endHooks();
            }
            if (m_requestedBlocks > 0 || m_hooksRunning > 0)
                m_quiet.wait(m_mutex);
        }
        if (m_blocks.usedChunks() > 0 || !m_waiters.empty()) {
            // What is lost stays allocated: its holder may still write to it.
            LogItem(LogModuleCommon, ErrorLevel, __PRETTY_FUNCTION__, 3)
                << "a memory pool is destroyed with " << m_blocks.usedChunks()
                << " chunks in use and " << m_waiters.size() << " fills waiting" << std::endl;
        }
        actions.m_blockBytes = m_blocks.blockBytes();
        while (u8* block = m_blocks.removeFreeBlock())
            actions.m_free.push(block);
        m_blocks.forgetUsedBlocks();
        m_usedBytesNet = 0;
    }
    freeBlocks(actions);
}

u32 PoolCore::chunksOf(u32 sizeBytes) const
{
    return static_cast<u32>((u64{sizeBytes} + m_chunkBytes - 1) / m_chunkBytes);
}

// The size of blocks is the hook's to say, and may change whenever the pool holds none.
void PoolCore::configure(u32 blockBytes)
{
    const bool isSame =
        m_blocks.blockBytes() == blockBytes && m_blocks.chunkBytes() == m_chunkBytes;
    if (!isSame && m_blocks.blocks() == 0 && m_requestedBlocks == 0)
        m_blocks.configure(m_chunkBytes, blockBytes);
}

bool PoolCore::hasRoomForBlock() const
{
    return m_maxBytes / m_blocks.blockBytes() > m_blocks.blocks() + m_requestedBlocks;
}

u64 PoolCore::mostChunks()
{
    const u32 blockBytes = m_hooks.maxBlockBytes();
    MutexGuard lock(m_mutex);
    if (blockBytes < m_chunkBytes)
        return 0;
    configure(blockBytes);
    return mostChunksLocked();
}

// Whether a fill is so large that the list of its segments alone should not be made before it is
// known to have a chance.
bool PoolCore::isBeyondReach(u32 chunks)
{
    constexpr u32 LARGE_FILL_CHUNKS = 1 << 16;
    return chunks > LARGE_FILL_CHUNKS && chunks > mostChunks();
}

u64 PoolCore::mostChunksLocked()
{
    u64 blocks = m_maxBytes / m_blocks.blockBytes();
    if (m_parent != nullptr)
        blocks = std::min(blocks, m_parent->mostChunks());
    const u64 perBlock = m_blocks.chunksPerBlock();
    return blocks > ~u64{0} / perBlock ? ~u64{0} : blocks * perBlock;
}

void PoolCore::take(const PoolFill& request, u32 chunks)
{
    ScatteredBuf* const buf = request.m_buf;
    ModuleMemoryInformation* const mmi = request.m_mmi;
    const u32 chunkBytes = m_chunkBytes;
    if (request.m_sizeBytes % chunkBytes == 0) {
        m_blocks.takeChunks(chunks, [buf, mmi, chunkBytes](u8* chunk) {
            buf->addSegment(MemorySegment(chunkBytes, chunk, mmi));
        });
    } else {
        u32 leftBytes = request.m_sizeBytes;
        m_blocks.takeChunks(chunks, [buf, mmi, chunkBytes, &leftBytes](u8* chunk) {
            const u32 sizeBytes = std::min(leftBytes, chunkBytes);
            buf->addSegment(MemorySegment(sizeBytes, chunk, mmi));
            leftBytes -= sizeBytes;
        });
    }
    request.m_mmi->addChunks(chunks);
    m_usedBytesNet += request.m_sizeBytes;
}

FutureStatus PoolCore::fill(const PoolFill& request)
{
    HARD_CHECK(request.m_mmi != nullptr && &request.m_mmi->getPool() == this);
    if (request.m_sizeBytes == 0)
        return makeSetFuture(RC_SUCCESS);
    const u32 chunks = chunksOf(request.m_sizeBytes);
    const u32 blockBytes = m_hooks.maxBlockBytes();
    if (blockBytes < m_chunkBytes)
        return makeSetFuture(RC_NO_MEMORY); // the blocks to be had hold no chunk
    if (isBeyondReach(chunks))
        return makeSetFuture(RC_NO_MEMORY);
    // Here, so that a fill which is served later needs no heap then.
    request.m_buf->reserveSegments(request.m_buf->getSegmentsCount() + chunks);

    FutureStatus future;
    PoolActions actions;
    u64 number = 0;
    RcStatus rc = RC_WAIT;
    {
        MutexGuard lock(m_mutex);
        configure(blockBytes);
        if (m_waiters.empty() && m_blocks.freeChunks() >= chunks) {
            take(request, chunks);
            rc = RC_SUCCESS;
        } else if (chunks > mostChunksLocked()) {
            rc = RC_NO_MEMORY;
        } else {
            number = m_nextWaiter++;
            m_waiters.emplace(number, PoolWaiter{request, chunks, future});
            m_waiterCount.fetch_add(1, std::memory_order_relaxed);
            request.m_mmi->addPending(1);
            pump(actions);
            beginHooks(actions);
        }
    }
    if (rc != RC_WAIT) {
        future.set(rc);
        return future;
    }
    runHooks(actions);
    waitOrTimeOut(number, actions);
    settle(actions);
    return future;
}

// Gives a fill that could not be served at once its timer, or its end when the deadline has come.
void PoolCore::waitOrTimeOut(u64 number, PoolActions& actions)
{
    {
        MutexGuard lock(m_mutex);
        const auto waiter = m_waiters.find(number);
        if (waiter == m_waiters.end())
            return;
        const u64 deadlineMs = waiter->second.m_request.m_deadlineMs;
        const bool waits = !Clock::isDue(deadlineMs);
        if (waits)
            waiter->second.m_request.m_mmi->addWait();
        if (deadlineMs == Clock::NEVER)
            return;
        if (waits && setTimer(waiter, deadlineMs))
            return;
        end(waiter, waits ? RC_NO_MEMORY : RC_TIMED_OUT, actions);
        pump(actions);
        beginHooks(actions);
    }
    runHooks(actions);
}

// False where the heap has no place for a timer.
bool PoolCore::setTimer(PoolWaiters::iterator waiter, u64 deadlineMs)
{
    try {
        Clock* const clock = Clock::instance();
        waiter->second.m_timer =
            clock->schedule(deadlineMs, [self = shared_from_this(), number = waiter->first] {
                self->deadlineCame(number);
            });
        waiter->second.m_clock = clock;
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

void PoolCore::deadlineCame(u64 number)
{
    PoolActions actions;
    {
        MutexGuard lock(m_mutex);
        const auto waiter = m_waiters.find(number);
        if (waiter == m_waiters.end())
            return; // served or cancelled a moment ago
        end(waiter, RC_TIMED_OUT, actions);
        pump(actions);
        beginHooks(actions);
    }
    runHooks(actions);
    settle(actions);
}

RcStatus PoolCore::fillNoWait(ScatteredBuf* buf, u32 sizeBytes, ModuleMemoryInformation* mmi)
{
    HARD_CHECK(mmi != nullptr && &mmi->getPool() == this);
    if (sizeBytes == 0)
        return RC_SUCCESS;
    const PoolFill fill{0, buf, sizeBytes, mmi, 0, nullptr};
    const u32 chunks = chunksOf(sizeBytes);
    const u32 blockBytes = m_hooks.maxBlockBytes();
    if (blockBytes < m_chunkBytes)
        return RC_NO_MEMORY;
    if (isBeyondReach(chunks))
        return RC_NO_MEMORY;
    buf->reserveSegments(buf->getSegmentsCount() + chunks);
    for (;;) {
        PoolActions actions;
        std::unique_ptr<BlockRequest> request;
        {
            MutexGuard lock(m_mutex);
            configure(blockBytes);
            // Fills that wait come first: this one would take away what they wait for.
            if (m_waiters.empty()) {
                if (m_blocks.freeChunks() >= chunks) {
                    take(fill, chunks);
                    return RC_SUCCESS;
                }
                if (chunks <= mostChunksLocked() && hasRoomForBlock())
                    request = std::make_unique<BlockRequest>(shared_from_this(), true, m_cancels,
                                                             m_cancelsRunning > 0);
            }
            if (request == nullptr) {
                pump(actions); // blocks that were obtained in vain go back
            } else {
                ++m_requestedBlocks;
                ++m_hooksRunning;
            }
            beginHooks(actions);
        }
        if (request == nullptr) {
            runHooks(actions);
            settle(actions);
            return RC_NO_MEMORY;
        }
        request = issue(std::move(request), blockBytes);
        const bool arrived = request != nullptr && request->m_rc == RC_SUCCESS;
        if (request == nullptr) { // it would have to wait; its end comes by itself
            {
                MutexGuard lock(m_mutex);
                ++m_cancels;
                ++m_cancelsRunning;
            }
            m_hooks.cancelAllocations();
        }
        {
            MutexGuard lock(m_mutex);
            endHooks();
            if (request == nullptr) {
                --m_cancelsRunning;
            } else {
                blockArrived(*request, actions);
            }
            if (!arrived || !m_waiters.empty())
                pump(actions);
            beginHooks(actions);
        }
        runHooks(actions);
        settle(actions);
        if (!arrived)
            return RC_NO_MEMORY;
    }
}

void PoolCore::giveBack(u8* ptr, u32 sizeBytes, ModuleMemoryInformation* mmi)
{
    PoolActions actions;
    {
        MutexGuard lock(m_mutex);
        const bool blockIsFree = m_blocks.giveChunk(ptr);
        mmi->addChunks(~u64{0});
        m_usedBytesNet -= std::min<u64>(m_usedBytesNet, sizeBytes);
        if (m_waiters.empty() && !blockIsFree)
            return;
        pump(actions);
        beginHooks(actions);
    }
    runHooks(actions);
    settle(actions);
}

bool PoolCore::takeRuns(std::vector<ChunkRun>* runs, u32 count, ModuleMemoryInformation* mmi)
{
    HARD_CHECK(mmi != nullptr && &mmi->getPool() == this);
    MutexGuard lock(m_mutex);
    if (!m_blocks.hasRuns() || !m_waiters.empty() || m_blocks.freeChunks() < count)
        return false;
    runs->reserve(runs->size() + count); // before anything is taken, each may lie alone
    m_blocks.takeRuns(count, [runs](u8* first, u64 chunks) { runs->push_back({first, chunks}); });
    mmi->addChunks(count);
    m_usedBytesNet += u64{count} * m_chunkBytes;
    return true;
}

void PoolCore::giveBackChunks(const std::vector<ChunkRun>& runs, u8* const* chunks, u32 count,
                              ModuleMemoryInformation* mmi)
{
    if (count == 0 && runs.empty())
        return;
    HARD_CHECK(mmi != nullptr && &mmi->getPool() == this);
    PoolActions actions;
    {
        MutexGuard lock(m_mutex);
        const u64 usedBefore = m_blocks.usedChunks();
        bool someBlockIsFree = m_blocks.giveRuns(runs);
        someBlockIsFree |= m_blocks.giveChunks(chunks, count);
        const u64 given = usedBefore - m_blocks.usedChunks();
        mmi->addChunks(~given + 1);
        m_usedBytesNet -= std::min<u64>(m_usedBytesNet, given * m_chunkBytes);
        if (m_waiters.empty() && !someBlockIsFree)
            return;
        pump(actions);
        beginHooks(actions);
    }
    runHooks(actions);
    settle(actions);
}

void PoolCore::cancel(void* token)
{
    PoolActions actions;
    {
        MutexGuard lock(m_mutex);
        for (auto waiter = m_waiters.begin(); waiter != m_waiters.end();) {
            const auto next = std::next(waiter);
            if (waiter->second.m_request.m_token == token)
                end(waiter, RC_ABORTED, actions);
            waiter = next;
        }
        if (actions.m_done.empty())
            return;
        pump(actions);
        beginHooks(actions);
    }
    runHooks(actions);
    settle(actions);
}

// Takes a fill out of the queue; its future is set when the lock is free.
void PoolCore::end(PoolWaiters::iterator waiter, RcStatus rc, PoolActions& actions)
{
    waiter->second.m_request.m_mmi->addPending(~u32{0});
    waiter->second.m_rc = rc;
    actions.m_done.insert(m_waiters.extract(waiter));
    m_waiterCount.fetch_sub(1, std::memory_order_relaxed);
}

// Serves the queue as far as the free chunks go, and notes what the rest of it needs.
void PoolCore::pump(PoolActions& actions)
{
    while (!m_waiters.empty()) {
        const auto first = m_waiters.begin();
        if (m_blocks.freeChunks() < first->second.m_chunks)
            break;
        take(first->second.m_request, first->second.m_chunks);
        end(first, RC_SUCCESS, actions);
    }
    actions.m_blockBytes = m_blocks.blockBytes();
    if (!m_waiters.empty()) {
        if (m_requestedBlocks == 0 && hasRoomForBlock()) {
            ++m_requestedBlocks;
            actions.m_allocate = true;
            actions.m_cancelsBefore = m_cancels;
            actions.m_cancelsRunning = m_cancelsRunning > 0;
        }
        return;
    }
    if (m_requestedBlocks > 0 && !m_cancelSent) {
        m_cancelSent = true;
        actions.m_cancel = true;
    }
    releaseExcess(actions);
}

void PoolCore::releaseExcess(PoolActions& actions)
{
    u64 keepBlocks = m_blocks.blockBytes() == 0 ? 0 : m_keepBytes / m_blocks.blockBytes();
    // A pool in use keeps one block, or a chunk that comes and goes at a block's edge would fetch
    // and return the block each time. Not when others wait for it.
    const bool isWanted = m_parent != nullptr && m_parent->waitingFills() > 0;
    if (m_blocks.usedChunks() > 0 && !isWanted)
        keepBlocks = std::max<u64>(keepBlocks, 1);
    while (m_blocks.freeBlocks() > keepBlocks)
        actions.m_free.push(m_blocks.removeFreeBlock());
}

void PoolCore::setParent(PoolCore* parent)
{
    MutexGuard lock(m_mutex);
    m_parent = parent;
}

u64 PoolCore::firstWaitingRequester()
{
    MutexGuard lock(m_mutex);
    return m_waiters.empty() ? 0 : m_waiters.begin()->second.m_request.m_requesterId;
}

MemoryStats PoolCore::getStats() const
{
    MutexGuard lock(m_mutex);
    MemoryStats stats;
    stats.totalBytes = m_blocks.blocks() * m_blocks.blockBytes();
    stats.freeBytes = m_blocks.freeChunks() * m_chunkBytes;
    stats.usedBytesNet = m_usedBytesNet;
    stats.usedBytesGross = m_blocks.usedChunks() * m_chunkBytes;
    return stats;
}
