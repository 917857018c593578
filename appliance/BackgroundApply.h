// Keeps a served mirror to its settings: brings the target forward to where retention wants it, and
// gives the journal that it holds by then back.
//
//   again and again: retention's point, at most the lowest pin -> apply, some items at a time
//                    -> trim to where the target is
//
// Applied in parts, the index takes little memory however much there is to do, and a part that is
// done stays done. Commands go first: MirrorJobs pre-empts this.
//
// Thread safety: start(), stop() from the owner's thread; the functions of the options are called
// from another one.
#pragma once

#include <thread>

#include "appliance/BackgroundPace.h"
#include "appliance/MirrorJobs.h"

class BackgroundApply
{
public:
    struct Options
    {
        u64 m_everyMs = 5000;            // between two looks at what there is to do
        u64 m_bytesPerSecond = 0;        // of data read or written; 0: no limit
        u64 m_itemsAtATime = 1 << 18;    // of the journal
        std::function<u64()> m_activity; // as BackgroundPace's
        // Asks whoever keeps points before this one in use, without need, to let go of them.
        std::function<void(u64 items)> m_makeWay;
    };

    // jobs: outlives it.
    BackgroundApply(MirrorJobs& jobs, Options options) : m_jobs(jobs), m_options(std::move(options))
    {}
    ~BackgroundApply() { stop(); }
    BackgroundApply(const BackgroundApply&) = delete;
    BackgroundApply& operator=(const BackgroundApply&) = delete;

    void start();
    // What is under way stops at its next safe point, and goes on at the next start.
    void stop();

private:
    void run();
    Result work();
    Result findPoint(u64* items);
    Result applyTo(u64 items);
    Result trim();
    BackgroundPace::Options pace();

    MirrorJobs& m_jobs;
    const Options m_options;
    u64 m_trimmedAt = ~u64{0}; // where the target was when there was nothing more to trim
    bool m_isTrimCutOff = false;
    std::string m_told; // the last failure, which is told once
    StopSignal m_stop;
    std::thread m_thread;
};
