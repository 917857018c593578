// rlctl stats

#include <fmt/format.h>

#include "appliance/Sizes.h"
#include "cli/Commands.h"

namespace {

struct Arguments
{
    std::string m_mirror;
    std::string m_at = "latest";
};

Result run(Context& context, const Arguments& arguments)
{
    std::unique_ptr<Mirror> mirror;
    if (Result result = context.openMirror(arguments.m_mirror, MirrorAccess::Reader, &mirror);
        !result.ok())
        return result;
    std::unique_ptr<View> view;
    const auto reporter = context.progress("indexing");
    if (Result result = context.openView(*mirror, arguments.m_at, *reporter, &view); !result.ok())
        return result;
    reporter->finish();
    const ViewStatistics& s = view->statistics();
    if (context.json()) {
        context.result(Json{{"at", view->point().name()},
                            {"ios_inserted", s.m_iosInserted},
                            {"bytes_inserted", s.m_bytesInserted},
                            {"unique_bytes", s.m_uniqueBytes},
                            {"regions", s.m_regions},
                            {"merges", s.m_merges},
                            {"bytes_per_region", s.m_bytesPerRegion},
                            {"items_scanned", s.m_itemsScanned},
                            {"index_seconds", s.m_indexSeconds}});
        return Result();
    }
    const double rate =
        s.m_indexSeconds > 0 ? static_cast<double>(s.m_itemsScanned) / s.m_indexSeconds : 0;
    context.result(fmt::format("{} IOs inserted, {}; {} unique in {} regions; {} merges\n"
                               "{:.1f} bytes of memory per region\n"
                               "{} items scanned in {:.3f} s ({:.0f} a second)\n",
                               s.m_iosInserted, formatSize(s.m_bytesInserted),
                               formatSize(s.m_uniqueBytes), s.m_regions, s.m_merges,
                               s.m_bytesPerRegion, s.m_itemsScanned, s.m_indexSeconds, rate));
    return Result();
}

} // namespace

void addStats(CLI::App& app, Context& context)
{
    CLI::App* command =
        addCommand(app, context, "stats", "Build a view's index and print its statistics",
                   "rlctl stats backup.mirror", "rlctl stats backup.mirror --at cp:3 --json");
    auto arguments = std::make_shared<Arguments>();
    command->add_option("MIRROR", arguments->m_mirror, "The mirror")->required();
    command->add_option("--at", arguments->m_at, "The point in time (default: latest)");
    command->callback([&context, arguments] {
        context.setAction([&, arguments] { return run(context, *arguments); });
    });
}
