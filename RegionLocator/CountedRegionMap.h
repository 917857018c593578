// An ordered set of regions that knows how many view blocks they cover.
#pragma once

#include <functional>
#include <set>
#include <utility>

#include "RegionLocator/RegionLocatorMemPool.h"
#include "RegionLocator/SubRegionDescriptor.h"

// Ordered by first view block, one region per first block. Each node is a token of the locator's
// active voucher.
using RegionMap =
    std::set<SubRegionDescriptor, std::less<SubRegionDescriptor>, RlAllocator<SubRegionDescriptor>>;

// Thread safety: none; the owning locator's mutex guards every access. insert needs an active
// voucher with a token, erase an active voucher to put the token in.
//
// Invariants: 1. sizeLb() is the sum of the stored regions' lengths;
//             2. regions do not overlap (the locator keeps this, the map does not check it).
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

private:
    RegionMap* m_regionMap;
    u64 m_sizeLb;
};
