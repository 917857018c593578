// The view of a protected volume at one point in time: its index, built by a scan of the journal.
//
//   journal -> scanner -> the locator's insert feeder -> RegionLocator
//
// What the index covers lies in the journal; all other blocks are the target volume's. Neither
// apply nor trim of any process changes what an open view reads: the one does not pass its point,
// the other removes from its index what it takes away, or waits until it is closed.
//
// Thread safety: any thread, once built; reads through it take locks of the locator (ViewReader.h).
// Invariants: the content of an open view never changes; only which pieces are locked does, and
// how finely its regions are cut.
#pragma once

#include <memory>
#include <vector>

#include "RegionLocator/RegionLocator.h"
#include "appliance/FlowControl.h"
#include "appliance/LocatorGate.h"
#include "appliance/Mirror.h"

struct ViewStatistics
{
    u64 m_iosInserted = 0;
    u64 m_bytesInserted = 0;
    u64 m_uniqueBytes = 0; // covered by the index
    u64 m_regions = 0;
    u64 m_merges = 0;
    double m_bytesPerRegion = 0; // of index memory, as obtained from the process's pool
    u64 m_itemsScanned = 0;      // journaled items
    double m_indexSeconds = 0;   // that the scan took
};

class View
{
public:
    // Scans the journal up to the point. Interrupted when control says so; Failed when the index
    // does not fit the memory limit, the message says how much it may need; Damaged. The mirror
    // outlives the view.
    static Result build(Mirror& mirror, const ChosenPoint& point, FlowControl& control,
                        std::unique_ptr<View>* view);

    ~View();
    View(const View&) = delete;
    View& operator=(const View&) = delete;

    Mirror& mirror() { return m_mirror; }
    const ChosenPoint& point() const { return m_point; }
    u64 sizeBlocks() const { return m_mirror.settings().sizeBlocks(); }
    RegionLocator& locator() { return m_locator; }
    // In front of the locator: everyone who locks passes it.
    LocatorGate& gate() { return m_gate; }

    // Of the index as it was built.
    const ViewStatistics& statistics() const { return m_statistics; }

    // Null on a file system that nobody can write to.
    const PointUse* use() const { return m_use.get(); }

    // The pieces of a range, ascending, clipped to it; gaps have no entry. Locks nothing.
    std::vector<SubRegionDescriptor> pieces(u64 offsetBlocks, u32 lengthBlocks);

private:
    View(Mirror& mirror, const ChosenPoint& point);

    Result scan(FlowControl& control);
    Result memoryResult(RcStatus rc, u64 items);

    Mirror& m_mirror;
    ChosenPoint m_point;
    std::unique_ptr<PointUse> m_use; // before the journal is read, until nothing reads any more
    RegionLocator m_locator;
    LocatorGate m_gate;
    ViewStatistics m_statistics;
};
