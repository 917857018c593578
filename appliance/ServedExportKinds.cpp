#include "appliance/ServedExportKinds.h"

#include <algorithm>

#include "appliance/BlockMap.h"

namespace {

constexpr const char* DIFF_PREFIX = "diff:";

void addExtent(std::vector<ExportExtent>* extents, u64 fromBlocks, u64 toBlocks, bool isHole,
               bool isZero)
{
    if (fromBlocks < toBlocks)
        extents->push_back(
            {fromBlocks * BLOCK_BYTES, (toBlocks - fromBlocks) * BLOCK_BYTES, isHole, isZero});
}

// The map of an index and the target below it: what reads as zeroes takes no space.
Result mapOf(Mirror& mirror, RegionLocator& locator, u64 offsetBlocks, u64 lengthBlocks,
             size_t maxExtents, std::vector<ExportExtent>* extents)
{
    std::vector<BlockRun> runs;
    if (Result result =
            findBlockRuns(mirror, locator, offsetBlocks, lengthBlocks, maxExtents, &runs);
        !result.ok())
        return result;
    for (const BlockRun& run : runs)
        addExtent(extents, run.m_offsetBlocks, run.m_offsetBlocks + run.m_lengthBlocks,
                  !run.m_isData, !run.m_isData);
    return Result();
}

class LiveExport : public ServedExport
{
public:
    explicit LiveExport(ServedMirror& served) : ServedExport(served) {}

    bool isWritable() const override { return true; }
    bool isSameForAll() const override { return true; }
    std::string description() const override { return "the live volume"; }

protected:
    RcStatus readBlocks(u64 offsetBlocks, u32 lengthBlocks, u8* data) override
    {
        return m_served.live()->read(offsetBlocks, lengthBlocks, data);
    }
    Result findExtents(u64 offsetBlocks, u64 lengthBlocks, size_t maxExtents,
                       std::vector<ExportExtent>* extents) override
    {
        return mapOf(m_served.mirror(), m_served.live()->locator(), offsetBlocks, lengthBlocks,
                     maxExtents, extents);
    }
};

class ViewExport : public ServedExport
{
public:
    // isFixed: the name that it was opened by names no other point, whatever is written.
    ViewExport(ServedMirror& served, const ChosenPoint& point, bool isFixed, ViewShelf::Lease view)
        : ServedExport(served), m_point(point), m_isFixed(isFixed),
          m_view(served.openViews().add(std::move(view)))
    {}
    ~ViewExport() override
    {
        const ServedMirror::Request request(m_served);
        if (request.isAdmitted()) // else the mirror closes it, or has
            m_served.openViews().remove(m_view);
    }

    // What a server knows that writes nothing is what it found at its beginning.
    bool isSameForAll() const override { return m_isFixed || m_served.live() == nullptr; }
    std::string description() const override { return m_point.description(); }

protected:
    RcStatus readBlocks(u64 offsetBlocks, u32 lengthBlocks, u8* data) override
    {
        return shared().reader().read(offsetBlocks, lengthBlocks, data);
    }
    Result findExtents(u64 offsetBlocks, u64 lengthBlocks, size_t maxExtents,
                       std::vector<ExportExtent>* extents) override
    {
        View& view = shared().view();
        if (Result result = mapOf(m_served.mirror(), view.locator(), offsetBlocks, lengthBlocks,
                                  maxExtents, extents);
            !result.ok())
            return result;
        // The holes of the target among them.
        return Result::fromStatus(view.confirmTarget(), "no map of " + m_point.name());
    }

private:
    ViewShelf::Shared& shared() { return *m_view->operator->(); }

