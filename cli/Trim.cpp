// rlctl trim

#include <fmt/format.h>

#include "appliance/Sizes.h"
#include "cli/Commands.h"
#include "cli/Confirm.h"
#include "cli/Session.h"

namespace {

struct Arguments
{
    std::string m_mirror;
    std::string m_to;
    bool m_retention = false;
    bool m_dryRun = false;
    bool m_yes = false;
};

Result run(Context& context, const Arguments& arguments)
{
    const MirrorAccess access = arguments.m_dryRun ? MirrorAccess::Reader : MirrorAccess::Writer;
    std::unique_ptr<Session> session;
    if (Result result = Session::open(context, arguments.m_mirror, access, &session); !result.ok())
        return result;
    Json point;
    Json asked = {{"retention", arguments.m_retention}};
    if (!arguments.m_to.empty())
        asked["to"] = arguments.m_to;
    if (Result result = session->run("trim-point", asked, nullptr, &point); !result.ok())
        return result;
    const std::string to = point["to"].get<std::string>();
    if (!arguments.m_dryRun && !arguments.m_yes) {
        if (Result result = confirm("The journal before " + to + " will be removed."); !result.ok())
            return result;
    }
    Json done;
    const auto reporter = context.progress("trimming");
    Result trimmed = session->run("trim", Json{{"to", to}, {"dry_run", arguments.m_dryRun}},
                                  reporter.get(), &done);
    Result closed = session->close();
    if (!trimmed.ok())
        return trimmed;
    if (!closed.ok())
        return closed;
    reporter->finish();
    if (context.json())
        context.result(done);
    else
        context.result(
            fmt::format("{} {} items: {} of journal, {} data and {} metadata grains\n",
                        arguments.m_dryRun ? "would trim" : "trimmed", done["items"].get<u64>(),
                        formatSize(done["journal_bytes"].get<u64>()),
                        done["data_grains"].get<u64>(), done["metadata_grains"].get<u64>()));
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
