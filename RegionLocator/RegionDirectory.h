// A table beside a region map that knows, for most places of the view, a node near there.
//
// The view is cut into granules of a power of two of blocks, about as long as a region is on
// average. A granule's slot, if it has one noted, holds the node of a region that starts in it. The
// first step of a search is so one look into the table and one at the node, instead of twenty steps
// down the tree:
//
// A slot is picked by offset >> shift; places further apart than the table is long share slots. An
// empty one knows nothing: the slots before it are tried, then the tree. Where a noted node starts
// tells whether it is near.
//
// It is an accelerator and never the truth: it may be empty, forget anything, and be thrown away at
// any time. What it does hold is a node of the map, always: whoever takes a node out of the map, or
// moves it, says so. Where regions are crowded it knows one of several, and the tree is searched
// when that one is not near enough. Regions on a grid have a granule each. Where they lie anywhere,
// a third or more share one with others: then a table twice as long, with granules half as long,
// knows most of them.
//
// Memory: 8 bytes a slot, and at least one slot but less than three a region. It comes from the
// process-wide pool, on the account of the locator's nodes, when tokens are reserved, and never
// within an operation on the map; without it the directory stays as it is. A table shorter than one
// of the pool's chunks would take all of that one, so it comes from the heap, at the same moments.
#pragma once

#include <algorithm>
#include <bit>
#include <vector>

#include "RegionLocator/Prefetch.h"
#include "RegionLocator/RegionNodes.h"

// The memory of a directory, in pieces as the pool has them.
class RegionDirectoryMemory
{
public:
    RegionDirectoryMemory() = default;
    ~RegionDirectoryMemory() { m_buf.deleteContent(); }
    RegionDirectoryMemory(const RegionDirectoryMemory&) = delete;
    RegionDirectoryMemory& operator=(const RegionDirectoryMemory&) = delete;

    // Gets empty slots, a power of two of them; false when the pool has not that much to give at
    // once. REQUIRES: none are held.
    bool obtain(RegionLocatorMemPool& pool, u64 slots);

    u64 slots() const { return m_slots; }
    u64 bytes() const { return m_buf.getSize() + m_ofHeap.size() * sizeof(RegionNode*); }
    // Of these, from the pool.
    u64 poolBytes() const { return m_buf.getSize(); }
    void swap(RegionDirectoryMemory& other);

    // How many slots follow this one in the same piece of memory, itself with them.
    u64 run(u64 slot) const { return std::min(m_slots, m_pieceMask + 1) - (slot & m_pieceMask); }

    RegionNode*& at(u64 slot) { return m_pieces[slot >> m_pieceShift][slot & m_pieceMask]; }
    RegionNode* const& at(u64 slot) const
    {
        return m_pieces[slot >> m_pieceShift][slot & m_pieceMask];
    }

private:
    ScatteredBuf m_buf;                // of the pool, or
    std::vector<RegionNode*> m_ofHeap; // all slots
    std::vector<RegionNode**> m_pieces;
    u32 m_pieceShift = 0;
    u64 m_pieceMask = 0;
    u64 m_slots = 0;
};

// Thread safety: none; the owning locator's mutex guards it.
//
// Invariants: 1. a slot is empty or holds a node of the map, one that starts in a granule that
//                picks that slot;
//             2. noted() is the number of slots that are not empty;
//             3. no operation but install() takes or gives back memory.
class RegionDirectory
{
public:
    // Slots a region at which a table is too large: with 8 bytes a slot, 24 bytes a region.
    static constexpr u64 MOST_SLOTS_A_REGION = 3;

    // How many slots a map of so many regions should have when it has `slots` now: as many as now
    // while that is within bounds, else 0 or a power of two. noted: how many of them are known;
    // where it is few of the regions, as many slots again make most of them known.
    static u64 wantedSlots(u64 regions, u64 slots, u64 noted);
    // So many regions are worth another look at how many of them are known.
    static u64 regionsToLookAgain(u64 slots) { return slots - slots / 4; }

    bool isOn() const { return m_memory.slots() != 0; }
    u64 slots() const { return m_memory.slots(); }
    u64 bytes() const { return m_memory.bytes(); }
    u64 poolBytes() const { return m_memory.poolBytes(); }

