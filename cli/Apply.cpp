// rlctl apply

#include "appliance/Apply.h"

#include <fmt/format.h>

#include "appliance/Retention.h"
#include "appliance/Sizes.h"
#include "cli/Commands.h"
#include "cli/Confirm.h"
#include "host/infra/Clock.h"

namespace {

struct Arguments
{
    std::string m_mirror;
    std::string m_to;
    bool m_retention = false;
    bool m_dryRun = false;
    bool m_yes = false;
};

Json toJson(const ApplyStatistics& statistics, const ChosenPoint& to, bool dryRun)
{
    return Json{{"to", to.name()},
                {"dry_run", dryRun},
                {"from_items", statistics.m_fromItems},
                {"to_items", statistics.m_toItems},
                {"items", statistics.m_items},
                {"data_bytes", statistics.m_dataBytes},
                {"zero_bytes", statistics.m_zeroBytes},
                {"resumed", statistics.m_resumed},
                {"seconds", statistics.m_seconds}};
}

// The point that was asked for; with --retention the one that the settings want, or else the one
// that the target holds already.
Result chooseEnd(Context& context, Mirror& mirror, const Arguments& arguments, ChosenPoint* to)
{
    if (arguments.m_retention == !arguments.m_to.empty())
        return Result::usage("say either --to POINT or --retention");
    if (!arguments.m_retention) {
        PointName name;
        if (Result result = parsePoint(arguments.m_to, &name); !result.ok())
            return result;
        return choosePoint(name, mirror.window(), to);
    }
    // One that was cut off comes first: its points are gone already.
    to->m_items = mirror.applyState().firstItems();
    RetentionPoint wanted;
    if (Result result = findRetentionPoint(mirror, Clock::instance()->wallTimeUs(), &wanted);
        !result.ok())
        return result;
    if (!wanted.m_any) {
        context.say("everything that is there is to be kept");
        return Result();
    }
    context.say(wanted.m_why);
    *to = wanted.m_point;
    return Result();
}

Result run(Context& context, const Arguments& arguments)
{
    // Also for a dry run, which so sees what an apply would.
    std::unique_ptr<Mirror> mirror;
    if (Result result = context.openMirror(arguments.m_mirror, MirrorAccess::Writer, &mirror);
        !result.ok())
        return result;
    ChosenPoint to;
    if (Result result = chooseEnd(context, *mirror, arguments, &to); !result.ok())
        return result;
    context.say("to " + to.description());
    const bool changes = to.m_items != mirror->applyState().m_items;
    if (!arguments.m_dryRun && !arguments.m_yes && changes) {
        if (Result result =
                confirm("After this, points before " + to.name() + " cannot be had any more.");
            !result.ok())
            return result;
    }
    ApplyOptions options;
    options.m_dryRun = arguments.m_dryRun;
    ApplyStatistics statistics;
    const auto reporter = context.progress("applying");
    Result applied = applyMirror(*mirror, context.engine(), to, options, *reporter, &statistics);
    Result closed = mirror->close();
    if (!applied.ok())
        return applied;
    if (!closed.ok())
        return closed;
    reporter->finish();
    if (context.json())
        context.result(toJson(statistics, to, arguments.m_dryRun));
    else
        context.result(fmt::format("{} {} items: {} of data, {} of zeroes, in {:.2f} s\n",
                                   arguments.m_dryRun ? "would apply" : "applied",
                                   statistics.m_items, formatSize(statistics.m_dataBytes),
                                   formatSize(statistics.m_zeroBytes), statistics.m_seconds));
    return Result();
}

} // namespace

void addApply(CLI::App& app, Context& context)
{
    CLI::App* command =
        addCommand(app, context, "apply", "Bring the target volume forward to a point",
                   "rlctl apply backup.mirror --to cp:3 --dry-run",
                   "rlctl apply backup.mirror --to time:2026-03-01T00:00:00Z --yes");
    auto arguments = std::make_shared<Arguments>();
    command->add_option("MIRROR", arguments->m_mirror, "The mirror")->required();
    command->add_option("--to", arguments->m_to, "The point in time");
    command->add_flag("--retention", arguments->m_retention,
                      "To where the mirror's settings keep everything from; see rlctl set");
    command->add_flag("--dry-run", arguments->m_dryRun, "Only tell what there is to do");
    command->add_flag("--yes", arguments->m_yes, "Do not ask");
    command->callback([&context, arguments] {
        context.setAction([&, arguments] { return run(context, *arguments); });
    });
}
