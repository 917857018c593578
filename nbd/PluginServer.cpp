#include "nbd/PluginServer.h"

#include "host/volume/AsyncFileIo.h"

Result PluginServer::prepare(const PluginConfig& config)
{
    m_stopSeconds = config.m_stopSeconds;
    HostOptions options;
    options.m_memoryLimitBytes = config.m_memoryLimitBytes;
    const Outcome started = m_host.start(std::move(options));
    if (!started.ok())
        return Result::fromStatus(started.m_rc, started.m_message);
    m_served = std::make_unique<ServedMirror>(m_host.getEngine(), config.m_served);
    return Result();
}

Result PluginServer::stop()
{
    const u64 deadlineMs = Clock::instance()->nowMs() + m_stopSeconds * 1000;
    Result result;
    if (m_served != nullptr)
        result = m_served->stop();
    m_served.reset();
    const Outcome stopped = m_host.stop(deadlineMs);
    if (result.ok() && !stopped.ok())
        result = Result::fromStatus(stopped.m_rc, "cannot end all work: " + stopped.m_message);
    AsyncFileIo::instance().stopThreads();
    return result;
}
