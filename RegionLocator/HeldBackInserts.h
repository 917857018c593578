// The last inserts of a journal scan, held back until there are enough to be made together.
//
// A scan hands over one item after the other, and on a large map each would wait for its own way
// through memory. So the locator keeps a scan's items for a moment. When enough have come, or when
// anybody asks the locator for anything, their ways are warmed all at once, and then they are
// inserted one by one in the order in which they came.
//
//   held back                              | not held back, but inserted at once
//   ---------------------------------------+--------------------------------------------------
//   an item of a scan, into a large map of | an insert of anybody else; a small map; anything
//   which nothing is locked                | locked; a locator whose iterators are out; while
//                                          | changes are traced or checked
//
// Nobody can tell the difference: an item that is held back could not have been refused, would have
// written no record, and is in the map before any other operation looks at it.
//
// When not to use it: where an insert may fail. Its caller has been told that it has not.
#pragma once

#include <atomic>
#include <vector>

#include "RegionLocator/CountedRegionMap.h"

class RegionLocatorVoucher;

// Thread safety: none; the owning locator's mutex guards it.
// Invariants: all regions are of one voucher, which holds the tokens for them.
class HeldBackInserts
{
public:
    static constexpr u32 MOST = RegionDescent::MAX_LOCKSTEP;

    // May be asked without the mutex, by who accepts a momentary view.
    bool empty() const { return size() == 0; }
    bool isFull() const { return size() == MOST; }
    u32 size() const { return m_count.load(std::memory_order_relaxed); }
    RegionLocatorVoucher* voucher() const { return m_voucher; }

    // REQUIRES: not full, and no region of another voucher is held.
    void add(const SubRegionDescriptor& region, RegionLocatorVoucher* voucher)
    {
        m_voucher = voucher;
        const u32 count = size();
        m_regions[count] = region;
        m_count.store(count + 1, std::memory_order_relaxed);
    }

    // Brings what inserting the regions will touch into the cache.
    void warm(const CountedRegionMap& map) const { map.warm(m_regions.data(), size()); }

    // In the order in which they came.
    const SubRegionDescriptor* begin() const { return m_regions.data(); }
    const SubRegionDescriptor* end() const { return m_regions.data() + size(); }

    void clear() { m_count.store(0, std::memory_order_relaxed); }

private:
    std::vector<SubRegionDescriptor> m_regions =
        std::vector<SubRegionDescriptor>(MOST, SubRegionDescriptor(0));
    std::atomic<u32> m_count{0};
    RegionLocatorVoucher* m_voucher = nullptr;
};
