#include "cli/Context.h"

#include <cerrno>
#include <cstdlib>
#include <iostream>

#include "appliance/ControlClient.h"
#include "appliance/Sizes.h"
#include "host/infra/TweaksLoader.h"

namespace {

// Why a result could not be written, as an errno; 0: all were.
int resultError = 0;

// Results are few, and the last one of a command matters as much as the first: each is written out
// at once, and run() tells what went wrong.
void writeResult(const std::string& text)
{
    errno = 0;
    if (!(std::cout << text << std::flush) && resultError == 0)
        resultError = errno != 0 ? errno : EIO;
}

Result fromHost(const Outcome& outcome)
{
    if (outcome.ok())
        return Result();
    return Result(Result::fromStatus(outcome.m_rc, "").code(),
                  outcome.m_message.empty() ? rcStatusText(outcome.m_rc) : outcome.m_message);
}

Result parseRecovery(const std::string& name, JournalRecovery* recovery)
{
    if (name == "strict")
        *recovery = JournalRecovery::Strict;
    else if (name == "tail")
        *recovery = JournalRecovery::Tail;
    else if (name == "point-in-time")
        *recovery = JournalRecovery::PointInTime;
    else if (name == "salvage")
        *recovery = JournalRecovery::Salvage;
    else
        return Result::usage("--recovery takes strict, tail, point-in-time or salvage");
    return Result();
}

void addCommonOptions(CLI::App* command, CommonOptions& options)
{
    const std::string group = "Options of all commands";
    options.m_logFormat.clear(); // unless it is given it follows --json
    command->add_flag("--json", options.m_json, "The result as JSON, errors as JSON on stderr")
        ->group(group);
    command->add_flag("-q,--quiet", options.m_quiet, "No talk but errors")->group(group);
    command->add_flag("-v,--verbose", options.m_verbose, "More talk, and the log's information")
        ->group(group);
    command->add_flag("--no-color", options.m_noColor, "No colours (also by NO_COLOR)")
        ->group(group);
    const auto option = [&](const char* name, auto& value, const char* variable,
                            const char* description) {
        return command->add_option(name, value, description)->envname(variable)->group(group);
    };
    option("--progress", options.m_progress, "RL_PROGRESS",
           "auto, none, plain, json, or a file descriptor for N/100 lines");
    option("--log-format", options.m_logFormat, "RL_LOG_FORMAT",
           "text or json (default: as the result)")
        ->check(CLI::IsMember({"text", "json"}));
    option("--log-file", options.m_logFile, "RL_LOG_FILE", "Log to this file, not to stderr");
    option("--log-level", options.m_logLevel, "RL_LOG_LEVEL", "error, warn, info or debug");
    option("--recovery", options.m_recovery, "RL_RECOVERY",
           "What to do with a journal that does not end whole: strict, tail, point-in-time, "
           "salvage");
    option("--tweak", options.m_tweaks, "RL_TWEAK", "Set an internal setting: NAME=VALUE")
        ->expected(1)
        ->take_all();
    option("--tweaks-file", options.m_tweaksFile, "RL_TWEAKS_FILE",
           "Read internal settings from a JSON file");
    option("--events", options.m_events, "RL_EVENTS", "Write the binary event log to this file");
    option("--memory-limit", options.m_memoryLimit, "RL_MEMORY_LIMIT",
           "Most memory for indexes and reads, as a size");
}

} // namespace

CLI::App* addCommand(CLI::App& app, Context& context, const std::string& name,
                     const std::string& description, const std::string& firstExample,
                     const std::string& secondExample)
{
    CLI::App* command = app.add_subcommand(name, description);
    command->footer("Examples:\n  " + firstExample + "\n  " + secondExample);
    addCommonOptions(command, context.options());
    return command;
}

Result Context::applyTweaks()
{
    for (const std::string& tweak : m_options.m_tweaks) {
        const Outcome outcome = setTweak(tweak);
        if (!outcome.ok())
            return Result::usage("--tweak " + tweak + ": " + outcome.m_message);
    }
    return Result();
}

