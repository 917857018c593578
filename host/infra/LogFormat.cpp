#include "host/infra/LogFormat.h"

#include <ctime>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "host/infra/Clock.h"

const char* logLevelText(LogLevel level)
{
    switch (level) {
    case AssertLevel: return "assert";
    case FatalLevel: return "fatal";
    case ErrorLevel: return "error";
    case WarnLevel: return "warn";
    case InfoLevel: return "info";
    case DebugLevel: return "debug";
    case CtrLevel: return "ctr";
    case LongTermInfoLevel: return "longterm";
    }
    return "unknown";
}

const char* logModuleText(LogModule module)
{
    switch (module) {
    case LogModuleInvalid: return "invalid";
    case LogModuleXel: return "xel";
    case LogModuleTav: return "tav";
    case LogModuleCommon: return "common";
    }
    return "unknown";
}

std::string formatWallTime(u64 wallTimeUs)
{
    const std::time_t seconds = static_cast<std::time_t>(wallTimeUs / 1'000'000);
    std::tm parts{};
    gmtime_r(&seconds, &parts);
    return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:03}Z", parts.tm_year + 1900,
                       parts.tm_mon + 1, parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec,
                       wallTimeUs / 1000 % 1000);
}

std::string functionNameOf(const std::string& origin)
{
    const size_t end = origin.find('(');
    if (end == std::string::npos)
        return origin;
    // The return type, if any, ends at the last blank outside template arguments.
    int depth = 0;
    size_t start = end;
    while (start > 0) {
        const char c = origin[start - 1];
        if (c == '>')
            ++depth;
        else if (c == '<')
            --depth;
        else if (depth == 0 && (c == ' ' || c == '*' || c == '&'))
            break;
        --start;
    }
    return origin.substr(start, end - start);
}

std::string formatLogText(LogModule module, LogLevel level, const std::string& text)
{
    return fmt::format("{} {} {}: {}", formatWallTime(Clock::instance()->wallTimeUs()),
                       logLevelText(level), logModuleText(module), text);
}

std::string formatLogJson(LogModule module, LogLevel level, const std::string& origin,
                          const std::string& text)
{
    nlohmann::ordered_json line;
    line["time"] = formatWallTime(Clock::instance()->wallTimeUs());
    line["level"] = logLevelText(level);
    line["module"] = logModuleText(module);
    line["event"] = functionNameOf(origin);
    line["msg"] = text;
    return line.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}
