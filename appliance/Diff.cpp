#include "appliance/Diff.h"

#include "appliance/ChangeFilter.h"
#include "appliance/ReadAhead.h"

namespace {

constexpr u32 SLOTS = 4;
constexpr u32 SLOT_BLOCKS = 4096; // 2 MiB

constexpr u64 REGIONS_PER_LOOK = 4096; // between two questions whether to stop

bool joins(const DiffExtent& last, const DiffExtent& next)
{
    return last.m_isZero == next.m_isZero &&
           last.m_offsetBlocks + last.m_lengthBlocks == next.m_offsetBlocks;
}

void append(std::vector<DiffExtent>* extents, const DiffExtent& extent)
{
    if (!extents->empty() && joins(extents->back(), extent))
        extents->back().m_lengthBlocks += extent.m_lengthBlocks;
    else
        extents->push_back(extent);
}

// Has a scan stop for want of memory too.
class AdmittedControl : public FlowControl
{
public:
    AdmittedControl(FlowControl& outer, RegionLocator& locator, const DiffAdmits& admits)
        : m_outer(outer), m_locator(locator), m_admits(admits)
    {}
    void progress(u64 done, u64 total) override { m_outer.progress(done, total); }
    bool stopRequested() override { return m_outer.stopRequested() || !admits(0); }

    // Beside the index.
    bool admits(u64 bytes) { return !m_admits || m_admits(indexBytes(m_locator) + bytes); }

private:
    FlowControl& m_outer;
    RegionLocator& m_locator;
    const DiffAdmits& m_admits;
};

// use(extent) for each region of the index; false: stopped.
template <typename Use> bool forEachRegion(RegionLocator& locator, FlowControl& control, Use use)
{
    u64 regions = 0;
    const auto end = locator.getConstEndIterator();
    for (auto region = locator.getConstBeginIterator(); region != end; ++region) {
        if (regions++ % REGIONS_PER_LOOK == 0 && control.stopRequested())
            return false;
        use(DiffExtent{region->m_viewOffsetBlocks, region->m_lengthBlocks, region->isAllZeroes()});
    }
    return true;
}

} // namespace

Result diffPoints(Mirror& mirror, const ChosenPoint& from, const ChosenPoint& to,
                  FlowControl& control, std::vector<DiffExtent>* extents, const DiffAdmits& admits)
{
    extents->clear();
    if (Result result = checkSpan(from, to); !result.ok())
        return result;
    std::unique_ptr<PointUse> inUse;
    if (Result result = mirror.usePoint(from.m_items, "a diff from " + from.name(), &inUse);
        !result.ok())
        return result;
    RegionLocator locator(mirror.settings().m_id, RL_MMI_View);
    AdmittedControl admitted(control, locator, admits);
    ScanResult scanned;
    if (Result result = indexSpan(mirror, from, to, locator, admitted, &scanned); !result.ok())
        return result;
    // Counted first, so that no more is allocated than was asked for: a vector that grows takes up
    // to three times what it holds.
    Result interrupted(ResultCode::Interrupted, "interrupted while listing what changed");
    u64 count = 0;
    DiffExtent last;
    const bool isCounted = forEachRegion(locator, control, [&](const DiffExtent& extent) {
        count += count == 0 || !joins(last, extent);
        last = extent;
    });
    if (!isCounted || !admitted.admits(count * sizeof(DiffExtent)))
        return interrupted;
    extents->reserve(count);
    const bool isListed =
        forEachRegion(locator, control, [&](const DiffExtent& extent) { append(extents, extent); });
    return isListed ? Result() : interrupted;
}

Result compareExtents(Mirror& mirror, TaskEngine& engine, const ChosenPoint& from,
                      const ChosenPoint& to, FlowControl& control, std::vector<DiffExtent>* extents)
{
    if (extents->empty())
        return Result();
    // The index of each side is built once; what is told is the comparing alone.
    class Quiet : public FlowControl
    {
    public:
        explicit Quiet(FlowControl& outer) : m_outer(outer) {}
        bool stopRequested() override { return m_outer.stopRequested(); }

    private:
        FlowControl& m_outer;
    } quiet(control);
    std::unique_ptr<View> then;
    std::unique_ptr<View> now;
    if (Result result = View::build(mirror, from, quiet, &then); !result.ok())
        return result;
    if (Result result = View::build(mirror, to, quiet, &now); !result.ok())
        return result;

    std::vector<DiffExtent> differing;
    ChangeFilter filter(*then, engine);
    ViewReader reader(*now);
    ReadAhead ahead(reader, engine, SLOTS, SLOT_BLOCKS);
    u64 total = 0;
    u64 done = 0;
    for (const DiffExtent& extent : *extents)
        total += extent.m_lengthBlocks;
    const auto addTo = [&](bool isZero) {
        return [&differing, isZero](u64 offset, u64 length) {
            append(&differing, {offset, length, isZero});
            return Result();
        };
    };
    const auto use = [&](u64 offsetBlocks, u32 lengthBlocks, const u8* data) {
        control.progress(done += lengthBlocks, total);
        if (control.stopRequested())
            return Result(ResultCode::Interrupted, "interrupted while comparing");
        return filter.differing(offsetBlocks, lengthBlocks, data, addTo(false));
    };
    for (const DiffExtent& extent : *extents) {
        // What is in flight comes before this extent, and so has to be compared before it.
        while (extent.m_isZero && !ahead.empty())
            if (Result result = ahead.finish(use); !result.ok())
                return result;
        if (extent.m_isZero) {
            control.progress(done += extent.m_lengthBlocks, total);
            if (Result result = filter.differing(extent.m_offsetBlocks, extent.m_lengthBlocks,
                                                 nullptr, addTo(true));
                !result.ok())
                return result;
            continue;
        }
        for (u64 at = 0; at < extent.m_lengthBlocks; at += SLOT_BLOCKS) {
            if (ahead.full())
                if (Result result = ahead.finish(use); !result.ok())
                    return result;
            if (Result result = ahead.start(
                    extent.m_offsetBlocks + at,
                    static_cast<u32>(std::min<u64>(SLOT_BLOCKS, extent.m_lengthBlocks - at)));
                !result.ok())
                return result;
        }
    }
    while (!ahead.empty())
        if (Result result = ahead.finish(use); !result.ok())
            return result;
    *extents = std::move(differing);
    return Result();
}
