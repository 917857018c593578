// The blocks of a memory pool, and the chunks carved from them.
//
// A block is a large piece of memory aligned to a power of two that is not smaller than itself. It
// begins with its own header, so that a chunk's block is found by masking the chunk's address. A
// free chunk holds the link to the next one in itself; chunks that were never handed out are not
// even linked, so that a new block costs nothing to carve. A block too small for a header and two
// chunks is one chunk, and has no header: it is its own block.
//
// A plain data structure: its owner holds the lock.
//
// Invariants: 1. a chunk starts at a multiple of its size rounded up to a power of two;
//             2. free and used chunks add up to the blocks' capacity;
//             3. partly used blocks are taken from before wholly free ones.
#pragma once

#include <algorithm>

#include "common/infra/Types.h"

class PoolBlocks
{
public:
    PoolBlocks() { m_partial.m_next = m_partial.m_previous = &m_partial; }
    PoolBlocks(const PoolBlocks&) = delete;
    PoolBlocks& operator=(const PoolBlocks&) = delete;

    // REQUIRES: no blocks. Both sizes above 0.
    void configure(u32 chunkBytes, u32 blockBytes);

    // Whether memory of the configured block size at that address can be a block.
    bool accepts(const u8* block) const;

    // Takes over a block that it accepts; all of it is free.
    void addBlock(u8* block);

    // Takes a wholly free block out; null when there is none.
    u8* removeFreeBlock();

    // REQUIRES: freeChunks() > 0.
    u8* takeChunk();

    // Takes `count` chunks and calls take(chunk) for each. REQUIRES: so many are free.
    // Chunks carved now come last one first: who uses them from the end on, and gives the others
    // back, leaves the block as if they had not been carved.
    template <class Take> void takeChunks(u32 count, Take take)
    {
        while (count > 0) {
            const u32 run = std::min(count, untouchedRun());
            if (run == 0) {
                take(takeChunk());
                --count;
                continue;
            }
            u8* chunk = takeRun(run) + size_t{run} * m_strideBytes;
            for (u32 i = 0; i < run; ++i)
                take(chunk -= m_strideBytes);
            count -= run;
        }
    }

    // chunk: as takeChunk() returned it. True when its block is now wholly free.
    bool giveChunk(u8* chunk);

    // The same for many, best in the order in which takeChunks() took them. True when some block is
    // now wholly free.
    bool giveChunks(u8* const* chunks, u32 count);

    // Lets go of the blocks that are in use; their chunks must not come back.
    void forgetUsedBlocks();

    u32 chunkBytes() const { return m_chunkBytes; }
    u32 blockBytes() const { return m_blockBytes; }
    u32 chunksPerBlock() const { return m_capacity; }
    u64 blocks() const { return m_blocks; }
    u64 freeBlocks() const { return m_freeBlocks; }
    u64 freeChunks() const { return m_freeChunks; }
    u64 usedChunks() const { return m_blocks * m_capacity - m_freeChunks; }

private:
    struct FreeChunk
    {
        FreeChunk* m_next;
    };

    // What a list links. The head of the list of partly used blocks is one, too.
    struct Links
    {
        Links* m_next;
        Links* m_previous;
    };

    struct Block : Links
    {
        FreeChunk* m_returned; // chunks that were handed out and came back
        u32 m_freeChunks;
        u32 m_firstUntouched; // index of the first chunk that was never handed out
    };

    Block* blockOf(u8* chunk) const;
    // The first of the chunks that the block has never handed out.
    u8* untouched(Block* block) const;
    // The block to take from. REQUIRES: some chunk is free, and a block is more than one chunk.
    Block* firstPartial();
    // Counts chunks of the block as taken; a full one is in no list: its chunks know the way back.
    void taken(Block* block, u32 chunks);
    // Chunks that the block to take from has never handed out, if it has no others; 0 as well where
    // a block is one chunk. REQUIRES: some chunk is free.
    u32 untouchedRun();
    // The first of so many of them.
    u8* takeRun(u32 chunks);
    void reset(Block* block) const;

    u32 m_chunkBytes = 0;
    u32 m_blockBytes = 0;
    u32 m_strideBytes = 0;  // from one chunk to the next
    u32 m_headerChunks = 0; // chunks that the header takes; 0 when a block is one chunk
    u32 m_capacity = 0;     // chunks to hand out in a block
    uintptr_t m_blockMask = 0;

    u64 m_blocks = 0;
    u64 m_freeBlocks = 0;
    u64 m_freeChunks = 0;
    Links m_partial;             // blocks with free and used chunks
    FreeChunk* m_free = nullptr; // wholly free blocks, linked through their first bytes
};
