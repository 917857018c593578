// An index over a mirror's journal that stays while the journal changes: a view's, or that of the
// live volume. A trim takes what it removes from the journal out of all of them first.
#pragma once

#include "RegionLocator/RegionLocator.h"
#include "appliance/LocatorGate.h"
#include "appliance/Pins.h"

// Memory that a locator takes: its regions', and what lies beside them to speed it up.
inline u64 indexBytes(RegionLocator& locator)
{
    return locator.getMemPool()->getMemoryStats().totalBytes + locator.getAcceleratorBytes();
}

// Thread safety: any thread.
class JournalIndex
{
public:
    virtual ~JournalIndex() = default;

    virtual RegionLocator& locator() = 0;
    // In front of the locator: everyone who locks in it passes it.
    virtual LocatorGate& gate() = 0;
    // What is registered for it; null: nothing.
    virtual const PointUse* use() const = 0;
    // Whether it takes in what is journaled, and nothing of it is ever locked.
    virtual bool isLive() const = 0;

    // The pieces of a range, ascending, clipped to it; gaps have no entry. Locks nothing.
    std::vector<SubRegionDescriptor> pieces(u64 offsetBlocks, u32 lengthBlocks)
    {
        std::vector<SubRegionDescriptor> found;
        // A lookup that locks nothing neither waits nor needs a task or a voucher.
        locator().lookup(nullptr, offsetBlocks, lengthBlocks, &found, false, nullptr);
        return found;
    }
};
