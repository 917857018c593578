// Regions that are locked while their nodes still lie in the unlocked map.
//
// A reader mostly locks whole regions, and gives them back a moment later as they were. To move
// each to the locked map and back changes two trees twice, for nothing. So the locator notes them
// here instead, and moves their nodes once somebody wants more than to look, to insert beside them,
// to lock others, or to give them back.
//
//   locked in place                         | moved at once
//   ----------------------------------------+---------------------------------------------------
//   regions of a large map that are locked  | a piece of a region; what there is no room for here;
//   as they are stored                      | a small map; a locator whose iterators are out;
//                                           | while changes are traced or checked
//
// Nobody can tell the difference: a lookup shows what is locked with what is not, so it may find
// both in one map; whatever asks what is locked asks here, too; counts are over both maps; and
// every other operation has the nodes moved before it looks at the locked map. A region of whose
// pieces there would be something to report is moved at once.
#pragma once

#include "RegionLocator/RegionNodes.h"

// Thread safety: none; the owning locator's mutex guards it.
// Invariants: all nodes are different ones of the unlocked map, and stay there as they are.
class LockedInPlace
{
public:
    static constexpr u32 MOST = 32;

    bool empty() const { return m_count == 0; }
    u32 size() const { return m_count; }
    bool hasRoom(size_t regions) const { return regions <= MOST - m_count; }

    // REQUIRES: there is room.
    void add(RegionNode* node)
    {
        const SubRegionDescriptor& region = regionOf(node);
        const u64 firstBlocks = region.m_viewOffsetBlocks;
        m_entries[m_count++] = {firstBlocks, firstBlocks + region.m_lengthBlocks, node};
    }
    // Forgets those that were added last, all but so many.
    void shrinkTo(u32 count) { m_count = count; }

    bool intersects(u64 offsetBlocks, u32 lengthBlocks) const
    {
        for (u32 i = 0; i < m_count; ++i)
            if (m_entries[i].m_firstBlocks < offsetBlocks + lengthBlocks &&
                m_entries[i].m_endBlocks > offsetBlocks)
                return true;
        return false;
    }

    bool holds(RegionNode* node) const
    {
        for (u32 i = 0; i < m_count; ++i)
            if (m_entries[i].m_node == node)
                return true;
        return false;
    }

    // The place of the node that starts at the block; MOST when there is none. Looks from `from`
    // on first: what is locked together is given back together.
    u32 find(u64 firstBlocks, u32 from) const
    {
        for (u32 i = from; i < m_count; ++i)
            if (m_entries[i].m_firstBlocks == firstBlocks)
                return i;
        for (u32 i = 0; i < m_count && i < from; ++i)
            if (m_entries[i].m_firstBlocks == firstBlocks)
                return i;
        return MOST;
    }

    RegionNode* at(u32 place) const { return m_entries[place].m_node; }

    // The node at the place is not held any more. The others keep theirs until tidy().
    void release(u32 place) { m_entries[place].m_node = nullptr; }
    void tidy()
    {
        u32 kept = 0;
        for (u32 i = 0; i < m_count; ++i)
            if (m_entries[i].m_node != nullptr)
                m_entries[kept++] = m_entries[i];
        m_count = kept;
    }

private:
    struct Entry
    {
        u64 m_firstBlocks;
        u64 m_endBlocks;
        RegionNode* m_node;
    };

    Entry m_entries[MOST] = {};
    u32 m_count = 0;
};
