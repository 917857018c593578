#include "appliance/ServedMetrics.h"

#include <algorithm>
#include <prometheus/text_serializer.h>
#include <sstream>

#include "appliance/Retention.h"
#include "appliance/TrimHolder.h"
#include "common/infra/MemoryPoolImpl.h"
#include "host/infra/PoolGroup.h"

namespace {

constexpr double MICROS = 1e6;

double seconds(u64 micros)
{
    return static_cast<double>(micros) / MICROS;
}

double ratio(u64 part, u64 whole)
{
    return whole == 0 ? 0 : static_cast<double>(part) / static_cast<double>(whole);
}

} // namespace

std::string ServedMetrics::text() const
{
    MetricFamilies families(std::to_string(m_served.mirror().settings().m_id));
    families.gauge("rl_build_info", "What program this is").add("version", RL_VERSION, u64{1});
    addJournal(families);
    addTrimHolder(families);
    addIndex(families);
    addMemory(families);
    addReads(families);
    addJobs(families);
    addRequests(families);
    std::ostringstream out;
    prometheus::TextSerializer().Serialize(out, families.take());
    return out.str();
}

void ServedMetrics::addJournal(MetricFamilies& families) const
{
    Mirror& mirror = m_served.mirror();
    const u64 used = mirror.journal().bytesUsed();
    const u64 limit = mirror.journal().limitBytes();
    const RecoverableWindow window = mirror.window();
    families.gauge("rl_journal_bytes", "What the journal takes").add(used);
    families.gauge("rl_journal_limit_bytes", "Most that it may take, 0 for no limit").add(limit);
    families.gauge("rl_journal_nearly_full", "1 when the journal is near its limit")
        .add(u64{isNearlyFull(used, limit)});
    families.counter("rl_journal_items_total", "Requests journaled in the mirror's life")
        .add(window.m_items);
    families.counter("rl_journal_durable_items_total", "Of these, flushed")
        .add(mirror.journal().durableItemCount());
    families.gauge("rl_checkpoints", "Checkpoints that can be served")
        .add(u64{window.m_checkpoints.size()});
    if (window.m_checkpoints.empty())
        return;
    families.gauge("rl_checkpoint_oldest_timestamp_seconds", "Time of the oldest of them")
        .add(seconds(window.m_checkpoints.front().m_timeMicros));
    families.gauge("rl_checkpoint_newest_timestamp_seconds", "Time of the newest of them")
        .add(seconds(window.m_checkpoints.back().m_timeMicros));
}

void ServedMetrics::addTrimHolder(MetricFamilies& families) const
{
    TrimLimits limits;
    TrimHolder holder;
    // Where it cannot be told, nothing is.
    if (!findTrimHolder(m_served.mirror(), &limits, &holder).ok())
        return;
    const auto is = [&](TrimHolder::Kind one) { return u64{holder.m_kind == one}; };
    families.gauge("rl_trim_held", "1 for what keeps the journal from being trimmed any further")
        .add("state", "nothing", is(TrimHolder::Kind::Nothing))
        .add("state", "use", is(TrimHolder::Kind::Use))
        .add("state", "hold", is(TrimHolder::Kind::Hold))
        .add("state", "target", is(TrimHolder::Kind::Target));
    families.gauge("rl_holds", "Points that are held").add(u64{limits.m_holds.size()});
    families.gauge("rl_uses", "Points that somebody reads").add(u64{limits.m_uses.size()});
}

void ServedMetrics::addIndex(MetricFamilies& families) const
{
    if (LiveVolume* live = m_served.live(); live != nullptr) {
        const u64 regions = live->locator().getItemCount();
        const u64 bytes = live->memoryBytes();
        const u64 unique = live->locator().getTotalRegionBlocks() * BLOCK_BYTES;
        const u64 inserted = live->insertedBytes();
        families.gauge("rl_regions", "Regions of the live volume's index").add(regions);
        families.gauge("rl_index_bytes", "Memory of that index").add(bytes);
        families.gauge("rl_region_bytes", "Memory of that index for each region")
            .add(ratio(bytes, regions));
        families.gauge("rl_index_unique_bytes", "Of the volume, that the index covers").add(unique);
        families.counter("rl_inserted_ios_total", "Journaled items taken into the index")
            .add(live->insertedIos());
        families.counter("rl_inserted_bytes_total", "Of the volume, that these cover")
            .add(inserted);
        families.gauge("rl_overridden_ratio", "Of these bytes, those that the index shows no more")
            .add(ratio(inserted - std::min(unique, inserted), inserted));
        families.counter("rl_merges_total", "Regions merged when they were restored")
            .add(live->locator().getMerges());
    }
    families.gauge("rl_diff_maps_bytes", "Memory of the maps of diffs, and of making them")
        .add(m_served.diffs().memoryBytes());
    const ViewShelfReport views = m_served.views().report();
    families.gauge("rl_views", "Views that are kept").add(views.m_views);
    families.gauge("rl_views_open", "Of these, in use").add(views.m_open);
    families.gauge("rl_views_bytes", "Memory of the views' indexes").add(views.m_bytes);
    families.gauge("rl_views_budget_bytes", "Most that they may take").add(views.m_budgetBytes);
    families.counter("rl_views_built_total", "Views built").add(views.m_built);
    families.counter("rl_views_continued_total", "Of these, from an earlier view")
        .add(views.m_continued);
    families.counter("rl_views_dropped_total", "Views that made room for others")
        .add(views.m_dropped);
}

