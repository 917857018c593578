// rlctl hold and rlctl release

#include <fmt/format.h>

#include "cli/Commands.h"
#include "cli/Session.h"

namespace {

struct HoldArguments
{
    std::string m_mirror;
    std::string m_at = "latest";
    std::string m_name;
};

Result hold(Context& context, const HoldArguments& arguments)
{
    Json added;
    if (Result result =
            runCommand(context, arguments.m_mirror, MirrorAccess::Reader, "hold",
                       Json{{"at", arguments.m_at}, {"name", arguments.m_name}}, nullptr, &added);
        !result.ok())
        return result;
    const std::string point = added["description"].get<std::string>();
    added.erase("description");
    if (context.json())
        context.result(added);
    else
        context.result(fmt::format("'{}' holds {}\n", added["name"].get<std::string>(), point));
    return Result();
}

Result release(Context& context, const HoldArguments& arguments)
{
    Json released;
    if (Result result = runCommand(context, arguments.m_mirror, MirrorAccess::Reader, "release",
                                   Json{{"name", arguments.m_name}}, nullptr, &released);
        !result.ok())
        return result;
    if (context.json())
        context.result(released);
    else
        context.say("released '" + arguments.m_name + "'");
    return Result();
}

} // namespace

void addHold(CLI::App& app, Context& context)
{
    CLI::App* command =
        addCommand(app, context, "hold", "Keep apply and trim from passing a point",
                   "rlctl hold backup.mirror --at tag:before-upgrade --name upgrade",
                   "rlctl hold backup.mirror --at cp:3");
    auto arguments = std::make_shared<HoldArguments>();
    command->add_option("MIRROR", arguments->m_mirror, "The mirror")->required();
    command->add_option("--at", arguments->m_at, "The point in time (default: latest)");
    command->add_option("--name", arguments->m_name, "The hold's name (default: a free one)");
    command->callback([&context, arguments] {
        context.setAction([&, arguments] { return hold(context, *arguments); });
    });
}

void addRelease(CLI::App& app, Context& context)
{
    CLI::App* command =
        addCommand(app, context, "release", "Let go of a held point",
                   "rlctl release backup.mirror upgrade", "rlctl release backup.mirror hold-1");
    auto arguments = std::make_shared<HoldArguments>();
    command->add_option("MIRROR", arguments->m_mirror, "The mirror")->required();
    command->add_option("NAME", arguments->m_name, "The hold's name")->required();
    command->callback([&context, arguments] {
        context.setAction([&, arguments] { return release(context, *arguments); });
    });
}
