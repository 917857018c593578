// The maps of what changed between two points, shared by the connections that have one open.
//
//   open(A, B): ready -> shared; being built by another thread -> waited for; else built here
//
// They share the budget of the views: views that nobody has open go where a map has no room, and
// the map that is being built is refused where that does not suffice; and a view is refused where
// the maps leave it none.
//
// Thread safety: any thread. No lock is held while a map is built, so that other maps, and those
// that are ready, do not wait for it.
// Invariants: 1. two connections to the same two points have one map; points that hold the same
//                items are one point here;
//             2. a slot is being built by exactly one thread, or has a map; whatever way a build
//                ends, who waits for it is woken;
//             3. what the views, the maps and the builds of maps take together exceeds the budget,
//                when a map is built, by no more than what one step of each build adds.
#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <vector>

#include "appliance/Diff.h"
#include "appliance/ViewShelf.h"

class DiffMaps
{
public:
    // What changed after one point and up to another, ascending, without overlaps.
    using Extents = std::vector<DiffExtent>;

    // As diffPoints(), from any thread, of several spans at a time.
    using Maker =
        std::function<Result(const ChosenPoint& from, const ChosenPoint& to, FlowControl& control,
                             const DiffAdmits& admits, Extents* extents)>;

    // Both outlive it. The maps are made by diffPoints().
    DiffMaps(Mirror& mirror, ViewShelf& views);
    // REQUIRES of maker: all that it makes is of points that are journaled, durable or not.
    DiffMaps(ViewShelf& views, Maker maker);
    ~DiffMaps() { m_views.setBeside({}); }
    DiffMaps(const DiffMaps&) = delete;
    DiffMaps& operator=(const DiffMaps&) = delete;

    // The map is freed when its last user has let it go. NoSpace: the budget has no room for it, or
    // for the index that it is made from; Interrupted: stopped; else as diffPoints(). Nothing is
    // kept of a map that failed: the next one who asks, and each that waited for it, tries anew.
    // What the maker throws goes to the caller that built.
    Result open(const ChosenPoint& from, const ChosenPoint& to,
                std::shared_ptr<const Extents>* extents);

    // Builds that are under way end, and none begins any more.
    void stop() { m_stopped = true; }

    // Of the maps that somebody has open, and of the builds that are under way.
    u64 memoryBytes();

private:
    using Key = std::pair<u64, u64>; // items of the two points

    // Shared by the thread that builds and those that wait for it: it keeps the map for these.
    // Under m_mutex.
    struct Build
    {
        bool m_isOver = false;
        std::shared_ptr<const Extents> m_map; // null: it failed
    };
    struct Slot
    {
        std::shared_ptr<Build> m_build; // null: over
        u64 m_bytes = 0;
        std::weak_ptr<const Extents> m_map;
    };
    class BuildGuard;

    std::shared_ptr<Build> findOrBegin(const Key& key, std::shared_ptr<const Extents>* extents);
    Result build(const ChosenPoint& from, const ChosenPoint& to, Extents* extents);
    bool admits(const Key& key, u64 bytes);
    bool fits();

    ViewShelf& m_views;
    const Maker m_make;
    std::atomic<bool> m_stopped{false};

    Mutex m_mutex;
    std::condition_variable_any m_settled; // a build is over
    std::map<Key, Slot> m_slots RL_GUARDED_BY(m_mutex);
};
