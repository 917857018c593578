// A manual clock that is the process's for as long as it lives.
#pragma once

#include "host/infra/ManualClock.h"

class ScopedManualClock : public ManualClock
{
public:
    ScopedManualClock() : m_before(Clock::setInstance(this)) {}
    ~ScopedManualClock() override { Clock::setInstance(m_before); }

private:
    Clock* m_before;
};
