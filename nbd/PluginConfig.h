// The plugin's parameters: key=value, as nbdkit hands them over before it forks.
//
// Thread safety: one thread.
#pragma once

#include <string>

#include "appliance/ServedMirror.h"

struct PluginConfig
{
    ServedOptions m_served;
    u64 m_memoryLimitBytes = ~u64{0}; // of all indexes and reads together
    u64 m_stopSeconds = 10;           // what ending may take

    // Takes one parameter. WrongUsage: no such key, or no such value.
    Result set(const std::string& key, const std::string& value);

    // Checks all of them together, and that the mirror is there.
    Result complete();

    // For --help, in nbdkit's form.
    static const char* help();
};
