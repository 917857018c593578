#include "appliance/PointInTime.h"

#include <gtest/gtest.h>

#include "appliance/Rfc3339.h"
#include "appliance/Sizes.h"

namespace {

RecoverableWindow threeCheckpoints()
{
    RecoverableWindow window;
    window.m_items = 100;
    window.m_checkpoints = {{1, 1000000, "a", 10}, {2, 2000000, "b", 20}, {3, 2000000, "a", 100}};
    return window;
}

ChosenPoint chosen(const std::string& text)
{
    PointName name;
    ChosenPoint point;
    EXPECT_TRUE(parsePoint(text, &name).ok()) << text;
    const Result result = choosePoint(name, threeCheckpoints(), &point);
    EXPECT_TRUE(result.ok()) << result.message();
    return point;
}

TEST(SizesTest, ReadsEveryUnit)
{
    const std::pair<const char*, u64> cases[] = {{"0", 0},
                                                 {"512", 512},
                                                 {"2s", 1024},
                                                 {"64K", 65536},
                                                 {"64KiB", 65536},
                                                 {"64kb", 0},
                                                 {"1M", 1 << 20},
                                                 {"3g", u64{3} << 30},
                                                 {"1TiB", u64{1} << 40},
                                                 {"15E", u64{15} << 60},
                                                 {"7B", 7}};
    for (const auto& [text, expected] : cases) {
        u64 bytes = 0;
        const bool good = parseSize(text, &bytes).ok();
        EXPECT_EQ(good, std::string(text) != "64kb") << text;
        EXPECT_EQ(bytes, expected) << text;
    }
}

TEST(SizesTest, RefusesWhatIsNoSize)
{
    for (const char* text : {"", "K", "-1", "1.5G", "1Q", "1KiBs", "16E", "18446744073709551616",
                             " 1", "1 K", "0x10"}) {
        u64 bytes = 77;
        const Result result = parseSize(text, &bytes);
        EXPECT_EQ(result.code(), ResultCode::WrongUsage) << text;
        EXPECT_EQ(bytes, 77u);
    }
    u64 bytes = 0;
    EXPECT_FALSE(parseBlockSize("513", "--size", &bytes).ok());
    EXPECT_TRUE(parseBlockSize("1s", "--size", &bytes).ok());
}

TEST(SizesTest, ShowsBinaryUnits)
{
    EXPECT_EQ(formatSize(0), "0 B");
    EXPECT_EQ(formatSize(1023), "1023 B");
    EXPECT_EQ(formatSize(1024), "1 KiB");
    EXPECT_EQ(formatSize(1536), "1.5 KiB");
    EXPECT_EQ(formatSize((u64{1} << 20) - 1), "1.0 MiB");
    EXPECT_EQ(formatSize(~u64{0}), "16 EiB");
}

TEST(Rfc3339Test, ReadsAndWritesTimes)
{
    const std::pair<const char*, u64> cases[] = {
        {"1970-01-01T00:00:00Z", 0},
        {"1970-01-01T01:00:00+01:00", 0},
        {"1970-01-01 00:00:01.5z", 1500000},
        {"2000-02-29T12:34:56.000001Z", 951827696000001},
        {"2026-03-01T00:00:00.1234567-00:30", 1772325000123456}};
    for (const auto& [text, expected] : cases) {
        u64 time = ~u64{0};
        EXPECT_TRUE(parseRfc3339(text, &time)) << text;
        EXPECT_EQ(time, expected) << text;
        u64 again = 0;
        EXPECT_TRUE(parseRfc3339(formatRfc3339(time), &again));
        EXPECT_EQ(again, time);
    }
    for (const char* text :
         {"", "2026", "2026-02-30T00:00:00Z", "2026-01-01T24:00:00Z", "2026-01-01T00:00:00",
          "2026-01-01T00:00:00.Z", "2026-01-01T00:00:00Zx", "1969-12-31T23:59:59Z"}) {
        u64 time = 0;
        EXPECT_FALSE(parseRfc3339(text, &time)) << text;
    }
}

TEST(PointInTimeTest, ChoosesByEveryKindOfName)
{
    EXPECT_EQ(chosen("latest").name(), "item:100");
    EXPECT_EQ(chosen("2").name(), "cp:2");
    EXPECT_EQ(chosen("cp:1").m_items, 10u);
    EXPECT_EQ(chosen("item:0").m_items, 0u);
    EXPECT_EQ(chosen("item:100").m_items, 100u);
    EXPECT_EQ(chosen("tag:b").name(), "cp:2");
    // The newest of two with the same tag, or of the same time.
    EXPECT_EQ(chosen("tag:a").name(), "cp:3");
    EXPECT_EQ(chosen("time:1970-01-01T00:00:02Z").name(), "cp:3");
    EXPECT_EQ(chosen("time:1970-01-01T00:00:01.9Z").name(), "cp:1");
}

TEST(PointInTimeTest, SaysWhatCanBeServedWhenNothingFits)
{
    for (const char* text : {"cp:4", "0", "item:101", "tag:c", "time:1970-01-01T00:00:00.9Z"}) {
        PointName name;
        ChosenPoint point;
        ASSERT_TRUE(parsePoint(text, &name).ok()) << text;
        const Result result = choosePoint(name, threeCheckpoints(), &point);
        EXPECT_EQ(result.code(), ResultCode::NotFound) << text;
        EXPECT_NE(result.message().find("item:0 to item:100, checkpoints cp:1 to cp:3"),
                  std::string::npos)
            << result.message();
    }
}

TEST(PointInTimeTest, RefusesWhatIsNoPoint)
{
    PointName name;
    for (const char* text : {"", "cp:", "cp:x", "tag:", "time:now", "item:-1", "first", "latest:1"})
        EXPECT_EQ(parsePoint(text, &name).code(), ResultCode::WrongUsage) << text;
    std::pair<PointName, PointName> span;
    EXPECT_TRUE(parseSpan("cp:1..latest", &span).ok());
    EXPECT_EQ(span.first.m_number, 1u);
    EXPECT_FALSE(parseSpan("cp:1", &span).ok());
    EXPECT_FALSE(parseSpan("cp:1..", &span).ok());
    EXPECT_FALSE(parseSpan("..cp:1", &span).ok());
    EXPECT_FALSE(parseSpan("cp:1..cp:2..cp:3", &span).ok());
}

TEST(PointInTimeTest, TakesASpanOfTagsWithDotsWhereThereIsOneWay)
{
    std::pair<PointName, PointName> span;
    ASSERT_TRUE(parseSpan("tag:v1..2..latest", &span).ok());
    EXPECT_EQ(span.first.m_tag, "v1..2");
    EXPECT_EQ(span.second.m_kind, PointName::Kind::Latest);
    ASSERT_TRUE(parseSpan("cp:1..tag:v..3", &span).ok());
    EXPECT_EQ(span.first.m_number, 1u);
    EXPECT_EQ(span.second.m_tag, "v..3");
    ASSERT_TRUE(parseSpan("tag:v...latest", &span).ok());
    EXPECT_EQ(span.first.m_tag, "v.");

    const Result both = parseSpan("tag:a..tag:b..latest", &span);
    EXPECT_EQ(both.code(), ResultCode::WrongUsage);
    EXPECT_NE(both.message().find("several ways"), std::string::npos) << both.message();
}

} // namespace
