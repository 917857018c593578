// Checksums of data blocks that were read before, so that reading a block again asks the file for
// its data alone.
//
//   grain, block -> chunk of 1024 blocks -> the one slot it may be in -> 4 KiB of checksums
//
// What is kept may be older than the file: another process may have cut the journal's end and
// written there anew. So a checksum from here may confirm data, but data that it does not confirm
// are to be checked against the file's own.
//
// Thread safety: any thread.
// Invariants: 1. a slot holds one whole chunk or none;
//             2. no more than SLOTS chunks are kept: 16 MiB for 2 GiB of data.
#pragma once

#include <array>
#include <memory>
#include <vector>

#include "common/infra/Mutex.h"
#include "common/infra/Types.h"

class ChecksumCache
{
public:
    static constexpr u32 CHUNK_BLOCKS = 1024;
    static constexpr u32 SLOTS = 4096;

    // The checksums of blocks [firstBlock, firstBlock + blocks) of a grain into checksums; false,
    // and checksums undefined, unless all of them are kept.
    bool find(u64 grain, u32 firstBlock, u32 blocks, u32* checksums);

    // Keeps those of the CHUNK_BLOCKS blocks from firstBlock on, a multiple of it, in place of what
    // had the slot before. Without memory it keeps nothing.
    void keep(u64 grain, u32 firstBlock, const u32* checksums);

    // Keeps nothing of these blocks any more, as they are about to be written.
    void forget(u64 grain, u32 firstBlock, u32 blocks);

private:
    using Chunk = std::array<u32, CHUNK_BLOCKS>;

    struct Slot
    {
        u64 m_grain = 0; // no grain has that number
        u32 m_chunk = 0;
        std::unique_ptr<Chunk> m_checksums;
    };

    Slot& slotLocked(u64 grain, u32 chunk) RL_REQUIRES(m_mutex);

    Mutex m_mutex;
    std::vector<Slot> m_slots RL_GUARDED_BY(m_mutex) = std::vector<Slot>(SLOTS);
};
