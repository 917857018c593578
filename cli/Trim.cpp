// rlctl trim

#include "appliance/Trim.h"

#include <fmt/format.h>

#include "appliance/Sizes.h"
#include "cli/Commands.h"
#include "cli/Confirm.h"

namespace {

struct Arguments
{
    std::string m_mirror;
    std::string m_to;
    bool m_retention = false;
    bool m_dryRun = false;
    bool m_yes = false;
};

Json toJson(const TrimStatistics& statistics, const ChosenPoint& to, bool dryRun)
{
    return Json{{"to", to.name()},
                {"dry_run", dryRun},
                {"items", statistics.m_items},
                {"data_grains", statistics.m_dataGrains},
                {"metadata_grains", statistics.m_metaGrains},
                {"journal_bytes", statistics.m_bytes},
                {"seconds", statistics.m_seconds}};
}

Result run(Context& context, const Arguments& arguments)
{
    std::unique_ptr<Mirror> mirror;
    if (Result result = context.openMirror(arguments.m_mirror, MirrorAccess::Writer, &mirror);
        !result.ok())
        return result;
    if (arguments.m_retention == !arguments.m_to.empty())
        return Result::usage("say either --to POINT or --retention");
    ChosenPoint to;
    if (arguments.m_retention) {
        // What the target holds is served from there: none of it need stay in the journal.
        to.m_items = mirror->applyState().m_items;
    } else {
        PointName name;
        if (Result result = parsePoint(arguments.m_to, &name); !result.ok())
            return result;
        if (Result result = choosePoint(name, mirror->journalWindow(), &to); !result.ok())
            return result;
    }
    context.say("to " + to.description());
    if (!arguments.m_dryRun && !arguments.m_yes) {
        if (Result result = confirm("The journal before " + to.name() + " will be removed.");
            !result.ok())
            return result;
    }
    TrimOptions options;
    options.m_dryRun = arguments.m_dryRun;
    TrimStatistics statistics;
    const auto reporter = context.progress("trimming");
    Result trimmed = trimMirror(*mirror, context.engine(), to, options, *reporter, &statistics);
    Result closed = mirror->close();
    if (!trimmed.ok())
        return trimmed;
    if (!closed.ok())
        return closed;
    reporter->finish();
    if (context.json())
        context.result(toJson(statistics, to, arguments.m_dryRun));
    else
        context.result(fmt::format("{} {} items: {} of journal, {} data and {} metadata grains\n",
                                   arguments.m_dryRun ? "would trim" : "trimmed",
                                   statistics.m_items, formatSize(statistics.m_bytes),
                                   statistics.m_dataGrains, statistics.m_metaGrains));
    return Result();
}

} // namespace

void addTrim(CLI::App& app, Context& context)
{
    CLI::App* command = addCommand(
        app, context, "trim", "Give back the journal that the target volume holds by now",
        "rlctl trim backup.mirror --to cp:3 --dry-run", "rlctl trim backup.mirror --to cp:3 --yes");
    auto arguments = std::make_shared<Arguments>();
    command->add_option("MIRROR", arguments->m_mirror, "The mirror")->required();
    command->add_option("--to", arguments->m_to, "The point in time; the target has to hold it");
    command->add_flag("--retention", arguments->m_retention, "All that the target holds");
    command->add_flag("--dry-run", arguments->m_dryRun, "Only tell what would go");
    command->add_flag("--yes", arguments->m_yes, "Do not ask");
    command->callback([&context, arguments] {
        context.setAction([&, arguments] { return run(context, *arguments); });
    });
}
