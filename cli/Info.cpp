// rlctl info

#include <fmt/format.h>

#include "appliance/Sizes.h"
#include "cli/Commands.h"

namespace {

Result run(Context& context, const std::string& folder)
{
    std::unique_ptr<Mirror> mirror;
    if (Result result = context.openMirror(folder, MirrorAccess::Reader, &mirror); !result.ok())
        return result;
    const MirrorSettings& settings = mirror->settings();
    const RecoverableWindow window = mirror->window();
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
                            {"items", window.m_items},
                            {"checkpoints", window.m_checkpoints.size()},
                            {"first_point", "item:0"},
                            {"last_point", last},
                            {"trim_held_by", nullptr},
                            {"recovery", mirror->report().m_text}});
        return Result();
    }
    const std::string limit = settings.m_journalLimitBytes == 0
                                  ? "no limit"
                                  : "of " + formatSize(settings.m_journalLimitBytes);
    context.result(fmt::format("mirror       {}\n"
                               "volume       {}\n"
                               "target       {}\n"
                               "compression  {}\n"
                               "journal      {} used, {}\n"
                               "items        {}\n"
                               "checkpoints  {}\n"
                               "can serve    {}\n"
                               "trim         nothing holds it\n",
                               folder, formatSize(settings.m_sizeBytes),
                               settings.m_target.empty() ? "its own file" : settings.m_target,
                               compressionName(settings.m_compression), formatSize(used), limit,
                               window.m_items, window.m_checkpoints.size(),
                               describeWindow(window)));
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
