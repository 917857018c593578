#include "appliance/BackgroundPace.h"

#include <algorithm>

#include "Sfs/SfsMetaDataContainer.h"
#include "host/infra/Clock.h"

namespace {

constexpr u64 LOOK_EVERY_MS = 50;
constexpr u64 LONGEST_YIELD_MS = 1000;

} // namespace

BackgroundPace::BackgroundPace(StopSignal& stop, Options options)
    : m_stop(stop), m_options(std::move(options)), m_startedMs(Clock::instance()->nowMs()),
      m_stepStartedMs(m_startedMs)
{
    if (m_options.m_activity)
        m_stepActivity = m_options.m_activity();
}

void BackgroundPace::rest(u64 milliseconds)
{
    const u64 until = Clock::instance()->nowMs() + milliseconds;
    for (u64 now = until - milliseconds; now < until; now = Clock::instance()->nowMs()) {
        if (m_options.m_isUnwanted && m_options.m_isUnwanted())
            return;
        if (m_stop.waitMs(std::min(until - now, LOOK_EVERY_MS)))
            return;
    }
}

void BackgroundPace::progress(u64 doneBlocks, u64)
{
    const u64 now = Clock::instance()->nowMs();
    u64 wait = 0;
    if (m_options.m_bytesPerSecond != 0) {
        const double seconds = static_cast<double>(doneBlocks * BLOCK_BYTES) /
                               static_cast<double>(m_options.m_bytesPerSecond);
        const u64 dueMs = m_startedMs + static_cast<u64>(seconds * 1000);
        wait = dueMs - std::min(dueMs, now);
    }
    const bool urgent = m_options.m_isUrgent && m_options.m_isUrgent();
    if (m_options.m_activity && !urgent && m_options.m_activity() != m_stepActivity)
        wait = std::max(wait, std::min(now - m_stepStartedMs, LONGEST_YIELD_MS));
    rest(wait);
    m_stepStartedMs = Clock::instance()->nowMs();
    if (m_options.m_activity)
        m_stepActivity = m_options.m_activity();
}
