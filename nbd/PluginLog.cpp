#include "nbd/PluginLog.h"

#include "common/infra/LogItem.h"
#include "host/infra/Clock.h"
#include "host/infra/LogLimiter.h"
#include "host/infra/LogOutput.h"
#include "nbd/Nbdkit.h"

namespace {

constexpr u64 INTERVAL_MS = 10000;

LogLimiter refusals(INTERVAL_MS, 1);
// Each line about damage may name another block.
LogLimiter warnings(INTERVAL_MS, 20);

void tellLimited(LogLimiter& limiter, const std::string& kind, const std::string& line)
{
    const std::string told = limiter.admit(kind, line, Clock::instance()->nowMs());
    if (!told.empty())
        nbdkit_error("%s", told.c_str());
}

} // namespace

void logThroughNbdkit()
{
    LogItem::setSink(
        [](LogModule, LogLevel level, const std::string& origin, int, const std::string& text) {
            if (logLevelPasses(level, WarnLevel))
                tellLimited(warnings, origin, text);
            else
                nbdkit_debug("%s", text.c_str());
        });
}

void logRefusal(const std::string& kind, const std::string& line)
{
    tellLimited(refusals, kind, line);
}

void logRest()
{
    for (LogLimiter* limiter : {&refusals, &warnings}) {
        for (const std::string& line : limiter->takeRest())
            nbdkit_error("%s", line.c_str());
    }
}
