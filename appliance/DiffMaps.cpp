#include "appliance/DiffMaps.h"

#include "appliance/FlagControl.h"
#include "appliance/Sizes.h"

namespace {

Result makeFrom(Mirror& mirror, const ChosenPoint& from, const ChosenPoint& to,
                FlowControl& control, const DiffAdmits& admits, DiffMaps::Extents* extents)
{
    // A scan sees what is flushed.
    if (Result result = mirror.flushUpTo(to.m_items); !result.ok())
        return result;
    return diffPoints(mirror, from, to, control, extents, admits);
}

} // namespace

// Ends a build: without a map, unless it was given one.
class DiffMaps::BuildGuard
{
public:
    BuildGuard(DiffMaps& maps, const Key& key, Build& build)
        : m_maps(maps), m_key(key), m_build(build)
    {}
    ~BuildGuard()
    {
        MutexGuard guard(m_maps.m_mutex);
        const auto slot = m_maps.m_slots.find(m_key);
        if (m_map != nullptr) {
            slot->second.m_bytes = m_map->capacity() * sizeof(DiffExtent);
            slot->second.m_map = m_map;
            slot->second.m_build.reset();
        } else {
            m_maps.m_slots.erase(slot);
        }
        m_build.m_map = std::move(m_map);
        m_build.m_isOver = true;
        m_maps.m_settled.notify_all();
    }
    BuildGuard(const BuildGuard&) = delete;
    BuildGuard& operator=(const BuildGuard&) = delete;

    void setMap(std::shared_ptr<const Extents> map) { m_map = std::move(map); }

private:
    DiffMaps& m_maps;
    const Key m_key;
    Build& m_build;
    std::shared_ptr<const Extents> m_map;
};

DiffMaps::DiffMaps(Mirror& mirror, ViewShelf& views)
    : DiffMaps(views, [&mirror](const ChosenPoint& from, const ChosenPoint& to,
                                FlowControl& control, const DiffAdmits& admits, Extents* extents) {
          return makeFrom(mirror, from, to, control, admits, extents);
      })
{}

DiffMaps::DiffMaps(ViewShelf& views, Maker maker) : m_views(views), m_make(std::move(maker))
{
    m_views.setBeside([this] { return memoryBytes(); });
}

Result DiffMaps::open(const ChosenPoint& from, const ChosenPoint& to,
                      std::shared_ptr<const Extents>* extents)
{
    const Key key(from.m_items, to.m_items);
    const std::shared_ptr<Build> begun = findOrBegin(key, extents);
    if (begun == nullptr)
        return Result();
    BuildGuard guard(*this, key, *begun);
    auto made = std::make_shared<Extents>();
    if (Result result = build(from, to, made.get()); !result.ok())
        return result;
    *extents = made;
    guard.setMap(std::move(made));
    return Result();
}

// Null: *extents is the map; else the caller is to build it, and nobody else does.
std::shared_ptr<DiffMaps::Build> DiffMaps::findOrBegin(const Key& key,
                                                       std::shared_ptr<const Extents>* extents)
{
    auto begun = std::make_shared<Build>();
    MutexGuard guard(m_mutex);
    std::erase_if(m_slots, [](const auto& entry) {
        return entry.second.m_build == nullptr && entry.second.m_map.expired();
    });
    for (;;) {
        const auto [found, isNew] = m_slots.try_emplace(key);
        Slot& slot = found->second;
        if (slot.m_build == nullptr) {
            if (std::shared_ptr<const Extents> map = slot.m_map.lock(); map != nullptr) {
                *extents = std::move(map);
                return nullptr;
            }
            slot.m_bytes = 0;
            slot.m_build = begun;
            return begun;
        }
        const std::shared_ptr<Build> awaited = slot.m_build;
        while (!awaited->m_isOver)
            m_settled.wait(m_mutex);
        if (awaited->m_map != nullptr) {
            *extents = awaited->m_map;
            return nullptr;
        }
    }
}

Result DiffMaps::build(const ChosenPoint& from, const ChosenPoint& to, Extents* extents)
{
    Result stopped(ResultCode::Interrupted, "the server is stopping");
    if (m_stopped)
        return stopped;
    const Key key(from.m_items, to.m_items);
    bool isRefused = false;
    const auto admit = [&](u64 bytes) {
        isRefused = isRefused || !admits(key, bytes);
        return !isRefused;
    };
    FlagControl control(m_stopped);
    Result result = m_make(from, to, control, admit, extents);
    if (result.code() != ResultCode::Interrupted)
        return result;
    if (m_stopped)
        return stopped;
    if (!isRefused)
        return result;
    return Result(ResultCode::NoSpace, "no room for the map of " + from.name() + ".." + to.name() +
                                           ": the budget of " + formatSize(m_views.budgetBytes()) +
                                           " for all views is used up");
}

bool DiffMaps::admits(const Key& key, u64 bytes)
{
    {
        MutexGuard guard(m_mutex);
        m_slots.find(key)->second.m_bytes = bytes;
    }
    return fits() || (m_views.dropUnused(~u64{0}) > 0 && fits());
}

bool DiffMaps::fits()
{
    return m_views.report().m_bytes + memoryBytes() <= m_views.budgetBytes();
}

u64 DiffMaps::memoryBytes()
{
    MutexGuard guard(m_mutex);
    u64 bytes = 0;
    for (const auto& [key, slot] : m_slots)
        if (slot.m_build != nullptr || !slot.m_map.expired())
            bytes += slot.m_bytes;
    return bytes;
}
