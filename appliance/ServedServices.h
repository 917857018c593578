// What runs beside the requests of a served mirror: its control socket, checkpoints as they become
// due, background apply and trim, and metrics. Of a mirror that is served read-only only metrics.
//
// Thread safety: the owner's thread.
#pragma once

#include <memory>

#include "appliance/ApplyLag.h"
#include "appliance/BackgroundApply.h"
#include "appliance/CheckpointTimer.h"
#include "appliance/ControlServer.h"
#include "appliance/MetricsFile.h"
#include "appliance/MetricsHttp.h"
#include "appliance/ServedMetrics.h"

class ServedServices
{
public:
    // served: open, and outlives this.
    explicit ServedServices(ServedMirror& served) : m_served(served) {}
    ~ServedServices() { stop(); }
    ServedServices(const ServedServices&) = delete;
    ServedServices& operator=(const ServedServices&) = delete;

    // All that the mirror's options ask for. Interrupted when control says so. After a failure
    // nothing runs.
    Result start(FlowControl& control);

    // Commands are cancelled, and what is under way stops at its next safe point.
    void stop();

    // REQUIRES: started.
    const ServedMetrics& metrics() const { return *m_metrics; }

private:
    Result startWriters(FlowControl& control);
    Result startMetrics();
    u64 requests() const;

    ServedMirror& m_served;
    std::unique_ptr<MirrorJobs> m_jobs; // null of a mirror that is served read-only, as the next
    std::unique_ptr<ApplyLag> m_lag;
    std::unique_ptr<CheckpointTimer> m_checkpoints;
    std::unique_ptr<BackgroundApply> m_apply;
    std::unique_ptr<ControlServer> m_control;
    std::shared_ptr<ServedMetrics> m_metrics;
    std::unique_ptr<MetricsFile> m_metricsFile;
    MetricsHttp m_metricsHttp;
};