    // A noted node that starts in the block's granule or shortly before; null when none is known.
    // noted: what peek() has shown for the block. REQUIRES: isOn().
    RegionNode* near(u64 offsetBlocks, RegionNode* noted) const
    {
        const u64 granule = offsetBlocks >> m_shift;
        for (u64 back = 0;; noted = m_memory.at(slotOf(granule - back))) {
            if (noted != nullptr && startOf(noted) >> m_shift == granule - back)
                return noted;
            if (++back > GRANULES_BACK || back > granule)
                return nullptr;
        }
    }

    // The node in the block's own slot, unchecked, or null: to be asked for before it is needed.
    RegionNode* peek(u64 offsetBlocks) const
    {
        return m_memory.at(slotOf(offsetBlocks >> m_shift));
    }
    void warm(u64 offsetBlocks) { prefetch(&m_memory.at(slotOf(offsetBlocks >> m_shift))); }

    // The node of a region that reaches over the block and starts in a granule shortly before the
    // block's own; null when none is known. REQUIRES: isOn().
    RegionNode* reaching(u64 offsetBlocks) const
    {
        const u64 granule = offsetBlocks >> m_shift;
        for (u64 back = 1; back <= std::min(GRANULES_BACK, granule); ++back) {
            RegionNode* const noted = m_memory.at(slotOf(granule - back));
            if (noted != nullptr && offsetBlocks - startOf(noted) < regionOf(noted).m_lengthBlocks)
                return noted;
        }
        return nullptr;
    }

    // Asks for the nodes noted for a range, and for those of the granules on both sides of a block.
    void warmRange(u64 firstBlocks, u64 endBlocks) const;
    void warmNeighbors(u64 offsetBlocks) const
    {
        const u64 granule = offsetBlocks >> m_shift;
        prefetch(m_memory.at(slotOf(granule - 1)));
        prefetch(m_memory.at(slotOf(granule + 1)));
    }

    // How many nodes are noted.
    u64 noted() const { return m_noted; }

    u64 granuleBlocks() const { return u64{1} << m_shift; }
    // How far before a block the regions are looked for that reach it.
    u64 reachBlocks() const { return GRANULES_BACK << m_shift; }

    // The node is in the map and starts there. Both do nothing while the directory is off.
    void note(RegionNode* node, u64 startBlocks)
    {
        if (!isOn())
            return;
        RegionNode*& slot = m_memory.at(slotOf(startBlocks >> m_shift));
        m_noted += slot == nullptr ? 1 : 0;
        slot = node;
    }
    // The node, which started there, leaves the map or moves.
    void forget(RegionNode* node, u64 startBlocks)
    {
        if (!isOn())
            return;
        RegionNode*& slot = m_memory.at(slotOf(startBlocks >> m_shift));
        if (slot != node)
            return;
        slot = nullptr;
        --m_noted;
    }
    // The node stays where it is in the order, but now starts elsewhere.
    void move(RegionNode* node, u64 fromBlocks, u64 toBlocks)
    {
        if (!isOn() || fromBlocks >> m_shift == toBlocks >> m_shift)
            return;
        forget(node, fromBlocks);
        note(node, toBlocks);
    }
    void forgetAll();

    // Takes over the memory, empty slots or none, and gives the memory before in its place; then
    // notes the map's regions again. blocks: what they cover.
    void install(RegionDirectoryMemory& memory, const RegionMap& map, u64 blocks);

private:
    // Places before the block's own granule where a region that reaches it may start.
    static constexpr u64 GRANULES_BACK = 2;

    // Neighbours stay neighbours, so that they share a cache line; the multiples of the table's
    // length are spread.
    u64 slotOf(u64 granule) const
    {
        constexpr u64 SPREAD = 0x9E3779B97F4A7C15;
        constexpr u32 UPPER = 32; // the product's upper bits depend on all of the lap's
        const u64 lap = granule >> m_lapShift;
        return (granule + (lap * SPREAD >> UPPER)) & m_slotMask;
    }

    static u32 shiftFor(const RegionMap& map, u64 blocks, u64 slots);

    RegionDirectoryMemory m_memory;
    u64 m_noted = 0;
    u64 m_slotMask = 0;
    u32 m_lapShift = 0;
    u32 m_shift = 0;
};
