// Ends a long operation once a flag is set.
//
// Thread safety: any thread may set the flag.
#pragma once

#include <atomic>

#include "appliance/FlowControl.h"

class FlagControl : public FlowControl
{
public:
    // stopped: outlives the control.
    explicit FlagControl(const std::atomic<bool>& stopped) : m_stopped(stopped) {}
    bool stopRequested() override { return m_stopped; }

private:
    const std::atomic<bool>& m_stopped;
};
