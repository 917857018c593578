#include <nlohmann/json.hpp>

#include "appliance/MirrorCommands.h"
#include "appliance/Retention.h"
#include "host/infra/Clock.h"

namespace {

JsonValue toJson(const ApplyStatistics& statistics, const std::string& to, bool dryRun)
{
    return JsonValue{{"to", to},
                     {"dry_run", dryRun},
                     {"from_items", statistics.m_fromItems},
                     {"to_items", statistics.m_toItems},
                     {"items", statistics.m_items},
                     {"data_bytes", statistics.m_dataBytes},
                     {"zero_bytes", statistics.m_zeroBytes},
                     {"resumed", statistics.m_resumed},
                     {"seconds", statistics.m_seconds}};
}

JsonValue toJson(const TrimStatistics& statistics, const std::string& to, bool dryRun)
{
    return JsonValue{{"to", to},
                     {"dry_run", dryRun},
                     {"items", statistics.m_items},
                     {"data_grains", statistics.m_dataGrains},
                     {"metadata_grains", statistics.m_metaGrains},
                     {"journal_bytes", statistics.m_bytes},
                     {"seconds", statistics.m_seconds}};
}

// Either a point that is named, or the one that the mirror's settings want.
Result takeEnd(CommandArguments& arguments, std::string* to, bool* retention)
{
    *to = arguments.text("to");
    *retention = arguments.flag("retention");
    if (!arguments.fault().ok())
        return arguments.fault();
    return *retention == !to->empty() ? Result::usage("say either --to POINT or --retention")
                                      : Result();
}

} // namespace

Result MirrorCommands::applyPoint(Arguments& arguments, CommandControl& control, JsonValue* result)
{
    std::string name;
    bool retention = false;
    if (Result taken = takeEnd(arguments, &name, &retention); !taken.ok())
        return taken;
    ChosenPoint to;
    if (!retention) {
        if (Result chosen = choose(name, m_mirror.window(), &to); !chosen.ok())
            return chosen;
    } else {
        // One that was cut off comes first: its points are gone already.
        to.m_items = m_mirror.applyState().firstItems();
        RetentionPoint wanted;
        if (Result found = findRetentionPoint(m_mirror, Clock::instance()->wallTimeUs(), &wanted);
            !found.ok())
            return found;
        control.say(wanted.m_any ? wanted.m_why : "everything that is there is to be kept");
        if (wanted.m_any)
            to = wanted.m_point;
    }
    control.say("to " + to.description());
    *result =
        JsonValue{{"to", to.name()}, {"changes", to.m_items != m_mirror.applyState().m_items}};
    return Result();
}

Result MirrorCommands::apply(Arguments& arguments, CommandControl& control, JsonValue* result)
{
    const std::string name = arguments.text("to");
    ApplyOptions options;
    options.m_dryRun = arguments.flag("dry_run");
    if (!arguments.fault().ok())
        return arguments.fault();
    ChosenPoint to;
    if (Result chosen = choose(name, m_mirror.window(), &to); !chosen.ok())
        return chosen;
    if (m_views != nullptr && !options.m_dryRun)
        m_views->dropUnused(to.m_items);
    ApplyStatistics statistics;
    Result applied = m_jobs.apply(JobOrigin::Command, to, options, control, &statistics);
    *result = toJson(statistics, to.name(), options.m_dryRun);
    return applied;
}

Result MirrorCommands::trimPoint(Arguments& arguments, CommandControl& control, JsonValue* result)
{
    std::string name;
    bool retention = false;
    if (Result taken = takeEnd(arguments, &name, &retention); !taken.ok())
        return taken;
    ChosenPoint to;
    // What the target holds is served from there: none of it need stay in the journal.
    to.m_items = m_mirror.applyState().m_items;
    if (!retention) {
        if (Result chosen = choose(name, m_mirror.journalWindow(), &to); !chosen.ok())
            return chosen;
    }
    control.say("to " + to.description());
    *result = JsonValue{{"to", to.name()}};
    return Result();
}

Result MirrorCommands::trim(Arguments& arguments, CommandControl& control, JsonValue* result)
{
    const std::string name = arguments.text("to");
    TrimOptions options;
    options.m_dryRun = arguments.flag("dry_run");
    if (!arguments.fault().ok())
        return arguments.fault();
    ChosenPoint to;
    if (Result chosen = choose(name, m_mirror.journalWindow(), &to); !chosen.ok())
        return chosen;
    TrimStatistics statistics;
    Result trimmed = m_jobs.trim(JobOrigin::Command, to, options, control, &statistics);
    *result = toJson(statistics, to.name(), options.m_dryRun);
    return trimmed;
}
