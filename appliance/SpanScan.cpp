#include "appliance/SpanScan.h"

#include "RegionLocator/RegionLocatorMetaDataContainer.h"
#include "appliance/Sizes.h"
#include "host/infra/Clock.h"
#include "host/journal/JournalItemSearch.h"

namespace {

// Nobody else gives memory back meanwhile, so waiting long for some is of no use.
constexpr u64 MEMORY_TIMEOUT_MS = 5000;
constexpr u64 TOKEN_BYTES = 64;
// Each asks for two tokens an item beforehand, also for the last items that there is room for.
constexpr u32 SMALL_BATCH_ITEMS = 256;

} // namespace

void prepareAtOnce(ScanOptions& options)
{
    options.batchItems = SMALL_BATCH_ITEMS;
    // A deadline of 0.
    options.prepareTimeoutMs = 0;
    options.nowMs = [] { return u64{0}; };
}

Result checkSpan(const ChosenPoint& from, const ChosenPoint& to)
{
    if (from.m_items <= to.m_items)
        return Result();
    return Result::usage(from.name() + " comes after " + to.name() +
                         "; name the earlier point first");
}

Result startAfter(Mirror& mirror, const ChosenPoint& point, JournalPtr* start)
{
    std::string message;
    const RcStatus rc = findEndOfItems(mirror.journal(), point.m_items, start, &message);
    if (rc == RC_SUCCESS)
        return Result();
    return Result(Result::fromStatus(rc, "").code(),
                  "cannot find " + point.name() + " in the journal: " + message);
}

Result scanJournal(Mirror& mirror, SfsMetaDataContainer& container, ScanOptions options, u64 items,
                   const std::string& what, FlowControl& control, ScanResult* scanned)
{
    JournalScanner scanner(mirror.journal());
    const bool fromStart = options.start.grain == SFS_DEV_ADDR_INVALID;
    const u64 firstPage =
        fromStart ? mirror.journal().begin().m_page : pageOfJournalPtr(options.start);
    if (options.prepareTimeoutMs == ScanOptions().prepareTimeoutMs) {
        options.prepareTimeoutMs = MEMORY_TIMEOUT_MS;
        options.nowMs = [] { return Clock::instance()->nowMs(); };
    }
    options.progress = [&](u64 donePages, u64 allPages) {
        control.progress(donePages - firstPage, allPages - firstPage);
        if (control.stopRequested())
            scanner.cancel();
    };
    *scanned = scanner.scan(container, options);
    if (scanned->rc == RC_SUCCESS)
        return Result();
    if (scanned->rc == RC_ABORTED)
        return Result(ResultCode::Interrupted, "interrupted while reading the journal's items");
    if (isForWantOfMemory(*scanned))
        // An item adds at most two regions: itself, and the second half of one that it cuts in two.
        return Result::failed("the memory limit is too small to " + what + ": " +
                              std::to_string(items) + " items may need " +
                              formatSize(items * 2 * TOKEN_BYTES + (u64{1} << 20)) + " (" +
                              rcStatusText(scanned->rc) + ")");
    return Result(Result::fromStatus(scanned->rc, "").code(),
                  "cannot " + what + ": " +
                      (scanned->message.empty() ? rcStatusText(scanned->rc) : scanned->message));
}

Result indexSpan(Mirror& mirror, const ChosenPoint& from, const ChosenPoint& to,
                 RegionLocator& locator, FlowControl& control, ScanResult* scanned)
{
    ScanOptions options;
    if (Result result = startAfter(mirror, from, &options.start); !result.ok())
        return result;
    options.limitItems = to.m_items;
    RegionLocatorMetaDataContainer_Insert* container = locator.getInsertContainer();
    container->init(~CpId_t{0});
    return scanJournal(mirror, *container, options, to.m_items - from.m_items,
                       "index " + from.name() + ".." + to.name(), control, scanned);
}
