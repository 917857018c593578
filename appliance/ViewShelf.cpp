#include "appliance/ViewShelf.h"

#include <chrono>

#include "appliance/FlagControl.h"
#include "appliance/Sizes.h"

namespace {

// Each holds a file open that tells other processes of it, of which a process may not have many.
constexpr u64 MOST_UNUSED = 32;
// That a view has open while it is built, and for good.
constexpr u64 BUILD_FILES = 3;
constexpr u64 VIEW_FILES = 1;
// Between two looks at whether the one that waits is to stop.
constexpr auto LOOK_EVERY = std::chrono::milliseconds(50);

} // namespace

ViewShelf::Lease::~Lease()
{
    m_shared.reset();
    if (m_shelf != nullptr)
        m_shelf->giveBack(m_items);
}

ViewShelf::ViewShelf(Mirror& mirror, u64 budgetBytes, bool keepsUnused, FileBudget* files)
    : m_mirror(mirror), m_budgetBytes(budgetBytes), m_keepsUnused(keepsUnused), m_files(files)
{}

ViewShelf::~ViewShelf()
{
    MutexGuard guard(m_mutex);
    for (const auto& [items, slot] : m_slots)
        SOFT_CHECK(slot.m_leases == 0, << " items=" << items);
}

void ViewShelf::stop()
{
    m_stopped = true;
}

u64 ViewShelf::bytesLocked() const
{
    u64 bytes = m_aloneBytes;
    for (const auto& [items, slot] : m_slots)
        bytes += slot.bytes();
    return bytes;
}

bool ViewShelf::fitsLocked() const
{
    const u64 beside = m_beside ? m_beside() : 0;
    return bytesLocked() + beside <= m_budgetBytes;
}

void ViewShelf::setBeside(std::function<u64()> bytes)
{
    MutexGuard guard(m_mutex);
    m_beside = std::move(bytes);
}

// The least recently used view that nobody has open, or the end; *unused: how many there are.
ViewShelf::Slots::iterator ViewShelf::oldestUnusedLocked(u64* unused)
{
    *unused = 0;
    auto oldest = m_slots.end();
    for (auto at = m_slots.begin(); at != m_slots.end(); ++at) {
        if (at->second.m_leases != 0 || at->second.m_shared == nullptr)
            continue;
        ++*unused;
        if (oldest == m_slots.end() || at->second.m_lastUse < oldest->second.m_lastUse)
            oldest = at;
    }
    return oldest;
}

// What goes is destroyed without the lock.
void ViewShelf::dropLocked(Slots::iterator slot, Gone* gone)
{
    gone->push_back(std::move(slot->second.m_shared));
    m_slots.erase(slot);
    ++m_dropped;
}

// Lets unused views go until the rest fits.
bool ViewShelf::makeRoomLocked(Gone* gone)
{
    for (;;) {
        u64 unused = 0;
        const auto oldest = oldestUnusedLocked(&unused);
        if (unused <= MOST_UNUSED && fitsLocked())
            return true;
        if (unused == 0)
            return false;
        dropLocked(oldest, gone);
    }
}

// Views that nobody has open give theirs.
Result ViewShelf::takeFiles(const ChosenPoint& point, FileBudget::Share* files)
{
    while (!files->take(m_files, BUILD_FILES)) {
        Gone gone;
        MutexGuard guard(m_mutex);
        u64 unused = 0;
        const auto oldest = oldestUnusedLocked(&unused);
        if (unused == 0)
            return Result(ResultCode::NoSpace,
                          "no room for a view of " + point.name() +
                              ": connections and open views use up the files that may be open");
        dropLocked(oldest, &gone);
    }
    return Result();
}

void ViewShelf::leaseLocked(u64 items, Slot& slot, Lease* lease)
{
    ++slot.m_leases;
    slot.m_lastUse = ++m_uses;
    Lease leased;
    leased.m_shelf = this;
    leased.m_items = items;
    leased.m_shared = slot.m_shared;
    *lease = std::move(leased);
}

