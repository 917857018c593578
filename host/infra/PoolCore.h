// The working part of a memory pool: fills, the queue of those that wait, and the blocks.
//
// A fill takes all its chunks at once, as soon as it is the first in the queue and enough are free.
// While fills wait, blocks are asked for, one at a time; when none waits, the request for a block
// is taken back and blocks that are wholly free go back, too, but for a little slack.
//
// Every operation changes the state under the lock and notes what is to follow in PoolActions; then
// it calls the hooks without the lock, and sets futures last of all. So whoever is told that a fill
// is done may destroy the pool at once.
//
// Thread safety: any thread, but for init() and destroy().
// Lock order: a sub-pool's lock before its parent's; a pool's before the clock's.
//
// Limits: a fill holds no chunk while it waits, but its pool holds the blocks obtained for it. Two
// sub-pools that each need several blocks can so wait for each other at the parent's limit, until a
// deadline or a cancellation ends one.
#pragma once

#include <atomic>
#include <condition_variable>
#include <map>
#include <memory>

#include "common/infra/Future.h"
#include "common/infra/MemoryPoolImpl.h"
#include "common/infra/Mutex.h"
#include "host/infra/Clock.h"
#include "host/infra/PoolBlocks.h"
#include "host/infra/PoolGroup.h"

// The hooks of MemoryPoolImpl as the core calls them; see there.
class PoolHooks
{
public:
    virtual ~PoolHooks() = default;
    virtual FutureStatus allocateBlock(u32 sizeBytes, u8** out) = 0;
    virtual void freeBlock(u8* block, u32 sizeBytes) = 0;
    virtual void cancelAllocations() = 0;
    virtual u32 maxBlockBytes() = 0;
};

// A fill as it was asked for.
struct PoolFill
{
    u64 m_requesterId;
    ScatteredBuf* m_buf;
    u32 m_sizeBytes;
    ModuleMemoryInformation* m_mmi;
    u64 m_deadlineMs;
    void* m_token;
};

// A fill that waits, or has waited and has its outcome.
struct PoolWaiter
{
    PoolFill m_request;
    u32 m_chunks;
    FutureStatus m_future;
    RcStatus m_rc = RC_WAIT;
    Clock* m_clock = nullptr;
    Clock::TimerId m_timer = Clock::NO_TIMER;
};
using PoolWaiters = std::map<u64, PoolWaiter>; // by number, which is the order of asking

// What an operation still has to do without the lock. Noting it takes nothing from the heap, so
// that memory can be given back when the heap gives none.
struct PoolActions
{
    bool hasHooks() const { return m_allocate || m_cancel || !m_free.empty(); }

    PoolWaiters m_done; // taken out of the queue with their nodes
    PoolBlockList m_free;
    u32 m_blockBytes = 0;
    bool m_cancel = false;
    bool m_allocate = false; // the request is counted already
    u64 m_cancelsBefore = 0; // for the request, as its own fields
    bool m_cancelsRunning = false;
};

class PoolCore : public std::enable_shared_from_this<PoolCore>
{
public:
    explicit PoolCore(PoolHooks& hooks) : m_hooks(hooks) {}

    void init(u32 chunkSizeBytes, u64 keepBytes, u64 maxBytes);
    void destroy();

    FutureStatus fill(const PoolFill& request);
    RcStatus fillNoWait(ScatteredBuf* buf, u32 sizeBytes, ModuleMemoryInformation* mmi);
    void giveBack(u8* ptr, u32 sizeBytes, ModuleMemoryInformation* mmi);
    bool takeRuns(std::vector<ChunkRun>* runs, u32 count, ModuleMemoryInformation* mmi);
    void giveBackChunks(const std::vector<ChunkRun>& runs, u8* const* chunks, u32 count,
                        ModuleMemoryInformation* mmi);
    void cancel(void* token);

    // The pool that the blocks come from, while this one is known to it; else null.
    void setParent(PoolCore* parent);

    u32 getChunkSize() const { return m_chunkBytes; }
    MemoryStats getStats() const;

    // Most chunks that the limits of this pool and its parents allow.
    u64 mostChunks();
    u32 waitingFills() const { return m_waiterCount.load(std::memory_order_relaxed); }
    // The requester of the first fill that waits; 0 when none does.
    u64 firstWaitingRequester();

private:
    class BlockRequest;

    u32 chunksOf(u32 sizeBytes) const;
    void configure(u32 blockBytes) RL_REQUIRES(m_mutex);
    bool isBeyondReach(u32 chunks) RL_EXCLUDES(m_mutex);
    u64 mostChunksLocked() RL_REQUIRES(m_mutex);
    bool hasRoomForBlock() const RL_REQUIRES(m_mutex);
    void take(const PoolFill& request, u32 chunks) RL_REQUIRES(m_mutex);
    void end(PoolWaiters::iterator waiter, RcStatus rc, PoolActions& actions) RL_REQUIRES(m_mutex);
    void pump(PoolActions& actions) RL_REQUIRES(m_mutex);
    void releaseExcess(PoolActions& actions) RL_REQUIRES(m_mutex);
    void blockArrived(const BlockRequest& request, PoolActions& actions) RL_REQUIRES(m_mutex);
    void requestEnded() RL_REQUIRES(m_mutex);
    void failFirst(RcStatus rc, PoolActions& actions) RL_REQUIRES(m_mutex);
    void beginHooks(const PoolActions& actions) RL_REQUIRES(m_mutex);
    void endHooks() RL_REQUIRES(m_mutex);

    void freeBlocks(PoolActions& actions);
    std::unique_ptr<BlockRequest> issue(std::unique_ptr<BlockRequest> request, u32 blockBytes);
    void runHooks(PoolActions& actions);
    static void settle(PoolActions& actions);
    void requestCompleted(BlockRequest* request);
    void waitOrTimeOut(u64 number, PoolActions& actions);
    bool setTimer(PoolWaiters::iterator waiter, u64 deadlineMs) RL_REQUIRES(m_mutex);
    void deadlineCame(u64 number);

    PoolHooks& m_hooks;
    u32 m_chunkBytes = 0;

    mutable Mutex m_mutex;
    u64 m_keepBytes RL_GUARDED_BY(m_mutex) = 0;
    u64 m_maxBytes RL_GUARDED_BY(m_mutex) = 0;
    PoolBlocks m_blocks RL_GUARDED_BY(m_mutex);
    u64 m_usedBytesNet RL_GUARDED_BY(m_mutex) = 0;
    PoolCore* m_parent RL_GUARDED_BY(m_mutex) = nullptr;

    PoolWaiters m_waiters RL_GUARDED_BY(m_mutex);
    u64 m_nextWaiter RL_GUARDED_BY(m_mutex) = 1;
    std::atomic<u32> m_waiterCount{0}; // for readers without the lock

    u32 m_requestedBlocks RL_GUARDED_BY(m_mutex) = 0; // asked for and not yet answered
    bool m_cancelSent RL_GUARDED_BY(m_mutex) = false; // for the requests of now
    u64 m_cancels RL_GUARDED_BY(m_mutex) = 0;         // ever decided
    u32 m_cancelsRunning RL_GUARDED_BY(m_mutex) = 0;  // decided, and the hook has not returned
    u32 m_hooksRunning RL_GUARDED_BY(m_mutex) = 0;
    std::condition_variable_any m_quiet; // hooks or requests have ended
};
