// The views that the connections to a mirror share: each is built when it is first opened, found by
// its point, and kept for the next one as long as the budget over all of them allows.
//
//   open(point): ready -> shared; being built by another thread -> waited for; else built here,
//   from the nearest earlier view where copying its regions and scanning the items between costs
//   less than a scan from the journal's beginning
//
// The maps of what changed between two points (DiffMaps.h) take part in the budget. When it is used
// up, views that nobody has open go, the least recently used one first; if that does not suffice
// the one that is being built is refused, never one that is open. A view that another one goes on
// from counts as open meanwhile; where there is no room for both, the new one is built by a scan.
// However small they are, no more than a few dozen stay that nobody has open: each holds a file
// open. These files have a budget of their own, which connections share (FileBudget.h); where it is
// used up unused views go too, and then the one that is being built is refused.
//
// Thread safety: any thread.
// Invariants: 1. two connections to one point have one view; points that hold the same items are
//                one point here;
//             2. what the views and what takes part beside them take together, those being built
//                too, exceeds the budget, when a view is opened, by no more than what one step of
//                a build adds. A view counts with what it takes at the time, as a trim takes
//                regions out of it.
#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>

#include "appliance/DirectReader.h"
#include "appliance/FileBudget.h"
#include "appliance/View.h"

struct ViewShelfReport
{
    u64 m_views = 0; // that are kept, open or not
    u64 m_open = 0;  // of these, in use
    u64 m_bytes = 0; // of their indexes now, those being built too
    u64 m_budgetBytes = 0;
    u64 m_built = 0;     // since the beginning
    u64 m_continued = 0; // of these, from an earlier view
    u64 m_dropped = 0;   // least recently used ones, and those in apply's way
};

class ViewShelf
{
public:
    // One view and its reader.
    class Shared
    {
    public:
        Shared(std::unique_ptr<View> view, ReadSources& sources)
            : m_view(std::move(view)),
              m_reader(m_view->mirror(), m_view->locator(), "view " + m_view->point().name(),
                       sources, m_view.get())
        {}
        View& view() { return *m_view; }
        DirectReader& reader() { return m_reader; }

    private:
        friend class ViewShelf;
        std::unique_ptr<FileBudget::Share> m_files; // of the view, so they go after it
        std::unique_ptr<View> m_view;
        DirectReader m_reader;
    };

    // Keeps a view open while it lives.
    class Lease
    {
    public:
        Lease() = default;
        Lease(Lease&& other) noexcept { swap(other); }
        Lease& operator=(Lease&& other) noexcept
        {
            swap(other);
            return *this;
        }
        ~Lease();
        Lease(const Lease&) = delete;
        Lease& operator=(const Lease&) = delete;

        Shared* operator->() const { return m_shared.get(); }
        explicit operator bool() const { return m_shared != nullptr; }

    private:
        friend class ViewShelf;
        void swap(Lease& other) noexcept
        {
            std::swap(m_shelf, other.m_shelf);
            std::swap(m_items, other.m_items);
            m_shared.swap(other.m_shared);
        }

        ViewShelf* m_shelf = nullptr;
        u64 m_items = 0;
        std::shared_ptr<Shared> m_shared;
    };

    // keepsUnused: whether a view that nobody has open any more stays for the next one; it keeps
    // its point from being passed meanwhile (dropUnused()). files: of the files that views hold
    // open; null: no limit. mirror and files: outlive the shelf.
    ViewShelf(Mirror& mirror, u64 budgetBytes, bool keepsUnused, FileBudget* files = nullptr);
    // REQUIRES: no lease is left.
    ~ViewShelf();
    ViewShelf(const ViewShelf&) = delete;
    ViewShelf& operator=(const ViewShelf&) = delete;

    // NoSpace: a budget is used up by views that are open, or by connections; Interrupted: stopped;
    // else as View::build(). What a writer has journaled before the call is part of what is found.
    // Throws what the build throws (std::bad_alloc); as after a failure, others that wait for the
    // point then build it themselves.
    Result open(const ChosenPoint& point, Lease* lease);

    // Builds a view of its own, that nobody shares and the caller destroys, within the budget while
    // it is built and used: use(view) is called with it. One at a time, others wait. Results as
    // open(), and what use returns. control: as View::build()'s.
    Result useAlone(const ChosenPoint& point, FlowControl& control,
                    const std::function<Result(View& view)>& use);

    // Closes the views that nobody has open and that are of points before this one: for who wants
    // to pass them. Returns how many.
    u64 dropUnused(u64 beforeItems);

    // Builds that are under way end, and none begins any more.
    void stop();

    ViewShelfReport report();
    const ReadSources& sources() const { return m_sources; }

    u64 budgetBytes() const { return m_budgetBytes; }

    // What takes part in the budget beside the views: asked with the shelf's lock held. Empty:
    // nothing. It is asked no more when this returns.
    void setBeside(std::function<u64()> bytes);

private:
    struct Slot
    {
        std::shared_ptr<Shared> m_shared; // null while it is built
        u64 m_leases = 0;
        u64 m_lastUse = 0;
        u64 m_bytes = 0; // that the build has taken so far

        u64 bytes() const { return m_shared != nullptr ? m_shared->view().memoryBytes() : m_bytes; }
    };
    using Slots = std::map<u64, Slot>; // by items
    using Gone = std::vector<std::shared_ptr<Shared>>;

    Result buildAndShelve(const ChosenPoint& point, Lease* lease);
    void endBuild(u64 items, bool isBuilt);
    Result build(const ChosenPoint& point, std::shared_ptr<Shared>* built);
    Result buildFrom(const ChosenPoint& point, View* from, std::shared_ptr<Shared>* built);
    Lease nearest(const ChosenPoint& point);
    bool isLastLease(const Lease& lease);
    bool admits(u64 items, u64 bytes);
    bool admitsAlone(u64 bytes);
    Result takeAlone(FlowControl& control);
    void endAlone();
    Result noRoom(const ChosenPoint& point) const;
    Result takeFiles(const ChosenPoint& point, FileBudget::Share* files);
    Slots::iterator oldestUnusedLocked(u64* unused) RL_REQUIRES(m_mutex);
    void dropLocked(Slots::iterator slot, Gone* gone) RL_REQUIRES(m_mutex);
    bool makeRoomLocked(Gone* gone) RL_REQUIRES(m_mutex);
    u64 bytesLocked() const RL_REQUIRES(m_mutex);
    bool fitsLocked() const RL_REQUIRES(m_mutex);
    void leaseLocked(u64 items, Slot& slot, Lease* lease) RL_REQUIRES(m_mutex);
    void giveBack(u64 items);

    Mirror& m_mirror;
    const u64 m_budgetBytes;
    const bool m_keepsUnused;
    FileBudget* const m_files;
    ReadSources m_sources;
    std::atomic<bool> m_stopped{false};

    Mutex m_mutex;
    std::condition_variable_any m_settled; // a build, or a view of its own, has ended
    Slots m_slots RL_GUARDED_BY(m_mutex);
    bool m_isAloneTaken RL_GUARDED_BY(m_mutex) = false;
    u64 m_aloneBytes RL_GUARDED_BY(m_mutex) = 0; // of the view that nobody shares
    std::function<u64()> m_beside RL_GUARDED_BY(m_mutex);
    u64 m_uses RL_GUARDED_BY(m_mutex) = 0;
    u64 m_built RL_GUARDED_BY(m_mutex) = 0;
    u64 m_continued RL_GUARDED_BY(m_mutex) = 0;
    u64 m_dropped RL_GUARDED_BY(m_mutex) = 0;
};
