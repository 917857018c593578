#include "common/infra/LogItem.h"

#include <gtest/gtest.h>

#include "common/infra/Assert.h"
#include "tests/support/LogCapture.h"

namespace {

TEST(LogItemTest, ARecordEndsAtTheLineEndWhichIsNotPartOfIt)
{
    LogCapture log;
    LogItem(LogModuleXel, InfoLevel, "origin", 3) << "regions=" << 5 << std::endl;
    const LogRecord record = log.only();
    EXPECT_EQ(record.m_module, LogModuleXel);
    EXPECT_EQ(record.m_level, InfoLevel);
    EXPECT_EQ(record.m_origin, "origin");
    EXPECT_EQ(record.m_option, 3);
    EXPECT_EQ(record.m_text, "regions=5");
}

TEST(LogItemTest, LineEndsWithinTheTextStay)
{
    LogCapture log;
    LogItem(LogModuleXel, InfoLevel, "origin", 3) << "a\nb\n" << std::endl;
    EXPECT_EQ(log.only().m_text, "a\nb\n");
}

TEST(LogItemTest, OneItemMayWriteSeveralRecordsAndLeaveARest)
{
    LogCapture log;
    LogItem(LogModuleXel, InfoLevel, "origin", 0) << "one" << std::endl
                                                  << std::endl
                                                  << "two" << std::flush << "!";
    EXPECT_EQ(log.texts(), (std::vector<std::string>{"one", "", "two!"}));
}

TEST(LogItemTest, NothingWrittenIsNoRecord)
{
    LogCapture log;
    {
        LogItem item(LogModuleXel, InfoLevel, "origin", 0);
    }
    EXPECT_TRUE(log.records().empty());
}

TEST(LogItemTest, ManipulatorsWorkAsOnAnyStream)
{
    LogCapture log;
    LogItem(LogModuleXel, InfoLevel, "origin", 0) << std::hex << 255 << std::endl;
    EXPECT_EQ(log.only().m_text, "ff");
}

TEST(LogItemTest, TheSinkBeforeComesBack)
{
    int first = 0;
    const LogItem::Sink before = LogItem::setSink(
        [&](LogModule, LogLevel, const std::string&, int, const std::string&) { ++first; });
    const LogItem::Sink mine = LogItem::setSink({});
    ASSERT_TRUE(mine);
    mine(LogModuleXel, InfoLevel, "", 0, "");
    EXPECT_EQ(first, 1);
    LogItem::setSink(before);
}

TEST(AssertTest, ASoftCheckWritesItsTextAndGoesOn)
{
    LogCapture log;
    const int found = 2;
    const int line = __LINE__ + 1;
    SOFT_CHECK(found <= 1, << "found=" << found);
    const LogRecord record = log.only();
    EXPECT_EQ(record.m_module, LogModuleXel);
    EXPECT_EQ(record.m_level, AssertLevel);
    EXPECT_EQ(record.m_option, 3);
    EXPECT_EQ(record.m_text,
              " " __FILE__ " " + std::to_string(line) + ": found <= 1 failed. found=2");
}

TEST(AssertTest, AConditionThatHoldsWritesNothing)
{
    LogCapture log;
    SOFT_CHECK(1 + 1 == 2);
    HARD_CHECK(1 + 1 == 2);
    EXPECT_TRUE(log.records().empty());
}

TEST(AssertDeathTest, AHardCheckSaysWhyAndStopsTheProcess)
{
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    const int blocks = 0;
    EXPECT_DEATH(HARD_CHECK(blocks > 0), "error common: Assertion \\(blocks > 0\\) failed .*");
}

} // namespace
