// A reservation of map-node memory for one operation.
#pragma once

#include <cstring>
#include <vector>

#include "common/infra/MemWatchedContainer.h"
#include "common/infra/ScatteredBuf.h"

class RegionLocatorMemPool;

// A stack of tokens (64-byte chunks of a locator's pool), each the memory of one map node. An
// operation takes the nodes that it makes from the voucher and puts the nodes that it frees into
// it, so a voucher may end with more tokens than it began with. Tokens that a list made before the
// operation has no room for are chained through their own memory, so taking one in needs no heap.
//
// Created, filled, cleared and destroyed through its pool (RegionLocatorMemPool.h).
// Thread safety: none; while it is the pool's active voucher the locator's mutex guards it.
// Invariants: tokens are chained only while the list has no room left.
class RegionLocatorVoucher
{
public:
    RegionLocatorVoucher();
    // Soft check: no token is held; those that are would be lost to the pool.
    ~RegionLocatorVoucher();
    RegionLocatorVoucher(const RegionLocatorVoucher&) = delete;
    RegionLocatorVoucher& operator=(const RegionLocatorVoucher&) = delete;

    // Takes every segment of the buffer as one token, in segment order. Where the heap has no room
    // for the list, they are chained.
    void addMemorySegments(ScatteredBuf& buf);

    // So many tokens need not be chained, whatever is held.
    void makeRoom(size_t tokens) { m_objs.reserve(tokens); }

    // Gives every token back to the pool that it came from, charged to `mmi`.
    void clear(RegionLocatorMemPool* pool, ModuleMemoryInformation* mmi);

    // Takes the last token. Soft check: there is one; who sized the voucher sees to that.
    u8* getObj()
    {
        if (__builtin_expect(m_objs.m_chained == 0 && !m_objs.empty(), 1)) {
            u8* token = m_objs.back();
            m_objs.pop_back();
            return token;
        }
        return getChainedObj();
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
    // The list of tokens, and how many more are chained: the watcher is told of them all.
    struct Tokens : public StlMemShiledContainer<std::vector<u8*>>
    {
        using StlMemShiledContainer::StlMemShiledContainer;
        u64 getItemCount() override { return size() + m_chained; }
        u64 m_chained = 0;
    };

    u8* getChainedObj();
    void chain(u8* token);
    u8* unchain();

    Tokens m_objs;
    u8* m_firstChained = nullptr;
};
