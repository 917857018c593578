// The host of one process: who owns what, in which order it starts and stops.
//
//   tweaks -> log output -> clock -> memory pool's limit -> event log -> analytics -> task engine
//
// Each may use those before it. Stopping goes the other way: first no task is left, then nobody
// reports, then the clock's thread ends, and the log is closed last of all.
//
// Owned by the Host: the engine and its scheduler, the open event log, analytics file and log file.
// Not owned, process-wide and never destroyed: the system's clock, the memory pool, the shield.
// Journals, volumes and everything else belong to whoever opens them, and are closed before stop().
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "host/infra/Clock.h"
#include "host/infra/LogOutput.h"
#include "host/infra/Outcome.h"
#include "host/tasks/TaskEngine.h"

struct HostOptions
{
    std::string m_tweaksFile;               // JSON; empty for none
    bool m_environment = true;              // take RL_TWEAK_... from the environment
    std::optional<LogOutputOptions> m_log;  // none: leave the process's log sink alone
    Clock* m_clock = nullptr;               // not owned; null for the system's
    u64 m_memoryLimitBytes = ~u64{0};       // of the process-wide pool
    std::string m_eventLogFile;             // empty for none
    std::string m_analyticsFile;            // empty for none
    u32 m_workers = 0;                      // 0 for one a processor
    std::unique_ptr<Scheduler> m_scheduler; // null for worker threads
};

// Thread safety: start() and stop() from one thread; one started Host in a process at a time.
class Host
{
public:
    Host() = default;
    ~Host(); // stops
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    // Starts everything. When a step fails its outcome is returned, and what had been started is
    // stopped again.
    Outcome start(HostOptions options);

    // Waits for all tasks, then stops everything. RC_TIMED_OUT: tasks are left at the deadline and
    // all goes on as before. RC_IO_ERROR: all is stopped, but the event log is not complete.
    // Without effect when not started.
    Outcome stop(u64 deadlineMs = Clock::NEVER);

    // REQUIRES: started.
    TaskEngine& getEngine() { return *m_engine; }

private:
    Outcome startAll(HostOptions& options);
    Outcome stopReporting();

    std::unique_ptr<TaskEngine> m_engine;
    bool m_started = false;
    bool m_logInstalled = false;
    bool m_eventLogOpen = false;
    bool m_analyticsOpen = false;
    bool m_clockNamed = false;
    Clock* m_clockBefore = nullptr;
    bool m_limitSet = false;
};
