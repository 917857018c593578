// rlctl set

#include "appliance/Retention.h"
#include "appliance/Sizes.h"
#include "cli/Commands.h"
#include "cli/Session.h"

namespace {

struct SetArguments
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

Result run(Context& context, const SetArguments& arguments)
{
    Json changes = Json::object();
    u64 value = 0;
    if (!arguments.m_keepCheckpoints.empty()) {
        if (Result result = parseCount(arguments.m_keepCheckpoints, &value); !result.ok())
            return result;
        changes["keep_checkpoints"] = value;
    }
    if (!arguments.m_keepFor.empty()) {
        if (Result result = parseDuration(arguments.m_keepFor, &value); !result.ok())
            return result;
        changes["keep_for_seconds"] = value;
    }
    if (!arguments.m_journalLimit.empty()) {
        if (Result result = parseSize(arguments.m_journalLimit, &value); !result.ok())
            return result;
        changes["journal_limit_bytes"] = value;
    }
    Json now;
    if (Result result = runCommand(context, arguments.m_mirror, MirrorAccess::Writer, "set",
                                   changes, nullptr, &now);
        !result.ok())
        return result;
    if (context.json())
        context.result(now);
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
    auto arguments = std::make_shared<SetArguments>();
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
