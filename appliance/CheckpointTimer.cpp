#include "appliance/CheckpointTimer.h"

#include <algorithm>

#include "appliance/Caught.h"
#include "appliance/Retention.h"
#include "appliance/Sizes.h"
#include "common/infra/LogItem.h"
#include "host/infra/Clock.h"

namespace {

// How exactly an amount is met.
constexpr u64 LOOK_EVERY_MS = 50;
constexpr u64 RETRY_MS = 1000;

} // namespace

Result CheckpointTimer::Options::add(const std::string& text)
{
    u64 seconds = 0;
    u64 bytes = 0;
    const bool isTime = parseDuration(text, &seconds).ok() && seconds > 0;
    // A bare number would be bytes, where seconds may have been meant.
    const bool hasUnit = text.find_first_not_of("0123456789") != std::string::npos;
    if (!isTime && (!hasUnit || !parseSize(text, &bytes).ok() || bytes == 0))
        return Result::usage(
            "checkpoint-every takes a time, as 30s or 5m, or a size, as 256M, not '" + text + "'");
    u64& value = isTime ? m_everyMs : m_everyBytes;
    if (value != 0)
        return Result::usage(std::string("checkpoint-every was given twice by ") +
                             (isTime ? "time" : "amount"));
    value = isTime ? seconds * 1000 : bytes;
    return Result();
}

void CheckpointTimer::start()
{
    if (m_options.m_everyMs == 0 && m_options.m_everyBytes == 0)
        return;
    m_lastMs = Clock::instance()->nowMs();
    m_lastBytes = m_written();
    m_thread = std::thread([this] { run(); });
}

void CheckpointTimer::stop()
{
    m_stop.set();
    if (m_thread.joinable())
        m_thread.join();
}

bool CheckpointTimer::isDue(u64 nowMs) const
{
    return (m_options.m_everyMs != 0 && nowMs - m_lastMs >= m_options.m_everyMs) ||
           (m_options.m_everyBytes != 0 && m_written() - m_lastBytes >= m_options.m_everyBytes);
}

void CheckpointTimer::run()
{
    while (true) {
        const u64 passed = Clock::instance()->nowMs() - m_lastMs;
        u64 wait = m_options.m_everyBytes != 0
                       ? LOOK_EVERY_MS
                       : m_options.m_everyMs - std::min(passed, m_options.m_everyMs);
        if (m_failed)
            wait = RETRY_MS;
        if (m_stop.waitMs(wait))
            return;
        const Result turn = caught([this] {
            if (isDue(Clock::instance()->nowMs()))
                set();
            return Result();
        });
        m_failed = m_failed || !turn.ok();
    }
}

void CheckpointTimer::set()
{
    Mirror& mirror = m_jobs.mirror();
    const u64 bytes = m_written();
    const std::vector<JournalCheckpoint> all = mirror.journal().checkpoints();
    const u64 last = all.empty() ? mirror.journal().begin().m_items : all.back().m_itemsBefore;
    Result result;
    if (mirror.journal().itemCount() != last) {
        CheckpointInfo ignored;
        result = m_jobs.checkpoint("", &ignored);
    }
    if (result.ok()) {
        m_lastMs = Clock::instance()->nowMs();
        m_lastBytes = bytes;
    } else if (!m_failed) {
        LogItem(LogModuleCommon, WarnLevel, __PRETTY_FUNCTION__, 3)
            << "no checkpoint could be set; it is tried again: " << result.message() << std::endl;
    }
    m_failed = !result.ok();
}
