#include "host/infra/LogLimiter.h"

#include <atomic>
#include <gtest/gtest.h>
#include <thread>

TEST(LogLimiterTest, TellsTheFirstOfAKindAndCountsTheRest)
{
    LogLimiter limiter(1000, 1);
    EXPECT_EQ(limiter.admit("a", "a1", 5000), "a1");
    EXPECT_EQ(limiter.admit("a", "a2", 5000), "");
    EXPECT_EQ(limiter.admit("a", "a3", 5999), "");
    EXPECT_EQ(limiter.admit("a", "a4", 6000), "a4 (2 more like it before this one)");
    EXPECT_EQ(limiter.admit("a", "a5", 6999), "");
    EXPECT_EQ(limiter.admit("a", "a6", 9000), "a6 (1 more like it before this one)");
    EXPECT_EQ(limiter.admit("a", "a7", 11000), "a7");
}

TEST(LogLimiterTest, KindsDoNotHideEachOther)
{
    LogLimiter limiter(1000, 1);
    EXPECT_EQ(limiter.admit("a", "a1", 0), "a1");
    EXPECT_EQ(limiter.admit("b", "b1", 0), "b1");
    EXPECT_EQ(limiter.admit("a", "a2", 0), "");
    EXPECT_EQ(limiter.admit("b", "b2", 1000), "b2");
}

TEST(LogLimiterTest, SeveralAtOnce)
{
    LogLimiter limiter(1000, 3);
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(limiter.admit("a", "a", 0), i < 3 ? "a" : "");
    EXPECT_EQ(limiter.admit("a", "a", 1000), "a (7 more like it before this one)");
    EXPECT_EQ(limiter.admit("a", "a", 1000), "a");
}

TEST(LogLimiterTest, TheRestIsToldInTheEnd)
{
    LogLimiter limiter(1000, 1);
    EXPECT_TRUE(limiter.takeRest().empty());
    EXPECT_EQ(limiter.admit("a", "a1", 0), "a1");
    EXPECT_TRUE(limiter.takeRest().empty());
    EXPECT_EQ(limiter.admit("a", "a2", 0), "");
    EXPECT_EQ(limiter.admit("a", "a3", 0), "");
    EXPECT_EQ(limiter.takeRest(),
              std::vector<std::string>{"a3 (and 1 more like it before this one)"});
    EXPECT_TRUE(limiter.takeRest().empty());
}

TEST(LogLimiterTest, EveryLineIsToldOrCounted)
{
    LogLimiter limiter(10, 2);
    std::atomic<u64> told{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            for (u64 i = 0; i < 1000; ++i) {
                const std::string line = limiter.admit("a", "x", i);
                const size_t open = line.find('(');
                told += (line.empty() ? 0 : 1) +
                        (open == std::string::npos ? 0 : std::stoull(line.substr(open + 1)));
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    for (const std::string& line : limiter.takeRest())
        told += 1 + std::stoull(line.substr(line.find("(and ") + 5));
    EXPECT_EQ(told, 4000u);
}
