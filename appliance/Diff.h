// Diff: which ranges of the volume changed between two points in time, from the journal's metadata
// alone. What no item between the points covers is the same at both.
//
// Thread safety: a plain thread.
#pragma once

#include <functional>
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
// admits is asked now and then with the memory that the diff takes by then, and before the extents
// are allocated with what it is going to take; false ends it. Empty: nobody asks.
// WrongUsage when `from` comes after `to`; Interrupted when control or admits says so; else as
// indexSpan(). *extents is undefined after a failure.
using DiffAdmits = std::function<bool(u64 bytes)>;
Result diffPoints(Mirror& mirror, const ChosenPoint& from, const ChosenPoint& to,
                  FlowControl& control, std::vector<DiffExtent>* extents,
                  const DiffAdmits& admits = {});

// Leaves in the extents only blocks that really differ, by reading both points there; builds the
// index of both. Interrupted, Damaged, Failed; *extents is then undefined.
Result compareExtents(Mirror& mirror, TaskEngine& engine, const ChosenPoint& from,
                      const ChosenPoint& to, FlowControl& control,
                      std::vector<DiffExtent>* extents);
