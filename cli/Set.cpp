// rlctl set

#include "appliance/Retention.h"
#include "appliance/Sizes.h"
#include "cli/Commands.h"

namespace {

struct Arguments
{
    std::string m_mirror;
    std::string m_keepCheckpoints;
    std::string m_keepFor;
    std::string m_journalLimit;
};

Result parseCount(const std::string& text, u64* count)
{
    size_t used = 0;
    try {
        *count = std::stoull(text, &used);
    } catch (const std::exception&) {
        used = 0;
    }
    if (used == 0 || used != text.size() || text[0] == '-')
        return Result::usage("--keep-checkpoints takes a number, not '" + text + "'");
    return Result();
}

Result run(Context& context, const Arguments& arguments)
{
    std::unique_ptr<Mirror> mirror;
    if (Result result = context.openMirror(arguments.m_mirror, MirrorAccess::Writer, &mirror);
        !result.ok())
        return result;
    u64 checkpoints = mirror->settings().m_keepCheckpoints;
    u64 seconds = mirror->settings().m_keepForSeconds;
    u64 limit = mirror->settings().m_journalLimitBytes;
    if (!arguments.m_keepCheckpoints.empty()) {
        if (Result result = parseCount(arguments.m_keepCheckpoints, &checkpoints); !result.ok())
            return result;
    }
    if (!arguments.m_keepFor.empty()) {
        if (Result result = parseDuration(arguments.m_keepFor, &seconds); !result.ok())
            return result;
    }
    if (!arguments.m_journalLimit.empty()) {
        if (Result result = parseSize(arguments.m_journalLimit, &limit); !result.ok())
            return result;
    }
    if (Result result = mirror->changeSettings(checkpoints, seconds, limit); !result.ok())
        return result;
    if (Result result = mirror->close(); !result.ok())
        return result;
    if (context.json())
        context.result(Json{{"keep_checkpoints", checkpoints},
                            {"keep_for_seconds", seconds},
                            {"journal_limit_bytes", limit}});
    else
        context.say("set");
    return Result();
}

} // namespace

void addSet(CLI::App& app, Context& context)
{
    CLI::App* command = addCommand(app, context, "set", "Change what a mirror keeps, and its limit",
                                   "rlctl set backup.mirror --keep-checkpoints 10 --keep-for 7d",
                                   "rlctl set backup.mirror --journal-limit 200G");
    auto arguments = std::make_shared<Arguments>();
    command->add_option("MIRROR", arguments->m_mirror, "The mirror")->required();
    command->add_option("--keep-checkpoints", arguments->m_keepCheckpoints,
                        "Retention keeps so many of the newest checkpoints; 0: no such rule");
    command->add_option("--keep-for", arguments->m_keepFor,
                        "And those younger than this: 45s, 30m, 12h, 7d, 2w; 0s: no such rule");
    command->add_option("--journal-limit", arguments->m_journalLimit,
                        "Most the journal may take; 0: no limit");
    command->callback([&context, arguments] {
        context.setAction([&, arguments] { return run(context, *arguments); });
    });
}
