#include "nbd/PluginConfig.h"

#include <cerrno>
#include <filesystem>
#include <unistd.h>

#include "appliance/HostPort.h"
#include "appliance/MemoryReserve.h"
#include "appliance/Mirror.h"
#include "appliance/MirrorSettings.h"
#include "appliance/Retention.h"
#include "appliance/Sizes.h"
#include "host/infra/TweaksLoader.h"
#include "host/journal/FileStorage.h"
#include "nbd/Nbdkit.h"

namespace {

Result wrong(const std::string& key, const std::string& value, const std::string& takes)
{
    return Result::usage(key + " takes " + takes + ", not '" + value + "'");
}

Result parseBytes(const std::string& key, const std::string& value, u64* bytes)
{
    u64 parsed = 0;
    if (!parseSize(value, &parsed).ok() || parsed == 0)
        return wrong(key, value, "a size above 0, as 256M");
    *bytes = parsed;
    return Result();
}

Result parseFlag(const std::string& key, const std::string& value, bool* flag)
{
    const int parsed = nbdkit_parse_bool(value.c_str());
    if (parsed < 0)
        return wrong(key, value, "true or false");
    *flag = parsed != 0;
    return Result();
}

// nbdkit leaves the folder that it was started in.
Result parsePath(const std::string& key, const std::string& value, const char* takes,
                 std::string* path)
{
    char* absolute = nbdkit_absolute_path(value.c_str());
    if (absolute == nullptr)
        return wrong(key, value, takes);
    *path = absolute;
    std::free(absolute);
    return Result();
}

Result parseSeconds(const std::string& key, const std::string& value, u64* milliseconds)
{
    u64 seconds = 0;
    if (!parseDuration(value, &seconds).ok() || seconds == 0)
        return wrong(key, value, "a time, as 10s");
    *milliseconds = seconds * 1000;
    return Result();
}

Result parseRecovery(const std::string& key, const std::string& value, JournalRecovery* recovery)
{
    if (value == "strict")
        *recovery = JournalRecovery::Strict;
    else if (value == "tail")
        *recovery = JournalRecovery::Tail;
    else if (value == "point-in-time")
        *recovery = JournalRecovery::PointInTime;
    else if (value == "salvage")
        *recovery = JournalRecovery::Salvage;
    else
        return wrong(key, value, "strict, tail, point-in-time or salvage");
    return Result();
}

// Empty: no file.
Result checkWritable(const std::string& file)
{
    if (file.empty())
        return Result();
    std::error_code ignored;
    if (std::filesystem::is_directory(file, ignored))
        return Result::fromErrno(EISDIR, "cannot write " + file);
    const std::string folder = std::filesystem::path(file).parent_path();
    return access(folder.c_str(), W_OK | X_OK) == 0
               ? Result()
               : Result::fromErrno(errno, "cannot write " + file);
}

} // namespace

Result PluginConfig::set(const std::string& key, const std::string& value)
{
    if (key == "mirror")
        return parsePath(key, value, "a folder", &m_served.m_folder);
    if (key == "readonly")
        return parseFlag(key, value, &m_served.m_readOnly);
    if (key == "recovery")
        return parseRecovery(key, value, &m_served.m_recovery);
    if (key == "views-budget")
        return parseBytes(key, value, &m_served.m_viewsBudgetBytes);
    if (key == "memory-limit")
        return parseBytes(key, value, &m_memoryLimitBytes);
    if (key == "background")
        return parseFlag(key, value, &m_served.m_background);
    if (key == "apply-rate")
        return parseBytes(key, value, &m_served.m_applyBytesPerSecond);
    if (key == "metrics")
        return parsePath(key, value, "a file", &m_served.m_metricsFile);
    if (key == "metrics-every")
        return parseSeconds(key, value, &m_served.m_metricsEveryMs);
    if (key == "metrics-http") {
        m_served.m_metricsHttp = value;
        HostPort where;
        return parseHostPort(key, value, &where);
    }
    if (key == "checkpoint-every")
        return m_served.m_checkpoints.add(value);
    if (key == "log-file")
        return parsePath(key, value, "a file", &logOutput().m_file);
    if (key == "log-format") {
        if (value != "text" && value != "json")
            return wrong(key, value, "text or json");
        logOutput().m_format = value == "json" ? LogFormat::Json : LogFormat::Text;
        return Result();
    }
    if (key == "log-level")
        return parseLogLevel(value, &logOutput().m_level)
                   ? Result()
                   : wrong(key, value, "error, warn, info or debug");
    if (key == "events")
        return parsePath(key, value, "a file", &m_eventsFile);
    if (key == "tweaks-file")
        return parsePath(key, value, "a file", &m_tweaksFile);
    if (key == "tweak") {
        m_tweaks.push_back(value);
        return Result();
    }
    if (key == "stop-timeout")
        return parseDuration(value, &m_stopSeconds).ok() && m_stopSeconds > 0
                   ? Result()
                   : wrong(key, value, "a time above 0, as 10s");
    return Result::usage("unknown parameter '" + key + "'");
}

