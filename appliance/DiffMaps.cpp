#include "appliance/DiffMaps.h"

#include "appliance/Sizes.h"

Result DiffMaps::open(const ChosenPoint& from, const ChosenPoint& to,
                      std::shared_ptr<const Extents>* extents)
{
    MutexGuard guard(m_mutex);
    u64 bytes = m_views.report().m_bytes;
    for (auto at = m_maps.begin(); at != m_maps.end();) {
        const std::shared_ptr<const Extents> open = at->second.lock();
        if (open != nullptr)
            bytes += open->capacity() * sizeof(DiffExtent);
        if (open != nullptr && at->first == Key(from.m_items, to.m_items)) {
            *extents = open;
            return Result();
        }
        at = open != nullptr ? std::next(at) : m_maps.erase(at);
    }
    // A scan sees what is flushed.
    if (m_mirror.journal().durableItemCount() < to.m_items)
        if (Result result = m_mirror.flush(); !result.ok())
            return result;
    FlowControl control;
    auto made = std::make_shared<Extents>();
    if (Result result = diffPoints(m_mirror, from, to, control, made.get()); !result.ok())
        return result;
    made->shrink_to_fit();
    if (bytes + made->capacity() * sizeof(DiffExtent) > m_views.budgetBytes())
        return Result(ResultCode::NoSpace, "no room for the map of " + from.name() + ".." +
                                               to.name() + ": the budget of " +
                                               formatSize(m_views.budgetBytes()) +
                                               " for all views is used up");
    *extents = made;
    m_maps[{from.m_items, to.m_items}] = *extents;
    return Result();
}
