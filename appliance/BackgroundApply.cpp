#include "appliance/BackgroundApply.h"

#include <algorithm>

#include "appliance/Caught.h"
#include "appliance/Retention.h"
#include "common/infra/LogItem.h"
#include "host/infra/Clock.h"

void BackgroundApply::start()
{
    m_thread = std::thread([this] { run(); });
}

void BackgroundApply::stop()
{
    m_stop.set();
    if (m_thread.joinable())
        m_thread.join();
}

void BackgroundApply::run()
{
    while (!m_stop.waitMs(m_options.m_everyMs)) {
        const Result result = caught([this] { return work(); });
        // In the way of others, or they in ours: the next time is soon.
        const bool quiet = result.ok() || result.code() == ResultCode::Interrupted ||
                           result.code() == ResultCode::InUse;
        const Result ignored = caught([&] {
            if (!quiet && result.message() != m_told)
                LogItem(LogModuleCommon, WarnLevel, __PRETTY_FUNCTION__, 3)
                    << "background apply and trim fail, and are tried again: " << result.message()
                    << std::endl;
            m_told = quiet ? std::string() : result.message();
            return Result();
        });
    }
}

Result BackgroundApply::work()
{
    u64 wanted = 0;
    if (Result result = findPoint(&wanted); !result.ok())
        return result;
    Mirror& mirror = m_jobs.mirror();
    while (mirror.applyState().m_items < wanted) {
        const u64 first = mirror.applyState().firstItems();
        const u64 items = std::max(
            first, std::min(wanted, mirror.applyState().m_items + m_options.m_itemsAtATime));
        if (Result result = applyTo(items); !result.ok())
            return result;
        // What is not needed any more goes as soon as it may, for who runs out of space meanwhile.
        if (Result result = trim(); !result.ok() && result.code() != ResultCode::InUse)
            return result;
    }
    return trim();
}

// Where the target is to be: where retention wants it, but before nobody's point.
Result BackgroundApply::findPoint(u64* items)
{
    Mirror& mirror = m_jobs.mirror();
    // One that was cut off comes first: its points are gone already.
    *items = mirror.applyState().firstItems();
    RetentionPoint wanted;
    if (Result result = findRetentionPoint(mirror, Clock::instance()->wallTimeUs(), &wanted);
        !result.ok())
        return result;
    if (!wanted.m_any)
        return Result();
    if (m_options.m_makeWay)
        m_options.m_makeWay(wanted.m_point.m_items);
    std::vector<Hold> holds;
    std::vector<UseInfo> uses;
    if (Result result = mirror.pins(&holds, &uses); !result.ok())
        return result;
    u64 lowest = wanted.m_point.m_items;
    for (const Hold& hold : holds)
        lowest = std::min(lowest, hold.m_items);
    for (const UseInfo& use : uses)
        lowest = std::min(lowest, use.m_items);
    *items = std::max(*items, lowest);
    return Result();
}

BackgroundPace::Options BackgroundApply::pace()
{
    Mirror& mirror = m_jobs.mirror();
    BackgroundPace::Options options;
    options.m_bytesPerSecond = m_options.m_bytesPerSecond;
    options.m_activity = m_options.m_activity;
    // Clients that get no space any more are worse off than those that wait a little.
    options.m_isUrgent = [&mirror] {
        return mirror.journal().room() == JournalRoom::DiskFull ||
               isNearlyFull(mirror.journal().bytesUsed(), mirror.journal().limitBytes());
    };
    options.m_isUnwanted = [this] { return m_jobs.isCommandWaiting(); };
    return options;
}

Result BackgroundApply::applyTo(u64 items)
{
    ChosenPoint point;
    point.m_items = items;
    BackgroundPace control(m_stop, pace());
    ApplyStatistics statistics;
    return m_jobs.apply(JobOrigin::Background, point, ApplyOptions(), control, &statistics);
}

Result BackgroundApply::trim()
{
    Mirror& mirror = m_jobs.mirror();
    ChosenPoint point;
    point.m_items = mirror.applyState().m_items;
    const bool unfinished = mirror.untakenPage() != ~u64{0} || m_isTrimCutOff;
    const bool nothingLeft =
        point.m_items == mirror.journal().begin().m_items || point.m_items == m_trimmedAt;
    if ((nothingLeft && !unfinished) || m_stop.isSet())
        return Result();
    BackgroundPace::Options options = pace();
    options.m_bytesPerSecond = 0; // no data is moved
    BackgroundPace control(m_stop, options);
    TrimStatistics statistics;
    Result result = m_jobs.trim(JobOrigin::Background, point, TrimOptions(), control, &statistics);
    if (result.ok())
        m_trimmedAt = point.m_items;
    m_isTrimCutOff = result.code() == ResultCode::Interrupted;
    return result;
}
