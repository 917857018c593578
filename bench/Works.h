// The works: what is done to an index and timed.
//
// One call takes one index through all of them, from empty to torn down, so that each process that
// measures does exactly the same to each index. Between the works, outside the time, the index says
// a digest of what it answers: indexes that did the same work have the same.
#pragma once

#include <string>
#include <vector>

#include "bench/Contenders.h"
#include "bench/Workload.h"

struct Measurement
{
    std::string m_work;
    u64 m_operations = 0;
    double m_nanoseconds = 0; // an operation
    double m_bytesPerRegion = 0;
    u64 m_digest = 0;
};

struct WorkOptions
{
    std::string m_only;   // this work alone, on a filled index; empty: all
    u64 m_operations = 0; // exactly so many; 0: by the size of the index
};

// The names, in the order in which they are done and reported.
const std::vector<std::string>& workNames();

// Measures the works on a new index. Returns "", or why the figures mean nothing.
std::string measureWorks(const ContenderKind& kind, const Workload& workload,
                         const WorkOptions& options, std::vector<Measurement>* measurements);
