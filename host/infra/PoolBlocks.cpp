#include "host/infra/PoolBlocks.h"

#include <algorithm>
#include <bit>
#include <new>

#include "common/infra/Assert.h"

// Free memory is closed to AddressSanitizer, so that it finds the use of a chunk given back, which
// otherwise hides inside its block.
#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define RL_POOL_POISONS 1
#endif
#elif defined(__SANITIZE_ADDRESS__)
#define RL_POOL_POISONS 1
#endif

#ifdef RL_POOL_POISONS
#include <sanitizer/asan_interface.h>
namespace {
constexpr bool POISONS = true;
void closeMemory(const void* from, size_t bytes)
{
    __asan_poison_memory_region(from, bytes);
}
void openMemory(const void* from, size_t bytes)
{
    __asan_unpoison_memory_region(from, bytes);
}
} // namespace
#else
namespace {
constexpr bool POISONS = false;
void closeMemory(const void*, size_t) {}
void openMemory(const void*, size_t) {}
} // namespace
#endif

void PoolBlocks::configure(u32 chunkBytes, u32 blockBytes)
{
    HARD_CHECK(m_blocks == 0);
    HARD_CHECK(chunkBytes > 0 && blockBytes > 0);
    m_chunkBytes = chunkBytes;
    m_blockBytes = blockBytes;
    const u32 strideBytes = std::max<u32>(std::bit_ceil(chunkBytes), sizeof(FreeBlock));
    m_strideShift = static_cast<u32>(std::countr_zero(strideBytes));
    m_blockMask = ~(static_cast<uintptr_t>(std::bit_ceil<u64>(blockBytes)) - 1);
    const u32 chunks = blockBytes >> m_strideShift;
    const size_t headerBytes = sizeof(Block) + (chunks + WORD_BITS - 1) / WORD_BITS * sizeof(u64);
    const u32 headerChunks = static_cast<u32>((headerBytes + strideBytes - 1) >> m_strideShift);
    if (chunks < headerChunks + 2) {
        m_headerChunks = 0;
        m_capacity = 1;
    } else {
        m_headerChunks = headerChunks;
        m_capacity = chunks - headerChunks;
    }
}

bool PoolBlocks::accepts(const u8* block) const
{
    if (block == nullptr)
        return false;
    const uintptr_t address = reinterpret_cast<uintptr_t>(block);
    // A block that is one chunk needs no mask, only room for a link.
    return m_headerChunks == 0 ? address % alignof(FreeBlock) == 0
                               : (address & m_blockMask) == address;
}

PoolBlocks::Block* PoolBlocks::blockOf(const u8* chunk) const
{
    return reinterpret_cast<Block*>(reinterpret_cast<uintptr_t>(chunk) & m_blockMask);
}

void PoolBlocks::reset(Block* block) const
{
    block->m_freeChunks = m_capacity;
    block->m_firstWord = 0;
    u64* word = wordsOf(block);
    for (u32 left = m_capacity; left > 0; ++word) {
        const u32 bits = std::min(left, WORD_BITS);
        *word = ~u64{0} >> (WORD_BITS - bits);
        left -= bits;
    }
}

void PoolBlocks::addBlock(u8* block)
{
    ++m_blocks;
    m_freeChunks += m_capacity;
    addFree(block);
}

u8* PoolBlocks::removeFreeBlock()
{
    if (m_free == nullptr)
        return nullptr;
    FreeBlock* block = m_free;
    m_free = block->m_next;
    --m_blocks;
    --m_freeBlocks;
    m_freeChunks -= m_capacity;
    openMemory(block, m_blockBytes);
    return reinterpret_cast<u8*>(block);
}

PoolBlocks::Block* PoolBlocks::firstPartial()
{
    if (m_partial.m_next == &m_partial) {
        FreeBlock* first = m_free;
        m_free = first->m_next;
        --m_freeBlocks;
        openMemory(first, size_t{m_headerChunks} << m_strideShift);
        Block* block = new (first) Block;
        reset(block);
        block->m_next = block->m_previous = &m_partial;
        m_partial.m_next = m_partial.m_previous = block;
    }
    return static_cast<Block*>(m_partial.m_next);
}

u64& PoolBlocks::firstFreeWord(Block* block)
{
    u64* const words = wordsOf(block);
    while (words[block->m_firstWord] == 0)
        ++block->m_firstWord;
    return words[block->m_firstWord];
}

