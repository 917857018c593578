#include "RegionLocator/RegionFinger.h"

#include <gtest/gtest.h>

#include "tests/support/Accelerators.h"
#include "tests/support/LogCapture.h"
#include "tests/support/RegionLocatorTestAccess.h"
#include "tests/support/VoucherGuard.h"

namespace {

TEST(RegionFingerTest, HoldsWhatItWasGivenLast)
{
    std::_Rb_tree_node_base a{};
    std::_Rb_tree_node_base b{};
    RegionFinger finger;
    EXPECT_EQ(finger.get(), nullptr);
    finger.set(&a);
    EXPECT_EQ(finger.get(), &a);
    finger.set(&b);
    finger.forget(&a);
    EXPECT_EQ(finger.get(), &b);
    finger.forget(&b);
    EXPECT_EQ(finger.get(), nullptr);
    finger.set(&a);
    finger.forgetAll();
    EXPECT_EQ(finger.get(), nullptr);
}

TEST(RegionFingerTest, RestsAfterMissesInARowAndIsTriedAgain)
{
    std::_Rb_tree_node_base node{};
    RegionFinger finger;
    finger.set(&node);
    int misses = 0;
    while (!finger.isOff() && misses < 100) {
        ASSERT_EQ(finger.get(), &node);
        finger.missed();
        ++misses;
    }
    EXPECT_EQ(misses, 8);
    int rest = 0;
    while (finger.get() == nullptr && rest < 1000)
        ++rest;
    EXPECT_EQ(rest, 64);
    // Once more in vain, and it rests again at once; a hit wipes that out.
    finger.missed();
    EXPECT_TRUE(finger.isOff());
    while (finger.isOff())
        finger.get();
    finger.hit();
    finger.missed();
    EXPECT_FALSE(finger.isOff());
}

TEST(RegionFingerTest, AHitBetweenMissesKeepsItOn)
{
    std::_Rb_tree_node_base node{};
    RegionFinger finger;
    finger.set(&node);
    for (int i = 0; i < 100; ++i) {
        finger.missed();
        finger.hit();
    }
    EXPECT_FALSE(finger.isOff());
}

// A run of writes, each behind the one before, and then over again from the start; what it leaves
// is the same with the finger alone and with nothing.
TEST(RegionFingerTest, ASequentialRunLeavesWhatItLeavesWithoutIt)
{
    const LogCapture log;
    Regions with;
    Regions without;
    for (Regions* result : {&with, &without}) {
        const Accelerators on(result == &with ? Accelerators::FINGER : Accelerators::NONE);
        RegionLocator locator(1, RL_MMI_View);
        for (u64 round = 0; round < 3; ++round)
            for (u64 i = 0; i < 300; ++i)
                insertRegion(locator, plainRegion(8 * i + round, 8, 1000 * round + 8 * i));
        *result = lookupRange(locator, 0, 3000);
    }
    EXPECT_EQ(without, with);
    EXPECT_GT(with.size(), 300U);
}

} // namespace