Result PluginConfig::complete()
{
    if (m_served.m_folder.empty())
        return Result::usage("which mirror? Give mirror=FOLDER");
    if (m_served.m_readOnly &&
        m_served.m_checkpoints.m_everyMs + m_served.m_checkpoints.m_everyBytes != 0)
        return Result::usage("readonly and checkpoint-every exclude each other");
    // With less every write would be refused, for ever.
    if (const u64 least = MemoryReserve::leastLimitBytes();
        !m_served.m_readOnly && m_memoryLimitBytes < least)
        return Result::usage("memory-limit takes at least " + formatSize(least) +
                             " where a mirror is served for writing");
    FileStorage storage(m_served.m_folder);
    MirrorSettings settings;
    if (Result result = loadSettings(storage, m_served.m_folder, &settings); !result.ok())
        return result;
    // Opening it tells this too, but only once nbdkit has left the terminal and takes clients.
    if (!m_served.m_readOnly) {
        if (Result result = Mirror::checkUnused(m_served.m_folder); !result.ok())
            return result;
    }
    return checkOutside();
}

Result PluginConfig::checkOutside() const
{
    for (const std::string& file :
         {m_served.m_metricsFile, m_eventsFile, m_log ? m_log->m_file : std::string()}) {
        if (Result result = checkWritable(file); !result.ok())
            return result;
    }
    if (!m_served.m_metricsHttp.empty()) {
        HostPort where;
        Result result = parseHostPort("metrics-http", m_served.m_metricsHttp, &where);
        if (result.ok())
            result = tryToListen(where);
        if (!result.ok())
            return result;
    }
    // The host does so again, to the same end.
    Outcome done = m_tweaksFile.empty() ? Outcome() : loadTweaksFile(m_tweaksFile);
    for (size_t i = 0; done.ok() && i < m_tweaks.size(); ++i)
        done = setTweak(m_tweaks[i]);
    return done.ok() ? Result() : Result::fromStatus(done.m_rc, done.m_message);
}

LogOutputOptions& PluginConfig::logOutput()
{
    if (!m_log) {
        m_log.emplace();
        m_log->m_level = WarnLevel;
    }
    return *m_log;
}

const char* PluginConfig::help()
{
    return "[mirror=]<FOLDER>            (required) The mirror to serve.\n"
           "readonly=true                Serve its past alone; another process may write to it.\n"
           "checkpoint-every=<TIME|SIZE> Set checkpoints by time (30s) or by amount written "
           "(256M);\n"
           "                             may be given once for each.\n"
           "background=false             No apply and trim by themselves as the mirror's settings\n"
           "                             say; see rlctl set.\n"
           "apply-rate=<SIZE>            Most that these write to the target in a second (default\n"
           "                             no limit).\n"
           "metrics=<FILE>               Write metrics there, as Prometheus reads them.\n"
           "metrics-every=<TIME>         How often (default 10s).\n"
           "metrics-http=<HOST:PORT>     Serve them over HTTP, at /metrics.\n"
           "views-budget=<SIZE>          Most memory for the indexes of all views (default 1G).\n"
           "memory-limit=<SIZE>          Most memory for all indexes and reads (default none).\n"
           "recovery=<HOW>               What to do with a journal that does not end whole:\n"
           "                             strict, tail (default), point-in-time or salvage.\n"
           "log-file=<FILE>              Log there and not where nbdkit does.\n"
           "log-format=<text|json>       And in this form (default text; to stderr if no file).\n"
           "log-level=<LEVEL>            error, warn (default), info or debug.\n"
           "events=<FILE>                Write the binary event log there.\n"
           "tweak=<NAME=VALUE>           Set an internal setting; may be repeated.\n"
           "tweaks-file=<FILE>           Read internal settings from a JSON file.\n"
           "stop-timeout=<TIME>          What ending may take (default 10s).";
}
