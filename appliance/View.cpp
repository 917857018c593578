#include "appliance/View.h"

#include "RegionLocator/RegionLocatorMetaDataContainer.h"
#include "appliance/Sizes.h"
#include "appliance/SpanScan.h"
#include "appliance/TokenReserve.h"
#include "host/infra/Clock.h"
#include "host/journal/JournalScanner.h"

namespace {

// Nobody else gives memory back while a view is built, so waiting long for some is of no use.
constexpr u64 MEMORY_TIMEOUT_MS = 5000;
constexpr u64 TOKEN_BYTES = 64;
// Copied between two looks at the outside; longer than any region.
constexpr u64 COPY_WINDOW_BLOCKS = u64{1} << 17;

} // namespace

View::View(Mirror& mirror, const ChosenPoint& point)
    : m_mirror(mirror), m_point(point), m_locator(mirror.settings().m_id, RL_MMI_View)
{}

View::~View()
{
    m_mirror.removeIndex(this);
}

Result View::build(Mirror& mirror, const ChosenPoint& point, FlowControl& control,
                   std::unique_ptr<View>* view, const ViewBuildOptions& options)
{
    std::unique_ptr<View> built(new View(mirror, point));
    if (Result result = mirror.usePoint(point.m_items, "a view of " + point.name(), &built->m_use);
        !result.ok())
        return result;
    // A scan sees what is flushed.
    if (Result result = mirror.flushUpTo(point.m_items); !result.ok())
        return result;
    if (Result result = built->scan(control, options); !result.ok())
        return result;
    mirror.addIndex(built.get());
    *view = std::move(built);
    return Result();
}

RcStatus View::copyRegions(View& from, FlowControl& control, const ViewBuildOptions& options)
{
    // Nothing is trimmed meanwhile: what is copied here would not be found where it is removed.
    // Later, until this index is in the mirror's list, its use refuses every other beginning: all
    // that is copied lies behind the journal's beginning that was registered before.
    IndexTurns::Turn turn(m_mirror.indexTurns(), IndexTurns::Kind::Copy);
    if (!turn.take(control))
        return RC_ABORTED;
    // A trim that was cut off has left items before the beginning in the other index.
    if (m_mirror.untakenPage() != ~u64{0})
        return RC_SUCCESS;
    m_statistics.m_isContinued = true;
    TokenReserve reserve(m_locator);
    for (u64 block = 0; block < sizeBlocks();) {
        if (control.stopRequested() || (options.m_admits && !options.m_admits(memoryBytes())))
            return RC_ABORTED;
        const u64 end = std::min(sizeBlocks(), block + COPY_WINDOW_BLOCKS);
        std::vector<SubRegionDescriptor> regions =
            from.pieces(block, static_cast<u32>(end - block));
        block = end;
        // One that may go on behind the window is copied whole with the next one.
        if (!regions.empty() && end < sizeBlocks() &&
            regions.back().m_viewOffsetBlocks + regions.back().m_lengthBlocks == end) {
            block = regions.back().m_viewOffsetBlocks;
            regions.pop_back();
        }
        for (const SubRegionDescriptor& region : regions) {
            if (const RcStatus rc = reserve.prepare(1); rc != RC_SUCCESS)
                return rc;
            reserve.insert(region);
        }
    }
    return RC_SUCCESS;
}

Result View::scan(FlowControl& control, const ViewBuildOptions& building)
{
    const u64 startedUs = Clock::instance()->nowUs();
    Result interrupted(ResultCode::Interrupted, "interrupted while building the index");
    JournalScanner scanner(m_mirror.journal());
    bool isRefused = false; // also where the scan has ended before it could be cancelled
    ScanOptions options;
    options.prepareTimeoutMs = MEMORY_TIMEOUT_MS;
    options.nowMs = [] { return Clock::instance()->nowMs(); };
    options.progress = [&](u64 donePages, u64 allPages) {
        control.progress(donePages, allPages);
        isRefused = isRefused || (building.m_admits && !building.m_admits(memoryBytes()));
        if (control.stopRequested() || isRefused)
            scanner.cancel();
    };
    RegionLocatorMetaDataContainer_Insert* container = m_locator.getInsertContainer();
    if (m_point.m_isCheckpoint)
        container->init(m_point.m_checkpoint.m_id);
    else
        options.limitItems = m_point.m_items;

    if (building.m_from != nullptr) {
        JournalPtr start = JournalPtr::invalid;
        if (Result result = startAfter(m_mirror, building.m_from->point(), &start); !result.ok())
            return result;
        const RcStatus rc = copyRegions(*building.m_from, control, building);
        if (rc == RC_ABORTED)
            return interrupted;
        if (rc != RC_SUCCESS)
            return memoryResult(rc, building.m_from->point().m_items);
        if (m_statistics.m_isContinued)
            options.start = start;
    }
    const ScanResult scanned = scanner.scan(*container, options);
    if (isForWantOfMemory(scanned))
        return memoryResult(scanned.rc, scanned.logicalItems);
    if (scanned.rc == RC_ABORTED || (scanned.rc == RC_SUCCESS && isRefused))
        return interrupted;
    if (scanned.rc != RC_SUCCESS)
        return Result(Result::fromStatus(scanned.rc, "").code(),
                      "cannot build the index of " + m_point.name() + ": " +
                          (scanned.message.empty() ? rcStatusText(scanned.rc) : scanned.message));
    // What was skipped as damaged is told when the journal is opened.
    if (scanned.itemsBefore != m_point.m_items && !m_mirror.journal().skipsDamage())
        return Result(ResultCode::Damaged, "the journal ends before " + m_point.name());

    const RegionLocatorStatistics statistics = m_locator.getStatistics();
    m_statistics.m_iosInserted = statistics.m_numIOsInserted;
    m_statistics.m_bytesInserted = statistics.m_bytesInserted;
    m_statistics.m_uniqueBytes = statistics.m_uniqueBytesIosCover;
    m_statistics.m_regions = statistics.m_numRegionsCreated;
    m_statistics.m_merges = m_locator.getMerges();
    m_statistics.m_itemsScanned = scanned.logicalItems;
    if (m_statistics.m_regions > 0)
        m_statistics.m_bytesPerRegion =
            static_cast<double>(memoryBytes()) / static_cast<double>(m_statistics.m_regions);
    m_statistics.m_indexSeconds = static_cast<double>(Clock::instance()->nowUs() - startedUs) / 1e6;
    return Result();
}

Result View::memoryResult(RcStatus rc, u64 items)
{
    const u64 have = memoryBytes();
    // An item adds at most two regions: itself, and the second half of one that it cuts in two.
    const u64 need = m_point.m_items * 2 * TOKEN_BYTES + (u64{1} << 20);
    return Result::failed("the memory limit is too small for the index of " + m_point.name() +
                          ": it had " + formatSize(have) + " after " + std::to_string(items) +
                          " of " + std::to_string(m_point.m_items) + " items and may need " +
                          formatSize(need) + " (" + rcStatusText(rc) + ")");
}
