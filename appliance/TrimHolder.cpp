#include "appliance/TrimHolder.h"

TrimHolder findTrimHolder(const ApplyState& applied, const RecoverableWindow& window,
                          const std::vector<Hold>& holds, const std::vector<UseInfo>& uses)
{
    if (!uses.empty())
        return {TrimHolder::Kind::Use, uses.front().description()};
    const Hold* lowest = nullptr;
    for (const Hold& hold : holds) {
        if (lowest == nullptr || hold.m_items < lowest->m_items)
            lowest = &hold;
    }
    if (lowest != nullptr)
        return {TrimHolder::Kind::Hold, "the hold '" + lowest->m_name + "' of " + lowest->m_point};
    if (applied.m_items < window.m_items)
        return {TrimHolder::Kind::Target,
                "the target, which holds item:" + std::to_string(applied.m_items)};
    return {};
}
