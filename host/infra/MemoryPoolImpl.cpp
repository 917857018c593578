#include "common/infra/MemoryPoolImpl.h"

#include <algorithm>
#include <bit>
#include <map>
#include <set>

#include "host/infra/PoolCore.h"
#include "host/infra/SystemMemory.h"

namespace {

constexpr u32 DEFAULT_CHUNK_BYTES = 256 * 1024;
constexpr u64 DEFAULT_KEEP_BYTES = 32 * 1024 * 1024;

// Chunks from this size on come from the system one by one: beside them a block's header would
// waste a chunk of memory.
constexpr u32 LARGE_CHUNK_BYTES = 16 * 1024;
constexpr u32 SYSTEM_BLOCK_BYTES = 256 * 1024;

} // namespace

// The pool's parts: the core, the groups and the known sub-pools. The core is shared with timers
// and block requests, which may outlive the pool for a moment.
struct MemoryPoolImpl::Impl : public PoolHooks
{
    explicit Impl(MemoryPoolImpl& pool) : m_pool(pool), m_core(std::make_shared<PoolCore>(*this)) {}

    FutureStatus allocateBlock(u32 sizeBytes, u8** out) override
    {
        return m_pool.allocate(sizeBytes, out);
    }
    void freeBlock(u8* block, u32 sizeBytes) override { m_pool.freeAllocation(block, sizeBytes); }
    void cancelAllocations() override { m_pool.cancelAllocation(); }
    u32 maxBlockBytes() override { return m_pool.maxAllocationSize(); }

    MemoryPoolImpl& m_pool;
    const std::shared_ptr<PoolCore> m_core;

    Mutex m_groupsMutex;
    std::map<std::string, std::unique_ptr<ModuleMemoryInformation>>
        m_namedGroups RL_GUARDED_BY(m_groupsMutex);
    std::map<ModuleMemoryInformation*, std::unique_ptr<ModuleMemoryInformation>>
        m_internalGroups RL_GUARDED_BY(m_groupsMutex);

    Mutex m_subPoolsMutex;
    std::set<MemoryPoolImpl*> m_subPools RL_GUARDED_BY(m_subPoolsMutex);
};

MemoryPoolImpl::MemoryPoolImpl() : m_impl(std::make_unique<Impl>(*this))
{
    init(DEFAULT_CHUNK_BYTES, DEFAULT_KEEP_BYTES, ~u64{0});
}

// By now the hooks of a derived class are gone: one that has its own calls destroy() before.
MemoryPoolImpl::~MemoryPoolImpl()
{
    m_impl->m_core->destroy();
}

void MemoryPoolImpl::init(u32 chunkSizeBytes, u64 keepBytes, u64 maxBytes)
{
    m_impl->m_core->init(chunkSizeBytes, keepBytes, maxBytes);
}

void MemoryPoolImpl::destroy()
{
    m_impl->m_core->destroy();
}

ModuleMemoryInformation* MemoryPoolImpl::getMmi(const std::string& name)
{
    MutexGuard lock(m_impl->m_groupsMutex);
    std::unique_ptr<ModuleMemoryInformation>& group = m_impl->m_namedGroups[name];
    if (group == nullptr)
        group = std::make_unique<ModuleMemoryInformation>(name, *m_impl->m_core);
    return group.get();
}

ModuleMemoryInformation* MemoryPoolImpl::createMmiInternal(const std::string& name)
{
    auto group = std::make_unique<ModuleMemoryInformation>(name, *m_impl->m_core);
    ModuleMemoryInformation* mmi = group.get();
    MutexGuard lock(m_impl->m_groupsMutex);
    m_impl->m_internalGroups[mmi] = std::move(group);
    return mmi;
}

void MemoryPoolImpl::destroyMmi(ModuleMemoryInformation* mmi)
{
    MutexGuard lock(m_impl->m_groupsMutex);
    m_impl->m_internalGroups.erase(mmi);
}

void MemoryPoolImpl::registerSubMemPool(MemoryPoolImpl* pool)
{
    {
        MutexGuard lock(m_impl->m_subPoolsMutex);
        m_impl->m_subPools.insert(pool);
    }
    pool->m_impl->m_core->setParent(m_impl->m_core.get());
}

