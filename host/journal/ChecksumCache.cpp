#include "host/journal/ChecksumCache.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "Sfs/SfsItemDescriptor.h"

static_assert(SFS_GRAIN_BLOCKS % ChecksumCache::CHUNK_BLOCKS == 0);

// Neighbours get neighbouring slots: what was written one after the other never meets in one.
ChecksumCache::Slot& ChecksumCache::slotLocked(u64 grain, u32 chunk)
{
    return m_slots[(grain * (SFS_GRAIN_BLOCKS / CHUNK_BLOCKS) + chunk) % SLOTS];
}

bool ChecksumCache::find(u64 grain, u32 firstBlock, u32 blocks, u32* checksums)
{
    MutexGuard guard(m_mutex);
    while (blocks > 0) {
        const u32 chunk = firstBlock / CHUNK_BLOCKS;
        const u32 within = firstBlock % CHUNK_BLOCKS;
        const u32 step = std::min(blocks, CHUNK_BLOCKS - within);
        const Slot& slot = slotLocked(grain, chunk);
        if (slot.m_grain != grain || slot.m_chunk != chunk)
            return false;
        std::memcpy(checksums, slot.m_checksums->data() + within, step * sizeof(u32));
        firstBlock += step;
        blocks -= step;
        checksums += step;
    }
    return true;
}

void ChecksumCache::keep(u64 grain, u32 firstBlock, const u32* checksums)
{
    MutexGuard guard(m_mutex);
    const u32 chunk = firstBlock / CHUNK_BLOCKS;
    Slot& slot = slotLocked(grain, chunk);
    if (slot.m_checksums == nullptr)
        slot.m_checksums.reset(new (std::nothrow) Chunk);
    if (slot.m_checksums == nullptr)
        return;
    slot.m_grain = grain;
    slot.m_chunk = chunk;
    std::memcpy(slot.m_checksums->data(), checksums, sizeof(Chunk));
}

void ChecksumCache::forget(u64 grain, u32 firstBlock, u32 blocks)
{
    if (blocks == 0)
        return;
    MutexGuard guard(m_mutex);
    const u32 last = (firstBlock + blocks - 1) / CHUNK_BLOCKS;
    for (u32 chunk = firstBlock / CHUNK_BLOCKS; chunk <= last; ++chunk) {
        Slot& slot = slotLocked(grain, chunk);
        if (slot.m_grain == grain && slot.m_chunk == chunk)
            slot.m_grain = 0;
    }
}
