// The nodes of a region map, as its own allocator names them: for what goes through the map's tree
// beside the standard's operations, and only ever reads it.
#pragma once

#include <set>

#include "RegionLocator/RegionLocatorMemPool.h"
#include "RegionLocator/SubRegionDescriptor.h"

// Ordered by first view block, one region per first block. Each node is a token of the locator's
// active voucher.
using RegionMap =
    std::set<SubRegionDescriptor, std::less<SubRegionDescriptor>, RlAllocator<SubRegionDescriptor>>;

// Null is no node. The map's end is its header, which has no region.
using RegionNode = const std::_Rb_tree_node_base;

inline const SubRegionDescriptor& regionOf(RegionNode* node)
{
    return *static_cast<const std::_Rb_tree_node<SubRegionDescriptor>*>(node)->_M_valptr();
}

inline u64 startOf(RegionNode* node)
{
    return regionOf(node).m_viewOffsetBlocks;
}

// The node behind in the order, as the standard's increment, but without a call; behind the last
// one is the header.
inline RegionNode* nextOf(RegionNode* node)
{
    if (node->_M_right != nullptr) {
        node = node->_M_right;
        while (node->_M_left != nullptr)
            node = node->_M_left;
        return node;
    }
    RegionNode* parent = node->_M_parent;
    while (node == parent->_M_right) {
        node = parent;
        parent = parent->_M_parent;
    }
    // A root without a right side is where the header leads back to, whose parent the root is.
    return node->_M_right != parent ? parent : node;
}
