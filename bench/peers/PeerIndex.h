// An index made of an ordered map of extents, as an engineer would build it who has such a map: one
// map of what is free, one of what is locked.
//
// It takes no mutex and checks nothing that its callers promise, so it does less than the locator
// does; in a comparison that is to the peer's advantage.
#pragma once

#include "bench/Contender.h"
#include "bench/peers/HeapUse.h"
#include "common/infra/Assert.h"

// Extents: a map of regions that do not overlap, with
//   put(region)                  stores it, overriding what it overlaps
//   putBack(region)              stores it in a gap; neighbours of one IO become one region again
//   append(offset, end, pieces)  appends what is stored in [offset, end), clipped, ascending
//   intersects(offset, end)
//   cut(offset, end)             takes the range out; what sticks out of it stays
//   erase(region)                takes out a region that is stored exactly so
//   removeIo(io)                 takes out the regions in the IO's range that belong to it
//   takeFirst(maxBlocks, pieces) moves the first whole regions to the list
//   size(), coveredBlocks()
template <class Extents> class PeerIndex : public Contender
{
public:
    void feed(const SfsDiskMetaItem* items, u32 count) override
    {
        for (u32 i = 0; i < count; ++i)
            PeerIndex::insert(items[i]);
    }

    void reserveInserts(u32) override {}
    void insert(const SfsDiskMetaItem& item) override
    {
        const SubRegionDescriptor region(SfsItemDescriptor::genFromSfsDiskMetaItem(item));
        HARD_CHECK(!m_locked.intersects(region.m_viewOffsetBlocks,
                                        region.m_viewOffsetBlocks + region.m_lengthBlocks));
        m_free.put(region);
    }

    void lookup(u64 offsetBlocks, u32 lengthBlocks, Pieces* pieces) override
    {
        pieces->clear();
        m_free.append(offsetBlocks, offsetBlocks + lengthBlocks, pieces);
    }

    void reserveLocks(u32) override {}
    void lock(u64 offsetBlocks, u32 lengthBlocks, Pieces* pieces) override
    {
        const u64 end = offsetBlocks + lengthBlocks;
        HARD_CHECK(!m_locked.intersects(offsetBlocks, end));
        pieces->clear();
        m_free.append(offsetBlocks, end, pieces);
        m_free.cut(offsetBlocks, end);
        for (const SubRegionDescriptor& piece : *pieces)
            m_locked.put(piece);
    }

    void unlock(Pieces& pieces) override
    {
        for (const SubRegionDescriptor& piece : pieces) {
            m_locked.erase(piece);
            m_free.putBack(piece);
        }
    }

    void reserveRemoves(u32) override {}
    void remove(const SubRegionDescriptor& io) override { m_free.removeIo(io); }

    void lockFirst(u32 maxBlocks, Pieces* pieces) override
    {
        pieces->clear();
        m_free.takeFirst(maxBlocks, pieces);
        for (const SubRegionDescriptor& piece : *pieces)
            m_locked.put(piece);
    }
    void unlockAndRemove(Pieces& pieces) override
    {
        for (const SubRegionDescriptor& piece : pieces)
            m_locked.erase(piece);
    }

    u64 regions() override { return m_free.size() + m_locked.size(); }
    u64 coveredBlocks() override { return m_free.coveredBlocks() + m_locked.coveredBlocks(); }
    u64 memoryBytes() override { return heapBytesInUse() - m_heapBefore; }

private:
    const u64 m_heapBefore = heapBytesInUse(); // first, so that the maps count
    Extents m_free;
    Extents m_locked;
};