    const ChosenPoint m_point;
    const bool m_isFixed;
    const OpenViews::Entry m_view;
};

// Unchanged is a hole that does not read as zeroes: whoever copies only what is no hole, onto an
// image of the earlier point, gets the later one.
class DiffExport : public ViewExport
{
public:
    DiffExport(ServedMirror& served, const ChosenPoint& from, const ChosenPoint& to, bool isFixed,
               ViewShelf::Lease view, std::shared_ptr<const DiffMaps::Extents> changes)
        : ViewExport(served, to, isFixed, std::move(view)), m_from(from),
          m_changes(std::move(changes))
    {}

    std::string description() const override
    {
        return ViewExport::description() + ", what changed after " + m_from.description();
    }

protected:
    Result findExtents(u64 offsetBlocks, u64 lengthBlocks, size_t maxExtents,
                       std::vector<ExportExtent>* extents) override
    {
        const u64 end = offsetBlocks + lengthBlocks;
        u64 block = offsetBlocks;
        auto next = std::partition_point(
            m_changes->begin(), m_changes->end(), [&](const DiffExtent& change) {
                return change.m_offsetBlocks + change.m_lengthBlocks <= offsetBlocks;
            });
        for (; block < end && extents->size() < maxExtents; ++next) {
            const bool isLast = next == m_changes->end() || next->m_offsetBlocks >= end;
            const u64 from = isLast ? end : std::max(block, next->m_offsetBlocks);
            addExtent(extents, block, from, true, false);
            block = from;
            if (isLast || extents->size() == maxExtents)
                break;
            const u64 to = std::min(end, next->m_offsetBlocks + next->m_lengthBlocks);
            addExtent(extents, from, to, next->m_isZero, next->m_isZero);
            block = to;
        }
        return Result();
    }

private:
    const ChosenPoint m_from;
    const std::shared_ptr<const DiffMaps::Extents> m_changes;
};

Result openDiff(ServedMirror& served, const std::string& span,
                std::unique_ptr<ServedExport>* opened)
{
    std::pair<PointName, PointName> names;
    if (Result result = parseSpan(span, &names); !result.ok())
        return result;
    const RecoverableWindow window = served.mirror().window();
    ChosenPoint from;
    ChosenPoint to;
    if (Result result = choosePoint(names.first, window, &from); !result.ok())
        return result;
    if (Result result = choosePoint(names.second, window, &to); !result.ok())
        return result;
    if (Result result = checkSpan(from, to); !result.ok())
        return result;
    ViewShelf::Lease view;
    if (Result result = served.views().open(to, &view); !result.ok())
        return result;
    std::shared_ptr<const DiffMaps::Extents> changes;
    if (Result result = served.diffs().open(from, to, &changes); !result.ok())
        return result;
    const bool isFixed = names.first.isFixed() && names.second.isFixed();
    *opened = std::make_unique<DiffExport>(served, from, to, isFixed, std::move(view),
                                           std::move(changes));
    return Result();
}

} // namespace

Result openExportKind(ServedMirror& served, const std::string& name,
                      std::unique_ptr<ServedExport>* opened)
{
    if (name == ServedExport::LIVE || (name.empty() && served.live() != nullptr)) {
        if (served.live() == nullptr)
            return Result::usage("no export live: the mirror is served read-only");
        *opened = std::make_unique<LiveExport>(served);
        return Result();
    }
    if (name.starts_with(DIFF_PREFIX))
        return openDiff(served, name.substr(std::char_traits<char>::length(DIFF_PREFIX)), opened);
    PointName point;
    if (Result result = parsePoint(name.empty() ? ServedExport::LATEST : name, &point);
        !result.ok())
        return Result::usage("no export '" + name +
                             "'; there are live, latest, cp:ID, tag:NAME, time:RFC3339, item:N and "
                             "diff:A..B");
    ChosenPoint chosen;
    if (Result result = choosePoint(point, served.mirror().window(), &chosen); !result.ok())
        return result;
    ViewShelf::Lease view;
    if (Result result = served.views().open(chosen, &view); !result.ok())
        return result;
    *opened = std::make_unique<ViewExport>(served, chosen, point.isFixed(), std::move(view));
    return Result();
}
