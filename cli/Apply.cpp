// rlctl apply

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
    // Opening to write may cut a journal's incomplete end, which a dry run leaves alone.
    const MirrorAccess access = arguments.m_dryRun ? MirrorAccess::Reader : MirrorAccess::Writer;
    std::unique_ptr<Session> session;
    if (Result result = Session::open(context, arguments.m_mirror, access, &session); !result.ok())
        return result;
    Json point;
    Json asked = {{"retention", arguments.m_retention}};
    if (!arguments.m_to.empty())
        asked["to"] = arguments.m_to;
    if (Result result = session->run("apply-point", asked, nullptr, &point); !result.ok())
        return result;
    const std::string to = point["to"].get<std::string>();
    if (!arguments.m_dryRun && !arguments.m_yes && point["changes"].get<bool>()) {
        if (Result result = confirm("After this, points before " + to + " cannot be had any more.");
            !result.ok())
            return result;
    }
    Json done;
    const auto reporter = context.progress("applying");
    Result applied = session->run("apply", Json{{"to", to}, {"dry_run", arguments.m_dryRun}},
                                  reporter.get(), &done);
    Result closed = session->close();
    if (!applied.ok())
        return applied;
    if (!closed.ok())
        return closed;
    reporter->finish();
    if (context.json())
        context.result(done);
    else
        context.result(
            fmt::format("{} {} items: {} of data, {} of zeroes, in {:.2f} s\n",
                        arguments.m_dryRun ? "would apply" : "applied", done["items"].get<u64>(),
                        formatSize(done["data_bytes"].get<u64>()),
                        formatSize(done["zero_bytes"].get<u64>()), done["seconds"].get<double>()));
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
