// An ordered set of regions that knows how many view blocks they cover.
#pragma once

#include <cstddef>
#include <iterator>
#include <new>
#include <type_traits>
#include <utility>

#include "RegionLocator/RegionDescent.h"
#include "RegionLocator/RegionDirectory.h"
#include "RegionLocator/RegionFinger.h"
#include "RegionLocator/RegionNodes.h"

// What is known beside the set (a directory, a finger) only speeds up the way to a region; it is
// switched on by accelerate(), and without it every operation does the same.
//
// Thread safety: none; the owning locator's mutex guards every access. insert needs an active
// voucher with a token, erase an active voucher to put the token in.
//
// Invariants: 1. sizeLb() is the sum of the stored regions' lengths;
//             2. regions do not overlap (the locator keeps this, the map does not check it);
//             3. directory and finger hold nodes of the set only.
class CountedRegionMap
{
public:
    using iterator = RegionMap::iterator;
    using const_iterator = RegionMap::const_iterator;

    // An empty map whose nodes come through the given allocator.
    explicit CountedRegionMap(RlAllocator<int>& allocator);
    ~CountedRegionMap();
    CountedRegionMap(const CountedRegionMap&) = delete;
    CountedRegionMap& operator=(const CountedRegionMap&) = delete;

    // Stores the region; when one with the same first block is there, nothing changes, and the
    // result holds that one and false.
    std::pair<iterator, bool> insert(SubRegionDescriptor region);

    // The same without a search, when `next` is the first region that starts after it.
    std::pair<iterator, bool> insert(const_iterator next, SubRegionDescriptor region);

    // Erase the region, or the regions, at these places; return what follows.
    iterator erase(const_iterator iter);
    iterator erase(const_iterator first, const_iterator last);

    // Erases the region with the argument's first block; returns how many there were, 0 or 1. The
    // total shrinks by the argument's length, so pass the very region that is stored.
    size_t erase(SubRegionDescriptor region);

    // Takes the region at this place over into another map of the same pool, its node with it, so
    // that no token comes or goes; `next` is the first region there that starts after it. The
    // other map's place; false, and nothing changes, when it has a region with that first block.
    std::pair<iterator, bool> moveTo(CountedRegionMap& other, const_iterator next,
                                     const_iterator iter);

    // Writes a region over the stored one, in its node. The total changes by the difference.
    // REQUIRES: it starts after the region before and before the region behind.
    void replace(const_iterator iter, const SubRegionDescriptor& region);

    // The same for a region of the very same blocks.
    void renew(const_iterator iter, const SubRegionDescriptor& region);

    // The last region that starts at or before the block; the first region when none does.
    const_iterator lastAtOrBefore(u64 offsetBlocks) const
    {
        RegionNode* noted = nullptr;
        if (m_directory.isOn()) {
            noted = m_directory.peek(offsetBlocks);
            // A region that reaches over the block is the one, since regions do not overlap.
            if (noted != nullptr && offsetBlocks - startOf(noted) < regionOf(noted).m_lengthBlocks)
                return at(noted);
        }
        return search(offsetBlocks, noted);
    }

    // The same, trying `hint`, a place in the map or its end, and what follows it first.
    const_iterator lastAtOrBefore(u64 offsetBlocks, const_iterator hint) const
    {
        if (hint == m_regionMap->end())
            return lastAtOrBefore(offsetBlocks);
        if (offsetBlocks - hint->m_viewOffsetBlocks < hint->m_lengthBlocks)
            return hint;
        RegionNode* const node = stepFrom(hint._M_node, offsetBlocks);
        return node != nullptr ? at(node) : lastAtOrBefore(offsetBlocks);
    }

    // The same, from what locate() has found for the block: whatever has been inserted, replaced or
    // erased since.
    const_iterator lastAtOrBefore(u64 offsetBlocks, RegionNode* located) const
    {
        if (located != nullptr && startOf(located) != NOWHERE) {
            if (offsetBlocks - startOf(located) < regionOf(located).m_lengthBlocks)
                return at(located);
            RegionNode* const node = stepFrom(located, offsetBlocks);
            if (node != nullptr)
                return at(node);
        }
        return lastAtOrBefore(offsetBlocks);
    }

