// rlctl checkpoint and rlctl checkpoints

#include <fmt/format.h>

#include "cli/Commands.h"
#include "cli/Session.h"

namespace {

struct CheckpointArguments
{
    std::string m_mirror;
    std::string m_tag;
};

std::string toText(const Json& checkpoint)
{
    return fmt::format("{:>8}  {}  {:>12} items  {}\n",
                       fmt::format("cp:{}", checkpoint["id"].get<u64>()),
                       checkpoint["time"].get<std::string>(), checkpoint["items"].get<u64>(),
                       checkpoint["tag"].get<std::string>());
}

Result setOne(Context& context, const CheckpointArguments& arguments)
{
    Json made;
    if (Result result = runCommand(context, arguments.m_mirror, MirrorAccess::Writer, "checkpoint",
                                   Json{{"tag", arguments.m_tag}}, nullptr, &made);
        !result.ok())
        return result;
    if (context.json())
        context.result(made);
    else
        context.result(toText(made));
    return Result();
}

Result list(Context& context, const CheckpointArguments& arguments)
{
    Json found;
    if (Result result = runCommand(context, arguments.m_mirror, MirrorAccess::Reader, "checkpoints",
                                   Json(), nullptr, &found);
        !result.ok())
        return result;
    if (context.json()) {
        context.result(found);
        return Result();
    }
    if (found["checkpoints"].empty())
        context.say("no checkpoints");
    std::string text;
    for (const Json& checkpoint : found["checkpoints"])
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
    auto arguments = std::make_shared<CheckpointArguments>();
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
    auto arguments = std::make_shared<CheckpointArguments>();
    command->add_option("MIRROR", arguments->m_mirror, "The mirror")->required();
    command->callback([&context, arguments] {
        context.setAction([&, arguments] { return list(context, *arguments); });
    });
}
