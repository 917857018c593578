// What a locator has done so far. Only ever increased, under the locator's mutex; how often regions
// were merged can be read by any thread.
#pragma once

#include <atomic>

#include "common/infra/Types.h"

class RegionLocatorCounters
{
public:
    RegionLocatorCounters() = default;
    RegionLocatorCounters(const RegionLocatorCounters& other)
        : m_merges(other.getMerges()), m_inserts(other.m_inserts), m_insertsLbs(other.m_insertsLbs)
    {}
    RegionLocatorCounters& operator=(const RegionLocatorCounters&) = delete;

    void updateInserts(unsigned short lengthBlocks)
    {
        ++m_inserts;
        m_insertsLbs += lengthBlocks;
    }
    // The same for many.
    void updateInserts(u64 inserts, u64 blocks)
    {
        m_inserts += inserts;
        m_insertsLbs += blocks;
    }
    // One writer at a time, so that no locked instruction is needed.
    void updateMerges() { m_merges.store(getMerges() + 1, std::memory_order_relaxed); }

    u64 getMerges() const { return m_merges.load(std::memory_order_relaxed); }
    u64 getInserts() const { return m_inserts; }
    u64 getInsertLbs() const { return m_insertsLbs; }

private:
    std::atomic<u64> m_merges{0}; // regions merged while they were restored
    u64 m_inserts = 0;            // regions inserted
    u64 m_insertsLbs = 0;         // their blocks
};
