// The plugin's parameters: key=value, as nbdkit hands them over before it forks.
//
// Thread safety: one thread.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "appliance/ServedMirror.h"
#include "host/infra/LogOutput.h"

struct PluginConfig
{
    ServedOptions m_served;
    u64 m_memoryLimitBytes = ~u64{0}; // of all indexes and reads together
    u64 m_stopSeconds = 10;           // what ending may take

    // Of the host: where it logs, none for nbdkit's log; its event log and settings, empty for
    // none.
    std::optional<LogOutputOptions> m_log;
    std::string m_eventsFile;
    std::string m_tweaksFile;
    std::vector<std::string> m_tweaks; // NAME=VALUE

    // Takes one parameter. WrongUsage: no such key, or no such value.
    Result set(const std::string& key, const std::string& value);

    // Checks all of them together, that the mirror is there, and that what they name can be had:
    // nbdkit leaves the terminal next, and then tells nobody. Sets the tweaks.
    Result complete();

    // For --help, in nbdkit's form.
    static const char* help();

private:
    // What m_log holds, which is there from then on.
    LogOutputOptions& logOutput();
    Result checkOutside() const;
};
