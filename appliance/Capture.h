// Capture: journals what changed in an image since the latest point, and sets a checkpoint.
#pragma once

#include <string>

#include "appliance/FlowControl.h"
#include "appliance/Mirror.h"
#include "host/tasks/TaskEngine.h"

struct CaptureStatistics
{
    CpId_t m_checkpoint = 0;
    u64 m_changedBytes = 0; // journaled with data
    u64 m_zeroedBytes = 0;  // journaled as zeroes
    u64 m_items = 0;
    u64 m_comparedBytes = 0; // read from both sides; holes of both are not
    double m_seconds = 0;
};

// Journals every block in which the image, a file or block device of the volume's size, differs
// from the latest view, then sets a checkpoint with that tag.
// WrongUsage: the image has another size. Interrupted, and every failure: what has been journaled
// so far stays, without a checkpoint, and running the capture again completes it.
// Thread safety: a plain thread; nobody else writes to the mirror meanwhile.
Result captureImage(Mirror& mirror, TaskEngine& engine, const std::string& image,
                    const std::string& tag, FlowControl& control, CaptureStatistics* statistics);
