// Settings that are read at each use and may change at any moment, from any thread.
#pragma once

#include <atomic>

#include "common/infra/Singleton.h"

struct DynamicTweaks
{
    // Traces every step of every region locator to the log.
    std::atomic<bool> t_RlVerboseLogs{false};
    // Writes a binary event record for each region that is cut or stored.
    std::atomic<bool> t_BinVerboseLogs{false};
    // Queries the index again after each change and reports what should not be there.
    std::atomic<bool> t_IOVerboseLogs{false};

    static DynamicTweaks* instance() { return Singleton<DynamicTweaks, DynamicTweaks>::instance(); }
};
