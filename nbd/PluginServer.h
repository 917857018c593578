// What the plugin runs once nbdkit has forked: the host and the mirror that it serves.
//
// Thread safety: start() and stop() from nbdkit's main thread; served() between the two, from any.
#pragma once

#include <memory>

#include "appliance/ServedMirror.h"
#include "host/Host.h"
#include "nbd/PluginConfig.h"

class PluginServer
{
public:
    // Starts threads, and opens the mirror.
    Result start(const PluginConfig& config);

    // Ends everything within the configured time, and makes what was answered durable; once more
    // does nothing. REQUIRES: no export is open.
    Result stop();

    ServedMirror& served() { return *m_served; }

private:
    u64 m_stopSeconds = 0;
    Host m_host;
    std::unique_ptr<ServedMirror> m_served;
};
