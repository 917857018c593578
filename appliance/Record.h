// Record: plays the writes of a block trace into the journal.
#pragma once

#include <string>

#include "appliance/FlowControl.h"
#include "appliance/Mirror.h"

struct RecordOptions
{
    std::string m_trace;       // a file, or "-" for standard input
    u64 m_checkpointEvery = 0; // lines; 0: no checkpoints
    bool m_resume = false;     // go on with a trace that was interrupted
};

struct RecordStatistics
{
    u64 m_lines = 0; // recorded by this run
    u64 m_resumedAfter = 0;
    u64 m_skippedLines = 0;
    u64 m_bytes = 0; // of volume written, zeroes too
    u64 m_checkpoints = 0;
    double m_seconds = 0;
};

// Records every line that is taken as one item, with the payload that TraceReader.h tells, and
// makes all of it durable. With checkpoints: one after every so many lines, and one at the end.
//
// A trace in a file is checked as a whole first: a line that is malformed, or reaches beyond the
// volume, is told with its number before anything is recorded. From a pipe it is told when it
// comes, and what was recorded before it stays.
// Interrupted: what was recorded is durable; the message says how to go on. WrongUsage: nothing to
// resume, or another trace.
// Thread safety: a plain thread; nobody else writes to the mirror meanwhile.
Result recordTrace(Mirror& mirror, const RecordOptions& options, FlowControl& control,
                   RecordStatistics* statistics);
