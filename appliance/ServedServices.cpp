#include "appliance/ServedServices.h"

#include "appliance/MirrorCommands.h"

// What clients do, as a number that changes whenever one does something.
u64 ServedServices::requests() const
{
    u64 total = 0;
    for (const ServedCounters::Op& op : m_served.counters().m_ops)
        total += op.m_requests.load(std::memory_order_relaxed);
    return total;
}

Result ServedServices::startWriters(FlowControl& starting)
{
    const ServedOptions& options = m_served.options();
    m_jobs = std::make_unique<MirrorJobs>(m_served.mirror(), m_served.engine(),
                                          &m_served.live()->memoryReserve());
    m_lag = std::make_unique<ApplyLag>(*m_jobs,
                                       [live = m_served.live()] { return live->insertedBytes(); });
    if (Result result = m_lag->measure(starting); !result.ok())
        return result;

    m_checkpoints = std::make_unique<CheckpointTimer>(
        *m_jobs, options.m_checkpoints, [live = m_served.live()] { return live->insertedBytes(); });
    m_checkpoints->start();

    if (options.m_background) {
        BackgroundApply::Options apply;
        apply.m_everyMs = options.m_backgroundEveryMs;
        apply.m_bytesPerSecond = options.m_applyBytesPerSecond;
        apply.m_activity = [this] { return requests(); };
        apply.m_makeWay = [this](u64 items) { m_served.views().dropUnused(items); };
        m_apply = std::make_unique<BackgroundApply>(*m_jobs, std::move(apply));
        m_apply->start();
    }

    if (!options.m_control)
        return Result();
    m_control = std::make_unique<ControlServer>([this](const std::string& command,
                                                       const JsonValue& arguments,
                                                       CommandControl& control, JsonValue* result) {
        return MirrorCommands(*m_jobs, &m_served.views()).run(command, arguments, control, result);
    });
    return m_control->start(options.m_folder);
}

Result ServedServices::startMetrics()
{
    const ServedOptions& options = m_served.options();
    m_metrics = std::make_shared<ServedMetrics>(m_served, m_jobs.get(), m_lag.get());
    if (!options.m_metricsFile.empty()) {
        m_metricsFile =
            std::make_unique<MetricsFile>(options.m_metricsFile, options.m_metricsEveryMs,
                                          [metrics = m_metrics] { return metrics->text(); });
        if (Result result = m_metricsFile->start(); !result.ok())
            return result;
    }
    return options.m_metricsHttp.empty()
               ? Result()
               : m_metricsHttp.start(options.m_metricsHttp,
                                     [metrics = m_metrics] { return metrics->text(); });
}

Result ServedServices::start(FlowControl& starting)
{
    Result result;
    if (m_served.live() != nullptr)
        result = startWriters(starting);
    if (result.ok())
        result = startMetrics();
    if (!result.ok())
        stop();
    return result;
}

void ServedServices::stop()
{
    // Whoever gives work first, then the work, then whoever watches.
    m_control.reset();
    m_checkpoints.reset();
    m_apply.reset();
    m_metricsFile.reset();
    m_metricsHttp.stop();
    m_metrics.reset();
    m_lag.reset();
    m_jobs.reset();
}
