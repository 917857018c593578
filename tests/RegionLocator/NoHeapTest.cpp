// No map operation takes memory from the heap: counted at malloc itself, which operator new ends
// in.
//
// The counting is off under the sanitizers, which bring an allocator of their own.

#include <cerrno>
#include <cstdlib>
#include <gtest/gtest.h>
#include <random>

#include "RegionLocator/RegionLocator.h"
#include "RegionLocator/RegionLocatorMetaDataContainer.h"
#include "tests/support/Accelerators.h"
#include "tests/support/LogCapture.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define COUNTS_ALLOCATIONS 0
#else
#define COUNTS_ALLOCATIONS 1
#endif

namespace {

thread_local bool t_counting = false;
thread_local u64 t_allocations = 0;

} // namespace

#if COUNTS_ALLOCATIONS

static void noteAllocation()
{
    if (t_counting)
        ++t_allocations;
}

extern "C" void* __libc_malloc(size_t size);
extern "C" void* __libc_calloc(size_t count, size_t size);
extern "C" void* __libc_realloc(void* ptr, size_t size);
extern "C" void* __libc_memalign(size_t alignment, size_t size);

extern "C" void* malloc(size_t size)
{
    noteAllocation();
    return __libc_malloc(size);
}

extern "C" void* calloc(size_t count, size_t size)
{
    noteAllocation();
    return __libc_calloc(count, size);
}

extern "C" void* realloc(void* ptr, size_t size)
{
    noteAllocation();
    return __libc_realloc(ptr, size);
}

extern "C" void* aligned_alloc(size_t alignment, size_t size)
{
    noteAllocation();
    return __libc_memalign(alignment, size);
}

extern "C" int posix_memalign(void** out, size_t alignment, size_t size)
{
    noteAllocation();
    *out = __libc_memalign(alignment, size);
    return *out == nullptr ? ENOMEM : 0;
}

#endif

namespace {

// Counts this thread's allocations for a scope.
class Counting
{
public:
    Counting()
    {
        t_allocations = 0;
        t_counting = true;
    }
    ~Counting() { t_counting = false; }
    u64 allocations() const { return t_allocations; }
};

constexpr u64 VIEW_BLOCKS = 1 << 16;
constexpr int BATCH = 1000;

class NoHeapTest : public testing::Test
{
protected:
    NoHeapTest() : m_locator(1, RL_MMI_View), m_pool(m_locator.getMemPool())
    {
        m_voucher = m_pool->createVoucher();
    }
    ~NoHeapTest() override { m_pool->destroyVoucher(m_voucher); }

    void SetUp() override
    {
        if (!COUNTS_ALLOCATIONS)
            GTEST_SKIP() << "the sanitizer's allocator cannot be counted";
        // Warm: thousands of regions, and a voucher that has held many tokens.
        ASSERT_EQ(RC_SUCCESS, m_pool->fillVoucher(m_voucher, 4 * BATCH, 0, this).get());
        for (int i = 0; i < 2 * BATCH; ++i)
            ASSERT_TRUE(m_locator.insert(randomRegion(), m_voucher));
        refill();
    }

    void refill()
    {
        m_pool->clearVoucher(m_voucher);
        ASSERT_EQ(RC_SUCCESS, m_pool->fillVoucher(m_voucher, 4 * BATCH, 0, this).get());
    }

    SubRegionDescriptor randomRegion()
    {
        const u32 length = 1 + static_cast<u32>(m_random() % 64);
        const u64 offset = m_random() % (VIEW_BLOCKS - length);
        const u64 address = (m_random() % 1000) << 15;
        switch (m_random() % 3) {
        case 0: return SfsItemDescriptor::genCompressed(offset, length, address, 0, 700, false);
        case 1: return SfsItemDescriptor::genUncompressed(offset, length, address, 0, false);
        default:
            return SfsItemDescriptor::genUncompressed(offset, length, SFS_DEV_ADDR_INVALID, 0,
                                                      true);
        }
    }

