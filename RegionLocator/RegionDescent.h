// Ways down the tree of a region map.
//
// In a map of a million regions a search is some twenty steps, most of them a wait for memory, and
// each with a comparison that no processor can guess. So a single search chooses its way by
// arithmetic instead of by a branch, and where several places are known beforehand, all are
// searched for in lockstep: while one waits for its next node, so do all the others.
//
// What is found is what RegionMap's own lower_bound() and its predecessor would be. Warming changes
// nothing but the caches.
//
// When not to use it: warming pays where the tree is larger than the caches. CountedRegionMap
// decides that.
#pragma once

#include "RegionLocator/Prefetch.h"
#include "RegionLocator/RegionNodes.h"

// Thread safety: none; the owning locator's mutex guards the map.
class RegionDescent
{
public:
    // Places that are warmed at once: enough for the waits to overlap, few enough for their first
    // ones to be in the cache still when the last ones are done.
    static constexpr u32 MAX_LOCKSTEP = 32;

    explicit RegionDescent(const RegionMap& map) : m_root(map.end()._M_node->_M_parent) {}

    // The last region that starts at or before the block; null when none does.
    RegionNode* lastAtOrBefore(u64 offsetBlocks) const
    {
        RegionNode* found = nullptr;
        for (RegionNode* node = m_root; node != nullptr;) {
            const uintptr_t right = startOf(node) <= offsetBlocks ? ~uintptr_t{0} : 0;
            found = choose(right, node, found);
            node = choose(right, node->_M_right, node->_M_left);
        }
        return found;
    }

    // The same for each of these blocks, in lockstep. REQUIRES: count <= MAX_LOCKSTEP.
    void lastAtOrBefore(const u64* offsetsBlocks, u32 count, RegionNode** found) const;

    // Brings the regions that start in [firstBlocks, endBlocks) into the cache, breadth first; some
    // hundred of them at most.
    void warmRange(u64 firstBlocks, u64 endBlocks) const;

    // Calls visit(node) for each node once, in no order, while the next ones are on their way to
    // the cache: the tree's own order would wait for each. Visit may free the node. nodes: how many
    // there are.
    template <class Visit> static void visitAll(RegionNode* root, u64 nodes, Visit visit)
    {
        RegionNode* coming[NODES_AHEAD] = {};
        RegionNode* todo[MOST_WAYS];
        u32 count = 0;
        todo[count++] = root;
        for (u32 turn = 0; nodes > 0; turn = (turn + 1) % NODES_AHEAD) {
            RegionNode* const node = coming[turn];
            coming[turn] = count == 0 ? nullptr : todo[--count];
            prefetch(coming[turn]);
            if (node == nullptr)
                continue;
            --nodes;
            if (node->_M_left != nullptr)
                todo[count++] = node->_M_left;
            if (node->_M_right != nullptr)
                todo[count++] = node->_M_right;
            visit(node);
        }
    }

private:
    // Nodes that are on their way at a time, and nodes that may be waiting then: a tree of 2^32
    // nodes is no deeper than 64, and each way down leaves one a level.
    static constexpr u32 NODES_AHEAD = 16;
    static constexpr u32 MOST_WAYS = NODES_AHEAD * 64 * 2;

    static RegionNode* choose(uintptr_t mask, RegionNode* a, RegionNode* b)
    {
        const uintptr_t other = reinterpret_cast<uintptr_t>(b);
        return reinterpret_cast<RegionNode*>(other ^
                                             ((reinterpret_cast<uintptr_t>(a) ^ other) & mask));
    }

    RegionNode* m_root;
};
