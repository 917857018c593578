#include "appliance/MirrorCommands.h"

#include <nlohmann/json.hpp>

#include "appliance/Rfc3339.h"
#include "appliance/View.h"

namespace {

JsonValue toJson(const CheckpointInfo& checkpoint)
{
    return JsonValue{{"id", checkpoint.m_id},
                     {"tag", checkpoint.m_tag},
                     {"time", formatRfc3339(checkpoint.m_timeMicros)},
                     {"items", checkpoint.m_items}};
}

// The first of hold-1, hold-2... that is free.
std::string freeName(const std::vector<Hold>& holds)
{
    for (u64 i = 1;; ++i) {
        std::string name = "hold-" + std::to_string(i);
        bool taken = false;
        for (const Hold& hold : holds)
            taken = taken || hold.m_name == name;
        if (!taken)
            return name;
    }
}

} // namespace

Result MirrorCommands::run(const std::string& command, const JsonValue& arguments,
                           CommandControl& control, JsonValue* result)
{
    using Member = Result (MirrorCommands::*)(Arguments&, CommandControl&, JsonValue*);
    static constexpr std::pair<const char*, Member> COMMANDS[] = {
        {"checkpoint", &MirrorCommands::checkpoint},
        {"checkpoints", &MirrorCommands::checkpoints},
        {"info", &MirrorCommands::info},
        {"stats", &MirrorCommands::stats},
        {"apply-point", &MirrorCommands::applyPoint},
        {"apply", &MirrorCommands::apply},
        {"trim-point", &MirrorCommands::trimPoint},
        {"trim", &MirrorCommands::trim},
        {"hold", &MirrorCommands::hold},
        {"release", &MirrorCommands::release},
        {"set", &MirrorCommands::set},
        {"flush", &MirrorCommands::flush},
    };
    *result = JsonValue::object();
    for (const auto& [name, member] : COMMANDS) {
        if (command == name) {
            Arguments taken(arguments);
            if (!taken.fault().ok())
                return taken.fault();
            return (this->*member)(taken, control, result);
        }
    }
    return Result::usage("there is no command '" + command + "'");
}

Result MirrorCommands::choose(const std::string& name, const RecoverableWindow& window,
                              ChosenPoint* point)
{
    PointName parsed;
    if (Result result = parsePoint(name, &parsed); !result.ok())
        return result;
    return choosePoint(parsed, window, point);
}

Result MirrorCommands::checkpoint(Arguments& arguments, CommandControl&, JsonValue* result)
{
    const std::string tag = arguments.text("tag");
    if (!arguments.fault().ok())
        return arguments.fault();
    CheckpointInfo made;
    if (Result done = m_jobs.checkpoint(tag, &made); !done.ok())
        return done;
    *result = toJson(made);
    return Result();
}

Result MirrorCommands::checkpoints(Arguments&, CommandControl&, JsonValue* result)
{
    JsonValue list = JsonValue::array();
    for (const CheckpointInfo& one : m_mirror.window().m_checkpoints)
        list.push_back(toJson(one));
    *result = JsonValue{{"checkpoints", std::move(list)}};
    return Result();
}

Result MirrorCommands::stats(Arguments& arguments, CommandControl& control, JsonValue* result)
{
    const std::string at = arguments.text("at", "latest");
    if (!arguments.fault().ok())
        return arguments.fault();
    ChosenPoint point;
    if (Result chosen = choose(at, m_mirror.window(), &point); !chosen.ok())
        return chosen;
    control.say("at " + point.description());
    ViewStatistics s;
    const auto take = [&](View& view) {
        s = view.statistics();
        return Result();
    };
    if (m_views != nullptr) {
        if (Result built = m_views->useAlone(point, control, take); !built.ok())
            return built;
    } else {
        std::unique_ptr<View> view;
        if (Result built = View::build(m_mirror, point, control, &view); !built.ok())
            return built;
        const Result ignored = take(*view);
    }
    *result = JsonValue{{"at", point.name()},
                        {"ios_inserted", s.m_iosInserted},
                        {"bytes_inserted", s.m_bytesInserted},
                        {"unique_bytes", s.m_uniqueBytes},
                        {"regions", s.m_regions},
                        {"merges", s.m_merges},
                        {"bytes_per_region", s.m_bytesPerRegion},
                        {"items_scanned", s.m_itemsScanned},
                        {"index_seconds", s.m_indexSeconds}};
    control.detail("indexed " + std::to_string(s.m_itemsScanned) + " items in " +
                   std::to_string(s.m_indexSeconds) + " s");
    return Result();
}

Result MirrorCommands::hold(Arguments& arguments, CommandControl&, JsonValue* result)
{
    Hold added;
    const std::string at = arguments.text("at", "latest");
    added.m_name = arguments.text("name");
    if (!arguments.fault().ok())
        return arguments.fault();
    ChosenPoint point;
    if (Result chosen = choose(at, m_mirror.window(), &point); !chosen.ok())
        return chosen;
    added.m_items = point.m_items;
    added.m_point = point.name();
    if (Result done = m_mirror.hold(&added, freeName); !done.ok())
        return done;
    *result = JsonValue{{"name", added.m_name},
                        {"point", added.m_point},
                        {"items", added.m_items},
                        {"description", point.description()}};
    return Result();
}

Result MirrorCommands::release(Arguments& arguments, CommandControl&, JsonValue* result)
{
    const std::string name = arguments.text("name");
    if (!arguments.fault().ok())
        return arguments.fault();
    *result = JsonValue{{"name", name}};
    return m_mirror.release(name);
}

Result MirrorCommands::set(Arguments& arguments, CommandControl&, JsonValue* result)
{
    const std::optional<u64> checkpoints = arguments.number("keep_checkpoints");
    const std::optional<u64> seconds = arguments.number("keep_for_seconds");
    const std::optional<u64> limit = arguments.number("journal_limit_bytes");
    if (!arguments.fault().ok())
        return arguments.fault();
    if (Result least = checkJournalLimit(limit.value_or(0)); !least.ok())
        return least;
    if (Result most = checkKeepFor(seconds.value_or(0)); !most.ok())
        return most;
    if (Result done = m_mirror.changeSettings(checkpoints, seconds, limit); !done.ok())
        return done;
    const MirrorSettings now = m_mirror.currentSettings();
    *result = JsonValue{{"keep_checkpoints", now.m_keepCheckpoints},
                        {"keep_for_seconds", now.m_keepForSeconds},
                        {"journal_limit_bytes", now.m_journalLimitBytes}};
    return Result();
}

Result MirrorCommands::flush(Arguments&, CommandControl&, JsonValue*)
{
    return m_mirror.flush();
}
