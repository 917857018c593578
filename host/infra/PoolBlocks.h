// The blocks of a memory pool, and the chunks carved from them.
//
// A block is a large piece of memory aligned to a power of two that is not smaller than itself. It
// begins with its own header, so that a chunk's block is found by masking the chunk's address, and
// the header has a bit for each chunk that is free. So free memory is not looked at: a new block
// costs nothing to carve, and what is reserved in plenty and given back again stays out of the
// caches. A block too small for a header and two chunks is one chunk, and has no header: it is its
// own block.
//
// A plain data structure: its owner holds the lock.
//
// Invariants: 1. a chunk starts at a multiple of its size rounded up to a power of two;
//             2. free and used chunks add up to the blocks' capacity;
//             3. partly used blocks are taken from before wholly free ones.
#pragma once

#include <bit>
#include <cstddef>
#include <cstring>
#include <vector>

#include "common/infra/MemoryPoolImpl.h"
#include "common/infra/Types.h"

// Blocks on their way out of a pool, linked through their first bytes, so that noting one takes
// nothing from the heap.
class PoolBlockList
{
public:
    void push(u8* block)
    {
        std::memcpy(block, &m_first, sizeof(m_first));
        m_first = block;
    }
    // The last one noted; null when there is none.
    u8* pop()
    {
        u8* const block = m_first;
        if (block != nullptr)
            std::memcpy(&m_first, block, sizeof(m_first));
        return block;
    }
    bool empty() const { return m_first == nullptr; }

private:
    u8* m_first = nullptr;
};

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

    // Takes `count` chunks and calls take(chunk) for each, a block's in the order of their
    // addresses. REQUIRES: so many are free.
    template <class Take> void takeChunks(u32 count, Take take)
    {
        if (m_headerChunks == 0) {
            for (; count > 0; --count)
                take(takeBlock());
            return;
        }
        while (count > 0) {
            Block* const block = firstPartial();
            u64& word = firstFreeWord(block);
            const u64 before = word;
            u8* const first = chunkOf(block, block->m_firstWord);
            u32 taken = 0;
            for (; word != 0 && taken < count; ++taken, word &= word - 1)
                take(first + (static_cast<size_t>(std::countr_zero(word)) << m_strideShift));
            count -= taken;
            noteTaken(block, first, before & ~word);
        }
    }

    // The same by words of bits: calls take(first, chunks) for each, as the members of a ChunkRun.
    // REQUIRES: hasRuns(), and so many are free.
    template <class Take> void takeRuns(u32 count, Take take)
    {
        while (count > 0) {
            Block* const block = firstPartial();
            u64& word = firstFreeWord(block);
            u64 taken = word;
            for (u32 excess = static_cast<u32>(std::popcount(taken)); excess > count; --excess)
                taken &= ~std::bit_floor(taken);
            word &= ~taken;
            count -= static_cast<u32>(std::popcount(taken));
            u8* const first = chunkOf(block, block->m_firstWord);
            noteTaken(block, first, taken);
            take(first, taken);
        }
    }
    // Whether chunks lie as a ChunkRun says.
    bool hasRuns() const { return m_headerChunks != 0 && m_chunkBytes == 1u << m_strideShift; }

    // chunk: as takeChunks() handed it out. True when its block is now wholly free.
    bool giveChunk(u8* chunk);

    // The same for many. True when some block is now wholly free.
    bool giveChunks(u8* const* chunks, u32 count);
    // What is left of runs that takeRuns() handed out.
    bool giveRuns(const std::vector<ChunkRun>& runs);

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
    struct FreeBlock
    {
        FreeBlock* m_next;
    };

    // What a list links. The head of the list of partly used blocks is one, too.
    struct Links
    {
        Links* m_next;
        Links* m_previous;
    };

    struct Block : Links
    {
        u32 m_freeChunks;
        u32 m_firstWord; // no chunk is free in the words before
        // and the words of free bits
    };

    static constexpr u32 WORD_BITS = 64;

    // Where a block is one chunk. REQUIRES: one is free.
    u8* takeBlock();
    Block* blockOf(const u8* chunk) const;
    static u64* wordsOf(Block* block) { return reinterpret_cast<u64*>(block + 1); }
    // The first chunk of a word.
    u8* chunkOf(Block* block, u32 word) const
    {
        return reinterpret_cast<u8*>(block) +
               ((size_t{m_headerChunks} + size_t{word} * WORD_BITS) << m_strideShift);
    }
    // The block to take from. REQUIRES: some chunk is free, and a block is more than one chunk.
    Block* firstPartial();
    // REQUIRES: some chunk of the block is free.
    static u64& firstFreeWord(Block* block);
    // Counts the chunks of these bits, from `first` on, as taken; a full block is in no list: its
    // chunks know the way back.
    void noteTaken(Block* block, u8* first, u64 bits);
    // Counts chunks of the block as free again. True when it is wholly free now.
    bool noteGiven(Block* block, u32 chunks);
    void addFree(u8* block);
    void reset(Block* block) const;

    u32 m_chunkBytes = 0;
    u32 m_blockBytes = 0;
    u32 m_strideShift = 0;  // from one chunk to the next, 1 << it bytes
    u32 m_headerChunks = 0; // chunks that the header takes; 0 when a block is one chunk
    u32 m_capacity = 0;     // chunks to hand out in a block
    uintptr_t m_blockMask = 0;

    u64 m_blocks = 0;
    u64 m_freeBlocks = 0;
    u64 m_freeChunks = 0;
    Links m_partial;             // blocks with free and used chunks
    FreeBlock* m_free = nullptr; // wholly free blocks, linked through their first bytes
};
