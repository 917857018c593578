#include "host/infra/LogOutput.h"

#include <fstream>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sstream>

#include "host/infra/LogFormat.h"
#include "tests/support/OwnPath.h"
#include "tests/support/ScopedManualClock.h"

namespace {

class LogOutputTest : public testing::Test
{
protected:
    ~LogOutputTest() override
    {
        removeLogOutput();
        std::remove(m_path.c_str());
    }
    std::string written() const
    {
        std::ifstream file(m_path);
        std::stringstream text;
        text << file.rdbuf();
        return text.str();
    }

    ScopedManualClock m_clock; // wall time 2001-09-09T01:46:40Z
    const std::string m_path = ownPath("log_output_test.log");
};

TEST_F(LogOutputTest, TextToAFileIsOneLineARecord)
{
    ASSERT_TRUE(installLogOutput({LogFormat::Text, m_path, InfoLevel}).ok());
    m_clock.advanceMs(7);
    LogItem(LogModuleXel, WarnLevel, "void f()", 3) << "careful" << std::endl;
    LogItem(LogModuleCommon, InfoLevel, "void f()", 3) << "well" << std::endl;
    EXPECT_EQ(written(), "2001-09-09T01:46:40.007Z warn xel: careful\n"
                         "2001-09-09T01:46:40.007Z info common: well\n");
}

TEST_F(LogOutputTest, JsonGivesOneObjectALineWithTheTextExact)
{
    ASSERT_TRUE(installLogOutput({LogFormat::Json, m_path, InfoLevel}).ok());
    const std::string text = " a \"quoted\"\nline \xff";
    LogItem(LogModuleXel, AssertLevel, "RcStatus Reader::read(AsyncTask*, AsyncFrame*)", 3)
        << text << std::endl;
    const nlohmann::json line = nlohmann::json::parse(written());
    EXPECT_EQ(line["time"], "2001-09-09T01:46:40.000Z");
    EXPECT_EQ(line["level"], "assert");
    EXPECT_EQ(line["module"], "xel");
    EXPECT_EQ(line["event"], "Reader::read");
    EXPECT_EQ(line["msg"], " a \"quoted\"\nline \xef\xbf\xbd");
    EXPECT_EQ(line.size(), 5u);
}

TEST_F(LogOutputTest, TheFilterLetsControlRecordsPassWithInformation)
{
    ASSERT_TRUE(installLogOutput({LogFormat::Text, m_path, WarnLevel}).ok());
    LogItem(LogModuleXel, InfoLevel, "f", 3) << "no" << std::endl;
    LogItem(LogModuleXel, ErrorLevel, "f", 3) << "yes" << std::endl;
    EXPECT_EQ(written(), "2001-09-09T01:46:40.000Z error xel: yes\n");
    EXPECT_TRUE(logLevelPasses(CtrLevel, InfoLevel));
    EXPECT_TRUE(logLevelPasses(LongTermInfoLevel, InfoLevel));
    EXPECT_FALSE(logLevelPasses(DebugLevel, InfoLevel));
    EXPECT_FALSE(logLevelPasses(CtrLevel, WarnLevel));
    EXPECT_TRUE(logLevelPasses(AssertLevel, ErrorLevel));
}

TEST_F(LogOutputTest, AFileThatCannotBeOpenedIsSaid)
{
    const Outcome outcome = installLogOutput({LogFormat::Text, "/proc/no/such/file", InfoLevel});
    EXPECT_EQ(outcome.m_rc, RC_IO_ERROR);
    EXPECT_NE(outcome.m_message.find("/proc/no/such/file"), std::string::npos);
}

TEST(LogFormatTest, TheEventIsTheFunctionsName)
{
    EXPECT_EQ(functionNameOf("RegionLocator::~RegionLocator()"), "RegionLocator::~RegionLocator");
    EXPECT_EQ(functionNameOf("u8* Voucher::getObj()"), "Voucher::getObj");
    EXPECT_EQ(functionNameOf("std::map<int, long int> Box<T, U>::all(int)"), "Box<T, U>::all");
    EXPECT_EQ(functionNameOf("plain"), "plain");
    EXPECT_EQ(functionNameOf(""), "");
}

TEST(LogFormatTest, EveryLevelHasANameAndTheOptionsOnesAreParsed)
{
    for (u32 level = AssertLevel; level <= LongTermInfoLevel; ++level)
        EXPECT_STRNE(logLevelText(static_cast<LogLevel>(level)), "unknown");
    LogLevel level = FatalLevel;
    EXPECT_TRUE(parseLogLevel("debug", &level));
    EXPECT_EQ(level, DebugLevel);
    EXPECT_FALSE(parseLogLevel("loud", &level));
}

} // namespace
