#include "host/infra/TweaksLoader.h"

#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>

#include "common/infra/DynamicTweaks.h"
#include "common/infra/Tweaks.h"
#include "tests/support/OwnPath.h"

namespace {

class TweaksLoaderTest : public testing::Test
{
protected:
    void TearDown() override
    {
        for (const char* name : {"a", "b", "text"})
            Tweaks::unset(name);
        DynamicTweaks::instance()->t_RlVerboseLogs = false;
        DynamicTweaks::instance()->t_BinVerboseLogs = false;
        DynamicTweaks::instance()->t_IOVerboseLogs = false;
        unsetenv("RL_TWEAK_a");
        std::remove(m_path.c_str());
    }
    Outcome load(const std::string& text)
    {
        std::ofstream(m_path) << text;
        return loadTweaksFile(m_path);
    }
    const std::string m_path = ownPath("tweaks_test.json");
};

TEST_F(TweaksLoaderTest, AFileSetsBothKinds)
{
    ASSERT_TRUE(
        load(R"({"a": 5, "b": "0x10", "t_RlVerboseLogs": true, "t_IOVerboseLogs": 1})").ok());
    EXPECT_EQ(Tweaks::uintVal("a", 0), 5u);
    EXPECT_EQ(Tweaks::uintVal("b", 0), 16u);
    EXPECT_TRUE(DynamicTweaks::instance()->t_RlVerboseLogs);
    EXPECT_TRUE(DynamicTweaks::instance()->t_IOVerboseLogs);
    EXPECT_FALSE(DynamicTweaks::instance()->t_BinVerboseLogs);
    EXPECT_EQ(Tweaks::uintVal("t_RlVerboseLogs", 7), 7u);
}

TEST_F(TweaksLoaderTest, ABadFileChangesNothing)
{
    for (const char* text :
         {"", "[1]", "{", R"({"a": 1, "b": -1})", R"({"a": 1, "b": 1.5})", R"({"a": 1, "b": null})",
          R"({"a": 1, "b": "0x"})", R"({"a": 1, "b": 18446744073709551616})",
          R"({"a": 1, "t_BinVerboseLogs": 2})"}) {
        EXPECT_EQ(load(text).m_rc, RC_BAD_ARGUMENT) << text;
        EXPECT_EQ(Tweaks::uintVal("a", 99), 99u) << text;
    }
    EXPECT_EQ(loadTweaksFile(m_path + ".none").m_rc, RC_NOT_FOUND);
}

TEST_F(TweaksLoaderTest, AnAssignmentSetsOne)
{
    ASSERT_TRUE(setTweak("a=12").ok());
    EXPECT_EQ(Tweaks::uintVal("a", 0), 12u);
    for (const char* text : {"", "a", "=5", "a=", "a=x"})
        EXPECT_EQ(setTweak(text).m_rc, RC_BAD_ARGUMENT) << text;
    EXPECT_EQ(Tweaks::uintVal("a", 0), 12u);
}

TEST_F(TweaksLoaderTest, TheEnvironmentSetsByPrefix)
{
    setenv("RL_TWEAK_a", "18446744073709551615", 1);
    ASSERT_TRUE(loadTweaksFromEnvironment().ok());
    EXPECT_EQ(Tweaks::uintVal("a", 0), ~u64{0});
    setenv("RL_TWEAK_a", "many", 1);
    const Outcome outcome = loadTweaksFromEnvironment();
    EXPECT_EQ(outcome.m_rc, RC_BAD_ARGUMENT);
    EXPECT_EQ(outcome.m_message, "in the environment, tweak a: 'many' is not a number");
}

} // namespace
