// Power cuts at every change that an apply makes.
#include "appliance/Apply.h"
#include "tests/appliance/MirrorOnCrashStorage.h"

namespace {

class ApplyCrashTest : public MirrorOnCrashStorage
{
protected:
    Result apply(u64 items)
    {
        ApplyOptions options;
        options.m_stepBlocks = 20;
        options.m_noteEveryBlocks = 40; // several notes on the way
        FlowControl control;
        ApplyStatistics statistics;
        return applyMirror(*m_mirror, m_host.getEngine(), point(items), options, control,
                           &statistics);
    }
};

TEST_F(ApplyCrashTest, AfterEveryChangeTheWindowHoldsAndApplyGoesOn)
{
    ASSERT_TRUE(open(emptyMirror(), MirrorAccess::Writer).ok());
    writeRandomly(1, 30);
    ASSERT_TRUE(apply(10).ok());
    ASSERT_TRUE(m_mirror->close().ok());
    const std::unique_ptr<CrashStorage> start = m_storage->restart();

    ASSERT_TRUE(open(start->restart(), MirrorAccess::Writer).ok());
    const u64 firstChange = m_storage->changes();
    ASSERT_TRUE(apply(22).ok());
    const u64 lastChange = m_storage->changes();
    ASSERT_GT(lastChange, firstChange + 20);

    u64 cutUnderWay = 0;
    for (u64 changes = firstChange; changes <= lastChange; ++changes) {
        for (u32 kind = 0; kind < 4; ++kind) {
            const std::string where =
                "cut after change " + std::to_string(changes) + ", kind " + std::to_string(kind);
            ASSERT_TRUE(open(start->restart(), MirrorAccess::Writer).ok());
            m_storage->dieAfter(changes);
            const Result cut = apply(22);
            EXPECT_EQ(cut.ok(), changes == lastChange) << where;
            std::unique_ptr<CrashStorage> left = m_storage->crash(fate(kind));
            const Result opened = open(std::move(left), MirrorAccess::Writer);
            ASSERT_TRUE(opened.ok()) << where << ": " << opened.message();
            const ApplyState state = m_mirror->applyState();
            ASSERT_TRUE(state.firstItems() == 10 || state.firstItems() == 22) << where;
            if (state.firstItems() == 10) {
                // Not a byte may have been written before it was noted.
                ASSERT_EQ(targetImage(), m_images[10]) << where;
            }
            cutUnderWay += state.underWay();
            checkPoints(where, 4);
            if (HasFatalFailure())
                return;
            const Result again = apply(22);
            ASSERT_TRUE(again.ok()) << where << ": " << again.message();
            ASSERT_EQ(targetImage(), m_images[22]) << where;
            // The rest in one go, as if nothing had happened.
            ASSERT_TRUE(apply(30).ok()) << where;
            ASSERT_EQ(targetImage(), m_images[30]) << where;
        }
    }
    EXPECT_GT(cutUnderWay, 20u) << "the cuts missed what they are for";
}

TEST_F(ApplyCrashTest, FaultsOfTheTargetAreToldAndApplyGoesOn)
{
    for (u64 n = 1; n < 12; ++n) {
        m_images.resize(1);
        ASSERT_TRUE(open(emptyMirror(), MirrorAccess::Writer).ok());
        writeRandomly(2, 20);
        m_storage->failCall(CrashStorage::Call::Write, n, RC_NO_SPACE);
        const Result result = apply(20);
        m_storage->noFaults();
        if (!result.ok()) {
            EXPECT_EQ(result.code(), ResultCode::NoSpace) << result.message();
        }
        checkPoints("write " + std::to_string(n) + " failed", 5);
        ASSERT_TRUE(apply(20).ok());
        ASSERT_EQ(targetImage(), m_images[20]);
    }
}

TEST_F(ApplyCrashTest, WhatIsHeldIsThereAfterACrash)
{
    ASSERT_TRUE(open(emptyMirror(), MirrorAccess::Writer).ok());
    const std::vector<u8> data(BLOCK_BYTES, 7);
    for (u64 block = 0; block < 5; ++block)
        ASSERT_TRUE(m_mirror->write(block, data.data(), 1).ok());
    ASSERT_LT(m_mirror->journal().durableItemCount(), 5u) << "nothing is to show otherwise";
    Hold hold{"kept", 5, "item:5"};
    ASSERT_TRUE(m_mirror->hold(&hold, nullptr).ok());
    ASSERT_TRUE(open(m_storage->crash(fate(0)), MirrorAccess::Writer).ok());
    EXPECT_EQ(m_mirror->window().m_items, 5u);
    std::vector<Hold> holds;
    std::vector<UseInfo> uses;
    ASSERT_TRUE(m_mirror->pins(&holds, &uses).ok());
    ASSERT_EQ(holds.size(), 1u);
    EXPECT_EQ(holds[0].m_items, 5u);
}

} // namespace
