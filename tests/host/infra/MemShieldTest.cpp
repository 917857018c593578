#include "common/infra/MemShield.h"

#include <gtest/gtest.h>

#include "host/infra/MemShieldControl.h"
#include "tests/support/LogCapture.h"

namespace {

struct Plain
{
    int m_value = 7;
};
struct Base
{
    explicit Base(int* destroyed) : m_destroyed(destroyed) {}
    virtual ~Base() { ++*m_destroyed; }
    int* m_destroyed;
};
struct Other
{
    virtual ~Other() = default;
    int m_padding = 0;
};
struct Derived : public Other, public Base
{
    explicit Derived(int* destroyed) : Base(destroyed) {}
};

class MemShieldTest : public testing::TestWithParam<bool>
{
protected:
    void SetUp() override
    {
        if (GetParam()) {
            ASSERT_EQ(MemShieldControl::enable(), RC_SUCCESS);
        }
    }
    void TearDown() override { ASSERT_EQ(MemShieldControl::disable(), RC_SUCCESS); }
};

TEST_P(MemShieldTest, AnObjectIsCountedWhileItLives)
{
    const u64 live = MemShieldControl::liveObjects();
    const u64 allocations = MemShieldControl::allocations();
    Plain* object = SHIELD_NEW(Plain);
    EXPECT_EQ(object->m_value, 7);
    EXPECT_EQ(MemShieldControl::liveObjects(), live + 1);
    SHIELD_DELETE(object);
    EXPECT_EQ(MemShieldControl::liveObjects(), live);
    EXPECT_EQ(MemShieldControl::allocations(), allocations + 1);
}

TEST_P(MemShieldTest, AnObjectIsDeletedThroughAnyOfItsBases)
{
    int destroyed = 0;
    Base* object = SHIELD_NEW(Derived, &destroyed);
    SHIELD_DELETE(object);
    EXPECT_EQ(destroyed, 1);
}

TEST_P(MemShieldTest, NullIsNoObject)
{
    Plain* none = nullptr;
    SHIELD_DELETE(none);
}

TEST_P(MemShieldTest, TheSwitchIsRefusedWhileAnObjectLives)
{
    Plain* object = SHIELD_NEW(Plain);
    if (GetParam())
        EXPECT_EQ(MemShieldControl::disable(), RC_IN_USE);
    else
        EXPECT_EQ(MemShieldControl::enable(), RC_IN_USE);
    EXPECT_EQ(MemShield::isActive(), GetParam());
    SHIELD_DELETE(object);
}

INSTANTIATE_TEST_SUITE_P(OffAndOn, MemShieldTest, testing::Bool());

TEST(MemShieldActiveTest, KnowsTypeFileAndLineAndReportsWhatIsLeft)
{
    ASSERT_EQ(MemShieldControl::enable(), RC_SUCCESS);
    Plain* one = SHIELD_NEW_AS(Plain, "label");
    const int line = __LINE__ - 1;
    {
        const std::vector<MemShieldGroup> groups = MemShieldControl::liveGroups();
        ASSERT_EQ(groups.size(), 1u);
        EXPECT_EQ(groups[0].m_typeName, "label");
        EXPECT_EQ(groups[0].m_file, __FILE__);
        EXPECT_EQ(groups[0].m_line, line);
        EXPECT_EQ(groups[0].m_count, 1u);
        EXPECT_EQ(groups[0].m_sizeBytes, sizeof(Plain));
    }
    LogCapture log;
    EXPECT_EQ(MemShieldControl::reportLeaks(), 1u);
    EXPECT_EQ(log.only().m_text,
              "leak: 1 x label, 4 bytes, allocated at " __FILE__ " " + std::to_string(line));
    SHIELD_DELETE(one);
    log.clear();
    EXPECT_EQ(MemShieldControl::reportLeaks(), 0u);
    EXPECT_TRUE(log.records().empty());
    EXPECT_EQ(MemShieldControl::disable(), RC_SUCCESS);
}

TEST(MemShieldDeathTest, AFreeOfWhatItDoesNotKnowStopsTheProcess)
{
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_DEATH(
        {
            MemShieldControl::enable();
            Plain* stranger = new Plain;
            SHIELD_DELETE(stranger);
        },
        "Assertion \\(isLiveTrackedObject\\) failed");
}

TEST(MemShieldDeathTest, LeaksAreReportedWhenTheProcessExits)
{
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_EXIT(
        {
            MemShieldControl::enable();
            static Plain* volatile left = SHIELD_NEW_AS(Plain, "Forgotten");
            std::exit(left != nullptr ? 0 : 1);
        },
        testing::ExitedWithCode(0), "leak: 1 x Forgotten, 4 bytes");
}

} // namespace
