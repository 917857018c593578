// A pool of equal chunks with accounting groups; the process-wide one, and sub-pools on top of it.
//
// A pool hands out chunks of one size, each as one segment of a ScatteredBuf. It obtains large
// blocks through allocate(), carves them, and returns a wholly free block through freeAllocation().
// The process-wide pool, Singleton<MemoryPoolImpl, MemoryPoolImpl>::instance(), takes its blocks
// from the system; a sub-pool overrides the hooks to take them from another pool.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "common/infra/Future.h"
#include "common/infra/MemorySegment.h"
#include "common/infra/RcStatus.h"
#include "common/infra/ScatteredBuf.h"
#include "common/infra/Singleton.h"

// An accounting group: who the chunks in use, and the fills that wait, are charged to.
class ModuleMemoryInformation;

// What a pool holds, in bytes. What is neither free nor used is the pool's own bookkeeping.
struct MemoryStats
{
    u64 totalBytes;     // obtained through allocate() and not yet given back
    u64 freeBytes;      // of these, in chunks that nobody holds
    u64 usedBytesNet;   // as asked for by the fills
    u64 usedBytesGross; // as handed out, rounded up to chunks
};

// Chunks that lie side by side but for gaps: bit i of m_chunks stands for the one that lies i chunk
// sizes behind m_first.
struct ChunkRun
{
    u8* m_first;
    u64 m_chunks;
};

// Thread safety: every public operation from any thread, except construction, init(), destroy() and
// destruction, during which nobody else uses the pool.
//
// Invariants: 1. fills that wait are served in the order in which they were asked;
//             2. a fill's future is set exactly once, with no lock of the pool held: RC_SUCCESS
//                with the whole size in the buffer, or a failure with whatever had been added
//                before still in the buffer for its owner to delete;
//             3. chunks handed out and chunks free add up to the blocks obtained.
class MemoryPoolImpl
{
public:
    MemoryPoolImpl();
    virtual ~MemoryPoolImpl();
    MemoryPoolImpl(const MemoryPoolImpl&) = delete;
    MemoryPoolImpl& operator=(const MemoryPoolImpl&) = delete;

    // Writes the pool's use of memory to the log.
    virtual void printMemoryUsage();

    // Sets the chunk size, the bytes to keep when they become free, and the most bytes to obtain.
    // Before the first fill, or while nothing is handed out and no fill waits.
    void init(u32 chunkSizeBytes, u64 keepBytes, u64 maxBytes);

    // Returns all blocks. REQUIRES: nothing is handed out and no fill waits.
    void destroy();

    // The group of that name; created on first use, the same object ever after. Owned by the pool.
    ModuleMemoryInformation* getMmi(const std::string& name);

    // A new group, not found by getMmi(); its creator gives it to destroyMmi().
    ModuleMemoryInformation* createMmiInternal(const std::string& name);
    void destroyMmi(ModuleMemoryInformation* mmi);

    // Makes a sub-pool known to this pool's reports. Not owned.
    void registerSubMemPool(MemoryPoolImpl* pool);
    void unregisterSubMemPool(MemoryPoolImpl* pool);

    // Adds `sizeBytes` to the buffer, one segment a chunk, the last one as long as what is left of
    // the size; waits for memory as long as it takes. RC_NO_MEMORY when the limit could never
    // allow that much. The buffer belongs to the pool until the future is set.
    // requesterId: for reports. token: what cancelBufferFill() will name.
    FutureStatus fillBufFuture(u64 requesterId, ScatteredBuf* buf, u32 sizeBytes,
                               ModuleMemoryInformation* mmi, void* token);

    // The same, waiting until the monotonic clock shows `timeout` (absolute milliseconds) at most;
    // then RC_TIMED_OUT. All ones: no limit.
    FutureStatus fillBufFutureWithTimeout(u64 requesterId, ScatteredBuf* buf, u32 sizeBytes,
                                          ModuleMemoryInformation* mmi, u64 timeout, void* token);

    // The same at once or not at all: RC_SUCCESS, or RC_NO_MEMORY with nothing added.
    RcStatus fillBufNoWait(ScatteredBuf* buf, u32 sizeBytes, ModuleMemoryInformation* mmi);

    // Takes so many chunks at once and appends them to the list, in the order in which a fill would
    // hand them out; for who takes many and gives most of them back untouched, since a run costs
    // little more than a chunk. False, and nothing happens, when fills wait, when not so many are
    // free now, or when this pool's chunks do not lie so: then a fill is to be asked for.
    bool takeRuns(std::vector<ChunkRun>* runs, u32 count, ModuleMemoryInformation* mmi);

    // Takes back whole chunks that were handed out for the group, as their segments'
    // deleteContent() would one by one: those of the runs, then those of the list.
    void giveBackChunks(u8* const* chunks, u32 count, ModuleMemoryInformation* mmi);
    void giveBackChunks(const std::vector<ChunkRun>& runs, u8* const* chunks, u32 count,
                        ModuleMemoryInformation* mmi);

    // Ends every waiting fill that was started with this token; their futures are set to
    // RC_ABORTED before it returns. A fill that is complete stays so.
    void cancelBufferFill(void* token);

    // Number of fills charged to the group that wait now.
    u32 getMmiPendingRequests(ModuleMemoryInformation* mmi);

    u32 getChunkSize() const;
    MemoryStats getMemoryStats() const;

protected:
    // The hooks through which large blocks come and go; called without any lock of the pool.
    // freeAllocation: takes back one block that allocate() delivered.
    virtual void freeAllocation(u8* ptr, u32 sizeBytes);
    // allocate: sets the future to RC_SUCCESS after it has written the address of `sizeBytes`
    // bytes to *out, or to a failure. `out` lives until then. The address is aligned to a power of
    // two that is not below the size.
    virtual FutureStatus allocate(u32 sizeBytes, u8** out);
    // cancelAllocation: ends a waiting allocate() with a failure; returns whether it tried.
    virtual bool cancelAllocation();
    // maxAllocationSize: the largest size in bytes to ask allocate() for.
    virtual u32 maxAllocationSize();

private:
    friend class MemorySegment;
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};
