// Measures by rounds: each round runs every contender in a process of its own, one after the other,
// so that none inherits another's heap or caches, and a slow moment of the machine meets them all.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "appliance/Result.h"
#include "bench/Works.h"

// What an index is measured on.
struct Subject
{
    std::string m_workload;
    u32 m_size = 0;      // regions aimed at; 0 where the workload has the size that it has
    std::string m_trace; // the file of a recorded trace; empty: a generated one, or none needed
};

// The workload of that name and size. Failed when the trace cannot be read.
Result makeWorkload(const Subject& subject, Workload* workload);

// The names of the workloads, in the order of the reports.
const std::vector<std::string>& workloadNames();
bool hasOwnSize(const std::string& workload);

// What the rounds of one contender gave, by work.
struct WorkSamples
{
    std::vector<double> m_nanoseconds;
    std::vector<double> m_bytesPerRegion;
};
using ContenderSamples = std::map<std::string, WorkSamples>;

struct SubjectSamples
{
    Subject m_subject;
    u64 m_size = 0; // as reported: for a trace the number of its items
    std::string m_source;
    std::map<std::string, ContenderSamples> m_contenders;
};

// What a process of a round does: measures one contender and writes the measurements to standard
// output, one a line. The exit code.
int measureInThisProcess(const Subject& subject, const std::string& contender,
                         const WorkOptions& options);

// Runs the rounds of one subject. Failed when a process fails, or when two contenders that did the
// same work answer differently. quiet: no line a round on standard error.
Result measureRounds(const Subject& subject, const std::vector<std::string>& contenders, u32 rounds,
                     const WorkOptions& options, bool quiet, SubjectSamples* samples);