void PoolBlocks::noteTaken(Block* block, u8* first, u64 bits)
{
    const u32 chunks = static_cast<u32>(std::popcount(bits));
    m_freeChunks -= chunks;
    block->m_freeChunks -= chunks;
    if constexpr (POISONS) {
        for (; bits != 0; bits &= bits - 1)
            openMemory(first + (static_cast<size_t>(std::countr_zero(bits)) << m_strideShift),
                       size_t{1} << m_strideShift);
    }
    if (block->m_freeChunks == 0) {
        block->m_next->m_previous = block->m_previous;
        block->m_previous->m_next = block->m_next;
    }
}

u8* PoolBlocks::takeBlock()
{
    FreeBlock* first = m_free;
    m_free = first->m_next;
    --m_freeBlocks;
    --m_freeChunks;
    openMemory(first, m_blockBytes);
    return reinterpret_cast<u8*>(first);
}

bool PoolBlocks::giveChunk(u8* chunk)
{
    return giveChunks(&chunk, 1);
}

bool PoolBlocks::giveChunks(u8* const* chunks, u32 count)
{
    bool someBlockIsFree = false;
    if (m_headerChunks == 0) {
        for (u32 i = 0; i < count; ++i)
            addFree(chunks[i]);
        m_freeChunks += count;
        return count > 0;
    }
    for (u32 i = 0; i < count;) {
        // As many as follow each other in one block are counted at once.
        Block* const block = blockOf(chunks[i]);
        u64* const words = wordsOf(block);
        u32 firstWord = block->m_firstWord;
        const u32 first = i;
        do {
            u8* const chunk = chunks[i];
            const size_t bytes = static_cast<size_t>(chunk - reinterpret_cast<u8*>(block));
            const u32 index = static_cast<u32>(bytes >> m_strideShift) - m_headerChunks;
            const u32 word = index / WORD_BITS;
            words[word] |= u64{1} << index % WORD_BITS;
            firstWord = std::min(firstWord, word);
            closeMemory(chunk, size_t{1} << m_strideShift);
            ++i;
        } while (i < count && blockOf(chunks[i]) == block);
        block->m_firstWord = firstWord;
        someBlockIsFree |= noteGiven(block, i - first);
    }
    return someBlockIsFree;
}

bool PoolBlocks::giveRuns(const std::vector<ChunkRun>& runs)
{
    bool someBlockIsFree = false;
    for (const ChunkRun& run : runs) {
        Block* const block = blockOf(run.m_first);
        const size_t bytes = static_cast<size_t>(run.m_first - reinterpret_cast<u8*>(block));
        const u32 word = (static_cast<u32>(bytes >> m_strideShift) - m_headerChunks) / WORD_BITS;
        wordsOf(block)[word] |= run.m_chunks;
        block->m_firstWord = std::min(block->m_firstWord, word);
        if constexpr (POISONS) {
            for (u64 bits = run.m_chunks; bits != 0; bits &= bits - 1)
                closeMemory(run.m_first +
                                (static_cast<size_t>(std::countr_zero(bits)) << m_strideShift),
                            size_t{1} << m_strideShift);
        }
        someBlockIsFree |= noteGiven(block, static_cast<u32>(std::popcount(run.m_chunks)));
    }
    return someBlockIsFree;
}

bool PoolBlocks::noteGiven(Block* block, u32 chunks)
{
    m_freeChunks += chunks;
    if (block->m_freeChunks == 0) {
        // At the end: the blocks before it are used up first, and this one may become free.
        block->m_next = &m_partial;
        block->m_previous = m_partial.m_previous;
        m_partial.m_previous->m_next = block;
        m_partial.m_previous = block;
    }
    block->m_freeChunks += chunks;
    if (block->m_freeChunks < m_capacity)
        return false;
    block->m_next->m_previous = block->m_previous;
    block->m_previous->m_next = block->m_next;
    addFree(reinterpret_cast<u8*>(block));
    return true;
}

// Links a block of which no chunk is used.
void PoolBlocks::addFree(u8* block)
{
    ++m_freeBlocks;
    m_free = new (block) FreeBlock{m_free};
    closeMemory(block + sizeof(FreeBlock), m_blockBytes - sizeof(FreeBlock));
}

void PoolBlocks::forgetUsedBlocks()
{
    m_partial.m_next = m_partial.m_previous = &m_partial;
    m_blocks = m_freeBlocks;
    m_freeChunks = m_freeBlocks * m_capacity;
}
