// rlctl info

#include <fmt/format.h>

#include "appliance/Retention.h"
#include "appliance/Sizes.h"
#include "cli/Commands.h"

namespace {

// What keeps the journal from being trimmed any further, in words; "" for nothing.
std::string trimHolder(const ApplyState& applied, const RecoverableWindow& window,
                       const std::vector<Hold>& holds, const std::vector<UseInfo>& uses)
{
    if (!uses.empty())
        return uses.front().description();
    const Hold* lowest = nullptr;
    for (const Hold& hold : holds) {
        if (lowest == nullptr || hold.m_items < lowest->m_items)
            lowest = &hold;
    }
    if (lowest != nullptr)
        return "the hold '" + lowest->m_name + "' of " + lowest->m_point;
    if (applied.m_items < window.m_items)
        return "the target, which holds item:" + std::to_string(applied.m_items);
    return "";
}

std::string keepsText(const MirrorSettings& settings)
{
    std::string text;
    if (settings.m_keepCheckpoints != 0)
        text = fmt::format("the newest {} checkpoints", settings.m_keepCheckpoints);
    if (settings.m_keepForSeconds != 0)
        text += (text.empty() ? "the last " : ", and the last ") +
                formatDuration(settings.m_keepForSeconds);
    return text.empty() ? "everything" : text;
}

std::string appliedText(const ApplyState& applied)
{
    std::string text = "item:" + std::to_string(applied.m_items);
    if (!applied.underWay())
        return text;
    return text + ", on its way to item:" + std::to_string(applied.m_towardItems) +
           "; apply to there again and it goes on";
}

Json toJson(const std::vector<Hold>& holds)
{
    Json json = Json::array();
    for (const Hold& hold : holds)
        json.push_back(
            Json{{"name", hold.m_name}, {"point", hold.m_point}, {"items", hold.m_items}});
    return json;
}

Json toJson(const std::vector<UseInfo>& uses)
{
    Json json = Json::array();
    for (const UseInfo& use : uses) {
        json.push_back(Json{{"what", use.m_what}, {"process", use.m_process}, {"items", nullptr}});
        if (use.m_items != NO_ITEMS)
            json.back()["items"] = use.m_items;
    }
    return json;
}

std::string toText(const std::vector<Hold>& holds, const std::vector<UseInfo>& uses)
{
    std::string text;
    for (const Hold& hold : holds)
        text += fmt::format("held         {} by '{}'\n", hold.m_point, hold.m_name);
    for (const UseInfo& use : uses)
        text += fmt::format("in use       {}\n", use.description());
    return text;
}

Result run(Context& context, const std::string& folder)
{
    std::unique_ptr<Mirror> mirror;
    if (Result result = context.openMirror(folder, MirrorAccess::Reader, &mirror); !result.ok())
        return result;
    const MirrorSettings& settings = mirror->settings();
    const RecoverableWindow window = mirror->window();
    const ApplyState applied = mirror->applyState();
    std::vector<Hold> holds;
    std::vector<UseInfo> uses;
    if (Result result = mirror->pins(&holds, &uses); !result.ok())
        return result;
    const bool nearlyFull =
        isNearlyFull(mirror->journal().bytesUsed(), settings.m_journalLimitBytes);
    const std::string heldBy = trimHolder(applied, window, holds, uses);
    const std::string first = "item:" + std::to_string(window.m_firstItems);
    const u64 used = mirror->journal().bytesUsed();
    const std::string last = "item:" + std::to_string(window.m_items);
    if (context.json()) {
        context.result(Json{{"mirror", folder},
                            {"id", settings.m_id},
                            {"size_bytes", settings.m_sizeBytes},
                            {"target", settings.m_target.empty() ? "target" : settings.m_target},
                            {"compression", compressionName(settings.m_compression)},
                            {"journal_bytes", used},
                            {"journal_limit_bytes", settings.m_journalLimitBytes},
                            {"journal_nearly_full", nearlyFull},
                            {"keep_checkpoints", settings.m_keepCheckpoints},
                            {"keep_for_seconds", settings.m_keepForSeconds},
                            {"items", window.m_items},
                            {"checkpoints", window.m_checkpoints.size()},
                            {"first_point", first},
                            {"last_point", last},
                            {"applied_items", applied.m_items},
                            {"apply_toward_items", applied.m_towardItems},
                            {"trimmed_items", mirror->journal().begin().m_items},
                            {"holds", toJson(holds)},
                            {"uses", toJson(uses)},
                            {"trim_held_by", heldBy.empty() ? Json(nullptr) : Json(heldBy)},
                            {"recovery", mirror->report().m_text}});
        return Result();
    }
    const std::string limit = settings.m_journalLimitBytes == 0
                                  ? "no limit"
                                  : "of " + formatSize(settings.m_journalLimitBytes) +
                                        (nearlyFull ? ", nearly full" : "");
    context.result(fmt::format("mirror       {}\n"
                               "volume       {}\n"
                               "target       {}\n"
                               "compression  {}\n"
                               "journal      {} used, {}\n"
                               "keeps        {}\n"
                               "items        {}\n"
                               "checkpoints  {}\n"
                               "can serve    {}\n"
                               "applied      {}\n"
                               "{}"
                               "trim         {}\n",
                               folder, formatSize(settings.m_sizeBytes),
                               settings.m_target.empty() ? "its own file" : settings.m_target,
                               compressionName(settings.m_compression), formatSize(used), limit,
                               keepsText(settings), window.m_items, window.m_checkpoints.size(),
                               describeWindow(window), appliedText(applied), toText(holds, uses),
                               heldBy.empty() ? "nothing holds it" : "held by " + heldBy));
    return Result();
}

} // namespace

void addInfo(CLI::App& app, Context& context)
{
    CLI::App* command =
        addCommand(app, context, "info", "Show size, journal use and what can be served",
                   "rlctl info backup.mirror", "rlctl info backup.mirror --json");
    auto mirror = std::make_shared<std::string>();
    command->add_option("MIRROR", *mirror, "The mirror")->required();
    command->callback(
        [&context, mirror] { context.setAction([&, mirror] { return run(context, *mirror); }); });
}
