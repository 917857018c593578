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
