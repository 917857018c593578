// rlctl hold and rlctl release

#include <fmt/format.h>

#include "cli/Commands.h"

namespace {

struct Arguments
{
    std::string m_mirror;
    std::string m_at = "latest";
    std::string m_name;
};

// The first of hold-1, hold-2... that is free.
std::string freeName(const std::vector<Hold>& holds)
{
    for (u64 i = 1;; ++i) {
        std::string name = "hold-" + std::to_string(i);
        bool taken = false;
        for (const Hold& hold : holds)
            taken = taken || hold.m_name == name;
        if (!taken)
            return name;
    }
}

Result hold(Context& context, const Arguments& arguments)
{
    std::unique_ptr<Mirror> mirror;
    if (Result result = context.openMirror(arguments.m_mirror, MirrorAccess::Reader, &mirror);
        !result.ok())
        return result;
    PointName name;
    if (Result result = parsePoint(arguments.m_at, &name); !result.ok())
        return result;
    ChosenPoint point;
    if (Result result = choosePoint(name, mirror->window(), &point); !result.ok())
        return result;
    Hold added{arguments.m_name, point.m_items, point.name()};
    if (Result result = mirror->hold(&added, freeName); !result.ok())
        return result;
    if (context.json())
        context.result(
            Json{{"name", added.m_name}, {"point", added.m_point}, {"items", added.m_items}});
    else
        context.result(fmt::format("'{}' holds {}\n", added.m_name, point.description()));
    return Result();
}

Result release(Context& context, const Arguments& arguments)
{
    std::unique_ptr<Mirror> mirror;
    if (Result result = context.openMirror(arguments.m_mirror, MirrorAccess::Reader, &mirror);
        !result.ok())
        return result;
    if (Result result = mirror->release(arguments.m_name); !result.ok())
        return result;
    if (context.json())
        context.result(Json{{"name", arguments.m_name}});
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
    auto arguments = std::make_shared<Arguments>();
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
    auto arguments = std::make_shared<Arguments>();
    command->add_option("MIRROR", arguments->m_mirror, "The mirror")->required();
    command->add_option("NAME", arguments->m_name, "The hold's name")->required();
    command->callback([&context, arguments] {
        context.setAction([&, arguments] { return release(context, *arguments); });
    });
}