    LogCapture m_log;
    RegionLocator m_locator;
    RegionLocatorMemPool* m_pool;
    RegionLocatorVoucher* m_voucher;
    std::mt19937_64 m_random{7};
};

TEST_F(NoHeapTest, TheCounterCounts)
{
    Counting counting;
    void* volatile memory = std::malloc(10);
    std::free(memory);
    delete new int(3);
    EXPECT_EQ(2U, counting.allocations());
}

TEST_F(NoHeapTest, Insert)
{
    Counting counting;
    for (int i = 0; i < BATCH; ++i)
        m_locator.insert(randomRegion(), m_voucher);
    EXPECT_EQ(0U, counting.allocations());
}

TEST_F(NoHeapTest, InsertOverManyRegions)
{
    Counting counting;
    m_locator.insert(SfsItemDescriptor::genUncompressed(0, 0xFFFF, SFS_DEV_ADDR_INVALID, 0, true),
                     m_voucher);
    EXPECT_EQ(0U, counting.allocations());
}

TEST_F(NoHeapTest, InsertOverManyRegionsIntoASmallVoucher)
{
    const u64 regions = m_locator.getItemCount();
    RegionLocatorVoucher* small = m_pool->createVoucher();
    ASSERT_EQ(RC_SUCCESS, m_pool->fillVoucher(small, 2, 0, this).get());
    {
        Counting counting;
        m_locator.insert(
            SfsItemDescriptor::genUncompressed(0, 0xFFFF, SFS_DEV_ADDR_INVALID, 0, true), small);
        EXPECT_EQ(0U, counting.allocations());
    }
    EXPECT_GT(regions, 1000U);
    EXPECT_LT(m_locator.getItemCount(), 3U);
    m_pool->destroyVoucher(small);
    m_pool->clearVoucher(m_voucher);
    EXPECT_EQ(m_pool->getMemoryStats().usedBytesNet, m_locator.getItemCount() * 64);
}

TEST_F(NoHeapTest, RemoveByRange)
{
    Counting counting;
    for (int i = 0; i < BATCH; ++i)
        m_locator.remove(m_random() % VIEW_BLOCKS, 1 + m_random() % 100, m_voucher);
    EXPECT_EQ(0U, counting.allocations());
}

TEST_F(NoHeapTest, LockAndUnlockButForTheResult)
{
    std::vector<SubRegionDescriptor> result;
    result.reserve(200);
    Counting counting;
    for (int i = 0; i < BATCH / 10; ++i) {
        const u64 offset = m_random() % VIEW_BLOCKS;
        ASSERT_EQ(RC_SUCCESS, m_locator.lookup(nullptr, offset, 200, &result, true, m_voucher));
        m_locator.unlockAndRestore(result, m_voucher);
        ASSERT_EQ(RC_SUCCESS, m_locator.lookup(nullptr, offset, 20, &result, true, m_voucher));
        m_locator.unlockAndRemove(result, m_voucher);
    }
    EXPECT_EQ(0U, counting.allocations());
}

TEST_F(NoHeapTest, LookupButForTheResult)
{
    std::vector<SubRegionDescriptor> result;
    result.reserve(300);
    Counting counting;
    for (int i = 0; i < BATCH; ++i)
        m_locator.lookup(nullptr, m_random() % VIEW_BLOCKS, 200, &result, false, nullptr);
    EXPECT_EQ(0U, counting.allocations());
}

TEST_F(NoHeapTest, TakingAnItemOfAScan)
{
    auto* feeder = m_locator.getInsertContainer();
    auto* removing = m_locator.getInsertAllButRemoveMdOnlyContainer();
    ASSERT_EQ(RC_SUCCESS, feeder->prepareToAdd(BATCH, 0).get());
    ASSERT_EQ(RC_SUCCESS, removing->prepareToAdd(BATCH, 0).get());
    SfsDiskMetaItem item;
    {
        Counting counting;
        for (int i = 0; i < BATCH; ++i) {
            item.setType(i % 3 == 0 ? SfsMetaType::ZEROS : SfsMetaType::UNCOMPRESSED_IO);
            item.setUncompressedLengthBlocks(1 + m_random() % 64);
            item.m_ioData = {m_random() % 1000 << 15, m_random() % VIEW_BLOCKS};
            feeder->addMetaData(item, JournalPtr::invalid);
            item.setType(i % 2 == 0 ? SfsMetaType::MD_ONLY : SfsMetaType::ZEROS);
            removing->addMetaData(item, JournalPtr::invalid);
        }
        EXPECT_EQ(0U, counting.allocations());
    }
    feeder->unPrepareToAdd();
    removing->unPrepareToAdd();
}

// The same with what speeds a large index up.
class NoHeapAcceleratedTest : public NoHeapTest
{
protected:
    // Before the locator of this test is made; the one of the base is not used.
    Accelerators m_accelerators{Accelerators::ALL};
    RegionLocator m_fast{2, RL_MMI_View};

    // Each IO has its own place in the journal, or restoring its pieces would report it.
    u64 nextAddress() { return m_writes++ << 15; }
    u64 m_writes = 0;
};

TEST_F(NoHeapAcceleratedTest, EverythingButReservations)
{
    auto* feeder = m_fast.getInsertContainer();
    RegionLocatorVoucher* voucher = m_fast.getMemPool()->createVoucher();
    std::vector<SubRegionDescriptor> result;
    result.reserve(2000);
    for (int round = 0; round < 10; ++round) {
        ASSERT_EQ(RC_SUCCESS, feeder->prepareToAdd(BATCH, 0).get());
        ASSERT_EQ(RC_SUCCESS, m_fast.getMemPool()->fillVoucher(voucher, 4 * BATCH, 0, this).get());
        {
            Counting counting;
            SfsDiskMetaItem item;
            item.setType(SfsMetaType::UNCOMPRESSED_IO);
            for (int i = 0; i < BATCH; ++i) {
                item.setUncompressedLengthBlocks(1 + m_random() % 64);
                item.m_ioData = {nextAddress(), m_random() % VIEW_BLOCKS};
                feeder->addMetaData(item, JournalPtr::invalid);
            }
            for (int i = 0; i < BATCH / 10; ++i) {
                const u64 offset = m_random() % VIEW_BLOCKS;
                m_fast.lookup(nullptr, offset, 200, &result, true, voucher);
                m_fast.unlockAndRestore(result, voucher);
                m_fast.remove(offset, 10, voucher);
                m_fast.insert(
                    SfsItemDescriptor::genUncompressed(offset, 20, nextAddress(), 0, false),
                    voucher);
            }
            m_fast.getFirstRegionsAndLock(nullptr, 100, &result, voucher);
            m_fast.unlockAndRemove(result, voucher);
            EXPECT_EQ(0U, counting.allocations());
        }
        feeder->unPrepareToAdd();
        m_fast.getMemPool()->clearVoucher(voucher);
    }
    EXPECT_TRUE(m_log.softChecks().empty());
    EXPECT_GT(m_fast.getAcceleratorBytes(), 0U);
    m_fast.getMemPool()->destroyVoucher(voucher);
}

} // namespace
