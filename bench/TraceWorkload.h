// The writes of a block trace as a workload.
//
// Thread safety: any thread.
#pragma once

#include <string>

#include "appliance/Result.h"
#include "bench/Workload.h"

// Reads a trace (CSV, plain or .zst; see appliance/TraceReader.h), or makes one for an empty path:
// bursts of scattered writes among sequential runs, off the 4 KiB grid as old partition tables
// leave them. Failed when it cannot be read, is malformed, or holds no write; *workload is then as
// it was.
//
// With several volumes each of them plays the trace, on a part of the view of its own, and all at
// once: each begins at another moment of the trace and comes round to its beginning when it
// ends, and the writes of all are ordered by time.
Result makeTraceWorkload(const std::string& path, u32 volumes, Workload* workload);
