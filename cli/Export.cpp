// rlctl export

#include "appliance/Export.h"

#include <fmt/format.h>

#include "appliance/Sizes.h"
#include "cli/Commands.h"

namespace {

struct ExportArguments
{
    std::string m_mirror;
    std::string m_at = "latest";
    std::string m_file;
    Durability m_durability = Durability::Synced;
};

Result run(Context& context, const ExportArguments& arguments)
{
    const bool toStdout = arguments.m_file == "-";
    if (toStdout && context.json())
        return Result::usage("--json and an image on standard output exclude each other");
    std::unique_ptr<Mirror> mirror;
    if (Result result = context.openMirror(arguments.m_mirror, MirrorAccess::Reader, &mirror);
        !result.ok())
        return result;
    std::unique_ptr<View> view;
    const auto reporter = context.progress("exporting");
    reporter->setPart(0, 10);
    if (Result result = context.openView(*mirror, arguments.m_at, *reporter, &view); !result.ok())
        return result;
    reporter->setPart(10, 100);
    ExportStatistics statistics;
    if (Result result = exportView(*view, context.engine(), arguments.m_file, *reporter,
                                   &statistics, arguments.m_durability);
        !result.ok())
        return result;
    reporter->finish();
    const std::string line =
        fmt::format("{} of {} are data, in {:.2f} s", formatSize(statistics.m_dataBytes),
                    formatSize(mirror->settings().m_sizeBytes), statistics.m_seconds);
    if (context.json())
        context.result(Json{{"at", view->point().name()},
                            {"file", arguments.m_file},
                            {"size_bytes", mirror->settings().m_sizeBytes},
                            {"data_bytes", statistics.m_dataBytes},
                            {"seconds", statistics.m_seconds}});
    else
        context.say("exported " + view->point().name() + ": " + line);
    return Result();
}

} // namespace

void addExport(CLI::App& app, Context& context)
{
    CLI::App* command = addCommand(app, context, "export", "Write a whole view as a sparse image",
                                   "rlctl export backup.mirror --at cp:3 disk-then.img",
                                   "rlctl export backup.mirror --at latest - | gzip > disk.gz");
    auto arguments = std::make_shared<ExportArguments>();
    command->add_option("MIRROR", arguments->m_mirror, "The mirror")->required();
    command->add_option("FILE", arguments->m_file, "A file, a block device, or -")->required();
    command->add_option("--at", arguments->m_at, "The point in time (default: latest)");
    command->add_flag_callback(
        "--no-sync", [arguments] { arguments->m_durability = Durability::Unsynced; },
        "Do not wait for the disk: a machine that crashes soon after can lose the image");
    command->callback([&context, arguments] {
        context.setAction([&, arguments] { return run(context, *arguments); });
    });
}
