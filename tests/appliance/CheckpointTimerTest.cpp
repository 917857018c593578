// How often checkpoints are set, as it is written, and what the timer does when it cannot set one;
// what it does otherwise is tested with a server.
#include "appliance/CheckpointTimer.h"

#include <atomic>
#include <new>

#include "tests/appliance/MirrorOnCrashStorage.h"
#include "tests/support/ComesTrue.h"

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

class CheckpointTimerTest : public MirrorOnCrashStorage
{
protected:
    void SetUp() override
    {
        MirrorOnCrashStorage::SetUp();
        ASSERT_TRUE(open(emptyMirror(), MirrorAccess::Writer).ok());
        m_jobs = std::make_unique<MirrorJobs>(*m_mirror, m_host.getEngine());
    }
    void TearDown() override
    {
        m_jobs.reset();
        MirrorOnCrashStorage::TearDown();
    }

    size_t checkpoints() { return m_mirror->journal().checkpoints().size(); }

    std::unique_ptr<MirrorJobs> m_jobs;
};

TEST_F(CheckpointTimerTest, MemoryThatIsShortForATimeEndsNothing)
{
    ASSERT_TRUE(m_mirror->writeZeroes(0, 1).ok());
    std::atomic<u32> asked{0};
    CheckpointTimer::Options options;
    options.m_everyBytes = 1;
    CheckpointTimer timer(*m_jobs, options, [&]() -> u64 {
        if (++asked == 2)
            throw std::bad_alloc();
        return asked;
    });
    timer.start();
    EXPECT_TRUE(comesTrue([&] { return checkpoints() == 1; }));
    timer.stop();
}
