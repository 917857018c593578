// The view of a protected volume at one point in time: its index, built by a scan of the journal.
//
//   journal -> scanner -> the locator's insert feeder -> RegionLocator
//
// What the index covers lies in the journal; all other blocks are the target volume's. Neither
// apply nor trim of any process changes what an open view reads: the one does not pass its point,
// the other removes from its index what it takes away, or waits until it is closed. Where the view
// cannot be registered they may go past it, and what it would read then is refused.
//
// Thread safety: any thread, once built; reads through it take locks of the locator (ViewReader.h).
// Invariants: the content of an open view never changes; only which pieces are locked does, and
// how finely its regions are cut.
#pragma once

#include <functional>
#include <memory>
#include <vector>

#include "appliance/FlowControl.h"
#include "appliance/JournalIndex.h"
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
    bool m_isContinued = false;  // from another view
};

class View;

struct ViewBuildOptions
{
    // A view of an earlier point that stays open meanwhile: its regions are copied, and only the
    // items between the two are scanned. Null, or a trim was cut off before it had taken all its
    // items out of that view: the scan begins where the journal does.
    View* m_from = nullptr;

    // Asked now and then with the memory that the index takes by then; false ends the building,
    // which is then Interrupted. Empty: nobody asks.
    std::function<bool(u64 bytes)> m_admits;
};

class View : public JournalIndex
{
public:
    // Scans the journal up to the point, which is flushed before where it is not durable yet.
    // Interrupted when control says so; Failed when the index does not fit the memory limit, the
    // message says how much it may need; Damaged, also where the journal ends before the point. The
    // mirror outlives the view.
    static Result build(Mirror& mirror, const ChosenPoint& point, FlowControl& control,
                        std::unique_ptr<View>* view, const ViewBuildOptions& options = {});

    ~View() override;
    View(const View&) = delete;
    View& operator=(const View&) = delete;

    Mirror& mirror() { return m_mirror; }
    const ChosenPoint& point() const { return m_point; }
    u64 sizeBlocks() const { return m_mirror.settings().sizeBlocks(); }
    RegionLocator& locator() override { return m_locator; }
    LocatorGate& gate() override { return m_gate; }

    // Of the index as it was built.
    const ViewStatistics& statistics() const { return m_statistics; }

    // That the index takes now, what speeds it up included.
    u64 memoryBytes() { return indexBytes(m_locator); }

    const PointUse* use() const override { return m_use.get(); }
    // As PointUse: to be asked after each read of the target.
    RcStatus confirmTarget() { return m_use->confirmTarget(); }
    bool isLive() const override { return false; }

private:
    View(Mirror& mirror, const ChosenPoint& point);

    Result scan(FlowControl& control, const ViewBuildOptions& options);
    // Copies nothing, and leaves m_isContinued as it is, where `from` holds trimmed items.
    RcStatus copyRegions(View& from, FlowControl& control, const ViewBuildOptions& options);
    Result memoryResult(RcStatus rc, u64 items);

    Mirror& m_mirror;
    ChosenPoint m_point;
    std::unique_ptr<PointUse> m_use; // before the journal is read, until nothing reads any more
    RegionLocator m_locator;
    LocatorGate m_gate;
    ViewStatistics m_statistics;
};
