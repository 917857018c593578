#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <vector>

#include "common/infra/DynamicTweaks.h"
#include "tests/support/LogCapture.h"
#include "tests/support/RegionLocatorTestAccess.h"
#include "tests/support/VoucherGuard.h"

namespace {

using Access = RegionLocatorTestAccess;

const std::string INSERT =
    "bool RegionLocator::insert(const SubRegionDescriptor&, RegionLocatorVoucher*)";
const std::string PUNCH_OUT = "void RegionLocator::punchOutRegions(CountedRegionMap*, "
                              "const std::vector<SubRegionDescriptor>&)";
const std::string COMBINE =
    "SubRegionDescriptor RegionLocator::combineR2L(const SubRegionDescriptor&, "
    "const SubRegionDescriptor&, const std::string&)";

class VerboseLogTest : public testing::Test
{
protected:
    ~VerboseLogTest() override { DynamicTweaks::instance()->t_RlVerboseLogs = false; }

    static void verbose(bool on) { DynamicTweaks::instance()->t_RlVerboseLogs = on; }

    struct Trace
    {
        std::string m_signature;
        std::string m_text; // what follows the locator's address
    };

    void expectTraces(const std::vector<Trace>& traces)
    {
        const std::vector<LogRecord> records = m_log.records();
        ASSERT_EQ(records.size(), traces.size()) << testing::PrintToString(records);
        std::ostringstream head;
        head << "<" << &m_locator << ">: ";
        for (size_t i = 0; i < traces.size(); ++i)
            EXPECT_TRUE(isRecord(records[i], LogModuleXel, InfoLevel, 0, traces[i].m_signature,
                                 head.str() + traces[i].m_text));
        m_log.clear();
    }

    Trace punchOutBegins(size_t regions)
    {
        std::ostringstream text;
        text << " a_regions.size()=" << regions
             << " a_regionMap=" << static_cast<void*>(Access::unlocked(m_locator));
        return {PUNCH_OUT, text.str()};
    }

    void insertVerbosely(const SubRegionDescriptor& region)
    {
        verbose(true);
        EXPECT_TRUE(insertRegion(m_locator, region));
        verbose(false);
    }

