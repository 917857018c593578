// The journal's storage.
#pragma once

#include <vector>

#include "Sfs/IODescriptor.h"
#include "common/headers/AsyncTask.h"
#include "common/infra/Future.h"

// Thread safety: any thread.
class SfsInterface
{
public:
    virtual ~SfsInterface() = default;

    // Records a lasting status for the mirror's journal stream. RC_SUCCESS, a failure, or RC_WAIT,
    // after which the task is resumed with the outcome. flags: 0.
    virtual RcStatus setPersistentStreamStatus(AsyncTask* pAsyncTask, u64 mirrorId, RcStatus status,
                                               u64 flags) = 0;

    // Reads journal blocks as they are stored, all in flight together, and checks them against
    // their checksums. The future is set when the last one is done: to RC_SUCCESS, or to the first
    // failure, among them RC_BAD_CHECKSUM, with the buffers' content undefined. The descriptors
    // are copied before the call returns; the memory that their buffers refer to lives until the
    // future is set.
    virtual FutureStatus readStored(const std::vector<IODescriptorEx>& ios,
                                    AioPriority priority) = 0;
};
