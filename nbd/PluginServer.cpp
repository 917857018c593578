#include "nbd/PluginServer.h"

#include "host/infra/TweaksLoader.h"
#include "host/volume/AsyncFileIo.h"
#include "nbd/PluginFiles.h"

Result PluginServer::prepare(const PluginConfig& config)
{
    m_stopSeconds = config.m_stopSeconds;
    HostOptions options;
    options.m_memoryLimitBytes = config.m_memoryLimitBytes;
    options.m_log = config.m_log;
    options.m_eventLogFile = config.m_eventsFile;
    options.m_tweaksFile = config.m_tweaksFile;
    Outcome done = m_host.start(std::move(options));
    for (size_t i = 0; done.ok() && i < config.m_tweaks.size(); ++i)
        done = setTweak(config.m_tweaks[i]);
    if (!done.ok())
        return Result::fromStatus(done.m_rc, done.m_message);
    ServedOptions served = config.m_served;
    served.m_files = &clientFiles();
    m_served = std::make_unique<ServedMirror>(m_host.getEngine(), std::move(served));
    return Result();
}

Result PluginServer::stop()
{
    const u64 deadlineMs = Clock::instance()->nowMs() + m_stopSeconds * 1000;
    Result result;
    if (m_served != nullptr)
        result = m_served->stop();
    const Outcome stopped = m_host.stop(deadlineMs);
    if (result.ok() && !stopped.ok())
        result = Result::fromStatus(stopped.m_rc, "cannot end all work: " + stopped.m_message);
    AsyncFileIo::instance().stopThreads();
    return result;
}