void ServedMetrics::addMemory(MetricFamilies& families) const
{
    MemoryPoolImpl* pool = Singleton<MemoryPoolImpl, MemoryPoolImpl>::instance();
    const MemoryStats stats = pool->getMemoryStats();
    const u64 handedOut = stats.usedBytesGross + stats.freeBytes;
    families.gauge("rl_pool_bytes", "Memory of the process-wide pool")
        .add("state", "used", stats.usedBytesGross)
        .add("state", "free", stats.freeBytes)
        .add("state", "overhead", stats.totalBytes - std::min(stats.totalBytes, handedOut));
    u64 waiting = 0;
    u64 waits = 0;
    for (const char* group : {"View_RLs", "View_reads", "Apply_reads", "Backup_reads"}) {
        waiting += pool->getMmi(group)->getPendingRequests();
        waits += pool->getMmi(group)->getWaits();
    }
    families.gauge("rl_reservations_waiting", "Reservations that wait for memory now").add(waiting);
    families.counter("rl_reservation_waits_total", "Reservations that waited for memory")
        .add(waits);
    if (m_served.live() != nullptr)
        families.counter("rl_reservations_refused_total", "Writes without memory for the index")
            .add(m_served.live()->refused());
    families.counter("rl_lock_waits_total", "Requests that queued for an index's locks")
        .add(LocatorGate::waits());
}

void ServedMetrics::addReads(MetricFamilies& families) const
{
    const ReadSources* all[] = {&m_served.views().sources(),
                                m_served.live() != nullptr ? &m_served.live()->sources() : nullptr};
    const auto sum = [&](std::atomic<u64> ReadSources::*field) {
        u64 total = 0;
        for (const ReadSources* one : all)
            total += one != nullptr ? (one->*field).load() : 0;
        return total;
    };
    families.counter("rl_read_bytes_total", "Bytes served, by where they came from")
        .add("source", "journal", sum(&ReadSources::m_plainBytes))
        .add("source", "compressed", sum(&ReadSources::m_compressedBytes))
        .add("source", "zeroes", sum(&ReadSources::m_zeroBytes))
        .add("source", "target", sum(&ReadSources::m_targetBytes));
    families.counter("rl_bad_blocks_total", "Reads refused over a block that is damaged")
        .add(sum(&ReadSources::m_badBlocks));
}

void ServedMetrics::addJobs(MetricFamilies& families) const
{
    if (m_jobs == nullptr || m_lag == nullptr)
        return;
    families.gauge("rl_apply_lag_bytes", "Journaled and not applied").add(m_lag->bytes());
    families.gauge("rl_apply_lag_items", "Requests journaled and not applied").add(m_lag->items());
    families.gauge("rl_apply_lag_seconds", "Age of the oldest checkpoint that is not applied")
        .add(m_lag->seconds());
    families.gauge("rl_apply_progress_ratio", "How far the apply that is under way is")
        .add(m_jobs->applyProgress());
    const std::pair<const char*, const JobRecord*> jobs[] = {
        {"apply", &m_jobs->applies()},
        {"trim", &m_jobs->trims()},
        {"checkpoint", &m_jobs->checkpoints()}};
    families.counter("rl_job_done_total", "Jobs done since the start");
    for (const auto& [name, job] : jobs)
        families.add("op", name, job->m_done.load());
    families.counter("rl_job_failed_total", "Jobs that failed since the start");
    for (const auto& [name, job] : jobs)
        families.add("op", name, job->m_failed.load());
    families.gauge("rl_job_last_success_timestamp_seconds", "When one was done last, 0 for never");
    for (const auto& [name, job] : jobs)
        families.add("op", name, seconds(job->m_lastSuccessUs));
}

void ServedMetrics::addRequests(MetricFamilies& families) const
{
    const ServedCounters& counters = m_served.counters();
    const auto each = [&](std::atomic<u64> ServedCounters::Op::*field) {
        for (u32 i = 0; i < SERVED_OPS; ++i)
            families.add("op", servedOpName(static_cast<ServedOp>(i)),
                         (counters.m_ops[i].*field).load());
    };
    families.counter("rl_nbd_requests_total", "Requests of clients that were answered");
    each(&ServedCounters::Op::m_requests);
    families.counter("rl_nbd_bytes_total", "Bytes of those that were answered well");
    each(&ServedCounters::Op::m_bytes);
    families.counter("rl_nbd_errors_total", "Requests that failed");
    each(&ServedCounters::Op::m_errors);
    families.counter("rl_nbd_no_space_total", "Of these, for want of disk or memory");
    each(&ServedCounters::Op::m_noSpace);
    families.gauge("rl_nbd_connections", "Exports that are open")
        .add(counters.m_connections.load());
    families.counter("rl_nbd_opened_total", "Exports opened").add(counters.m_opened.load());
    families.counter("rl_nbd_refused_total", "Exports that could not be opened")
        .add(counters.m_refused.load());
}
