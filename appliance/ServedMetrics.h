// What a served mirror tells of itself to whoever watches it, as Prometheus metrics.
//
// Everything is read when it is asked for: counters that the data path bumps, and what the mirror,
// its journal, indexes, pools and jobs say of themselves. Names and meanings are in the manual.
//
// Thread safety: text() from any thread, while all that is watched is there.
#pragma once

#include <string>

#include "appliance/ApplyLag.h"
#include "appliance/MetricFamilies.h"
#include "appliance/ServedMirror.h"

class ServedMetrics
{
public:
    // jobs, lag: null for a mirror that is served read-only. All outlive it.
    ServedMetrics(ServedMirror& served, const MirrorJobs* jobs, const ApplyLag* lag)
        : m_served(served), m_jobs(jobs), m_lag(lag)
    {}

    // All of them in the text format, without times.
    std::string text() const;

private:
    void addJournal(MetricFamilies& families) const;
    void addTrimHolder(MetricFamilies& families) const;
    void addIndex(MetricFamilies& families) const;
    void addMemory(MetricFamilies& families) const;
    void addReads(MetricFamilies& families) const;
    void addJobs(MetricFamilies& families) const;
    void addRequests(MetricFamilies& families) const;

    ServedMirror& m_served;
    const MirrorJobs* m_jobs;
    const ApplyLag* m_lag;
};
