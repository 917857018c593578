// Memory: everything comes from malloc, chunk by chunk. A fill is so either done at once or not at
// all, nothing ever waits, and the hooks for large blocks are never called.
#include <atomic>
#include <cstdlib>
#include <list>
#include <mutex>

#include "common/infra/Assert.h"
#include "common/infra/MemShield.h"
#include "common/infra/MemWatchedContainer.h"
#include "common/infra/MemoryPoolImpl.h"

class ModuleMemoryInformation
{
public:
    explicit ModuleMemoryInformation(const std::string& name) : m_name(name) {}

    const std::string m_name;
    std::atomic<u64> m_usedBytes{0};
};

struct MemoryPoolImpl::Impl
{
    u32 m_chunkSizeBytes = 1 << 20;
    std::mutex m_mutex;
    std::list<ModuleMemoryInformation> m_groups;
};

MemoryPoolImpl::MemoryPoolImpl() : m_impl(std::make_unique<Impl>()) {}

// A chunk that is still out when its pool goes would be lost.
MemoryPoolImpl::~MemoryPoolImpl()
{
    HARD_CHECK(m_impl->m_groups.empty() || getMemoryStats().usedBytesGross == 0);
}

void MemoryPoolImpl::printMemoryUsage() {}

void MemoryPoolImpl::init(u32 chunkSizeBytes, u64, u64)
{
    m_impl->m_chunkSizeBytes = chunkSizeBytes;
}

void MemoryPoolImpl::destroy()
{
    HARD_CHECK(getMemoryStats().usedBytesGross == 0);
}

ModuleMemoryInformation* MemoryPoolImpl::getMmi(const std::string& name)
{
    std::lock_guard<std::mutex> lock(m_impl->m_mutex);
    for (ModuleMemoryInformation& group : m_impl->m_groups)
        if (group.m_name == name)
            return &group;
    return &m_impl->m_groups.emplace_back(name);
}

ModuleMemoryInformation* MemoryPoolImpl::createMmiInternal(const std::string& name)
{
    std::lock_guard<std::mutex> lock(m_impl->m_mutex);
    return &m_impl->m_groups.emplace_back(name);
}

void MemoryPoolImpl::destroyMmi(ModuleMemoryInformation* mmi)
{
    std::lock_guard<std::mutex> lock(m_impl->m_mutex);
    HARD_CHECK(mmi->m_usedBytes == 0);
    m_impl->m_groups.remove_if([mmi](const auto& group) { return &group == mmi; });
}

void MemoryPoolImpl::registerSubMemPool(MemoryPoolImpl*) {}

void MemoryPoolImpl::unregisterSubMemPool(MemoryPoolImpl*) {}

FutureStatus MemoryPoolImpl::fillBufFuture(u64, ScatteredBuf* buf, u32 sizeBytes,
                                           ModuleMemoryInformation* mmi, void*)
{
    return makeSetFuture(fillBufNoWait(buf, sizeBytes, mmi));
}

FutureStatus MemoryPoolImpl::fillBufFutureWithTimeout(u64, ScatteredBuf* buf, u32 sizeBytes,
                                                      ModuleMemoryInformation* mmi, u64, void*)
{
    return makeSetFuture(fillBufNoWait(buf, sizeBytes, mmi));
}

RcStatus MemoryPoolImpl::fillBufNoWait(ScatteredBuf* buf, u32 sizeBytes,
                                       ModuleMemoryInformation* mmi)
{
    const u32 chunkSizeBytes = getChunkSize();
    ScatteredBuf filled;
    for (u64 doneBytes = 0; doneBytes < sizeBytes; doneBytes += chunkSizeBytes) {
        u8* chunk = static_cast<u8*>(std::malloc(chunkSizeBytes));
        if (chunk == nullptr) {
            filled.deleteContent();
            return RC_NO_MEMORY;
        }
        mmi->m_usedBytes += chunkSizeBytes;
        filled.addSegment(MemorySegment(chunkSizeBytes, chunk, mmi));
    }
    for (u32 i = 0; i < filled.getSegmentsCount(); ++i)
        buf->addSegment(filled.getSegment(i));
    return RC_SUCCESS;
}

// Chunks of the heap do not lie side by side.
bool MemoryPoolImpl::takeRuns(std::vector<ChunkRun>*, u32, ModuleMemoryInformation*)
{
    return false;
}

void MemoryPoolImpl::giveBackChunks(const std::vector<ChunkRun>& runs, u8* const* chunks, u32 count,
                                    ModuleMemoryInformation* mmi)
{
    HARD_CHECK(runs.empty());
    giveBackChunks(chunks, count, mmi);
}

void MemoryPoolImpl::giveBackChunks(u8* const* chunks, u32 count, ModuleMemoryInformation* mmi)
{
    for (u32 i = 0; i < count; ++i)
        MemorySegment(getChunkSize(), chunks[i], mmi).deleteContent();
}

// No fill ever waits, so there is none to cancel and none to count.
void MemoryPoolImpl::cancelBufferFill(void*) {}

u32 MemoryPoolImpl::getMmiPendingRequests(ModuleMemoryInformation*)
{
    return 0;
}

u32 MemoryPoolImpl::getChunkSize() const
{
    return m_impl->m_chunkSizeBytes;
}

MemoryStats MemoryPoolImpl::getMemoryStats() const
{
    std::lock_guard<std::mutex> lock(m_impl->m_mutex);
    u64 usedBytes = 0;
    for (const ModuleMemoryInformation& group : m_impl->m_groups)
        usedBytes += group.m_usedBytes;
    return MemoryStats{usedBytes, 0, usedBytes, usedBytes};
}

void MemoryPoolImpl::freeAllocation(u8*, u32) {}

FutureStatus MemoryPoolImpl::allocate(u32, u8**)
{
    return makeSetFuture(RC_NO_MEMORY);
}

bool MemoryPoolImpl::cancelAllocation()
{
    return false;
}

u32 MemoryPoolImpl::maxAllocationSize()
{
    return getChunkSize();
}

void MemorySegment::deleteContent()
{
    if (m_owner != nullptr) {
        m_owner->m_usedBytes -= m_sizeBytes;
        std::free(m_ptr);
    }
    *this = MemorySegment(0, nullptr, nullptr);
}

void* MemShield::allocAndRegister(size_t size, u32, const char*, const char*, int)
{
    void* memory = std::malloc(size);
    HARD_CHECK(memory != nullptr);
    return memory;
}

bool MemShield::isActive()
{
    return false;
}

void MemShield::verifyPtr(const void*) {}

void MemShield::freeAndUnregister(void* ptr, const char*, int)
{
    std::free(ptr);
}

void MemShield::freeAndCount(void* ptr)
{
    std::free(ptr);
}

namespace {

// Nobody watches here.
class Watcher : public MemWatchedContainerDatabase
{
    void registerContainer(MemWatchedContainer*) override {}
    void unregisterContainer(MemWatchedContainer*) override {}
};

} // namespace

MemWatchedContainerDatabase* MemWatchedContainerDatabase::instance()
{
    return Singleton<MemWatchedContainerDatabase, Watcher>::instance();
}
