#include "host/increments/IncrementManager.h"

#include <atomic>
#include <gtest/gtest.h>
#include <random>
#include <set>
#include <thread>
#include <unistd.h>

#include "host/journal/FileStorage.h"
#include "tests/support/CrashStorage.h"
#include "tests/support/LogCapture.h"

namespace {

using Blocks = std::set<u64>;

constexpr u64 VOLUME = 1003;
constexpr u32 GRANULE = 4;
const std::string FILE_NAME = "increments/current";

IncrementOptions options()
{
    IncrementOptions made;
    made.m_mirrorId = 7;
    made.m_volumeBlocks = VOLUME;
    made.m_granuleBlocks = GRANULE;
    return made;
}

std::unique_ptr<IncrementManager> openManager(Storage& storage, IncrementOptions how = options())
{
    IncrementManager::Opened opened = IncrementManager::open(storage, how);
    EXPECT_EQ(opened.m_rc, RC_SUCCESS) << opened.m_message;
    EXPECT_EQ(opened.m_manager != nullptr, opened.m_rc == RC_SUCCESS);
    return std::move(opened.m_manager);
}

// Every block of the increment, one by one; checks the ranges' form by the way.
Blocks increment(IncrementManager& manager)
{
    std::vector<LtrChangedRange> ranges = {{1, 1}};
    EXPECT_EQ(manager.getIncrementCbt(&ranges), RC_SUCCESS);
    Blocks blocks;
    u64 endBefore = 0;
    for (const LtrChangedRange& range : ranges) {
        EXPECT_GT(range.m_lengthBlocks, 0U);
        // Ranges that touch would be one.
        EXPECT_TRUE(blocks.empty() || range.m_offsetBlocks > endBefore);
        endBefore = range.m_offsetBlocks + range.m_lengthBlocks;
        EXPECT_LE(endBefore, VOLUME);
        for (u64 block = range.m_offsetBlocks; block < endBefore; ++block)
            blocks.insert(block);
    }
    return blocks;
}

RcStatus cbtStatus(IncrementManager& manager)
{
    std::vector<LtrChangedRange> ranges = {{1, 1}};
    const RcStatus rc = manager.getIncrementCbt(&ranges);
    EXPECT_TRUE(rc == RC_SUCCESS || ranges.empty());
    return rc;
}

// The blocks of the granules that a write touches.
Blocks touched(u64 offset, u32 length, u32 granule = GRANULE)
{
    Blocks blocks;
    for (u64 block = offset / granule * granule; block < VOLUME; ++block)
        if (block < offset + length || block % granule != 0)
            blocks.insert(block);
        else
            break;
    return blocks;
}

Blocks operator+(Blocks a, const Blocks& b)
{
    a.insert(b.begin(), b.end());
    return a;
}

void begin(IncrementManager& manager, u64 timestamp, CpId_t end)
{
    ASSERT_EQ(manager.initNextIncrementCandidate(), RC_SUCCESS);
    ASSERT_EQ(manager.setIncrementCandidateCpTimestamp(timestamp), RC_SUCCESS);
    ASSERT_EQ(manager.setCandidateEndCheckpoint(end), RC_SUCCESS);
}

// One increment of one write.
void commitOne(IncrementManager& manager, u64 offset, u64 timestamp, CpId_t end)
{
    begin(manager, timestamp, end);
    ASSERT_EQ(manager.reportCandidateIO(offset, 1), RC_SUCCESS);
    ASSERT_EQ(manager.commitNextIncrementCadidate(), RC_SUCCESS);
}

// ---- one life ----

TEST(IncrementManagerTest, BeforeTheFirstCommitNothingIsKnown)
{
    CrashStorage storage;
    const auto manager = openManager(storage);
    EXPECT_TRUE(manager->isEnabled());
    EXPECT_EQ(manager->getApplyMdListener(), nullptr);
    EXPECT_EQ(cbtStatus(*manager), RC_NOT_FOUND);
    EXPECT_EQ(manager->reportIO(0, 1), RC_SUCCESS);
    EXPECT_EQ(cbtStatus(*manager), RC_NOT_FOUND);
    EXPECT_EQ(manager->save(1), RC_NOT_FOUND);
    EXPECT_FALSE(manager->increment().has_value());
    EXPECT_FALSE(manager->candidate().has_value());
    EXPECT_TRUE(storage.files().empty());
}

TEST(IncrementManagerTest, WithoutACandidateItsOperationsSayThereIsNone)
{
    CrashStorage storage;
    const auto manager = openManager(storage);
    EXPECT_EQ(manager->reportCandidateIO(0, 1), RC_NOT_FOUND);
    EXPECT_EQ(manager->setIncrementCandidateCpTimestamp(1), RC_NOT_FOUND);
    EXPECT_EQ(manager->setCandidateEndCheckpoint(1), RC_NOT_FOUND);
    EXPECT_EQ(manager->commitNextIncrementCadidate(), RC_NOT_FOUND);
    EXPECT_EQ(manager->cancelNextIncrementCadidate(), RC_NOT_FOUND);
}

TEST(IncrementManagerTest, ACommittedCandidateIsTheIncrementAlsoAfterARestart)
{
    CrashStorage storage;
    {
        const auto manager = openManager(storage);
        begin(*manager, 1111, 22);
        EXPECT_EQ(manager->reportCandidateIO(5, 6), RC_SUCCESS);
        EXPECT_EQ(manager->reportCandidateIO(1002, 1), RC_SUCCESS);
        EXPECT_EQ(cbtStatus(*manager), RC_NOT_FOUND);
        EXPECT_EQ(manager->candidate()->m_granules, 3U);
        EXPECT_EQ(manager->commitNextIncrementCadidate(), RC_SUCCESS);
        EXPECT_FALSE(manager->candidate().has_value());
        EXPECT_EQ(increment(*manager), touched(5, 6) + touched(1002, 1));
    }
    const auto manager = openManager(storage);
    EXPECT_EQ(increment(*manager), touched(5, 6) + touched(1002, 1));
    ASSERT_TRUE(manager->increment().has_value());
    EXPECT_EQ(manager->increment()->m_startTimestampUs, 1111U);
    EXPECT_EQ(manager->increment()->m_endCheckpoint, 22U);
    EXPECT_EQ(manager->increment()->m_granules, 3U);
    EXPECT_EQ(manager->increment()->m_granuleBlocks, GRANULE);
    EXPECT_TRUE(manager->increment()->m_complete);
    EXPECT_FALSE(manager->candidate().has_value());
    EXPECT_EQ(storage.files(), std::vector<std::string>{FILE_NAME});
}

TEST(IncrementManagerTest, AnEmptyIncrementIsOneToo)
{
    CrashStorage storage;
    {
        const auto manager = openManager(storage);
        begin(*manager, 5, 6);
        EXPECT_EQ(manager->commitNextIncrementCadidate(), RC_SUCCESS);
    }
    EXPECT_EQ(increment(*openManager(storage)), Blocks{});
}

TEST(IncrementManagerTest, ACancelledCandidateLeavesNoTrace)
{
    CrashStorage storage;
    const auto manager = openManager(storage);
    commitOne(*manager, 0, 1, 2);
    begin(*manager, 3, 4);
    EXPECT_EQ(manager->reportCandidateIO(100, 1), RC_SUCCESS);
    EXPECT_EQ(manager->cancelNextIncrementCadidate(), RC_SUCCESS);
    EXPECT_EQ(manager->reportCandidateIO(100, 1), RC_NOT_FOUND);
    EXPECT_EQ(increment(*manager), touched(0, 1));
    EXPECT_EQ(increment(*openManager(storage)), touched(0, 1));
    EXPECT_EQ(manager->increment()->m_startTimestampUs, 1U);
}

TEST(IncrementManagerTest, ANewCandidateTakesThePlaceOfAnOpenOne)
{
    CrashStorage storage;
    const auto manager = openManager(storage);
    begin(*manager, 3, 4);
    EXPECT_EQ(manager->reportCandidateIO(100, 1), RC_SUCCESS);
    ASSERT_EQ(manager->initNextIncrementCandidate(), RC_SUCCESS);
    EXPECT_EQ(manager->candidate()->m_granules, 0U);
    // Nor has it the start of the one before.
    EXPECT_EQ(manager->commitNextIncrementCadidate(), RC_BAD_ARGUMENT);
    EXPECT_TRUE(manager->candidate().has_value());
    EXPECT_TRUE(storage.files().empty());
}

TEST(IncrementManagerTest, AWriteBelongsToTheIncrementAndToAnOpenCandidate)
{
    CrashStorage storage;
    const auto manager = openManager(storage);
    commitOne(*manager, 0, 1, 2);
    EXPECT_EQ(manager->reportIO(20, 1), RC_SUCCESS);
    begin(*manager, 3, 4);
    EXPECT_EQ(manager->reportCandidateIO(40, 1), RC_SUCCESS);
    EXPECT_EQ(manager->reportIO(60, 1), RC_SUCCESS);
    EXPECT_EQ(increment(*manager), touched(0, 1) + touched(20, 1) + touched(60, 1));
    EXPECT_EQ(manager->commitNextIncrementCadidate(), RC_SUCCESS);
    EXPECT_EQ(increment(*manager), touched(40, 1) + touched(60, 1));
}

TEST(IncrementManagerTest, WhatWasReportedLaterIsStoredBySave)
{
    CrashStorage storage;
    {
        const auto manager = openManager(storage);
        commitOne(*manager, 0, 1, 2);
        EXPECT_EQ(manager->reportIO(20, 1), RC_SUCCESS);
        EXPECT_EQ(increment(*openManager(storage)), touched(0, 1));
        EXPECT_EQ(manager->save(9), RC_SUCCESS);
        EXPECT_EQ(manager->increment()->m_endCheckpoint, 9U);
    }
    const auto manager = openManager(storage);
    EXPECT_EQ(increment(*manager), touched(0, 1) + touched(20, 1));
    EXPECT_EQ(manager->increment()->m_startTimestampUs, 1U);
    EXPECT_EQ(manager->increment()->m_endCheckpoint, 9U);
}

TEST(IncrementManagerTest, RangesOutsideOfTheVolumeAreRefused)
{
    CrashStorage storage;
    const auto manager = openManager(storage);
    commitOne(*manager, 0, 1, 2);
    begin(*manager, 3, 4);
    const std::pair<u64, u32> wrong[] = {{0, 0},           {VOLUME, 1},  {VOLUME - 1, 2},
                                         {0, ~u32{0}},     {~u64{0}, 1}, {~u64{0}, ~u32{0}},
                                         {5, VOLUME - 4U}, {VOLUME, 0}};
    for (const auto& [offset, length] : wrong) {
        EXPECT_EQ(manager->reportIO(offset, length), RC_BAD_ARGUMENT);
        EXPECT_EQ(manager->reportCandidateIO(offset, length), RC_BAD_ARGUMENT);
    }
    EXPECT_EQ(increment(*manager), touched(0, 1));
    EXPECT_EQ(manager->candidate()->m_granules, 0U);
    // A caller's slip does not make them incomplete.
    EXPECT_EQ(manager->commitNextIncrementCadidate(), RC_SUCCESS);
}

TEST(IncrementManagerTest, AStoredIncrementKeepsItsGranule)
{
    CrashStorage storage;
    commitOne(*openManager(storage), 0, 1, 2);
    IncrementOptions coarse = options();
    coarse.m_granuleBlocks = 100;
    const auto manager = openManager(storage, coarse);
    EXPECT_EQ(increment(*manager), touched(0, 1));
    begin(*manager, 3, 4);
    EXPECT_EQ(manager->reportIO(250, 1), RC_SUCCESS);
    EXPECT_EQ(increment(*manager), touched(0, 1) + touched(250, 1));
    EXPECT_EQ(manager->commitNextIncrementCadidate(), RC_SUCCESS);
    EXPECT_EQ(increment(*manager), touched(250, 1, 100));
}

TEST(IncrementManagerTest, DisabledItNotesNothingAndLeavesTheFileAlone)
{
    CrashStorage storage;
    commitOne(*openManager(storage), 0, 1, 2);
    storage.setByte(FILE_NAME, 0, 'x'); // not even read
    const u64 changes = storage.changes();
    IncrementOptions off = options();
    off.m_enabled = false;
    off.m_volumeBlocks = 0;
    const auto manager = openManager(storage, off);
    EXPECT_FALSE(manager->isEnabled());
    EXPECT_EQ(manager->reportIO(0, 1), RC_SUCCESS);
    EXPECT_EQ(manager->reportCandidateIO(0, 1), RC_SUCCESS);
    EXPECT_EQ(manager->initNextIncrementCandidate(), RC_NOT_FOUND);
    EXPECT_EQ(manager->setIncrementCandidateCpTimestamp(1), RC_NOT_FOUND);
    EXPECT_EQ(manager->setCandidateEndCheckpoint(1), RC_NOT_FOUND);
    EXPECT_EQ(manager->commitNextIncrementCadidate(), RC_NOT_FOUND);
    EXPECT_EQ(manager->cancelNextIncrementCadidate(), RC_NOT_FOUND);
    EXPECT_EQ(manager->save(1), RC_NOT_FOUND);
    EXPECT_EQ(cbtStatus(*manager), RC_NOT_FOUND);
    EXPECT_EQ(storage.changes(), changes);
}

TEST(IncrementManagerTest, TooManyGranulesAreRefused)
{
    CrashStorage storage;
    IncrementOptions huge = options();
    huge.m_granuleBlocks = 8;
    huge.m_volumeBlocks = (u64{1} << 35) + 1;
    const IncrementManager::Opened opened = IncrementManager::open(storage, huge);
    EXPECT_EQ(opened.m_rc, RC_BAD_ARGUMENT);
    EXPECT_EQ(opened.m_message,
              "increments need 1 to 2^32 granules; a volume of 34359738369 blocks has not that "
              "with 8 blocks each");
    EXPECT_EQ(opened.m_manager, nullptr);
    --huge.m_volumeBlocks;
    EXPECT_NE(openManager(storage, huge), nullptr);
}

TEST(IncrementManagerTest, WorksOnARealFolder)
{
    std::string root = testing::TempDir() + "rl-increments-XXXXXX";
    ASSERT_NE(mkdtemp(root.data()), nullptr);
    FileStorage storage(root);
    for (u64 round = 0; round < 3; ++round)
        commitOne(*openManager(storage), 100 * round, round, round);
    EXPECT_EQ(increment(*openManager(storage)), touched(200, 1));
    std::vector<std::string> names;
    EXPECT_EQ(storage.list("increments", &names), RC_SUCCESS);
    EXPECT_EQ(names, std::vector<std::string>{"current"});
    EXPECT_EQ(IncrementManager::discard(storage, options()), RC_SUCCESS);
    EXPECT_EQ(cbtStatus(*openManager(storage)), RC_NOT_FOUND);
    rmdir((root + "/increments").c_str());
    rmdir(root.c_str());
}

// ---- the limit ----

TEST(IncrementManagerTest, ACandidatePastTheLimitFailsForGoodAndTheIncrementStays)
{
    CrashStorage storage;
    IncrementOptions small = options();
    small.m_maxMemoryBytes = 1000;
    const auto manager = openManager(storage, small);
    commitOne(*manager, 0, 1, 2);
    begin(*manager, 3, 4);
    const LogCapture log;
    RcStatus rc = RC_SUCCESS;
    u64 reports = 0;
    // Every other granule, so that nothing is compact.
    for (; rc == RC_SUCCESS && reports < VOLUME / 8; ++reports)
        rc = manager->reportCandidateIO(8 * reports, 1);
    ASSERT_EQ(rc, RC_SUCCESS); // 126 granules take 252 bytes in one container
    ASSERT_EQ(manager->cancelNextIncrementCadidate(), RC_SUCCESS);

    small.m_maxMemoryBytes = 200;
    const auto tight = openManager(storage, small);
    begin(*tight, 3, 4);
    for (reports = 0; rc == RC_SUCCESS && reports < VOLUME / 8; ++reports)
        rc = tight->reportCandidateIO(8 * reports, 1);
    EXPECT_EQ(rc, RC_NO_MEMORY);
    EXPECT_GT(reports, 1U);
    EXPECT_TRUE(isRecord(log.only(), LogModuleCommon, WarnLevel, 3, "",
                         "mirror 7: changed blocks take more than the limit of 200 bytes; the next "
                         "backup is to be a full one"));
    EXPECT_FALSE(tight->candidate()->m_complete);
    // For good: not even what it has already.
    EXPECT_EQ(tight->reportCandidateIO(0, 1), RC_NO_MEMORY);
    EXPECT_EQ(tight->commitNextIncrementCadidate(), RC_NO_MEMORY);
    EXPECT_EQ(log.records().size(), 1U);
    EXPECT_EQ(increment(*tight), touched(0, 1));
    EXPECT_EQ(increment(*openManager(storage)), touched(0, 1));
    // A new one begins with the room of the old.
    EXPECT_EQ(tight->cancelNextIncrementCadidate(), RC_SUCCESS);
    commitOne(*tight, 500, 5, 6);
    EXPECT_EQ(increment(*tight), touched(500, 1));
}

TEST(IncrementManagerTest, AnIncrementPastTheLimitGivesNoRangesUntilTheNextCommit)
{
    CrashStorage storage;
    IncrementOptions small = options();
    small.m_maxMemoryBytes = 300;
    const auto manager = openManager(storage, small);
    commitOne(*manager, 0, 1, 2);
    begin(*manager, 3, 4);
    const LogCapture log;
    RcStatus rc = RC_SUCCESS;
    for (u64 block = 0; rc == RC_SUCCESS && block < VOLUME; block += 8)
        rc = manager->reportIO(block, 1);
    ASSERT_EQ(rc, RC_NO_MEMORY);
    EXPECT_FALSE(manager->increment()->m_complete && manager->candidate()->m_complete);
    for (u64 block = 0; block < VOLUME; block += 8)
        manager->reportIO(block, 1);
    EXPECT_EQ(cbtStatus(*manager), RC_NO_MEMORY);
    EXPECT_EQ(manager->save(5), RC_NO_MEMORY);
    EXPECT_EQ(increment(*openManager(storage)), touched(0, 1));
    EXPECT_EQ(manager->cancelNextIncrementCadidate(), RC_SUCCESS);
    EXPECT_EQ(cbtStatus(*manager), RC_NO_MEMORY);
}

TEST(IncrementManagerTest, TheLimitIsThatOfBothTogether)
{
    CrashStorage storage;
    IncrementOptions small = options();
    small.m_maxMemoryBytes = 300;
    const auto manager = openManager(storage, small);
    commitOne(*manager, 0, 1, 2);
    for (u64 block = 8; block < 8 * 90; block += 8)
        ASSERT_EQ(manager->reportIO(block, 1), RC_SUCCESS) << block;
    begin(*manager, 3, 4);
    const LogCapture quiet;
    RcStatus rc = RC_SUCCESS;
    u64 reports = 0;
    for (; rc == RC_SUCCESS && reports < 60; ++reports)
        rc = manager->reportCandidateIO(8 * reports, 1);
    EXPECT_EQ(rc, RC_NO_MEMORY);
    EXPECT_LT(reports, 30U);
    EXPECT_TRUE(manager->increment()->m_complete);
}

// ---- damage ----

TEST(IncrementManagerTest, EveryDamagedByteAndEveryCutIsFound)
{
    CrashStorage storage;
    {
        const auto manager = openManager(storage);
        begin(*manager, 1111, 22);
        for (u64 block = 0; block < 400; block += 24)
            ASSERT_EQ(manager->reportCandidateIO(block, 5), RC_SUCCESS);
        ASSERT_EQ(manager->commitNextIncrementCadidate(), RC_SUCCESS);
    }
    const u64 size = storage.sizeOf(FILE_NAME);
    ASSERT_GT(size, 80U);
    for (u64 at = 0; at < size; ++at) {
        const u8 whole = storage.byteAt(FILE_NAME, at);
        for (const u32 flip : {0x01U, 0x80U, 0xffU, 0x55U}) {
            storage.setByte(FILE_NAME, at, static_cast<u8>(whole ^ flip));
            const IncrementManager::Opened opened = IncrementManager::open(storage, options());
            EXPECT_TRUE(opened.m_rc == RC_BAD_CHECKSUM || opened.m_rc == RC_DAMAGED)
                << "byte " << at << ": " << opened.m_rc;
            EXPECT_EQ(opened.m_manager, nullptr);
            EXPECT_EQ(opened.m_message.compare(0, FILE_NAME.size() + 2, FILE_NAME + ": "), 0);
        }
        storage.setByte(FILE_NAME, at, whole);
    }
    for (u64 length = 0; length < size; ++length) {
        const auto cut = storage.restart();
        cut->cutFile(FILE_NAME, length);
        EXPECT_EQ(IncrementManager::open(*cut, options()).m_rc, RC_DAMAGED) << length;
    }
    const auto longer = storage.restart();
    longer->cutFile(FILE_NAME, size + 1);
    const IncrementManager::Opened opened = IncrementManager::open(*longer, options());
    EXPECT_EQ(opened.m_rc, RC_DAMAGED);
    EXPECT_EQ(opened.m_message, FILE_NAME + ": the file is not as long as its header says");
    EXPECT_EQ(increment(*openManager(storage)).size(), 17U * 8U);
}

TEST(IncrementManagerTest, ADamagedOneIsDroppedOnDemandOnly)
{
    CrashStorage storage;
    commitOne(*openManager(storage), 0, 1, 2);
    storage.setByte(FILE_NAME, 20, 99);
    EXPECT_EQ(IncrementManager::open(storage, options()).m_rc, RC_BAD_CHECKSUM);
    EXPECT_EQ(IncrementManager::discard(storage, options()), RC_SUCCESS);
    const auto image = storage.crash([](size_t) { return CrashStorage::Fate{}; });
    EXPECT_EQ(cbtStatus(*openManager(*image)), RC_NOT_FOUND);
    EXPECT_EQ(IncrementManager::discard(storage, options()), RC_SUCCESS);
    CrashStorage empty;
    EXPECT_EQ(IncrementManager::discard(empty, options()), RC_SUCCESS);
}

TEST(IncrementManagerTest, AnotherMirrorsOrAnotherSizeIsRefused)
{
    CrashStorage storage;
    commitOne(*openManager(storage), 0, 1, 2);
    IncrementOptions other = options();
    other.m_mirrorId = 8;
    IncrementManager::Opened opened = IncrementManager::open(storage, other);
    EXPECT_EQ(opened.m_rc, RC_BAD_ARGUMENT);
    EXPECT_EQ(opened.m_message, FILE_NAME + ": it belongs to another mirror");
    other = options();
    other.m_volumeBlocks = 2000;
    opened = IncrementManager::open(storage, other);
    EXPECT_EQ(opened.m_rc, RC_BAD_ARGUMENT);
    EXPECT_EQ(opened.m_message, FILE_NAME + ": it is of a volume of 1003 blocks");
}

TEST(IncrementManagerTest, AFailedReadIsNoDamage)
{
    CrashStorage storage;
    commitOne(*openManager(storage), 0, 1, 2);
    storage.failCall(CrashStorage::Call::Read, 1, RC_IO_ERROR, true);
    EXPECT_EQ(IncrementManager::open(storage, options()).m_rc, RC_IO_ERROR);
    storage.noFaults();
    EXPECT_EQ(increment(*openManager(storage)), touched(0, 1));
}

// ---- threads ----

TEST(IncrementManagerTest, ReportsFromManyThreadsAllArrive)
{
    CrashStorage storage;
    const auto manager = openManager(storage);
    commitOne(*manager, 0, 1, 2);
    begin(*manager, 3, 4);
    std::vector<std::thread> threads;
    for (u64 number = 0; number < 4; ++number)
        threads.emplace_back([&, number] {
            for (u64 block = 16 * number; block + 4 < VOLUME; block += 64) {
                EXPECT_EQ(manager->reportIO(block, 1), RC_SUCCESS);
                EXPECT_EQ(manager->reportCandidateIO(block + 4, 1), RC_SUCCESS);
                std::vector<LtrChangedRange> ranges;
                EXPECT_EQ(manager->getIncrementCbt(&ranges), RC_SUCCESS);
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    Blocks live;
    Blocks all;
    for (u64 block = 0; block < VOLUME; ++block) {
        if (block % 16 < 4)
            live.insert(block);
        if (block % 16 < 8)
            all.insert(block);
    }
    EXPECT_EQ(increment(*manager), live);
    EXPECT_EQ(manager->commitNextIncrementCadidate(), RC_SUCCESS);
    EXPECT_EQ(increment(*manager), all);
}

TEST(IncrementManagerTest, CommitsCancelsAndSavesBesideReportsLoseNoReport)
{
    CrashStorage storage;
    const auto manager = openManager(storage);
    commitOne(*manager, 0, 1, 2);
    std::atomic<bool> end{false};
    std::atomic<u64> reported{0};
    std::thread reporter([&] {
        for (u64 block = 0; !end; block = (block + 1) % VOLUME, ++reported) {
            EXPECT_EQ(manager->reportIO(block, 1), RC_SUCCESS);
            const RcStatus rc = manager->reportCandidateIO(block, 1);
            EXPECT_TRUE(rc == RC_SUCCESS || rc == RC_NOT_FOUND || rc == RC_IN_USE) << rc;
        }
    });
    std::thread saver([&] {
        while (!end)
            EXPECT_EQ(manager->save(5), RC_SUCCESS);
    });
    std::thread reader([&] {
        while (!end) {
            increment(*manager);
            manager->candidate();
        }
    });
    // A report made between two known moments is in every increment that was open in between.
    for (u64 round = 0; round < 60; ++round) {
        ASSERT_EQ(manager->initNextIncrementCandidate(), RC_SUCCESS);
        const u64 marker = round * 7 % VOLUME;
        ASSERT_EQ(manager->reportIO(marker, 1), RC_SUCCESS);
        if (round % 3 == 2) {
            EXPECT_EQ(manager->cancelNextIncrementCadidate(), RC_SUCCESS);
        } else {
            ASSERT_EQ(manager->setIncrementCandidateCpTimestamp(round), RC_SUCCESS);
            EXPECT_EQ(manager->commitNextIncrementCadidate(), RC_SUCCESS);
            EXPECT_EQ(manager->increment()->m_startTimestampUs, round);
        }
        EXPECT_EQ(increment(*manager).count(marker), 1U);
    }
    while (reported < 100)
        std::this_thread::yield();
    end = true;
    reporter.join();
    saver.join();
    reader.join();
    EXPECT_EQ(manager->save(6), RC_SUCCESS);
    EXPECT_EQ(increment(*openManager(storage)), increment(*manager));
}

} // namespace