Result ViewShelf::open(const ChosenPoint& point, Lease* lease)
{
    {
        MutexGuard guard(m_mutex);
        for (;;) {
            const auto found = m_slots.find(point.m_items);
            if (found == m_slots.end())
                break;
            if (found->second.m_shared != nullptr) {
                leaseLocked(point.m_items, found->second, lease);
                return Result();
            }
            m_settled.wait(m_mutex);
        }
        m_slots[point.m_items].m_lastUse = ++m_uses;
    }
    // Whatever comes out of the build, the slot must not stay as one that is being built: all who
    // open the point would wait for ever.
    try {
        Result result = buildAndShelve(point, lease);
        endBuild(point.m_items, result.ok());
        return result;
    } catch (...) {
        endBuild(point.m_items, false);
        throw;
    }
}

void ViewShelf::endBuild(u64 items, bool isBuilt)
{
    MutexGuard guard(m_mutex);
    if (!isBuilt)
        m_slots.erase(items);
    m_settled.notify_all();
}

// A failure, or an exception, leaves the slot as it was.
Result ViewShelf::buildAndShelve(const ChosenPoint& point, Lease* lease)
{
    std::shared_ptr<Shared> built;
    Result result = build(point, &built);
    Gone gone;
    MutexGuard guard(m_mutex);
    if (result.ok()) {
        Slot& slot = m_slots[point.m_items];
        slot.m_bytes = built->view().memoryBytes();
        if (makeRoomLocked(&gone)) {
            slot.m_shared = std::move(built);
            ++m_built;
            leaseLocked(point.m_items, slot, lease);
        } else {
            gone.push_back(std::move(built));
            result = Result(ResultCode::Interrupted, "");
        }
    }
    if (result.code() == ResultCode::Interrupted && !m_stopped)
        result = noRoom(point);
    return result;
}

Result ViewShelf::noRoom(const ChosenPoint& point) const
{
    return Result(ResultCode::NoSpace, "no room for a view of " + point.name() +
                                           ": the budget of " + formatSize(m_budgetBytes) +
                                           " for all views is used up by those that are open");
}

Result ViewShelf::build(const ChosenPoint& point, std::shared_ptr<Shared>* built)
{
    if (m_stopped)
        return Result(ResultCode::Interrupted, "the server is stopping");
    auto files = std::make_unique<FileBudget::Share>();
    if (Result result = takeFiles(point, files.get()); !result.ok())
        return result;
    Lease from = nearest(point);
    Result result = buildFrom(point, from ? &from->view() : nullptr, built);
    if (result.code() == ResultCode::Interrupted && !m_stopped && isLastLease(from)) {
        // There may be room for it where the other one has been.
        from = Lease();
        result = buildFrom(point, nullptr, built);
    }
    if (result.ok()) {
        files->keep(VIEW_FILES);
        (*built)->m_files = std::move(files);
    }
    return result;
}

Result ViewShelf::buildFrom(const ChosenPoint& point, View* from, std::shared_ptr<Shared>* built)
{
    ViewBuildOptions options;
    options.m_from = from;
    options.m_admits = [&](u64 bytes) { return admits(point.m_items, bytes); };
    FlagControl control(m_stopped);
    std::unique_ptr<View> view;
    if (Result result = View::build(m_mirror, point, control, &view, options); !result.ok())
        return result;
    *built = std::make_shared<Shared>(std::move(view), m_sources);
    if ((*built)->view().statistics().m_isContinued) {
        MutexGuard guard(m_mutex);
        ++m_continued;
    }
    return Result();
}

// The latest view before the point, where going on from it is cheaper than from the beginning: a
// region that is copied costs about as much as an item that is scanned. Leased, as it takes memory
// until it is copied, whoever else lets it go.
ViewShelf::Lease ViewShelf::nearest(const ChosenPoint& point)
{
    const u64 begin = m_mirror.journal().begin().m_items;
    Lease lease;
    MutexGuard guard(m_mutex);
    auto best = m_slots.end();
    u64 bestCost = point.m_items - std::min(begin, point.m_items);
    for (auto at = m_slots.begin(); at != m_slots.end() && at->first < point.m_items; ++at) {
        if (at->second.m_shared == nullptr)
            continue;
        const u64 cost =
            at->second.m_shared->view().locator().getItemCount() + (point.m_items - at->first);
        if (cost < bestCost) {
            best = at;
            bestCost = cost;
        }
    }
    if (best != m_slots.end())
        leaseLocked(best->first, best->second, &lease);
    return lease;
}

