// rlctl checkpoint and rlctl checkpoints

#include <fmt/format.h>

#include "appliance/Rfc3339.h"
#include "cli/Commands.h"

namespace {

struct Arguments
{
    std::string m_mirror;
    std::string m_tag;
};

Json toJson(const CheckpointInfo& checkpoint)
{
    return Json{{"id", checkpoint.m_id},
                {"tag", checkpoint.m_tag},
                {"time", formatRfc3339(checkpoint.m_timeMicros)},
                {"items", checkpoint.m_items}};
}

std::string toText(const CheckpointInfo& checkpoint)
{
    return fmt::format("{:>8}  {}  {:>12} items  {}\n", fmt::format("cp:{}", checkpoint.m_id),
                       formatRfc3339(checkpoint.m_timeMicros), checkpoint.m_items,
                       checkpoint.m_tag);
}

Result setOne(Context& context, const Arguments& arguments)
{
    std::unique_ptr<Mirror> mirror;
    if (Result result = context.openMirror(arguments.m_mirror, MirrorAccess::Writer, &mirror);
        !result.ok())
        return result;
    CpId_t id = 0;
    if (Result result = mirror->checkpoint(arguments.m_tag, &id); !result.ok())
        return result;
    const CheckpointInfo checkpoint = mirror->window().m_checkpoints.back();
    if (Result result = mirror->close(); !result.ok())
        return result;
    if (context.json())
        context.result(toJson(checkpoint));
    else
        context.result(toText(checkpoint));
    return Result();
}

Result list(Context& context, const Arguments& arguments)
{
    std::unique_ptr<Mirror> mirror;
    if (Result result = context.openMirror(arguments.m_mirror, MirrorAccess::Reader, &mirror);
        !result.ok())
        return result;
    const RecoverableWindow window = mirror->window();
    if (context.json()) {
        Json checkpoints = Json::array();
        for (const CheckpointInfo& checkpoint : window.m_checkpoints)
            checkpoints.push_back(toJson(checkpoint));
        context.result(Json{{"checkpoints", checkpoints}});
        return Result();
    }
    if (window.m_checkpoints.empty())
        context.say("no checkpoints");
    std::string text;
    for (const CheckpointInfo& checkpoint : window.m_checkpoints)
        text += toText(checkpoint);
    context.result(text);
    return Result();
}

} // namespace

void addCheckpoint(CLI::App& app, Context& context)
{
    CLI::App* command =
        addCommand(app, context, "checkpoint", "Set a checkpoint", "rlctl checkpoint backup.mirror",
                   "rlctl checkpoint backup.mirror --tag before-upgrade");
    auto arguments = std::make_shared<Arguments>();
    command->add_option("MIRROR", arguments->m_mirror, "The mirror")->required();
    command->add_option("--tag", arguments->m_tag, "The checkpoint's tag");
    command->callback([&context, arguments] {
        context.setAction([&, arguments] { return setOne(context, *arguments); });
    });
}

void addCheckpoints(CLI::App& app, Context& context)
{
    CLI::App* command =
        addCommand(app, context, "checkpoints", "List the checkpoints",
                   "rlctl checkpoints backup.mirror", "rlctl checkpoints backup.mirror --json");
    auto arguments = std::make_shared<Arguments>();
    command->add_option("MIRROR", arguments->m_mirror, "The mirror")->required();
    command->callback([&context, arguments] {
        context.setAction([&, arguments] { return list(context, *arguments); });
    });
}
