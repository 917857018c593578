#include "appliance/BackgroundPace.h"

#include <algorithm>

#include "host/infra/Clock.h"

namespace {

constexpr u64 MS = 1000; // microseconds
constexpr u64 LOOK_EVERY_MS = 50;
constexpr u64 LONGEST_YIELD_US = 1000 * MS;
// So much of a rest that took longer than it should is made up for.
constexpr u64 CREDIT_US = 100 * MS;
constexpr double MICROS = 1e6;

} // namespace

BackgroundPace::BackgroundPace(StopSignal& stop, Options options)
    : m_stop(stop), m_options(std::move(options)), m_stepStartedUs(Clock::instance()->nowUs()),
      m_paidUs(m_stepStartedUs)
{
    if (m_options.m_activity)
        m_stepActivity = m_options.m_activity();
}

// What is less than a millisecond is left to a later rest.
void BackgroundPace::restUntil(u64 untilUs)
{
    for (;;) {
        const u64 nowUs = Clock::instance()->nowUs();
        if (nowUs + MS > untilUs || isUrgent())
            return;
        if (m_options.m_isUnwanted && m_options.m_isUnwanted())
            return;
        const u64 milliseconds = std::min((untilUs - nowUs) / MS, LOOK_EVERY_MS);
        if (m_options.m_wait ? m_options.m_wait(milliseconds) : m_stop.waitMs(milliseconds))
            return;
    }
}

void BackgroundPace::moved(u64 bytes)
{
    if (m_options.m_bytesPerSecond == 0)
        return;
    const double seconds =
        static_cast<double>(bytes) / static_cast<double>(m_options.m_bytesPerSecond);
    m_paidUs = std::max(m_paidUs + CREDIT_US, m_stepStartedUs) - CREDIT_US +
               static_cast<u64>(seconds * MICROS);
}

void BackgroundPace::progress(u64, u64)
{
    const u64 nowUs = Clock::instance()->nowUs();
    u64 untilUs = m_paidUs;
    if (m_options.m_activity && m_options.m_activity() != m_stepActivity)
        untilUs = std::max(untilUs, nowUs + std::min(nowUs - m_stepStartedUs, LONGEST_YIELD_US));
    restUntil(untilUs);
    m_stepStartedUs = Clock::instance()->nowUs();
    // What is moved in a hurry is paid by nobody.
    if (isUrgent())
        m_paidUs = m_stepStartedUs;
    if (m_options.m_activity)
        m_stepActivity = m_options.m_activity();
}
