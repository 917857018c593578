#include "cli/PointCommand.h"

#include "cli/Confirm.h"
#include "cli/Session.h"

void addPointOptions(CLI::App* command, PointArguments* arguments, const PointOptionTexts& texts)
{
    command->add_option("MIRROR", arguments->m_mirror, "The mirror")->required();
    command->add_option("--to", arguments->m_to, texts.m_to);
    command->add_flag("--retention", arguments->m_retention, texts.m_retention);
    command->add_flag("--dry-run", arguments->m_dryRun, texts.m_dryRun);
    command->add_flag("--yes", arguments->m_yes, "Do not ask");
}

Result runToPoint(Context& context, const PointArguments& arguments, const PointCommand& command,
                  Json* done)
{
    // Opening to write may cut a journal's incomplete end, which a dry run leaves alone.
    const MirrorAccess access = arguments.m_dryRun ? MirrorAccess::Reader : MirrorAccess::Writer;
    std::unique_ptr<Session> session;
    if (Result result = Session::open(context, arguments.m_mirror, access, &session); !result.ok())
        return result;
    const std::string name = command.m_name;
    Json point;
    Json asked = {{"retention", arguments.m_retention}};
    if (!arguments.m_to.empty())
        asked["to"] = arguments.m_to;
    if (Result result = session->run(name + "-point", asked, nullptr, &point); !result.ok())
        return result;
    const std::string loss = command.m_loss(point);
    if (!arguments.m_dryRun && !arguments.m_yes && !loss.empty()) {
        if (Result result = confirm(loss); !result.ok())
            return result;
    }
    const auto reporter = context.progress(command.m_activity);
    Result gone = session->run(name, Json{{"to", point["to"]}, {"dry_run", arguments.m_dryRun}},
                               reporter.get(), done);
    Result closed = session->close();
    if (!gone.ok())
        return gone;
    if (!closed.ok())
        return closed;
    reporter->finish();
    return Result();
}
