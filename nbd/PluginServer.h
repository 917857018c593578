// What the plugin runs once nbdkit has forked: the host and the mirror that it serves.
//
// Thread safety: all from nbdkit's main thread; served() also from any other, from prepare() on.
#pragma once

#include <memory>

#include "appliance/ServedMirror.h"
#include "host/Host.h"
#include "nbd/PluginConfig.h"

class PluginServer
{
public:
    // Starts threads. What is served is there after it, and not open yet.
    Result prepare(const PluginConfig& config);

    // Opens the mirror, as ServedMirror::start(). REQUIRES: prepared. stop() is due after a failure
    // too.
    Result start() { return m_served->start(); }

    // Ends everything within the configured time, and makes what was answered durable; once more
    // does nothing. What is served stays, as one that has stopped.
    Result stop();

    ServedMirror& served() { return *m_served; }

private:
    u64 m_stopSeconds = 0;
    Host m_host;
    std::unique_ptr<ServedMirror> m_served;
};
