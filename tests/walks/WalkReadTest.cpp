// The story of docs/walk-read.md, step by step: a read that locks its pieces, and another one that
// waits for it.

#include "appliance/ViewReader.h"
#include "host/tasks/BlockingTask.h"
#include "tests/appliance/MirrorFixture.h"

namespace {

using WalkReadTest = MirrorFixture;

RegionLocatorVoucher* filledVoucher(RegionLocator& locator, int pieces)
{
    RegionLocatorMemPool* pool = locator.getMemPool();
    RegionLocatorVoucher* voucher = pool->createVoucher();
    const int tokens =
        RegionLocatorMemPool::getVoucherRequirement(RegionLocatorMemPool::LOOKUP_LOCKED, pieces);
    EXPECT_EQ(pool->fillVoucher(voucher, tokens, 0, voucher).get(), RC_SUCCESS);
    return voucher;
}

TEST_F(WalkReadTest, FromLookupToTheResumedWaiter)
{
    makeMirror();
    const std::vector<u8> data(8 * BLOCK_BYTES, 0x5A);
    ASSERT_TRUE(m_mirror->write(100, data.data(), 8).ok());
    ASSERT_TRUE(m_mirror->flush().ok());
    const auto latest = view(1);
    RegionLocator& locator = latest->locator();

    // 1. A locking lookup hands out the pieces of the range; they move to the locked map.
    RegionLocatorVoucher* first = filledVoucher(locator, 1);
    std::vector<SubRegionDescriptor> held;
    ASSERT_EQ(locator.lookup(nullptr, 98, 6, &held, true, first), RC_SUCCESS);
    ASSERT_EQ(held.size(), 1u);
    EXPECT_EQ(held[0].m_viewOffsetBlocks, 100u);
    EXPECT_EQ(held[0].m_lengthBlocks, 4u);

    // 2. A second one that meets them parks; its task gives its thread back.
    RegionLocatorVoucher* second = filledVoucher(locator, 2);
    std::vector<SubRegionDescriptor> waited;
    Semaphore parked;
    BlockingTask waiter([&](AsyncTask* task) {
        const RcStatus rc = locator.lookup(task, 102, 6, &waited, true, second);
        EXPECT_EQ(rc, RC_WAIT);
        parked.post();
        return rc;
    });
    ASSERT_EQ(waiter.start(m_host.getEngine()), RC_SUCCESS);
    parked.wait();
    EXPECT_TRUE(waited.empty());

    // 3. The unlock that leaves nothing locked resumes it: its pieces are locked by then.
    locator.unlockAndRestore(held, first);
    EXPECT_EQ(waiter.wait(), RC_SUCCESS);
    ASSERT_FALSE(waited.empty());
    EXPECT_EQ(waited[0].m_viewOffsetBlocks, 102u);
    locator.unlockAndRestore(waited, second);
    locator.getMemPool()->destroyVoucher(first);
    locator.getMemPool()->destroyVoucher(second);

    // 4. The neighbours of one IO have become one region again.
    EXPECT_EQ(locator.getItemCount(), 1u);

    // 5. The whole way in one: gate, voucher, lookup, journal and target, unlock.
    ViewReader reader(*latest);
    std::vector<u8> out(12 * BLOCK_BYTES, 1);
    ASSERT_EQ(reader.readNow(m_host.getEngine(), 98, 12, out.data()), RC_SUCCESS);
    EXPECT_EQ(out[2 * BLOCK_BYTES - 1], 0);
    EXPECT_EQ(out[2 * BLOCK_BYTES], 0x5A);
    EXPECT_EQ(out[10 * BLOCK_BYTES - 1], 0x5A);
    EXPECT_EQ(out[10 * BLOCK_BYTES], 0);
    EXPECT_EQ(locator.getItemCount(), 1u);
}

} // namespace
