// A rate monitor.
#pragma once

#include "common/infra/Future.h"

// Thread safety: any thread.
class ISingleMonitor
{
public:
    virtual ~ISingleMonitor() = default;

    // A new monitor that measures another part of the same work; owned by the caller, who deletes
    // it with SHIELD_DELETE.
    virtual ISingleMonitor* Diverge() = 0;

    virtual void addBytesPerformed(u64 bytes) = 0;

    // Measures the time from now until the future is set.
    virtual void start(FutureStatus future) = 0;
};
