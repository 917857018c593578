// A process-wide pool that soon has no memory left.
#pragma once

#include "common/infra/MemoryPoolImpl.h"

// For as long as it lives, the process-wide pool hands out chunks of this size, up to this many
// bytes, and keeps nothing that becomes free. REQUIRES: nothing is handed out where it begins and
// where it ends.
class LimitedMemory
{
public:
    static constexpr u64 UNLIMITED = ~u64{0};

    explicit LimitedMemory(u32 chunkBytes, u64 maxBytes = UNLIMITED)
        : m_chunkBytesBefore(pool()->getChunkSize())
    {
        pool()->init(chunkBytes, 0, maxBytes);
    }
    ~LimitedMemory() { pool()->init(m_chunkBytesBefore, 0, UNLIMITED); }
    LimitedMemory(const LimitedMemory&) = delete;
    LimitedMemory& operator=(const LimitedMemory&) = delete;

    static MemoryPoolImpl* pool() { return Singleton<MemoryPoolImpl, MemoryPoolImpl>::instance(); }

private:
    const u32 m_chunkBytesBefore;
};
