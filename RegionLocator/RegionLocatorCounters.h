// What a locator has done so far. Only ever increased; guarded by the locator's mutex.
#pragma once

#include "common/infra/Types.h"

class RegionLocatorCounters
{
public:
    void updateInserts(unsigned short lengthBlocks)
    {
        ++m_inserts;
        m_insertsLbs += lengthBlocks;
    }
    void updateMerges() { ++m_merges; }

    u64 getMerges() const { return m_merges; }
    u64 getInserts() const { return m_inserts; }
    u64 getInsertLbs() const { return m_insertsLbs; }

private:
    u64 m_merges = 0;     // regions merged while they were restored
    u64 m_inserts = 0;    // regions inserted
    u64 m_insertsLbs = 0; // their blocks
};
