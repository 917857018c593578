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
    m_strideBytes = std::max<u32>(std::bit_ceil(chunkBytes), sizeof(FreeChunk));
    m_blockMask = ~(static_cast<uintptr_t>(std::bit_ceil<u64>(blockBytes)) - 1);
    const u32 headerChunks = (sizeof(Block) + m_strideBytes - 1) / m_strideBytes;
    const u32 chunks = blockBytes / m_strideBytes;
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
    return m_headerChunks == 0 ? address % alignof(FreeChunk) == 0
                               : (address & m_blockMask) == address;
}

PoolBlocks::Block* PoolBlocks::blockOf(u8* chunk) const
{
    return reinterpret_cast<Block*>(reinterpret_cast<uintptr_t>(chunk) & m_blockMask);
}

u8* PoolBlocks::untouched(Block* block) const
{
    return reinterpret_cast<u8*>(block) +
           size_t{m_headerChunks + block->m_firstUntouched} * m_strideBytes;
}

void PoolBlocks::reset(Block* block) const
{
    block->m_returned = nullptr;
    block->m_freeChunks = m_capacity;
    block->m_firstUntouched = 0;
}

void PoolBlocks::addBlock(u8* block)
{
    ++m_blocks;
    ++m_freeBlocks;
    m_freeChunks += m_capacity;
    m_free = new (block) FreeChunk{m_free};
    closeMemory(block + sizeof(FreeChunk), m_blockBytes - sizeof(FreeChunk));
}

u8* PoolBlocks::removeFreeBlock()
{
    if (m_free == nullptr)
        return nullptr;
    FreeChunk* block = m_free;
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
        FreeChunk* first = m_free;
        m_free = first->m_next;
        --m_freeBlocks;
        openMemory(first, sizeof(Block));
        Block* block = new (first) Block;
        reset(block);
        block->m_next = block->m_previous = &m_partial;
        m_partial.m_next = m_partial.m_previous = block;
    }
    return static_cast<Block*>(m_partial.m_next);
}

void PoolBlocks::taken(Block* block, u32 chunks)
{
    m_freeChunks -= chunks;
    block->m_freeChunks -= chunks;
    if (block->m_freeChunks == 0) {
        block->m_next->m_previous = block->m_previous;
        block->m_previous->m_next = block->m_next;
    }
}

u8* PoolBlocks::takeChunk()
{
    if (m_headerChunks == 0) {
        FreeChunk* first = m_free;
        m_free = first->m_next;
        --m_freeBlocks;
        --m_freeChunks;
        openMemory(first, m_blockBytes);
        return reinterpret_cast<u8*>(first);
    }
    Block* block = firstPartial();
    if (block->m_returned == nullptr)
        return takeRun(1);
    u8* chunk = reinterpret_cast<u8*>(block->m_returned);
    openMemory(chunk, m_strideBytes);
    block->m_returned = block->m_returned->m_next;
    taken(block, 1);
    return chunk;
}

u32 PoolBlocks::untouchedRun()
{
    if (m_headerChunks == 0)
        return 0;
    const Block* block = firstPartial();
    return block->m_returned != nullptr ? 0 : m_capacity - block->m_firstUntouched;
}

u8* PoolBlocks::takeRun(u32 chunks)
{
    Block* block = firstPartial();
    u8* first = untouched(block);
    openMemory(first, size_t{chunks} * m_strideBytes);
    block->m_firstUntouched += chunks;
    taken(block, chunks);
    return first;
}

bool PoolBlocks::giveChunks(u8* const* chunks, u32 count)
{
    bool someBlockIsFree = false;
    for (u32 i = 0; i < count;) {
        u8* const first = chunks[i++];
        if (giveChunk(first)) {
            someBlockIsFree = true;
            continue;
        }
        Block* block = blockOf(first);
        if (first != untouched(block))
            continue;
        // As long as the next ones are the last ones carved, they go back the same way; but for
        // one, with which the block may become free.
        const u32 most = std::min(count - i, m_capacity - block->m_freeChunks - 1);
        const u8* next = first;
        u32 run = 0;
        while (run < most && chunks[i + run] == next - m_strideBytes) {
            next -= m_strideBytes;
            ++run;
        }
        block->m_firstUntouched -= run;
        block->m_freeChunks += run;
        m_freeChunks += run;
        i += run;
        closeMemory(next, size_t{run} * m_strideBytes);
    }
    return someBlockIsFree;
}

bool PoolBlocks::giveChunk(u8* chunk)
{
    ++m_freeChunks;
    if (m_headerChunks == 0) {
        ++m_freeBlocks;
        m_free = new (chunk) FreeChunk{m_free};
        closeMemory(chunk + sizeof(FreeChunk), m_blockBytes - sizeof(FreeChunk));
        return true;
    }
    Block* block = blockOf(chunk);
    // The last chunk carved is put back where it came from, without a look at its memory.
    if (chunk + m_strideBytes == untouched(block))
        --block->m_firstUntouched;
    else
        block->m_returned = new (chunk) FreeChunk{block->m_returned};
    closeMemory(chunk, m_strideBytes);
    if (++block->m_freeChunks == 1) {
        // At the end: the blocks before it are used up first, and this one may become free.
        block->m_next = &m_partial;
        block->m_previous = m_partial.m_previous;
        m_partial.m_previous->m_next = block;
        m_partial.m_previous = block;
    }
    if (block->m_freeChunks < m_capacity)
        return false;
    block->m_next->m_previous = block->m_previous;
    block->m_previous->m_next = block->m_next;
    u8* memory = reinterpret_cast<u8*>(block);
    ++m_freeBlocks;
    m_free = new (memory) FreeChunk{m_free};
    closeMemory(memory + sizeof(FreeChunk), m_blockBytes - sizeof(FreeChunk));
    return true;
}

void PoolBlocks::forgetUsedBlocks()
{
    m_partial.m_next = m_partial.m_previous = &m_partial;
    m_blocks = m_freeBlocks;
    m_freeChunks = m_freeBlocks * m_capacity;
}
