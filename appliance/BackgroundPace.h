// The pace of background work: not faster than a rate, and giving way to clients.
//
//   step: moved(bytes) -> progress() -> rest until what was moved is paid for, and while clients
//   are active at least as long as the step took, so that the work has half of the time at most
//
// Only what is moved is paid for, not what is merely looked at. Time in which nothing was moved is
// not made up for later, but for a tenth of a second; so a rate is a limit at any moment and not on
// the average alone. In a hurry there is neither a limit nor a rest.
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
        // Waits so many milliseconds by the process's clock, or until the work is to stop: then
        // true. Empty: waits on the signal.
        std::function<bool(u64 milliseconds)> m_wait;
    };

    // stop: outlives it.
    BackgroundPace(StopSignal& stop, Options options);

    void moved(u64 bytes) override;
    void progress(u64 doneBlocks, u64 totalBlocks) override;
    bool stopRequested() override { return m_stop.isSet(); }

private:
    bool isUrgent() const { return m_options.m_isUrgent && m_options.m_isUrgent(); }
    void restUntil(u64 untilUs);

    StopSignal& m_stop;
    const Options m_options;
    u64 m_stepStartedUs;
    u64 m_paidUs; // when all that was moved is paid for
    u64 m_stepActivity = 0;
};