    LogCapture m_log;
    RegionLocator m_locator{1, RL_MMI_View};
};

TEST_F(VerboseLogTest, NothingWhileTheTweakIsOff)
{
    insertRegion(m_locator, plainRegion(0, 8, 100));
    insertRegion(m_locator, plainRegion(2, 4, 200));
    unlockAndRestoreRegions(m_locator, lockRange(m_locator, 0, 8));
    EXPECT_TRUE(m_log.records().empty());
}

TEST_F(VerboseLogTest, OtherTweaksTraceNothing)
{
    DynamicTweaks::instance()->t_IOVerboseLogs = true;
    DynamicTweaks::instance()->t_BinVerboseLogs = true;
    insertRegion(m_locator, plainRegion(0, 8, 100));
    insertRegion(m_locator, plainRegion(2, 4, 200));
    DynamicTweaks::instance()->t_IOVerboseLogs = false;
    DynamicTweaks::instance()->t_BinVerboseLogs = false;
    EXPECT_TRUE(m_log.records().empty());
}

TEST_F(VerboseLogTest, InsertIntoAnEmptyLocator)
{
    const SubRegionDescriptor region = plainRegion(8, 8, 100);
    insertVerbosely(region);
    expectTraces({{INSERT, regionText(region)},
                  punchOutBegins(0),
                  {INSERT, "result insert" + regionText(region)}});
}

TEST_F(VerboseLogTest, InsertThatErasesAWholeRegion)
{
    const SubRegionDescriptor region = compressedRegion(8, 8, 100, 0, 900, true);
    insertRegion(m_locator, region);
    insertVerbosely(zeroesRegion(8, 8));
    expectTraces(
        {{INSERT, regionText(zeroesRegion(8, 8))},
         punchOutBegins(1),
         {PUNCH_OUT, "erase whole  curRegion=" + regionText(compressedRegion(8, 8, 100, 0, 900))},
         {INSERT, "result insert" + regionText(zeroesRegion(8, 8))}});
}

TEST_F(VerboseLogTest, InsertThatCutsAMiddle)
{
    insertRegion(m_locator, plainRegion(8, 8, 100));
    const SubRegionDescriptor region = plainRegion(10, 2, 200);
    insertVerbosely(region);
    expectTraces({{INSERT, regionText(region)},
                  punchOutBegins(1),
                  {PUNCH_OUT, "erase  curRegion=" + regionText(plainRegion(10, 2, 102, 2))},
                  {PUNCH_OUT, "insert " + regionText(plainRegion(8, 2, 100))},
                  {PUNCH_OUT, "insert " + regionText(plainRegion(12, 4, 104, 4))},
                  {INSERT, "result insert" + regionText(region)}});
}

TEST_F(VerboseLogTest, InsertThatCutsErasesAndCuts)
{
    insertRegion(m_locator, plainRegion(0, 8, 100));
    insertRegion(m_locator, zeroesRegion(8, 4));
    insertRegion(m_locator, plainRegion(14, 8, 300));
    const SubRegionDescriptor region = plainRegion(6, 10, 400);
    insertVerbosely(region);
    expectTraces({{INSERT, regionText(region)},
                  punchOutBegins(3),
                  {PUNCH_OUT, "erase  curRegion=" + regionText(plainRegion(6, 2, 106, 6))},
                  {PUNCH_OUT, "insert " + regionText(plainRegion(0, 6, 100))},
                  {PUNCH_OUT, "erase whole  curRegion=" + regionText(zeroesRegion(8, 4))},
                  {PUNCH_OUT, "erase  curRegion=" + regionText(plainRegion(14, 2, 300))},
                  {PUNCH_OUT, "insert " + regionText(plainRegion(16, 6, 302, 2))},
                  {INSERT, "result insert" + regionText(region)}});
}

TEST_F(VerboseLogTest, InsertThatIsRefused)
{
    insertRegion(m_locator, plainRegion(8, 8, 100));
    const Regions pieces = lockRange(m_locator, 8, 8);
    m_log.clear();
    verbose(true);
    EXPECT_FALSE(insertRegion(m_locator, plainRegion(8, 8, 200)));
    verbose(false);
    const std::vector<std::string> texts = m_log.texts();
    ASSERT_EQ(texts.size(), 2u);
    std::ostringstream first;
    first << "<" << &m_locator << ">: " << plainRegion(8, 8, 200);
    EXPECT_EQ(texts[0], first.str());
    EXPECT_EQ(texts[1],
              "trying to insert to region locator when there are intersecting locked regions");
    unlockAndRestoreRegions(m_locator, pieces);
}

TEST_F(VerboseLogTest, InsertTracesBeforeItReportsImmutability)
{
    m_locator.getConstBeginIterator();
    insertVerbosely(plainRegion(8, 8, 100));
    const std::vector<LogRecord> records = m_log.records();
    ASSERT_EQ(records.size(), 4u);
    EXPECT_EQ(records[0].m_level, InfoLevel);
    EXPECT_TRUE(isSoftCheck(records[1], INSERT, "!m_immutable"));
}

TEST_F(VerboseLogTest, PunchOutOfAListOfPieces)
{
    insertRegion(m_locator, plainRegion(0, 8, 100));
    insertRegion(m_locator, plainRegion(8, 8, 200));
    verbose(true);
    {
        const ActiveVoucher voucher(m_locator.getMemPool(), 2);
        Access::punchOutRegions(m_locator, Access::unlocked(m_locator),
                                {plainRegion(0, 8, 100), plainRegion(8, 2, 200)});
    }
    verbose(false);
    expectTraces({punchOutBegins(2),
                  {PUNCH_OUT, "erase whole  curRegion=" + regionText(plainRegion(0, 8, 100))},
                  {PUNCH_OUT, "erase  curRegion=" + regionText(plainRegion(8, 2, 200))},
                  {PUNCH_OUT, "insert " + regionText(plainRegion(10, 6, 202, 2))}});
}

TEST_F(VerboseLogTest, PunchOutOfNothing)
{
    verbose(true);
    Access::punchOutRegions(m_locator, Access::unlocked(m_locator), {});
    verbose(false);
    expectTraces({punchOutBegins(0)});
}

TEST_F(VerboseLogTest, CombiningWithBothNeighboursTracesLeftBeforeRight)
{
    insertRegion(m_locator, plainRegion(10, 4, 100));
    insertRegion(m_locator, plainRegion(16, 4, 106, 6));
    verbose(true);
    {
        const ActiveVoucher voucher(m_locator.getMemPool(), 1);
        EXPECT_TRUE(Access::insertAndCombine(m_locator, plainRegion(14, 2, 104, 4)));
    }
    verbose(false);
    const auto merge = [](const std::string& message, const SubRegionDescriptor& left,
                          const SubRegionDescriptor& right, const SubRegionDescriptor& combined) {
        return Trace{COMBINE, message + " left=" + regionText(left) + "  right=" +
                                  regionText(right) + "  combined=" + regionText(combined) + " "};
    };
    expectTraces({merge("left merge", plainRegion(10, 4, 100), plainRegion(14, 2, 104, 4),
                        plainRegion(10, 6, 100)),
                  merge("right merge", plainRegion(10, 6, 100), plainRegion(16, 4, 106, 6),
                        plainRegion(10, 10, 100))});
}

TEST_F(VerboseLogTest, CombiningOnTheRightAlone)
{
    insertRegion(m_locator, zeroesRegion(14, 2));
    verbose(true);
    {
        const ActiveVoucher voucher(m_locator.getMemPool(), 1);
        EXPECT_TRUE(Access::insertAndCombine(m_locator, zeroesRegion(10, 4)));
    }
    verbose(false);
    expectTraces({{COMBINE, "right merge left=" + regionText(zeroesRegion(10, 4)) +
                                "  right=" + regionText(zeroesRegion(14, 2)) +
                                "  combined=" + regionText(zeroesRegion(10, 6)) + " "}});
}

TEST_F(VerboseLogTest, TweakIsReadAtEachUse)
{
    insertVerbosely(plainRegion(0, 8, 100));
    m_log.clear();
    insertRegion(m_locator, plainRegion(0, 8, 200));
    EXPECT_TRUE(m_log.records().empty());
    insertVerbosely(plainRegion(0, 8, 300));
    EXPECT_FALSE(m_log.records().empty());
}

} // namespace
