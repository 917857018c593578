#include <nlohmann/json.hpp>

#include "appliance/MirrorCommands.h"
#include "appliance/Retention.h"
#include "appliance/TrimHolder.h"

namespace {

JsonValue toJson(const std::vector<Hold>& holds)
{
    JsonValue json = JsonValue::array();
    for (const Hold& hold : holds)
        json.push_back(
            JsonValue{{"name", hold.m_name}, {"point", hold.m_point}, {"items", hold.m_items}});
    return json;
}

JsonValue toJson(const std::vector<UseInfo>& uses)
{
    JsonValue json = JsonValue::array();
    for (const UseInfo& use : uses) {
        json.push_back(
            JsonValue{{"what", use.m_what}, {"process", use.m_process}, {"items", nullptr}});
        if (use.m_items != NO_ITEMS)
            json.back()["items"] = use.m_items;
    }
    return json;
}

} // namespace

Result MirrorCommands::info(Arguments&, CommandControl&, JsonValue* result)
{
    const MirrorSettings settings = m_mirror.currentSettings();
    const RecoverableWindow window = m_mirror.window();
    const ApplyState applied = m_mirror.applyState();
    TrimLimits limits;
    TrimHolder holder;
    if (Result listed = findTrimHolder(m_mirror, &limits, &holder); !listed.ok())
        return listed;
    const u64 used = m_mirror.journal().bytesUsed();
    const std::string& heldBy = holder.m_text;
    *result = JsonValue{{"mirror", m_mirror.folder()},
                        {"id", settings.m_id},
                        {"size_bytes", settings.m_sizeBytes},
                        {"target", settings.m_target.empty() ? "target" : settings.m_target},
                        {"compression", compressionName(settings.m_compression)},
                        {"journal_bytes", used},
                        {"journal_limit_bytes", settings.m_journalLimitBytes},
                        {"journal_nearly_full", isNearlyFull(used, settings.m_journalLimitBytes)},
                        {"keep_checkpoints", settings.m_keepCheckpoints},
                        {"keep_for_seconds", settings.m_keepForSeconds},
                        {"items", window.m_items},
                        {"checkpoints", window.m_checkpoints.size()},
                        {"first_point", "item:" + std::to_string(window.m_firstItems)},
                        {"last_point", "item:" + std::to_string(window.m_items)},
                        {"can_serve", describeWindow(window)},
                        {"applied_items", applied.m_items},
                        {"apply_toward_items", applied.m_towardItems},
                        {"trimmed_items", m_mirror.journal().begin().m_items},
                        {"holds", toJson(limits.m_holds)},
                        {"uses", toJson(limits.m_uses)},
                        {"trim_held_by", heldBy.empty() ? JsonValue(nullptr) : JsonValue(heldBy)},
                        {"recovery", m_mirror.report().m_text}};
    return Result();
}
