// Two scans that feed a locator beside readers, lockers and an inserter, with the accelerators on
// from the first region on: items are held back, nodes locked in place, and the directory comes and
// grows meanwhile. For ThreadSanitizer to look at, and for the content that must come out of it.

#include <atomic>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <thread>
#include <vector>

#include "RegionLocator/RegionLocator.h"
#include "RegionLocator/RegionLocatorMetaDataContainer.h"
#include "tests/support/Accelerators.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Tokens.h"
#include "tests/support/VoucherGuard.h"

namespace {

constexpr u64 BATCHES = 40;
constexpr u64 BATCH = 50;
constexpr u64 SCANNED_BLOCKS = 3020; // what one scan writes to, from its first block on
constexpr u64 LOCKED_FROM = 100000;  // these parts are no scan's
constexpr u64 LOCKED_REGIONS = 50;
constexpr u64 INSERTED_FROM = 200000;

// The items of a scan that begins at a block.
SfsDiskMetaItem itemOf(u64 first, u64 batch, u64 i)
{
    SfsDiskMetaItem item;
    item.m_ioData = {first * 100 + (batch * BATCH + i) * 8, first + (i * 37 + batch * 11) % 3000};
    item.setUncompressedLengthBlocks(static_cast<u32>(1 + i % 20));
    item.setType(i % 7 == 0 ? SfsMetaType::ZEROS : SfsMetaType::UNCOMPRESSED_IO);
    return item;
}

void scan(RegionLocatorMetaDataContainer& feeder, u64 first)
{
    for (u64 batch = 0; batch < BATCHES; ++batch) {
        ASSERT_EQ(feeder.prepareToAdd(BATCH, ~u64{0}).get(), RC_SUCCESS);
        for (u64 i = 0; i < BATCH; ++i)
            feeder.addMetaData(itemOf(first, batch, i), JournalPtr::invalid);
        feeder.unPrepareToAdd();
    }
}

// Where each block's newest copy lies: a journal address, or one of these.
constexpr u64 NOWHERE = ~u64{0};
constexpr u64 ZEROES = ~u64{0} - 1;

std::vector<u64> expectedAfterScan(u64 first)
{
    std::vector<u64> blocks(SCANNED_BLOCKS, NOWHERE);
    for (u64 batch = 0; batch < BATCHES; ++batch)
        for (u64 i = 0; i < BATCH; ++i) {
            for (u64 k = 0; k < 1 + i % 20; ++k)
                blocks[(i * 37 + batch * 11) % 3000 + k] =
                    i % 7 == 0 ? ZEROES : first * 100 + (batch * BATCH + i) * 8 + k;
        }
    return blocks;
}

std::vector<u64> foundIn(RegionLocator& locator, u64 first)
{
    std::vector<u64> blocks(SCANNED_BLOCKS, NOWHERE);
    for (const SubRegionDescriptor& piece : lookupRange(locator, first, SCANNED_BLOCKS))
        for (u64 k = 0; k < piece.m_lengthBlocks; ++k)
            blocks[piece.m_viewOffsetBlocks - first + k] =
                piece.isAllZeroes() ? ZEROES : piece.m_fifoOffsetOfIoStartBlocks + k;
    return blocks;
}

class AcceleratedThreadsTest : public testing::TestWithParam<u64>
{
protected:
    const LogCapture m_log; // keeps the records to itself
    const Accelerators m_accelerators{Accelerators::ALL, GetParam()};
    RegionLocator m_locator{7, RL_MMI_View};
};

TEST_P(AcceleratedThreadsTest, ScansBesideReadersLockersAndAnInserter)
{
    for (u64 i = 0; i < 300; ++i)
        insertRegion(m_locator, plainRegion(16 * i, 8, 100 + 8 * i));
    for (u64 i = 0; i < LOCKED_REGIONS; ++i)
        insertRegion(m_locator, plainRegion(LOCKED_FROM + 16 * i, 8, 9000000 + 8 * i));
    constexpr u64 SECOND = 20000;
    auto second = std::make_unique<RegionLocatorMetaDataContainer_Insert>(&m_locator);
    std::atomic<int> scansLeft{2};
    std::atomic<int> failures{0};
    const auto whileScans = [&](const std::function<void(u64)>& step) {
        for (u64 i = 0; scansLeft > 0; ++i)
            step(i);
    };
    std::vector<std::thread> threads;
    threads.emplace_back([&] {
        scan(*m_locator.getInsertContainer(), 0);
        --scansLeft;
    });
    threads.emplace_back([&] {
        scan(*second, SECOND);
        --scansLeft;
    });
    threads.emplace_back([&] {
        whileScans([&](u64) {
            u64 end = 0;
            for (const SubRegionDescriptor& piece :
                 lookupRange(m_locator, 0, SECOND + SCANNED_BLOCKS)) {
                failures += piece.m_viewOffsetBlocks < end;
                end = piece.m_viewOffsetBlocks + piece.m_lengthBlocks;
            }
            failures += m_locator.getItemCount() == 0 || m_locator.getTotalRegionBlocks() == 0;
        });
    });
    threads.emplace_back([&] {
        whileScans([&](u64 i) {
            unlockAndRestoreRegions(
                m_locator,
                lockRange(m_locator, LOCKED_FROM + 16 * (i % LOCKED_REGIONS), i % 3 == 0 ? 20 : 8));
        });
    });
    threads.emplace_back([&] {
        whileScans([&](u64 i) {
            failures += !insertRegion(m_locator, plainRegion(INSERTED_FROM + i % 500, 3, 77 + i));
        });
    });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(failures, 0);
    EXPECT_EQ(foundIn(m_locator, SECOND), expectedAfterScan(SECOND));
    // The first scan wrote over regions that were there before.
    const std::vector<u64> expected = expectedAfterScan(0);
    const std::vector<u64> found = foundIn(m_locator, 0);
    for (u64 block = 0; block < SCANNED_BLOCKS; ++block) {
        if (expected[block] != NOWHERE) {
            ASSERT_EQ(found[block], expected[block]) << block;
        }
    }
    second.reset();
    EXPECT_EQ(tokensOut(m_locator), m_locator.getItemCount());
    EXPECT_GT(m_locator.getAcceleratorBytes(), 0u);
}

// From the first region on, and from a size on that is reached while the threads run.
INSTANTIATE_TEST_SUITE_P(From, AcceleratedThreadsTest, testing::Values(1, 500));

} // namespace
