// What is told to hold the trim: the lowest of what does.

#include "appliance/TrimHolder.h"

#include <gtest/gtest.h>

namespace {

using Kind = TrimHolder::Kind;

constexpr u64 US = 7;
constexpr u64 OTHERS = 8;
constexpr u64 BEGIN_PAGE = 3;

class TrimHolderTest : public ::testing::Test
{
protected:
    TrimHolderTest()
    {
        m_limits.m_beginPage = BEGIN_PAGE;
        m_limits.m_appliedItems = 10;
        m_limits.m_items = 40;
        m_limits.m_process = US;
    }

    void hold(const std::string& name, u64 items)
    {
        m_limits.m_holds.push_back({name, items, "item:" + std::to_string(items)});
    }

    void use(u64 process, u64 items, u64 firstPage = BEGIN_PAGE)
    {
        m_limits.m_uses.push_back(
            {items, firstPage, process, "a view of item:" + std::to_string(items)});
    }

    void expect(Kind kind, const std::string& part)
    {
        const TrimHolder holder = findTrimHolder(m_limits);
        EXPECT_EQ(holder.m_kind, kind) << holder.m_text;
        EXPECT_NE(holder.m_text.find(part), std::string::npos) << holder.m_text;
    }

    TrimLimits m_limits;
};

TEST_F(TrimHolderTest, TheTargetUntilItIsThere)
{
    expect(Kind::Target, "item:10");
    m_limits.m_appliedItems = 40;
    EXPECT_EQ(findTrimHolder(m_limits).m_kind, Kind::Nothing);
    EXPECT_EQ(findTrimHolder(m_limits).m_text, "");
}

TEST_F(TrimHolderTest, TheLowestHold)
{
    hold("later", 30);
    hold("audit", 12);
    hold("middle", 20);
    expect(Kind::Hold, "'audit' of item:12");
}

TEST_F(TrimHolderTest, OwnViewsDoNotKeepTheJournal)
{
    use(US, 20);
    expect(Kind::Target, "item:10");
    hold("audit", 12);
    expect(Kind::Hold, "'audit'");
    // But the target, where it has come to them.
    m_limits.m_holds.clear();
    m_limits.m_appliedItems = 20;
    expect(Kind::Use, "a view of item:20");
    hold("audit", 30);
    expect(Kind::Use, "a view of item:20");
    hold("same", 20);
    expect(Kind::Hold, "'same'");
    use(US, NO_ITEMS);
    expect(Kind::Hold, "'same'");
}

TEST_F(TrimHolderTest, AnotherProcessThatReadsFromTheBeginningKeepsAllOfIt)
{
    hold("audit", 12);
    use(OTHERS, 25, BEGIN_PAGE + 1);
    expect(Kind::Hold, "'audit'");
    use(OTHERS, 30);
    use(OTHERS, 20);
    expect(Kind::Use, "a view of item:20");
    m_limits.m_uses.clear();
    use(OTHERS, NO_ITEMS);
    EXPECT_EQ(findTrimHolder(m_limits).m_kind, Kind::Use);
}

} // namespace
