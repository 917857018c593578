#include "nbd/PluginLog.h"

#include "common/infra/LogItem.h"
#include "host/infra/LogOutput.h"
#include "nbd/Nbdkit.h"

void logThroughNbdkit()
{
    LogItem::setSink(
        [](LogModule, LogLevel level, const std::string&, int, const std::string& text) {
            if (logLevelPasses(level, WarnLevel))
                nbdkit_error("%s", text.c_str());
            else
                nbdkit_debug("%s", text.c_str());
        });
}
