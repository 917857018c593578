#include "common/infra/MemWatchedContainer.h"

#include <gtest/gtest.h>
#include <vector>

#include "host/infra/MemWatchedReport.h"
#include "tests/support/LogCapture.h"

TEST(MemWatchedContainerTest, ContainersAreSummedUpByNameWhileTheyLive)
{
    {
        StlMemShiledContainer<std::vector<int>> one("WatchedA", 4, 24);
        StlMemShiledContainer<std::vector<int>> two("WatchedA", 4, 24);
        StlMemShiledContainer<std::vector<int>> other("WatchedB", 0, 0);
        one.assign(10, 1);
        two.assign(5, 1);
        const std::vector<MemWatchedGroup> report = memWatchedReport();
        ASSERT_EQ(report.size(), 2u);
        EXPECT_EQ(report[0].m_name, "WatchedA");
        EXPECT_EQ(report[0].m_containers, 2u);
        EXPECT_EQ(report[0].m_items, 15u);
        EXPECT_EQ(report[0].m_sizeBytes, 15u * 4 + 2 * 24);
        EXPECT_EQ(report[1].m_name, "WatchedB");
        LogCapture log;
        logMemWatchedReport();
        EXPECT_EQ(log.texts()[0], "watched WatchedA: containers=2 items=15 bytes=108");
    }
    EXPECT_TRUE(memWatchedReport().empty());
}
