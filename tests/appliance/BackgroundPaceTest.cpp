// The pace of background work, to the millisecond: time passes only where the work, or its rests,
// let it.

#include "appliance/BackgroundPace.h"

#include <gtest/gtest.h>
#include <random>

#include "tests/support/ScopedManualClock.h"

namespace {

constexpr u64 MIB = u64{1} << 20;
constexpr u64 CREDIT_MS = 100;

class BackgroundPaceTest : public ::testing::Test
{
protected:
    BackgroundPace::Options paced(u64 bytesPerSecond)
    {
        BackgroundPace::Options limits;
        limits.m_bytesPerSecond = bytesPerSecond;
        limits.m_wait = [this](u64 milliseconds) {
            EXPECT_GT(milliseconds, 0u);
            m_clock.advanceMs(milliseconds);
            m_restedMs += milliseconds;
            return m_stop.isSet();
        };
        return limits;
    }

    // A step that takes so long, and moves so much; returns how long it rested after it.
    u64 step(BackgroundPace& pace, u64 tookMs, u64 bytes)
    {
        const u64 before = m_restedMs;
        m_clock.advanceMs(tookMs);
        pace.moved(bytes);
        pace.progress(++m_steps, 1000000);
        return m_restedMs - before;
    }

    ScopedManualClock m_clock;
    StopSignal m_stop;
    u64 m_restedMs = 0;
    u64 m_steps = 0;
};

TEST_F(BackgroundPaceTest, TheRateIsExact)
{
    BackgroundPace pace(m_stop, paced(4 * MIB));
    const u64 started = m_clock.nowUs();
    std::mt19937_64 random(1);
    u64 bytes = 0;
    for (int i = 0; i < 2000; ++i) {
        // From less than a millisecond's worth to a second's; the work itself takes time as well.
        const u64 moved = random() % (i % 2 == 0 ? MIB / 256 : 4 * MIB);
        bytes += moved;
        step(pace, moved * 1000 / (16 * MIB), moved);
        const double paid = static_cast<double>(bytes) / (4 * MIB) * 1e6;
        const double took = static_cast<double>(m_clock.nowUs() - started);
        ASSERT_GE(took + 3000, paid) << i;
        ASSERT_LE(took, paid + 3000) << i;
    }
}

TEST_F(BackgroundPaceTest, WhatMovesNothingCostsNothing)
{
    BackgroundPace pace(m_stop, paced(MIB));
    for (int i = 0; i < 100; ++i)
        EXPECT_EQ(step(pace, 0, 0), 0u);
    EXPECT_EQ(step(pace, 0, MIB), 1000u);
    BackgroundPace unlimited(m_stop, paced(0));
    EXPECT_EQ(step(unlimited, 0, 1000 * MIB), 0u);
}

TEST_F(BackgroundPaceTest, TimeWithoutWorkIsNotMadeUpFor)
{
    BackgroundPace pace(m_stop, paced(MIB));
    EXPECT_EQ(step(pace, 60000, MIB), 0u);
    EXPECT_EQ(step(pace, 0, MIB), 1000 - CREDIT_MS);
    EXPECT_EQ(step(pace, 0, MIB), 1000u);
    EXPECT_EQ(step(pace, 400, MIB), 600u);
}

TEST_F(BackgroundPaceTest, ItGivesWayAsLongAsItWorkedWhileClientsAreActive)
{
    u64 requests = 0;
    BackgroundPace::Options giving = paced(0);
    giving.m_activity = [&] { return requests; };
    BackgroundPace pace(m_stop, giving);
    EXPECT_EQ(step(pace, 200, MIB), 0u) << "nobody is there";
    ++requests;
    EXPECT_EQ(step(pace, 200, MIB), 200u);
    EXPECT_EQ(step(pace, 200, MIB), 0u) << "nobody since";
    ++requests;
    EXPECT_EQ(step(pace, 5000, MIB), 1000u) << "a second at most";
    ++requests;
    EXPECT_EQ(step(pace, 30, 0), 30u) << "also from what moves nothing";
}

TEST_F(BackgroundPaceTest, TheLongerOfTheTwoRestsCounts)
{
    u64 requests = 0;
    BackgroundPace::Options both = paced(MIB);
    both.m_activity = [&] { return ++requests; };
    BackgroundPace pace(m_stop, both);
    EXPECT_EQ(step(pace, 100, MIB), 900u);
    EXPECT_EQ(step(pace, 700, MIB), 700u);
}

TEST_F(BackgroundPaceTest, InAHurryThereIsNoRestAndNothingToPayLater)
{
    bool isUrgent = true;
    u64 requests = 0;
    BackgroundPace::Options hurried = paced(MIB);
    hurried.m_activity = [&] { return ++requests; };
    hurried.m_isUrgent = [&] { return isUrgent; };
    BackgroundPace pace(m_stop, hurried);
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(step(pace, 10, 50 * MIB), 0u);
    isUrgent = false;
    EXPECT_EQ(step(pace, 0, MIB), 1000u);
    // A rest ends when there is no time for it any more.
    u64 looks = 0;
    BackgroundPace::Options later = paced(MIB);
    later.m_isUrgent = [&] { return ++looks > 4; };
    BackgroundPace second(m_stop, later);
    EXPECT_EQ(step(second, 0, 60 * MIB), 4 * 50u);
}

TEST_F(BackgroundPaceTest, ARestEndsWhenTheWorkIsToStop)
{
    bool isUnwanted = false;
    BackgroundPace::Options limits = paced(MIB);
    limits.m_isUnwanted = [&] { return isUnwanted; };
    BackgroundPace pace(m_stop, limits);
    isUnwanted = true;
    EXPECT_EQ(step(pace, 0, 10 * MIB), 0u);
    isUnwanted = false;
    EXPECT_FALSE(pace.stopRequested());
    m_stop.set();
    EXPECT_TRUE(pace.stopRequested());
    EXPECT_LE(step(pace, 0, 0), 50u);
}

TEST_F(BackgroundPaceTest, WaitsOnTheSignalWhereNothingElseIsSaid)
{
    BackgroundPace::Options options;
    options.m_bytesPerSecond = 1;
    m_stop.set();
    BackgroundPace pace(m_stop, options);
    pace.moved(1000000);
    pace.progress(1, 2); // would not return before the clock has moved
    EXPECT_TRUE(pace.stopRequested());
}

} // namespace
