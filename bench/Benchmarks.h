// The benchmarks, by work and workload.
#pragma once

#include <string>
#include <vector>

#include "bench/Workload.h"
#include "common/infra/Types.h"

struct BenchOptions
{
    std::vector<std::string> m_workloads; // names
    std::vector<u32> m_sizes;             // regions aimed at; a trace has the size that it has
    std::string m_traceFile;              // empty: a generated stream
    u64 m_iterations = 0;                 // exactly so many each; 0: until the time is up
};

// Registers every work on every workload and size, in an order in which those that leave the index
// as it was filled come before those that change it. trace: the trace's workload.
void registerBenchmarks(const BenchOptions& options, const Workload& trace);

// Measurements that were given up because an index was not as it should be.
u64 failedBenchmarks();
