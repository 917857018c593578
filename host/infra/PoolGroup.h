// An accounting group of a memory pool.
#pragma once

#include <atomic>
#include <string>
#include <utility>

#include "common/infra/Types.h"

class PoolCore;

// Belongs to one pool for life; the memory charged to it is given back to that pool.
//
// Thread safety: the figures are written under the pool's lock and read by any thread.
class ModuleMemoryInformation
{
public:
    ModuleMemoryInformation(std::string name, PoolCore& pool)
        : m_name(std::move(name)), m_pool(pool)
    {}
    ModuleMemoryInformation(const ModuleMemoryInformation&) = delete;
    ModuleMemoryInformation& operator=(const ModuleMemoryInformation&) = delete;

    const std::string& getName() const { return m_name; }
    PoolCore& getPool() const { return m_pool; }

    u64 getUsedChunks() const { return m_usedChunks.load(std::memory_order_relaxed); }
    // Fills that could not be served at once and waited, so far.
    u64 getWaits() const { return m_waits.load(std::memory_order_relaxed); }
    u32 getPendingRequests() const { return m_pendingRequests.load(std::memory_order_relaxed); }

private:
    friend class PoolCore;

    // One writer at a time, so that no locked instruction is needed.
    void addChunks(u64 chunks)
    {
        m_usedChunks.store(getUsedChunks() + chunks, std::memory_order_relaxed);
    }
    void addPending(u32 requests)
    {
        m_pendingRequests.store(getPendingRequests() + requests, std::memory_order_relaxed);
    }
    void addWait() { m_waits.store(getWaits() + 1, std::memory_order_relaxed); }

    const std::string m_name;
    PoolCore& m_pool;
    std::atomic<u64> m_usedChunks{0};
    std::atomic<u32> m_pendingRequests{0};
    std::atomic<u64> m_waits{0};
};