Result Context::startHost()
{
    if (Result result = ProgressReporter::checkMode(m_options.m_progress); !result.ok())
        return result;
    HostOptions host;
    LogOutputOptions log;
    // Who reads errors as JSON is not to find anything else between them.
    const bool jsonLog =
        m_options.m_logFormat.empty() ? m_options.m_json : m_options.m_logFormat == "json";
    log.m_format = jsonLog ? LogFormat::Json : LogFormat::Text;
    log.m_file = m_options.m_logFile;
    const std::string level = !m_options.m_logLevel.empty() ? m_options.m_logLevel
                              : m_options.m_verbose         ? "info"
                                                            : "warn";
    if (!parseLogLevel(level, &log.m_level))
        return Result::usage("--log-level takes error, warn, info or debug, not '" + level + "'");
    host.m_log = log;
    if (!m_eventsArePassedOn)
        host.m_eventLogFile = m_options.m_events;
    host.m_tweaksFile = m_options.m_tweaksFile;
    if (!m_options.m_memoryLimit.empty()) {
        if (Result result = parseSize(m_options.m_memoryLimit, &host.m_memoryLimitBytes);
            !result.ok())
            return result;
        if (host.m_memoryLimitBytes == 0)
            return Result::usage("--memory-limit takes a size above 0");
    }
    JournalRecovery ignored = JournalRecovery::Tail;
    if (Result result = parseRecovery(m_options.m_recovery, &ignored); !result.ok())
        return result;
    // A file of settings that is not there is no mirror that is not there.
    if (Result result = fromHost(m_host.start(std::move(host))); !result.ok())
        return result.code() == ResultCode::NotFound ? Result::failed(result.message()) : result;
    return applyTweaks();
}

int Context::run()
{
    Result result = startHost();
    if (result.ok())
        result = m_action();
    if (result.ok() && resultError != 0)
        result = Result::fromErrno(resultError, "cannot write the result to standard output");
    Result stopped = fromHost(m_host.stop());
    if (result.ok())
        result = stopped;
    if (result.ok() && !m_leftOut.empty())
        result = Result(ResultCode::DoneInPart, m_leftOut);
    return tell(result);
}

// What was written to a served mirror before this command came is in what it reads.
void Context::flushServed(const std::string& folder) const
{
    std::unique_ptr<ControlClient> client;
    if (!ControlClient::connect(folder, &client).ok())
        return;
    CommandControl control;
    Json nothing;
    if (Result result = client->run("flush", Json(), control, &nothing); !result.ok())
        say("what was written last may be missing: " + result.message());
}

Result Context::openMirror(const std::string& folder, MirrorAccess access,
                           std::unique_ptr<Mirror>* mirror)
{
    JournalRecovery recovery = JournalRecovery::Tail;
    if (Result result = parseRecovery(m_options.m_recovery, &recovery); !result.ok())
        return result;
    if (access == MirrorAccess::Reader)
        flushServed(folder);
    if (Result result = Mirror::open(folder, access, recovery, mirror); !result.ok())
        return result;
    const JournalReport& report = (*mirror)->report();
    if (!report.m_text.empty())
        say(report.m_text);
    if (report.m_skippedPages > 0)
        m_leftOut = report.m_text;
    return Result();
}

Result Context::openView(Mirror& mirror, const std::string& at, ProgressReporter& reporter,
                         std::unique_ptr<View>* view)
{
    PointName name;
    if (Result result = parsePoint(at, &name); !result.ok())
        return result;
    ChosenPoint point;
    if (Result result = choosePoint(name, mirror.window(), &point); !result.ok())
        return result;
    say("at " + point.description());
    if (Result result = View::build(mirror, point, reporter, view); !result.ok())
        return result;
    detail("indexed " + std::to_string((*view)->statistics().m_itemsScanned) + " items in " +
           std::to_string((*view)->statistics().m_indexSeconds) + " s");
    return Result();
}

std::unique_ptr<ProgressReporter> Context::progress(const std::string& what) const
{
    return std::make_unique<ProgressReporter>(what, m_options.m_progress, m_options.m_quiet,
                                              color());
}

bool Context::color() const
{
    const char* noColor = std::getenv("NO_COLOR");
    return !m_options.m_noColor && (noColor == nullptr || *noColor == '\0');
}

void Context::result(const std::string& text) const
{
    writeResult(text);
}

void Context::result(const Json& fields) const
{
    Json json = {{"schema", 1}};
    json.update(fields);
    writeResult(json.dump(2, ' ', false, Json::error_handler_t::replace) + "\n");
}

void Context::say(const std::string& line) const
{
    if (!m_options.m_quiet && !m_options.m_json)
        std::cerr << line << std::endl;
}

void Context::detail(const std::string& line) const
{
    if (m_options.m_verbose)
        say(line);
}

int Context::tell(const Result& result) const
{
    const int code = static_cast<int>(result.code());
    if (result.ok())
        return code;
    if (m_options.m_json)
        std::cerr << Json{{"type", "error"}, {"code", code}, {"message", result.message()}}.dump(
                         -1, ' ', false, Json::error_handler_t::replace)
                  << std::endl;
    else
        std::cerr << "rlctl: " << result.message() << std::endl;
    return code;
}
