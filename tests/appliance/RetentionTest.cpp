#include "appliance/Retention.h"

#include <nlohmann/json.hpp>

#include "appliance/Apply.h"
#include "appliance/MirrorCommands.h"
#include "appliance/Trim.h"
#include "host/infra/Clock.h"
#include "tests/appliance/MirrorFixture.h"

namespace {

class RetentionTest : public MirrorFixture
{
protected:
    static constexpr u64 HOUR_US = u64{3600} * 1000000;

    void make(u64 keepCheckpoints, u64 keepForSeconds, u64 limitBytes = 0)
    {
        MirrorSettings settings;
        settings.m_sizeBytes = BLOCKS * BLOCK_BYTES;
        settings.m_keepCheckpoints = keepCheckpoints;
        settings.m_keepForSeconds = keepForSeconds;
        settings.m_journalLimitBytes = limitBytes;
        ASSERT_TRUE(Mirror::create(folder(), settings).ok());
        openMirror();
    }

    // Checkpoints cp:1 to cp:count, each behind ten items.
    void writeCheckpoints(u32 count)
    {
        for (u32 i = 0; i < count; ++i) {
            writeRandomly(i, 10);
            ASSERT_TRUE(m_mirror->checkpoint("", nullptr).ok());
        }
    }

    // "cp:N" of the point that is wanted, "" for none.
    std::string wanted(u64 laterUs = 0)
    {
        RetentionPoint point;
        const Result result =
            findRetentionPoint(*m_mirror, Clock::instance()->wallTimeUs() + laterUs, &point);
        EXPECT_TRUE(result.ok()) << result.message();
        return point.m_any ? point.m_point.name() : "";
    }

