// The writes of a block trace as a workload.
//
// Thread safety: any thread.
#pragma once

#include <string>

#include "appliance/Result.h"
#include "bench/Workload.h"

// Reads a trace (CSV, plain or .zst; see appliance/TraceReader.h). Failed when it cannot be read,
// is malformed, or holds no write; *workload is then as it was.
Result readTrace(const std::string& path, Workload* workload);

// Stands in where no trace is at hand, and says so in m_source: bursts of scattered writes among
// sequential runs, off the 4 KiB grid as old partition tables leave them.
Workload makeGeneratedTrace();