bool ViewShelf::isLastLease(const Lease& lease)
{
    MutexGuard guard(m_mutex);
    return lease && m_slots[lease.m_items].m_leases == 1;
}

bool ViewShelf::admits(u64 items, u64 bytes)
{
    Gone gone;
    MutexGuard guard(m_mutex);
    m_slots[items].m_bytes = bytes;
    return makeRoomLocked(&gone);
}

Result ViewShelf::takeAlone(FlowControl& control)
{
    MutexGuard guard(m_mutex);
    while (m_isAloneTaken) {
        if (m_stopped || control.stopRequested())
            return Result(ResultCode::Interrupted, "interrupted before the index was built");
        m_settled.wait_for(m_mutex, LOOK_EVERY);
    }
    m_isAloneTaken = true;
    return Result();
}

void ViewShelf::endAlone()
{
    MutexGuard guard(m_mutex);
    m_isAloneTaken = false;
    m_aloneBytes = 0;
    m_settled.notify_all();
}

bool ViewShelf::admitsAlone(u64 bytes)
{
    Gone gone;
    MutexGuard guard(m_mutex);
    m_aloneBytes = bytes;
    return makeRoomLocked(&gone);
}

Result ViewShelf::useAlone(const ChosenPoint& point, FlowControl& control,
                           const std::function<Result(View& view)>& use)
{
    if (m_stopped)
        return Result(ResultCode::Interrupted, "the server is stopping");
    if (Result result = takeAlone(control); !result.ok())
        return result;
    // After the view, however it ends.
    struct AtEnd
    {
        ~AtEnd() { m_shelf.endAlone(); }
        ViewShelf& m_shelf;
    } const atEnd{*this};
    FileBudget::Share files;
    if (Result result = takeFiles(point, &files); !result.ok())
        return result;
    bool isRefused = false;
    ViewBuildOptions options;
    options.m_admits = [&](u64 bytes) {
        isRefused = isRefused || !admitsAlone(bytes);
        return !isRefused && !m_stopped;
    };
    std::unique_ptr<View> view;
    Result result = View::build(m_mirror, point, control, &view, options);
    if (result.ok() && !admitsAlone(view->memoryBytes())) {
        isRefused = true;
        result = Result(ResultCode::Interrupted, "");
    }
    if (result.code() == ResultCode::Interrupted && isRefused)
        return noRoom(point);
    return result.ok() ? use(*view) : result;
}

void ViewShelf::giveBack(u64 items)
{
    Gone gone;
    MutexGuard guard(m_mutex);
    const auto found = m_slots.find(items);
    --found->second.m_leases;
    found->second.m_lastUse = ++m_uses;
    if (found->second.m_leases == 0 && !m_keepsUnused) {
        gone.push_back(std::move(found->second.m_shared));
        m_slots.erase(found);
    }
    makeRoomLocked(&gone);
}

u64 ViewShelf::dropUnused(u64 beforeItems)
{
    Gone gone;
    MutexGuard guard(m_mutex);
    for (auto at = m_slots.begin(); at != m_slots.end() && at->first < beforeItems;) {
        const auto slot = at++;
        if (slot->second.m_leases == 0 && slot->second.m_shared != nullptr)
            dropLocked(slot, &gone);
    }
    return gone.size();
}

ViewShelfReport ViewShelf::report()
{
    MutexGuard guard(m_mutex);
    ViewShelfReport report;
    for (const auto& [items, slot] : m_slots) {
        ++report.m_views;
        report.m_open += slot.m_leases > 0;
        report.m_bytes += slot.bytes();
    }
    report.m_bytes += m_aloneBytes;
    report.m_budgetBytes = m_budgetBytes;
    report.m_built = m_built;
    report.m_continued = m_continued;
    report.m_dropped = m_dropped;
    return report;
}
