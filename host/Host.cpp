#include "host/Host.h"

#include <utility>

#include "common/infra/MemoryPoolImpl.h"
#include "host/analytics/JsonLinesSender.h"
#include "host/infra/BinaryEventLog.h"
#include "host/infra/SystemClock.h"
#include "host/infra/TweaksLoader.h"
#include "host/tasks/ThreadScheduler.h"

namespace {

constexpr u32 POOL_CHUNK_BYTES = 256 * 1024;
constexpr u64 POOL_KEEP_BYTES = 32 * 1024 * 1024;

MemoryPoolImpl* processPool()
{
    return Singleton<MemoryPoolImpl, MemoryPoolImpl>::instance();
}

} // namespace

Host::~Host()
{
    stop();
}

Outcome Host::start(HostOptions options)
{
    if (m_started)
        return {RC_IN_USE, "the host is running already"};
    m_started = true;
    Outcome outcome = startAll(options);
    if (!outcome.ok())
        stop();
    return outcome;
}

Outcome Host::startAll(HostOptions& options)
{
    Outcome outcome;
    if (!options.m_tweaksFile.empty())
        outcome = loadTweaksFile(options.m_tweaksFile);
    if (outcome.ok() && options.m_environment)
        outcome = loadTweaksFromEnvironment();
    if (outcome.ok() && options.m_log) {
        outcome = installLogOutput(*options.m_log);
        m_logInstalled = outcome.ok();
    }
    if (!outcome.ok())
        return outcome;

    if (options.m_clock != nullptr) {
        m_clockBefore = Clock::setInstance(options.m_clock);
        m_clockNamed = true;
    }
    if (options.m_memoryLimitBytes != ~u64{0}) {
        if (processPool()->getMemoryStats().usedBytesGross != 0)
            return {RC_IN_USE, "the memory limit cannot be set while memory is in use"};
        processPool()->init(POOL_CHUNK_BYTES, POOL_KEEP_BYTES, options.m_memoryLimitBytes);
        m_limitSet = true;
    }
    if (!options.m_eventLogFile.empty()) {
        outcome = BinaryEventLog::open(options.m_eventLogFile);
        m_eventLogOpen = outcome.ok();
    }
    if (outcome.ok() && !options.m_analyticsFile.empty()) {
        outcome = JsonLinesSender::open(options.m_analyticsFile);
        m_analyticsOpen = outcome.ok();
    }
    if (!outcome.ok())
        return outcome;

    std::unique_ptr<Scheduler> scheduler = std::move(options.m_scheduler);
    if (scheduler == nullptr)
        scheduler = std::make_unique<ThreadScheduler>(options.m_workers);
    m_engine = std::make_unique<TaskEngine>(std::move(scheduler));
    if (m_engine->open() != RC_SUCCESS) {
        m_engine.reset();
        return {RC_IN_USE, "another task engine is open in this process"};
    }
    return {};
}

Outcome Host::stop(u64 deadlineMs)
{
    if (!m_started)
        return {};
    if (m_engine != nullptr) {
        const RcStatus rc = m_engine->stop(deadlineMs);
        if (rc != RC_SUCCESS)
            return {rc, "tasks are still running: " + std::to_string(m_engine->liveTasks())};
        m_engine.reset();
    }
    Outcome outcome = stopReporting();
    // The timers' thread holds nothing of this host by now; stopped, it is out of the way of a
    // process that forks or ends.
    SystemClock::systemInstance()->shutdown();
    if (m_clockNamed)
        Clock::setInstance(m_clockBefore);
    if (m_limitSet && processPool()->getMemoryStats().usedBytesGross == 0)
        processPool()->init(POOL_CHUNK_BYTES, POOL_KEEP_BYTES, ~u64{0});
    m_clockNamed = false;
    m_limitSet = false;
    if (m_logInstalled)
        removeLogOutput();
    m_logInstalled = false;
    m_started = false;
    return outcome;
}

Outcome Host::stopReporting()
{
    Outcome outcome;
    if (m_analyticsOpen)
        JsonLinesSender::close();
    if (m_eventLogOpen)
        outcome = BinaryEventLog::close();
    m_analyticsOpen = false;
    m_eventLogOpen = false;
    return outcome;
}
