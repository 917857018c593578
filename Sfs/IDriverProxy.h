// The way to the volumes.
#pragma once

#include <vector>

#include "Sfs/IODescriptor.h"
#include "common/infra/Future.h"

// Thread safety: any thread.
class IDriverProxy
{
public:
    virtual ~IDriverProxy() = default;

    // Starts all reads, in flight together, and returns at once. The future is set when the last
    // one is done: to RC_SUCCESS, or to the first failure. The descriptors are copied before the
    // call returns; the memory that their buffers refer to lives until the future is set.
    // flags: 0.
    virtual FutureStatus readVolume(u64 volumeId, const std::vector<IODescriptor>& ios,
                                    AioPriority priority, u64 flags) = 0;
};
