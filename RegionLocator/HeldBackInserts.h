// The last inserts of a journal scan, held back until there are enough to be made together.
//
// A scan hands over one item after the other, and each would wait for its own way through memory,
// and for the locator's mutex. So the locator keeps a scan's items for a moment. When enough have
// come, or when anybody asks the locator for anything, their places are searched for all at once,
// and then they are inserted one by one in the order in which they came.
//
//   held back                              | not held back, but inserted at once
//   ---------------------------------------+--------------------------------------------------
//   an item of a scan, into a map of some  | an insert of anybody else; a small map; anything
//   size of which nothing is locked        | locked; a locator whose iterators are out; while
//                                          | changes are traced or checked
//
// Nobody can tell the difference: an item that is held back could not have been refused, would have
// written no record, and is in the map before any other operation looks at it.
//
//   closed --open()--> open, empty --add()--> open, some held --close(), clear()--> closed
//
// It is opened where an item may be held back, and every operation of the locator closes it first.
// So while it is open, nothing has happened that could change whether items may be held back, and
// adding one needs no more than a look at that: not the locator's mutex, only a latch of its own
// that nobody holds for longer than it takes to copy one region.
//
// When not to use it: where an insert may fail. Its caller has been told that it has not.
#pragma once

#include <atomic>
#include <thread>
#include <vector>

#include "RegionLocator/CountedRegionMap.h"

class RegionLocatorVoucher;

// Thread safety: add(), isOpen(), empty() and size() from any thread; everything else under the
// owning locator's mutex, what looks at the regions while it is closed. Invariants: 1. all regions
// are of one voucher, which holds the tokens for them;
//             2. regions are added only while it is open.
class HeldBackInserts
{
public:
    static constexpr u32 MOST = RegionDescent::MAX_LOCKSTEP;

    // For who accepts a momentary view.
    bool empty() const { return size() == 0; }
    u32 size() const { return m_count.load(std::memory_order_relaxed); }
    bool isOpen() const { return m_isOpen.load(std::memory_order_relaxed); }

    // Keeps the region if it may: while this is open, not full, for that voucher, and nobody else
    // is at it.
    bool add(const SubRegionDescriptor& region, RegionLocatorVoucher* voucher)
    {
        return addWith(voucher, [&region](SubRegionDescriptor& to) { to = region; });
    }
    // The same for the region that an IO item becomes; false, too, for one without length.
    bool add(const SfsDiskMetaItem& item, RegionLocatorVoucher* voucher)
    {
        const u16 lengthBlocks = static_cast<u16>(item.getUncompressedLengthBlocks());
        return lengthBlocks != 0 && addWith(voucher, [&item](SubRegionDescriptor& to) {
                   to = SubRegionDescriptor(SfsItemDescriptor::genFromSfsDiskMetaItem(item));
               });
    }

    // From now on regions of that voucher may be added. REQUIRES: closed and empty.
    void open(RegionLocatorVoucher* voucher)
    {
        enter();
        m_voucher = voucher;
        m_isOpen.store(true, std::memory_order_relaxed);
        leave();
    }
    // When it returns, nothing is added any more.
    void close()
    {
        enter();
        m_isOpen.store(false, std::memory_order_relaxed);
        leave();
    }

    RegionLocatorVoucher* voucher() const { return m_voucher; }

    // Finds where each belongs, and brings what inserting them will touch into the cache.
    void locate(const CountedRegionMap& map, RegionNode** located) const
    {
        map.locate(m_regions.data(), size(), located);
    }

    // In the order in which they came.
    const SubRegionDescriptor* begin() const { return m_regions.data(); }
    const SubRegionDescriptor* end() const { return m_regions.data() + size(); }

    void clear() { m_count.store(0, std::memory_order_relaxed); }

private:
    template <class Write> bool addWith(RegionLocatorVoucher* voucher, Write write)
    {
        if (m_latch.exchange(true, std::memory_order_acquire))
            return false; // it is being opened or closed, or another region is added
        const u32 count = size();
        const bool may = isOpen() && count < MOST && voucher == m_voucher;
        if (may) {
            write(m_regions[count]);
            m_count.store(count + 1, std::memory_order_relaxed);
        }
        m_latch.store(false, std::memory_order_release);
        return may;
    }
    void enter()
    {
        while (m_latch.exchange(true, std::memory_order_acquire))
            std::this_thread::yield();
    }
    void leave() { m_latch.store(false, std::memory_order_release); }

    std::vector<SubRegionDescriptor> m_regions =
        std::vector<SubRegionDescriptor>(MOST, SubRegionDescriptor(0));
    std::atomic<bool> m_latch{false};
    std::atomic<bool> m_isOpen{false};
    std::atomic<u32> m_count{0};
    RegionLocatorVoucher* m_voucher = nullptr;
};
