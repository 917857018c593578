// Power cuts and failures at every step of storing an increment: the file is the old or the new.
#include <gtest/gtest.h>
#include <optional>
#include <set>

#include "host/increments/IncrementManager.h"
#include "tests/support/CrashStorage.h"
#include "tests/support/LogCapture.h"

namespace {

using Fate = CrashStorage::Fate;

constexpr u64 NONE = ~u64{0}; // no increment at all
const u32 TORN_BYTES[] = {1, 8, 60, 64, 100, 511};

IncrementOptions options()
{
    IncrementOptions made;
    made.m_mirrorId = 7;
    made.m_volumeBlocks = 1 << 20;
    made.m_granuleBlocks = 1;
    return made;
}

// Increment number n: scattered over the volume, so that its file takes several sectors. Its
// blocks, its start and its end all follow from n.
bool isMarked(u64 n, u64 block)
{
    return block % 3001 == n;
}

RcStatus gather(IncrementManager& manager, u64 n)
{
    RcStatus rc = manager.initNextIncrementCandidate();
    for (u64 block = n; rc == RC_SUCCESS && block < options().m_volumeBlocks; block += 3001)
        rc = manager.reportCandidateIO(block, 1);
    if (rc == RC_SUCCESS)
        rc = manager.setIncrementCandidateCpTimestamp(1000 + n);
    return rc == RC_SUCCESS ? manager.setCandidateEndCheckpoint(2000 + n) : rc;
}

RcStatus store(IncrementManager& manager, u64 n)
{
    const RcStatus rc = gather(manager, n);
    return rc == RC_SUCCESS ? manager.commitNextIncrementCadidate() : rc;
}

// The number of the increment that is whole in the manager; a failure when it is none of them.
u64 numberOf(IncrementManager& manager)
{
    std::vector<LtrChangedRange> ranges;
    const RcStatus rc = manager.getIncrementCbt(&ranges);
    if (rc == RC_NOT_FOUND)
        return NONE;
    EXPECT_EQ(rc, RC_SUCCESS);
    const u64 n = manager.increment()->m_startTimestampUs - 1000;
    EXPECT_EQ(manager.increment()->m_endCheckpoint, 2000 + n);
    size_t expected = 0;
    for (u64 block = n; block < options().m_volumeBlocks; block += 3001)
        ++expected;
    EXPECT_EQ(ranges.size(), expected);
    for (const LtrChangedRange& range : ranges)
        EXPECT_TRUE(range.m_lengthBlocks == 1 && isMarked(n, range.m_offsetBlocks));
    return n;
}

u64 numberIn(Storage& storage)
{
    const IncrementManager::Opened opened = IncrementManager::open(storage, options());
    EXPECT_EQ(opened.m_rc, RC_SUCCESS) << opened.m_message;
    return opened.m_manager ? numberOf(*opened.m_manager) : NONE - 1;
}

std::vector<CrashStorage::Chooser> choosers(size_t units)
{
    std::vector<CrashStorage::Chooser> all;
    if (units <= 8) {
        for (u64 mask = 0; mask < u64{1} << units; ++mask)
            all.push_back([mask](size_t unit) {
                return Fate{(mask >> unit & 1) != 0 ? Fate::Kept : Fate::Lost, 0};
            });
    }
    for (size_t one = 0; one < units; ++one)
        for (const Fate::Kind others : {Fate::Kept, Fate::Lost}) {
            all.push_back([=](size_t unit) {
                const Fate::Kind opposite = others == Fate::Kept ? Fate::Lost : Fate::Kept;
                return Fate{unit == one ? opposite : others, 0};
            });
            for (const u32 bytes : TORN_BYTES)
                all.push_back([=](size_t unit) {
                    return unit == one ? Fate{Fate::Torn, bytes} : Fate{others, 0};
                });
        }
    all.push_back([](size_t) { return Fate{Fate::Lost, 0}; });
    all.push_back([](size_t) { return Fate{Fate::Kept, 0}; });
    return all;
}

// What a history was promised, and what it may have left beside that.
struct Ledger
{
    u64 m_old = NONE;
    u64 m_next = NONE; // asked for, and not acknowledged
};

void play(Storage& storage, Ledger& ledger)
{
    const auto step = [&](u64 n, auto&& action) {
        ledger.m_next = n;
        if (action() != RC_SUCCESS)
            return false;
        ledger.m_old = n;
        return true;
    };
    {
        const IncrementManager::Opened opened = IncrementManager::open(storage, options());
        if (!opened.m_manager)
            return;
        IncrementManager& manager = *opened.m_manager;
        if (!step(1, [&] { return store(manager, 1); }) ||
            !step(2, [&] { return store(manager, 2); }) ||
            !step(2, [&] { return manager.save(2002); }) || !step(2, [&] {
                const RcStatus rc = gather(manager, 3);
                return rc == RC_SUCCESS ? manager.cancelNextIncrementCadidate() : rc;
            }))
            return;
    }
    const IncrementManager::Opened opened = IncrementManager::open(storage, options());
    if (opened.m_manager)
        step(4, [&] { return store(*opened.m_manager, 4); });
}

TEST(IncrementCrashTest, EveryPowerCutLeavesTheOldOrTheNew)
{
    const LogCapture quiet;
    u64 changes = 0;
    {
        CrashStorage storage;
        Ledger ledger;
        play(storage, ledger);
        ASSERT_EQ(ledger.m_old, 4U);
        changes = storage.changes();
    }
    size_t images = 0;
    size_t olds = 0;
    size_t news = 0;
    for (u64 point = 0; point <= changes; ++point) {
        CrashStorage storage;
        Ledger ledger;
        storage.dieAfter(point);
        play(storage, ledger);
        for (const CrashStorage::Chooser& fate : choosers(storage.unsynced())) {
            const auto image = storage.crash(fate);
            const u64 found = numberIn(*image);
            ++images;
            ASSERT_TRUE(found == ledger.m_old || found == ledger.m_next)
                << "power cut after change " << point << ", image " << images << ": increment "
                << found << ", not " << ledger.m_old << " or " << ledger.m_next;
            (found == ledger.m_old ? olds : news) += 1;
            ASSERT_FALSE(testing::Test::HasFailure()) << point;
        }
        // What is left over does not stand in the way of the next one.
        const auto image = storage.crash([](size_t) { return Fate{Fate::Kept, 0}; });
        const IncrementManager::Opened opened = IncrementManager::open(*image, options());
        ASSERT_EQ(opened.m_rc, RC_SUCCESS);
        ASSERT_EQ(store(*opened.m_manager, 5), RC_SUCCESS);
        ASSERT_EQ(numberIn(*image->crash([](size_t) { return Fate{}; })), 5U);
    }
    EXPECT_GT(images, 300U);
    EXPECT_GT(olds, 0U);
    EXPECT_GT(news, 0U);
}

TEST(IncrementCrashTest, ACommitThatFailsAtAnyStepCanBeRepeatedOrCancelled)
{
    const LogCapture quiet;
    for (const bool first : {true, false})
        for (const bool repeat : {true, false})
            for (const CrashStorage::Call call :
                 {CrashStorage::Call::Write, CrashStorage::Call::Sync,
                  CrashStorage::Call::Create}) {
                u64 failures = 0;
                for (u64 n = 1;; ++n) {
                    CrashStorage storage;
                    const auto manager =
                        std::move(IncrementManager::open(storage, options()).m_manager);
                    if (!first) {
                        ASSERT_EQ(store(*manager, 1), RC_SUCCESS);
                    }
                    const u64 old = first ? NONE : 1;
                    ASSERT_EQ(gather(*manager, 2), RC_SUCCESS);
                    storage.failCall(call, n, RC_NO_SPACE);
                    const RcStatus rc = manager->commitNextIncrementCadidate();
                    storage.noFaults();
                    if (rc == RC_SUCCESS)
                        break;
                    ++failures;
                    EXPECT_EQ(rc, RC_NO_SPACE);
                    EXPECT_EQ(numberOf(*manager), old);
                    ASSERT_TRUE(manager->candidate().has_value());
                    const u64 expected = repeat ? 2 : old;
                    EXPECT_EQ(repeat ? manager->commitNextIncrementCadidate()
                                     : manager->cancelNextIncrementCadidate(),
                              RC_SUCCESS);
                    EXPECT_EQ(numberOf(*manager), expected);
                    // Memory, what a restart finds and what a power cut leaves are the same again.
                    EXPECT_EQ(numberIn(*storage.restart()), expected);
                    for (const CrashStorage::Chooser& fate : choosers(storage.unsynced()))
                        EXPECT_EQ(numberIn(*storage.crash(fate)), expected);
                    ASSERT_FALSE(testing::Test::HasFailure())
                        << "call kind " << static_cast<int>(call) << " number " << n;
                }
                EXPECT_GT(failures, 0U);
            }
}

TEST(IncrementCrashTest, ACancelThatFailsIsMadeGoodByTheNextCandidate)
{
    const LogCapture quiet;
    for (const u64 old : {NONE, u64{1}}) {
        CrashStorage storage;
        const auto manager = std::move(IncrementManager::open(storage, options()).m_manager);
        if (old == 1) {
            ASSERT_EQ(store(*manager, 1), RC_SUCCESS);
        }
        ASSERT_EQ(gather(*manager, 2), RC_SUCCESS);
        // The first sync is the file's; the second the folder's, when the name is taken already.
        storage.failCall(CrashStorage::Call::Sync, 2, RC_IO_ERROR, true);
        EXPECT_EQ(manager->commitNextIncrementCadidate(), RC_IO_ERROR);
        EXPECT_EQ(manager->cancelNextIncrementCadidate(), RC_IO_ERROR);
        EXPECT_FALSE(manager->candidate().has_value());
        EXPECT_EQ(manager->initNextIncrementCandidate(), RC_IO_ERROR);
        EXPECT_FALSE(manager->candidate().has_value());
        EXPECT_EQ(numberOf(*manager), old);
        storage.noFaults();
        EXPECT_EQ(manager->initNextIncrementCandidate(), RC_SUCCESS);
        EXPECT_TRUE(manager->candidate().has_value());
        EXPECT_EQ(numberIn(*storage.crash([](size_t) { return Fate{}; })), old);
    }
}

TEST(IncrementCrashTest, AShorterOneAfterALongerOneThatFailed)
{
    const LogCapture quiet;
    CrashStorage storage;
    const auto manager = std::move(IncrementManager::open(storage, options()).m_manager);
    ASSERT_EQ(gather(*manager, 1), RC_SUCCESS);
    for (u64 block = 0; block < 100000; block += 3)
        ASSERT_EQ(manager->reportCandidateIO(block, 1), RC_SUCCESS);
    storage.failCall(CrashStorage::Call::Sync, 1, RC_NO_SPACE);
    EXPECT_EQ(manager->commitNextIncrementCadidate(), RC_NO_SPACE);
    storage.noFaults();
    EXPECT_EQ(store(*manager, 2), RC_SUCCESS);
    EXPECT_EQ(numberIn(*storage.crash([](size_t) { return Fate{}; })), 2U);
}

} // namespace
