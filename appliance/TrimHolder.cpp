#include "appliance/TrimHolder.h"

#include <unistd.h>

namespace {

// The one with the fewest items; null without any.
template <typename Pin> const Pin* lower(const Pin* lowest, const Pin& pin)
{
    return lowest == nullptr || pin.m_items < lowest->m_items ? &pin : lowest;
}

} // namespace

TrimHolder findTrimHolder(const TrimLimits& limits)
{
    const UseInfo* reader = nullptr; // of another process, from the journal's beginning on
    const UseInfo* use = nullptr;    // of this one, that the target may not be brought beyond
    for (const UseInfo& one : limits.m_uses) {
        if (one.m_process != limits.m_process) {
            if (one.m_firstPage <= limits.m_beginPage)
                reader = lower(reader, one);
        } else if (one.m_items <= limits.m_appliedItems) {
            use = lower(use, one);
        }
    }
    if (reader != nullptr)
        return {TrimHolder::Kind::Use, reader->description()};
    const Hold* hold = nullptr;
    for (const Hold& one : limits.m_holds)
        hold = lower(hold, one);
    if (use != nullptr && (hold == nullptr || use->m_items < hold->m_items))
        return {TrimHolder::Kind::Use, use->description()};
    if (hold != nullptr)
        return {TrimHolder::Kind::Hold, "the hold '" + hold->m_name + "' of " + hold->m_point};
    if (limits.m_appliedItems < limits.m_items)
        return {TrimHolder::Kind::Target,
                "the target, which holds item:" + std::to_string(limits.m_appliedItems)};
    return {};
}

Result findTrimHolder(Mirror& mirror, TrimLimits* limits, TrimHolder* holder)
{
    if (Result result = mirror.pins(&limits->m_holds, &limits->m_uses); !result.ok())
        return result;
    limits->m_beginPage = mirror.journal().begin().m_page;
    limits->m_appliedItems = mirror.applyState().m_items;
    limits->m_items = mirror.journal().itemCount();
    limits->m_process = static_cast<u64>(getpid());
    *holder = findTrimHolder(*limits);
    return Result();
}
