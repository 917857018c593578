// Diff: which ranges of the volume changed between two points in time, from the journal's metadata
// alone. What no item between the points covers is the same at both.
//
// Thread safety: a plain thread.
#pragma once

#include <vector>

#include "appliance/SpanScan.h"
#include "host/tasks/TaskEngine.h"

struct DiffExtent
{
    u64 m_offsetBlocks = 0;
    u64 m_lengthBlocks = 0;
    bool m_isZero = false; // zeroes at the later point; else data
};

// The extents written or zeroed after `from` and up to `to`, ascending; neighbours of one type are
// one. The cost grows with the items between the points, not with the volume or the journal.
// WrongUsage when `from` comes after `to`; else as indexSpan().
Result diffPoints(Mirror& mirror, const ChosenPoint& from, const ChosenPoint& to,
                  FlowControl& control, std::vector<DiffExtent>* extents);

// Leaves in the extents only blocks that really differ, by reading both points there; builds the
// index of both. Interrupted, Damaged, Failed; *extents is then undefined.
Result compareExtents(Mirror& mirror, TaskEngine& engine, const ChosenPoint& from,
                      const ChosenPoint& to, FlowControl& control,
                      std::vector<DiffExtent>* extents);
