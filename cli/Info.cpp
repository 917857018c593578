// rlctl info

#include <fmt/format.h>

#include "appliance/Retention.h"
#include "appliance/Sizes.h"
#include "cli/Commands.h"
#include "cli/Session.h"

namespace {

std::string keepsText(const Json& info)
{
    std::string text;
    const u64 checkpoints = info["keep_checkpoints"].get<u64>();
    const u64 seconds = info["keep_for_seconds"].get<u64>();
    if (checkpoints != 0)
        text = fmt::format("the newest {} checkpoints", checkpoints);
    if (seconds != 0)
        text += (text.empty() ? "the last " : ", and the last ") + formatDuration(seconds);
    return text.empty() ? "everything" : text;
}

std::string appliedText(const Json& info)
{
    const u64 items = info["applied_items"].get<u64>();
    const u64 toward = info["apply_toward_items"].get<u64>();
    std::string text = "item:" + std::to_string(items);
    if (toward == items)
        return text;
    return text + ", on its way to item:" + std::to_string(toward) +
           "; apply to there again and it goes on";
}

std::string limitText(const Json& info)
{
    const u64 limit = info["journal_limit_bytes"].get<u64>();
    if (limit == 0)
        return "no limit";
    return "of " + formatSize(limit) +
           (info["journal_nearly_full"].get<bool>() ? ", nearly full" : "");
}

std::string pinsText(const Json& info)
{
    std::string text;
    for (const Json& hold : info["holds"])
        text += fmt::format("held         {} by '{}'\n", hold["point"].get<std::string>(),
                            hold["name"].get<std::string>());
    for (const Json& use : info["uses"])
        text += fmt::format("in use       {} in process {}\n", use["what"].get<std::string>(),
                            use["process"].get<u64>());
    return text;
}

Result runInfo(Context& context, const std::string& folder)
{
    Json info;
    if (Result result =
            runCommand(context, folder, MirrorAccess::Reader, "info", Json(), nullptr, &info);
        !result.ok())
        return result;
    info["mirror"] = folder; // as it was named here
    if (context.json()) {
        context.result(info);
        return Result();
    }
    const std::string target = info["target"].get<std::string>();
    const Json& heldBy = info["trim_held_by"];
    context.result(fmt::format(
        "mirror       {}\n"
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
        folder, formatSize(info["size_bytes"].get<u64>()),
        target == "target" ? "its own file" : target, info["compression"].get<std::string>(),
        formatSize(info["journal_bytes"].get<u64>()), limitText(info), keepsText(info),
        info["items"].get<u64>(), info["checkpoints"].get<u64>(),
        info["can_serve"].get<std::string>(), appliedText(info), pinsText(info),
        heldBy.is_null() ? "nothing holds it" : "held by " + heldBy.get<std::string>()));
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
    command->callback([&context, mirror] {
        context.setAction([&, mirror] { return runInfo(context, *mirror); });
    });
}
