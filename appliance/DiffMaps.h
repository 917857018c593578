// The maps of what changed between two points, shared by the connections that have one open.
//
// Thread safety: any thread.
#pragma once

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

    // Both outlive it.
    DiffMaps(Mirror& mirror, ViewShelf& views) : m_mirror(mirror), m_views(views) {}

    // The map is freed when its last user has let it go. NoSpace: the views' budget has no room for
    // it; else as diffPoints(). One map is made at a time.
    Result open(const ChosenPoint& from, const ChosenPoint& to,
                std::shared_ptr<const Extents>* extents);

private:
    using Key = std::pair<u64, u64>; // items of the two points

    Mirror& m_mirror;
    ViewShelf& m_views;
    Mutex m_mutex;
    std::map<Key, std::weak_ptr<const Extents>> m_maps RL_GUARDED_BY(m_mutex);
};