    // The region after one of the map, and the one before it; the end for none. Where two touch,
    // nothing lies between them, and the directory may know the other one; a step through the tree
    // is no longer while its nodes are in the cache.
    const_iterator after(const_iterator place) const
    {
        if (m_granuleMask != 0) {
            const u64 end = place->m_viewOffsetBlocks + place->m_lengthBlocks;
            RegionNode* const noted = m_directory.peek(end);
            if (noted != nullptr && startOf(noted) == end && end > place->m_viewOffsetBlocks)
                return at(noted);
        }
        return at(nextOf(place._M_node));
    }
    const_iterator before(const_iterator place) const
    {
        if (m_granuleMask != 0) {
            const u64 start = place->m_viewOffsetBlocks;
            RegionNode* const noted = m_directory.peek(start - 1);
            if (noted != nullptr && startOf(noted) < start &&
                startOf(noted) + regionOf(noted).m_lengthBlocks == start)
                return at(noted);
        }
        return place == m_regionMap->begin() ? m_regionMap->cend() : std::prev(place);
    }

    // The first region whose first block is not below the argument's.
    iterator lower_bound(const SubRegionDescriptor& key) const
    {
        return m_regionMap->lower_bound(key);
    }

    iterator begin() const { return m_regionMap->begin(); }
    iterator end() const { return m_regionMap->end(); }
    const_iterator cbegin() const { return m_regionMap->cbegin(); }
    const_iterator cend() const { return m_regionMap->cend(); }
    bool empty() const { return m_regionMap->empty(); }
    size_t size() const { return m_regionMap->size(); }

    // Blocks covered.
    u64 sizeLb() const { return m_sizeLb; }

    void clear();

    // The same without any order: calls pause() whenever so many nodes have gone back. Meanwhile
    // the map is empty already.
    template <class Pause> void takeApart(size_t batch, Pause pause)
    {
        using Node = std::_Rb_tree_node<SubRegionDescriptor>;
        static_assert(std::is_trivially_destructible_v<SubRegionDescriptor>);
        RlAllocator<Node> allocator(m_regionMap->get_allocator());
        const u64 nodes = m_regionMap->size();
        RegionNode* const root = header()->_M_parent;
        // What has been moved to is never destroyed, since its nodes go back one by one here.
        alignas(RegionMap) std::byte taken[sizeof(RegionMap)];
        new (static_cast<void*>(taken)) RegionMap(std::move(*m_regionMap));
        clear();
        size_t inBatch = 0;
        RegionDescent::visitAll(root, nodes, [&](RegionNode* node) {
            allocator.deallocate(const_cast<Node*>(static_cast<const Node*>(node)), 1);
            if (++inBatch < batch)
                return;
            inBatch = 0;
            pause();
        });
    }

    // Whether sizeLb() is what it should be: an erase by value may have been told another length.
    bool isTotalRight() const { return m_isTotalRight; }

    // ---- speed ----

    // What may be used besides the set's own search.
    struct Accelerators
    {
        bool m_descent = false;
        bool m_directory = false;
        bool m_finger = false;
        u64 m_fromRegions = 0;          // from this size on memory is what operations wait for
        u64 m_directoryFromRegions = 0; // from this size on there is a directory
        u64 m_batchFromRegions = 0;     // from this size on several searches are made at once
    };
    void accelerate(const Accelerators& accelerators);

    // Whether the map is large enough for memory to be what its operations wait for; and whether it
    // is so large that several searches at once take less time than one after the other.
    bool isLarge() const { return m_regionMap->size() >= m_accelerators.m_fromRegions; }
    bool isWorthBatches() const { return m_regionMap->size() >= m_accelerators.m_batchFromRegions; }

