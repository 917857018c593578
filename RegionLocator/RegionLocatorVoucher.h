// A reservation of map-node memory for one operation.
#pragma once

#include <cstring>
#include <vector>

#include "common/infra/MemWatchedContainer.h"
#include "common/infra/MemoryPoolImpl.h"
#include "common/infra/ScatteredBuf.h"

class RegionLocatorMemPool;

// A stack of tokens (64-byte chunks of a locator's pool), each the memory of one map node. An
// operation takes the nodes that it makes from the voucher and puts the nodes that it frees into
// it, so a voucher may end with more tokens than it began with. Tokens that a list made before the
// operation has no room for are chained through their own memory, so taking one in needs no heap.
//
// A scan reserves tokens for the worst case of thousands of items and gives most of them back. So
// what comes from the pool at once lies at the bottom of the stack as runs, of which only what is
// taken is ever looked at by itself.
//
// Created, filled, cleared and destroyed through its pool (RegionLocatorMemPool.h).
// Thread safety: none; while it is the pool's active voucher the locator's mutex guards it.
// Invariants: 1. tokens are chained only while the list has no room left;
//             2. no run is empty.
class RegionLocatorVoucher
{
public:
    static constexpr u32 TOKEN_BYTES = 64;

    RegionLocatorVoucher();
    // Soft check: no token is held; those that are would be lost to the pool.
    ~RegionLocatorVoucher();
    RegionLocatorVoucher(const RegionLocatorVoucher&) = delete;
    RegionLocatorVoucher& operator=(const RegionLocatorVoucher&) = delete;

    // Takes every segment of the buffer as one token, in segment order. Where the heap has no room
    // for the list, they are chained.
    void addMemorySegments(ScatteredBuf& buf);

    // Takes so many tokens of the pool as runs; false, and nothing happens, when the pool cannot
    // give them so, or when any are held.
    bool takeRuns(MemoryPoolImpl& pool, u32 count, ModuleMemoryInformation* mmi);

    // So many tokens need not be chained, whatever is held.
    void makeRoom(size_t tokens) { m_objs.reserve(tokens); }

    // Gives every token back to the pool that it came from, charged to `mmi`.
    void clear(RegionLocatorMemPool* pool, ModuleMemoryInformation* mmi);

    // Takes the last token. Soft check: there is one; who sized the voucher sees to that.
    u8* getObj()
    {
        if (__builtin_expect(m_objs.m_chained == 0 && m_objs.size() != 0, 1)) {
            u8* token = m_objs.back();
            m_objs.pop_back();
            return token;
        }
        return getDeeperObj();
    }

    void addObj(u8* token)
    {
        if (__builtin_expect(m_objs.size() < m_objs.capacity(), 1))
            m_objs.push_back(token);
        else
            chain(token);
    }

    bool empty() { return m_objs.empty(); }

private:
    // The list of tokens, and how many more are chained or in runs: the watcher is told of them
    // all.
    struct Tokens : public StlMemShiledContainer<std::vector<u8*>>
    {
        using StlMemShiledContainer::StlMemShiledContainer;
        bool empty() const { return size() == 0 && m_inRuns == 0; }
        u64 getItemCount() override { return size() + m_chained + m_inRuns; }
        u64 m_chained = 0;
        u64 m_inRuns = 0;
    };

    u8* getDeeperObj();
    u8* takeOfRun();
    void chain(u8* token);
    u8* unchain();

    Tokens m_objs;
    u8* m_firstChained = nullptr;
    std::vector<ChunkRun> m_runs;
};
