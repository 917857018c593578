// How far the target volume is behind the journal.
//
// In bytes: what the requests cover that are journaled and not applied, zeroes too, and one block
// twice where two requests wrote to it. What lay between the two at the start is counted once, by a
// scan of the items; from then on both ends count what they do.
//
// In seconds: the age of the oldest checkpoint that the target does not hold yet, since checkpoints
// alone have a time.
//
// Thread safety: measure() first; then any thread.
#pragma once

#include <functional>

#include "appliance/MirrorJobs.h"

class ApplyLag
{
public:
    // journaled: bytes that journaled requests covered so far, counted from anywhere. All outlive
    // it.
    ApplyLag(MirrorJobs& jobs, std::function<u64()> journaled)
        : m_jobs(jobs), m_journaled(std::move(journaled))
    {}

    // Reads the metadata of what is not applied, which may be all of the journal's: Interrupted
    // when control says so. REQUIRES: nobody writes or applies yet.
    Result measure(FlowControl& control);

    u64 bytes() const;
    u64 items() const;
    double seconds() const;

private:
    MirrorJobs& m_jobs;
    const std::function<u64()> m_journaled;
    u64 m_startBytes = 0;
    u64 m_startJournaled = 0;
    u64 m_startApplied = 0;
};