    // Finds the last region that starts at or before each of these, or null, or, where one begins
    // at which the one before it ends, nothing that can be relied on; and brings what changes over
    // them will touch into the cache; at most MAX_LOCKSTEP. What is found serves lastAtOrBefore()
    // and isJust() until a voucher is cleared, or regions leave for another map or all at once:
    // a region that is erased leaves a mark in its node, and that node is free in a voucher or in
    // the map again.
    void locate(const SubRegionDescriptor* regions, u32 count, RegionNode** located) const;
    // Whether what was found is a region of just these blocks now. Never one that reaches beyond
    // the last block: its range ends before it starts and intersects nothing.
    static bool isJust(RegionNode* located, const SubRegionDescriptor& region)
    {
        return located != nullptr && startOf(located) == region.m_viewOffsetBlocks &&
               regionOf(located).m_lengthBlocks == region.m_lengthBlocks &&
               region.m_viewOffsetBlocks < region.m_viewOffsetBlocks + region.m_lengthBlocks;
    }
    // Warms what taking out, and putting back, the region at this place will touch.
    void warmAround(const_iterator place) const;
    // Keeps the regions that a walk comes to next on their way to the cache.
    class Warmer
    {
    public:
        // For a walk through a range; to be made before its first search, so that the two wait at
        // the same time.
        Warmer(const CountedRegionMap& map, u64 firstBlocks, u64 endBlocks) : m_map(map)
        {
            // A short range within one granule takes one step or two, whatever is warmed.
            if (((firstBlocks ^ (endBlocks - 1)) & map.m_granuleMask) != 0 ||
                endBlocks - firstBlocks >= LEAST_WARMED_BLOCKS)
                begin(firstBlocks, endBlocks);
        }
        // The walk is at a region that starts there, and ends at endBlocks at the latest.
        void reached(u64 startBlocks, u64 endBlocks)
        {
            if (startBlocks >= m_nextBlocks)
                goOn(startBlocks, endBlocks);
        }

    private:
        void begin(u64 firstBlocks, u64 endBlocks);
        void goOn(u64 startBlocks, u64 endBlocks);

        const CountedRegionMap& m_map;
        u64 m_nextBlocks = ~u64{0}; // from where on more is to be asked for
        u64 m_warmedBlocks = 0;     // and from where on nothing has been yet
        u64 m_stepBlocks = 0;
        bool m_isNoted = false; // whether the directory names the nodes
    };

    // Slots that the directory should have, and whether that is likely another number than it has.
    u64 wantedDirectorySlots() const;
    bool isDirectoryDue() const { return size() - m_directoryLeast > m_directorySpan; }
    // Takes over the memory of that many slots, and gives the memory before in its place.
    void installDirectory(RegionDirectoryMemory& memory);
    // It stays as it is: not due until the map's size asks for another number of slots.
    void keepDirectory() { setDirectoryBounds(); }
    // There is no memory for it: not due until the map's size has changed by an eighth.
    void postponeDirectory()
    {
        m_directoryLeast = size() - size() / 8;
        m_directorySpan = size() / 4;
    }
    u64 directorySlots() const { return m_directory.slots(); }
    u64 directoryBytes() const { return m_directory.bytes(); }
    u64 directoryPoolBytes() const { return m_directory.poolBytes(); }

private:
    // Where a region starts that has been erased: none reaches that far.
    static constexpr u64 NOWHERE = ~u64{0};

    // The ways to a region that lastAtOrBefore() has not found at once; noted: what it has seen in
    // the directory.
    const_iterator search(u64 offsetBlocks, RegionNode* noted) const;
    RegionNode* nearby(u64 offsetBlocks, RegionNode* noted) const;
    RegionNode* stepFrom(RegionNode* node, u64 offsetBlocks) const;
    RegionNode* header() const { return m_regionMap->end()._M_node; }
    static const_iterator at(RegionNode* node) { return const_iterator(node); }
    void setDirectoryBounds();
    // Below, a directory that is there goes.
    u64 leastWithDirectory() const
    {
        return m_accelerators.m_directoryFromRegions - m_accelerators.m_directoryFromRegions / 4;
    }
    // Shorter ranges have too few regions for a walk to wait long for them.
    static constexpr u64 LEAST_WARMED_BLOCKS = 32;

    void added(const_iterator place);
    void leaving(const_iterator place);
    void erasing(const_iterator place);

    RegionMap* m_regionMap;
    u64 m_sizeLb;
    bool m_isTotalRight = true;
    Accelerators m_accelerators;
    // What a search learns is noted, also where it changes nothing else.
    mutable RegionDirectory m_directory;
    mutable RegionFinger m_finger;
    // Sizes from m_directoryLeast on, that many more, for which the directory is as it should be.
    size_t m_directoryLeast = 0;
    size_t m_directorySpan = ~size_t{0};
    u64 m_granuleMask = 0; // what blocks of one granule have in common; 0 without a directory
                           // or where it is no shorter way to a neighbour
};