    void apply(u64 items)
    {
        ChosenPoint to;
        to.m_items = items;
        FlowControl control;
        ApplyStatistics statistics;
        ASSERT_TRUE(
            applyMirror(*m_mirror, m_host.getEngine(), to, ApplyOptions(), control, &statistics)
                .ok());
    }
};

TEST_F(RetentionTest, WithoutRulesEverythingIsKept)
{
    make(0, 0);
    EXPECT_EQ(wanted(), "");
    writeCheckpoints(3);
    EXPECT_EQ(wanted(1000 * HOUR_US), "");
}

TEST_F(RetentionTest, NewestCheckpointsAreKept)
{
    make(3, 0);
    EXPECT_EQ(wanted(), "");
    writeCheckpoints(2);
    EXPECT_EQ(wanted(), "cp:1") << "what lies before the first checkpoint is not kept";
    writeCheckpoints(5);
    EXPECT_EQ(wanted(), "cp:5");
    apply(50);
    EXPECT_EQ(wanted(), "") << "there already";
    EXPECT_EQ(m_mirror->window().m_checkpoints.size(), 3u);
}

TEST_F(RetentionTest, YoungCheckpointsAreKept)
{
    make(0, 3600);
    writeCheckpoints(4);
    EXPECT_EQ(wanted(), "cp:1");
    EXPECT_EQ(wanted(2 * HOUR_US), "cp:4") << "the newest stays, however old";
}

TEST_F(RetentionTest, NoTimeIsTooLongToBeKept)
{
    // As a million times as many would be less than a second.
    constexpr u64 TOO_LONG = MOST_KEEP_FOR_SECONDS + 1;
    make(0, TOO_LONG);
    writeCheckpoints(4);
    EXPECT_EQ(wanted(2 * HOUR_US), "cp:1");
    EXPECT_EQ(m_mirror->currentSettings().m_keepForSeconds, MOST_KEEP_FOR_SECONDS);
    ASSERT_TRUE(m_mirror->changeSettings({}, TOO_LONG, {}).ok());
    EXPECT_EQ(wanted(2 * HOUR_US), "cp:1");

    MirrorJobs jobs(*m_mirror, m_host.getEngine());
    MirrorCommands commands(jobs);
    CommandControl control;
    JsonValue result;
    const auto set = [&](u64 seconds) {
        return commands.run("set", JsonValue{{"keep_for_seconds", seconds}}, control, &result);
    };
    EXPECT_EQ(set(TOO_LONG).code(), ResultCode::WrongUsage);
    EXPECT_TRUE(set(MOST_KEEP_FOR_SECONDS).ok());
    EXPECT_EQ(wanted(2 * HOUR_US), "cp:1");
}

TEST_F(RetentionTest, WhatEitherRuleKeepsStays)
{
    make(2, 3600);
    writeCheckpoints(4);
    EXPECT_EQ(wanted(), "cp:1");
    EXPECT_EQ(wanted(2 * HOUR_US), "cp:3");
}

TEST_F(RetentionTest, NearlyFullJournalGivesUpTheOldest)
{
    constexpr u64 LIMIT = u64{100} << 20;
    make(100, 0, LIMIT);
    const std::vector<u8> data(2000 * BLOCK_BYTES, 1);
    u64 items = 0;
    while (m_mirror->write(0, data.data(), 2000).ok()) {
        ++items;
        if (items % 8 == 0) {
            ASSERT_TRUE(m_mirror->checkpoint("", nullptr).ok());
        }
    }
    ASSERT_TRUE(m_mirror->checkpoint("", nullptr).ok());
    EXPECT_TRUE(isNearlyFull(m_mirror->journal().bytesUsed(), LIMIT));
    RetentionPoint point;
    ASSERT_TRUE(findRetentionPoint(*m_mirror, Clock::instance()->wallTimeUs(), &point).ok());
    ASSERT_TRUE(point.m_any);
    EXPECT_GT(point.m_point.m_items, 0u);
    EXPECT_LT(point.m_point.m_items, items) << "no more than is needed";
    EXPECT_NE(point.m_why.find("near its limit"), std::string::npos);
    apply(point.m_point.m_items);
    FlowControl control;
    TrimStatistics statistics;
    ASSERT_TRUE(trimMirror(*m_mirror, m_host.getEngine(), point.m_point, TrimOptions(), control,
                           &statistics)
                    .ok());
    EXPECT_FALSE(isNearlyFull(m_mirror->journal().bytesUsed(), LIMIT));
    EXPECT_EQ(wanted(), "");
    EXPECT_TRUE(m_mirror->write(0, data.data(), 2000).ok());
}

TEST_F(RetentionTest, ChangedSettingsHoldFromTheNextOpeningOn)
{
    make(0, 0);
    ASSERT_TRUE(m_mirror->changeSettings(5, 60, u64{1} << 20).ok());
    openMirror();
    EXPECT_EQ(m_mirror->currentSettings().m_keepCheckpoints, 5u);
    EXPECT_EQ(m_mirror->currentSettings().m_keepForSeconds, 60u);
    const std::vector<u8> data(2000 * BLOCK_BYTES, 1);
    EXPECT_TRUE(m_mirror->write(0, data.data(), 2000).ok());
    EXPECT_EQ(m_mirror->write(0, data.data(), 2000).code(), ResultCode::NoSpace);
}

TEST(DurationTest, IsReadAndWritten)
{
    const std::pair<const char*, u64> good[] = {{"0s", 0},      {"45s", 45},    {"30m", 1800},
                                                {"12h", 43200}, {"7d", 604800}, {"2w", 1209600}};
    for (const auto& [text, expected] : good) {
        u64 seconds = 1;
        EXPECT_TRUE(parseDuration(text, &seconds).ok()) << text;
        EXPECT_EQ(seconds, expected) << text;
    }
    EXPECT_EQ(formatDuration(0), "0s");
    EXPECT_EQ(formatDuration(5400), "90m");
    EXPECT_EQ(formatDuration(604800), "7d");
    EXPECT_EQ(formatDuration(604801), "604801s");
    u64 seconds = 77;
    for (const char* text :
         {"", "5", "d", "5x", "-5d", "5dd", "99999999999999999999d", "18446744073709551615w"})
        EXPECT_EQ(parseDuration(text, &seconds).code(), ResultCode::WrongUsage) << text;
    EXPECT_EQ(seconds, 77u);
}

TEST_F(RetentionTest, JournalThatIsFullWithoutACheckpointGetsOut)
{
    make(1, 0, u64{20} << 20);
    const std::vector<u8> data(500 * BLOCK_BYTES, 1);
    while (m_mirror->write(0, data.data(), 500).ok()) {
    }
    EXPECT_EQ(wanted(), "");
    ASSERT_TRUE(m_mirror->flush().ok()); // so that the checkpoint gets a page of its own
    ASSERT_TRUE(m_mirror->checkpoint("", nullptr).ok());
    EXPECT_EQ(wanted(), "cp:1");
    ChosenPoint to;
    to.m_items = m_mirror->journal().itemCount();
    apply(to.m_items);
    FlowControl control;
    TrimStatistics planned;
    TrimOptions dry;
    dry.m_dryRun = true;
    ASSERT_TRUE(trimMirror(*m_mirror, m_host.getEngine(), to, dry, control, &planned).ok());
    TrimStatistics statistics;
    ASSERT_TRUE(
        trimMirror(*m_mirror, m_host.getEngine(), to, TrimOptions(), control, &statistics).ok());
    EXPECT_EQ(statistics.m_dataGrains, 2u) << "the one that is half full goes too";
    EXPECT_EQ(planned.m_dataGrains, statistics.m_dataGrains);
    EXPECT_EQ(planned.m_bytes, statistics.m_bytes);
    EXPECT_LT(m_mirror->journal().bytesUsed(), u64{1} << 20);
    EXPECT_TRUE(m_mirror->write(0, data.data(), 500).ok());
    EXPECT_TRUE(m_mirror->flush().ok());
    openMirror();
    EXPECT_EQ(m_mirror->journal().itemCount(), to.m_items + 1);
}

TEST_F(RetentionTest, LimitsBelowAGrainAreRefused)
{
    MirrorSettings settings;
    settings.m_sizeBytes = BLOCKS * BLOCK_BYTES;
    settings.m_journalLimitBytes = LEAST_JOURNAL_LIMIT_BYTES - 1;
    const Result result = Mirror::create(folder(), settings);
    EXPECT_EQ(result.code(), ResultCode::WrongUsage);
    EXPECT_NE(result.message().find("at least 17M"), std::string::npos) << result.message();
    settings.m_journalLimitBytes = LEAST_JOURNAL_LIMIT_BYTES;
    EXPECT_TRUE(Mirror::create(folder(), settings).ok());
}

} // namespace