void MemoryPoolImpl::unregisterSubMemPool(MemoryPoolImpl* pool)
{
    pool->m_impl->m_core->setParent(nullptr);
    MutexGuard lock(m_impl->m_subPoolsMutex);
    m_impl->m_subPools.erase(pool);
}

FutureStatus MemoryPoolImpl::fillBufFuture(u64 requesterId, ScatteredBuf* buf, u32 sizeBytes,
                                           ModuleMemoryInformation* mmi, void* token)
{
    return m_impl->m_core->fill({requesterId, buf, sizeBytes, mmi, Clock::NEVER, token});
}

FutureStatus MemoryPoolImpl::fillBufFutureWithTimeout(u64 requesterId, ScatteredBuf* buf,
                                                      u32 sizeBytes, ModuleMemoryInformation* mmi,
                                                      u64 timeout, void* token)
{
    return m_impl->m_core->fill({requesterId, buf, sizeBytes, mmi, timeout, token});
}

RcStatus MemoryPoolImpl::fillBufNoWait(ScatteredBuf* buf, u32 sizeBytes,
                                       ModuleMemoryInformation* mmi)
{
    return m_impl->m_core->fillNoWait(buf, sizeBytes, mmi);
}

bool MemoryPoolImpl::takeRuns(std::vector<ChunkRun>* runs, u32 count, ModuleMemoryInformation* mmi)
{
    return m_impl->m_core->takeRuns(runs, count, mmi);
}

void MemoryPoolImpl::giveBackChunks(u8* const* chunks, u32 count, ModuleMemoryInformation* mmi)
{
    m_impl->m_core->giveBackChunks({}, chunks, count, mmi);
}

void MemoryPoolImpl::giveBackChunks(const std::vector<ChunkRun>& runs, u8* const* chunks, u32 count,
                                    ModuleMemoryInformation* mmi)
{
    m_impl->m_core->giveBackChunks(runs, chunks, count, mmi);
}

void MemoryPoolImpl::cancelBufferFill(void* token)
{
    m_impl->m_core->cancel(token);
}

u32 MemoryPoolImpl::getMmiPendingRequests(ModuleMemoryInformation* mmi)
{
    return mmi->getPendingRequests();
}

u32 MemoryPoolImpl::getChunkSize() const
{
    return m_impl->m_core->getChunkSize();
}

MemoryStats MemoryPoolImpl::getMemoryStats() const
{
    return m_impl->m_core->getStats();
}

void MemoryPoolImpl::printMemoryUsage()
{
    const MemoryStats stats = getMemoryStats();
    LogItem(LogModuleCommon, InfoLevel, __PRETTY_FUNCTION__, 3)
        << "memory pool: chunk=" << getChunkSize() << " total=" << stats.totalBytes
        << " free=" << stats.freeBytes << " used=" << stats.usedBytesGross
        << " net=" << stats.usedBytesNet << " waiting=" << m_impl->m_core->waitingFills()
        << " firstWaiting=" << m_impl->m_core->firstWaitingRequester() << std::endl;
    {
        MutexGuard lock(m_impl->m_groupsMutex);
        for (const auto& [name, group] : m_impl->m_namedGroups) {
            LogItem(LogModuleCommon, InfoLevel, __PRETTY_FUNCTION__, 3)
                << "memory group " << name << ": used=" << group->getUsedChunks() * getChunkSize()
                << " pending=" << group->getPendingRequests() << std::endl;
        }
    }
    MutexGuard lock(m_impl->m_subPoolsMutex);
    for (MemoryPoolImpl* pool : m_impl->m_subPools)
        pool->printMemoryUsage();
}

void MemoryPoolImpl::freeAllocation(u8* ptr, u32 sizeBytes)
{
    freeSystemMemory(ptr, sizeBytes);
}

FutureStatus MemoryPoolImpl::allocate(u32 sizeBytes, u8** out)
{
    u8* block = allocateSystemMemory(sizeBytes);
    if (block == nullptr)
        return makeSetFuture(RC_NO_MEMORY);
    *out = block;
    return makeSetFuture(RC_SUCCESS);
}

bool MemoryPoolImpl::cancelAllocation()
{
    return false; // the system answers at once
}

u32 MemoryPoolImpl::maxAllocationSize()
{
    const u32 chunkBytes = getChunkSize();
    return chunkBytes >= LARGE_CHUNK_BYTES ? std::bit_ceil(chunkBytes) : SYSTEM_BLOCK_BYTES;
}
