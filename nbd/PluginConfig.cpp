#include "nbd/PluginConfig.h"

#include <cctype>
#include <memory>

#include "appliance/MirrorSettings.h"
#include "appliance/Retention.h"
#include "host/journal/FileStorage.h"
#include "nbd/Nbdkit.h"

namespace {

Result wrong(const std::string& key, const std::string& value, const std::string& takes)
{
    return Result::usage(key + " takes " + takes + ", not '" + value + "'");
}

Result parseBytes(const std::string& key, const std::string& value, u64* bytes)
{
    const s64 parsed = nbdkit_parse_size(value.c_str());
    if (parsed <= 0)
        return wrong(key, value, "a size above 0, as 256M");
    *bytes = static_cast<u64>(parsed);
    return Result();
}

// A time ends in a small letter: "30s", "5m". All else is a size: "256M".
Result parseCheckpointEvery(const std::string& key, const std::string& value, ServedOptions* served)
{
    const char last = value.empty() ? ' ' : value.back();
    if (std::islower(static_cast<unsigned char>(last)) == 0)
        return parseBytes(key, value, &served->m_checkpointEveryBytes);
    if (!parseDuration(value, &served->m_checkpointEverySeconds).ok() ||
        served->m_checkpointEverySeconds == 0)
        return wrong(key, value, "a time, as 30s or 5m, or a size, as 256M");
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
        return Result();
    }
    if (key == "checkpoint-every")
        return parseCheckpointEvery(key, value, &m_served);
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
        m_served.m_checkpointEverySeconds + m_served.m_checkpointEveryBytes != 0)
        return Result::usage("readonly and checkpoint-every exclude each other");
    FileStorage storage(m_served.m_folder);
    MirrorSettings settings;
    return loadSettings(storage, m_served.m_folder, &settings);
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
           "stop-timeout=<TIME>          What ending may take (default 10s).";
}
