// How often checkpoints are set, as it is written; what the timer does is tested with a server.
#include "appliance/CheckpointTimer.h"

#include <gtest/gtest.h>

TEST(CheckpointTimerOptionsTest, TakeATimeAndAnAmountInEitherOrder)
{
    CheckpointTimer::Options options;
    EXPECT_TRUE(options.add("256MiB").ok());
    EXPECT_TRUE(options.add("5m").ok());
    EXPECT_EQ(options.m_everyBytes, u64{256} << 20);
    EXPECT_EQ(options.m_everyMs, 300'000u);

    CheckpointTimer::Options small;
    EXPECT_TRUE(small.add("30s").ok());
    EXPECT_TRUE(small.add("256k").ok());
    EXPECT_EQ(small.m_everyMs, 30'000u);
    EXPECT_EQ(small.m_everyBytes, u64{256} << 10);
}

TEST(CheckpointTimerOptionsTest, TakeNothingThatMayMeanSomethingElse)
{
    for (const char* text : {"", "30", "0s", "0M", "often", "-5s", "5x", "m"}) {
        CheckpointTimer::Options options;
        EXPECT_EQ(options.add(text).code(), ResultCode::WrongUsage) << text;
        EXPECT_EQ(options.m_everyMs + options.m_everyBytes, 0u) << text;
    }
    CheckpointTimer::Options options;
    ASSERT_TRUE(options.add("30s").ok());
    EXPECT_EQ(options.add("1h").message(), "checkpoint-every was given twice by time");
    EXPECT_EQ(options.m_everyMs, 30'000u);
    ASSERT_TRUE(options.add("1G").ok());
    EXPECT_EQ(options.add("2G").message(), "checkpoint-every was given twice by amount");
}
