#include "host/infra/LogOutput.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>
#include <unistd.h>

#include "host/infra/LogFormat.h"

namespace {

spdlog::level::level_enum spdlogLevelOf(LogLevel level)
{
    switch (level) {
    case AssertLevel:
    case FatalLevel: return spdlog::level::critical;
    case ErrorLevel: return spdlog::level::err;
    case WarnLevel: return spdlog::level::warn;
    case DebugLevel: return spdlog::level::debug;
    case InfoLevel:
    case CtrLevel:
    case LongTermInfoLevel: break;
    }
    return spdlog::level::info;
}

// errno of a file that cannot be written; else 0, and it is there.
int tryToWrite(const std::string& path)
{
    const int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
    if (file < 0)
        return errno;
    ::close(file);
    return 0;
}

} // namespace

bool logLevelPasses(LogLevel level, LogLevel filter)
{
    const LogLevel rank = level > DebugLevel ? InfoLevel : level;
    return rank <= filter;
}

bool parseLogLevel(const std::string& name, LogLevel* level)
{
    for (const LogLevel candidate : {ErrorLevel, WarnLevel, InfoLevel, DebugLevel}) {
        if (name == logLevelText(candidate)) {
            *level = candidate;
            return true;
        }
    }
    return false;
}

Outcome installLogOutput(const LogOutputOptions& options)
{
    std::shared_ptr<spdlog::logger> logger;
    try {
        std::shared_ptr<spdlog::sinks::sink> sink;
        // The library would make the folder too, of a mistyped name.
        if (const int error = options.m_file.empty() ? 0 : tryToWrite(options.m_file); error != 0)
            return {RC_IO_ERROR,
                    "cannot write the log to " + options.m_file + ": " + strerror(error)};
        if (options.m_file.empty())
            sink = std::make_shared<spdlog::sinks::stderr_sink_mt>();
        else
            sink = std::make_shared<spdlog::sinks::basic_file_sink_mt>(options.m_file);
        logger = std::make_shared<spdlog::logger>("rl", sink);
    } catch (const spdlog::spdlog_ex& failure) {
        return {RC_IO_ERROR, "cannot write the log to " + options.m_file + ": " + failure.what()};
    }
    // The whole line is made here, and every line is on its way when the call that logs returns:
    // a process that stops itself has then said why.
    logger->set_pattern("%v");
    logger->set_level(spdlog::level::trace);
    logger->flush_on(spdlog::level::trace);

    LogItem::setSink([logger, format = options.m_format, filter = options.m_level](
                         LogModule module, LogLevel level, const std::string& origin, int,
                         const std::string& text) {
        if (!logLevelPasses(level, filter))
            return;
        const std::string line = format == LogFormat::Json
                                     ? formatLogJson(module, level, origin, text)
                                     : formatLogText(module, level, text);
        logger->log(spdlogLevelOf(level), spdlog::string_view_t(line));
    });
    return {};
}

void removeLogOutput()
{
    LogItem::setSink({});
}
