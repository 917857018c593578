// Sets checkpoints while a mirror is served: after so much time, after so many bytes written,
// whichever comes first. Nothing is set where nothing was journaled since the last one, by whomever
// that was set.
//
// Thread safety: start() and stop() from the owner's thread; `written` is called from another one.
#pragma once

#include <functional>
#include <string>
#include <thread>

#include "appliance/MirrorJobs.h"
#include "appliance/StopSignal.h"

class CheckpointTimer
{
public:
    struct Options
    {
        u64 m_everyMs = 0;    // 0: not by time
        u64 m_everyBytes = 0; // 0: not by amount

        // Takes "30s" or "5m" (a length of time, its unit a small letter) or "256M" (a size, with
        // its unit). WrongUsage for all else, and for a second one of the same kind.
        Result add(const std::string& text);
    };

    // written: bytes that clients have written or zeroed so far. jobs: outlives the timer.
    CheckpointTimer(MirrorJobs& jobs, Options options, std::function<u64()> written)
        : m_jobs(jobs), m_options(options), m_written(std::move(written))
    {}
    ~CheckpointTimer() { stop(); }
    CheckpointTimer(const CheckpointTimer&) = delete;
    CheckpointTimer& operator=(const CheckpointTimer&) = delete;

    // Does nothing with neither of the options.
    void start();
    // A checkpoint that is being set is waited for.
    void stop();

private:
    void run();
    bool isDue(u64 nowMs) const;
    void set();

    MirrorJobs& m_jobs;
    const Options m_options;
    const std::function<u64()> m_written;
    u64 m_lastMs = 0;      // when the last one was set, or found to be there
    u64 m_lastBytes = 0;   // written by then
    bool m_failed = false; // the last one, which is told once
    StopSignal m_stop;
    std::thread m_thread;
};
