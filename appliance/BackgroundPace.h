// The pace of background work: not faster than a rate, and giving way to clients.
//
// Each step tells how many blocks it has done so far. While clients are active the work rests as
// long as its step took, so that it has half of the time at most; in a hurry it only keeps to the
// rate.
//
// Thread safety: one thread; the signal and the counters that it looks at are other threads'.
#pragma once

#include <functional>

#include "appliance/FlowControl.h"
#include "appliance/StopSignal.h"

class BackgroundPace : public FlowControl
{
public:
    struct Options
    {
        u64 m_bytesPerSecond = 0; // 0: no limit
        // A number that changes while clients are active; empty: there are none.
        std::function<u64()> m_activity;
        std::function<bool()> m_isUrgent;   // empty: never
        std::function<bool()> m_isUnwanted; // whether somebody waits for the work to stop
    };

    BackgroundPace(StopSignal& stop, Options options);

    void progress(u64 doneBlocks, u64 totalBlocks) override;
    bool stopRequested() override { return m_stop.isSet(); }

private:
    void rest(u64 milliseconds);

    StopSignal& m_stop;
    const Options m_options;
    u64 m_startedMs;
    u64 m_stepStartedMs;
    u64 m_stepActivity = 0;
};
