#include <fstream>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sstream>

#include "common/Analytics/AnalyticsParcelSender.h"
#include "host/analytics/JsonLinesSender.h"
#include "tests/support/OwnPath.h"
#include "tests/support/ScopedManualClock.h"

namespace {

TEST(AnalyticsParcelTest, IsStampedWithTheWallTimeInMilliseconds)
{
    ScopedManualClock clock;
    clock.advanceMs(5);
    AnalyticsParcel parcel;
    EXPECT_EQ(parcel.m_xelTime, 1'000'000'000'005u);
}

TEST(JsonLinesSenderTest, WritesEveryParcelAsOneLine)
{
    ScopedManualClock clock;
    const std::string path = ownPath("analytics_test.jsonl");
    std::remove(path.c_str());
    ASSERT_TRUE(JsonLinesSender::open(path).ok());
    EXPECT_EQ(JsonLinesSender::open(path).m_rc, RC_IN_USE);
    AnalyticsParcel* parcel = SHIELD_NEW(AnalyticsParcel);
    parcel->setEventName("statistics");
    parcel->setCategory("locator");
    parcel->setAccount(AnalyticsParcel::XEL);
    parcel->setEventPriority(AnalyticsParcel::High);
    parcel->addEntry("big", ~u64{0});
    parcel->addEntry("small", s32{-1});
    parcel->addEntry("text", std::string("a\nb"));
    EXPECT_EQ(AnalyticsParcelSender::sendAnalyticsParcel(parcel), RC_SUCCESS);
    EXPECT_EQ(AnalyticsParcelSender::sendAnalyticsParcel(SHIELD_NEW(AnalyticsParcel)), RC_SUCCESS);
    JsonLinesSender::close();
    JsonLinesSender::close();

    std::ifstream file(path);
    std::string line;
    ASSERT_TRUE(std::getline(file, line));
    const nlohmann::json object = nlohmann::json::parse(line);
    EXPECT_EQ(object["schema"], 1);
    EXPECT_EQ(object["time"], "2001-09-09T01:46:40.000Z");
    EXPECT_EQ(object["event"], "statistics");
    EXPECT_EQ(object["category"], "locator");
    EXPECT_EQ(object["account"], "xel");
    EXPECT_EQ(object["priority"], "high");
    EXPECT_EQ(object["entries"]["big"], ~u64{0});
    EXPECT_EQ(object["entries"]["small"], -1);
    EXPECT_EQ(object["entries"]["text"], "a\nb");
    ASSERT_TRUE(std::getline(file, line));
    EXPECT_FALSE(std::getline(file, line));
    std::remove(path.c_str());
}

TEST(JsonLinesSenderTest, AFileThatCannotBeWrittenIsSaid)
{
    EXPECT_EQ(JsonLinesSender::open("/proc/no/such/file").m_rc, RC_IO_ERROR);
    ASSERT_TRUE(JsonLinesSender::open("/dev/full").ok());
    EXPECT_EQ(AnalyticsParcelSender::sendAnalyticsParcel(SHIELD_NEW(AnalyticsParcel)), RC_IO_ERROR);
    JsonLinesSender::close();
}

} // namespace
