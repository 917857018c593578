#include "host/Host.h"

#include <fstream>
#include <gtest/gtest.h>

#include "common/infra/BinaryLogger.h"
#include "common/infra/MemoryPoolImpl.h"
#include "host/infra/BinaryEventLog.h"
#include "host/infra/ManualClock.h"
#include "host/tasks/BlockingTask.h"
#include "host/tasks/SeededScheduler.h"
#include "tests/support/OwnPath.h"

namespace {

TEST(HostTest, StartsRunsAndStopsAndStartsAgain)
{
    Host host;
    for (int round = 0; round < 2; ++round) {
        HostOptions options;
        options.m_workers = 2;
        ASSERT_TRUE(host.start(std::move(options)).ok());
        EXPECT_EQ(host.start(HostOptions()).m_rc, RC_IN_USE);
        EXPECT_EQ(runAndWait(host.getEngine(), [](AsyncTask*) { return RC_NOT_FOUND; }),
                  RC_NOT_FOUND);
        EXPECT_TRUE(host.stop().ok());
        EXPECT_TRUE(host.stop().ok());
    }
}

TEST(HostTest, TheClockLimitAndFilesAreInForceWhileItRunsOnly)
{
    ManualClock clock;
    Clock* const before = Clock::instance();
    const std::string log = ownPath("host_test.log");
    const std::string events = ownPath("host_test.bin");
    std::remove(log.c_str());
    HostOptions options;
    options.m_clock = &clock;
    options.m_log = LogOutputOptions{LogFormat::Text, log, InfoLevel};
    options.m_eventLogFile = events;
    options.m_memoryLimitBytes = 1024 * 1024;
    options.m_scheduler = std::make_unique<SeededScheduler>(1);
    Host host;
    ASSERT_TRUE(host.start(std::move(options)).ok());
    EXPECT_EQ(Clock::instance(), &clock);
    LogItem(LogModuleCommon, InfoLevel, "f", 3) << "hello" << std::endl;
    Singleton<BinaryLogger, BinaryLogger>::instance()->log(1, 2, 3, 4, 5);
    MemoryPoolImpl* pool = Singleton<MemoryPoolImpl, MemoryPoolImpl>::instance();
    ScatteredBuf buf;
    EXPECT_EQ(pool->fillBufNoWait(&buf, 1024 * 1024 + 1, pool->getMmi("x")), RC_NO_MEMORY);
    ASSERT_TRUE(host.stop().ok());

    EXPECT_EQ(Clock::instance(), before);
    EXPECT_EQ(pool->fillBufNoWait(&buf, 1024 * 1024 + 1, pool->getMmi("x")), RC_SUCCESS);
    buf.deleteContent();
    std::string line;
    std::ifstream file(log);
    std::getline(file, line);
    EXPECT_EQ(line, "2001-09-09T01:46:40.000Z info common: hello");
    BinaryEventFile decoded;
    ASSERT_TRUE(readBinaryEvents(events, &decoded).ok());
    EXPECT_EQ(decoded.m_events.size(), 1u);
    std::remove(log.c_str());
    std::remove(events.c_str());
}

TEST(HostTest, AStepThatFailsUndoesTheStepsBeforeIt)
{
    ManualClock clock;
    Clock* const before = Clock::instance();
    HostOptions options;
    options.m_clock = &clock;
    options.m_eventLogFile = "/proc/no/such/file";
    Host host;
    const Outcome outcome = host.start(std::move(options));
    EXPECT_EQ(outcome.m_rc, RC_IO_ERROR);
    EXPECT_NE(outcome.m_message.find("/proc/no/such/file"), std::string::npos);
    EXPECT_EQ(Clock::instance(), before);
    EXPECT_TRUE(host.start(HostOptions()).ok());
}

TEST(HostTest, ASecondHostFindsTheEngineTaken)
{
    Host host;
    ASSERT_TRUE(host.start(HostOptions()).ok());
    Host second;
    EXPECT_EQ(second.start(HostOptions()).m_rc, RC_IN_USE);
}

} // namespace
