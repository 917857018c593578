#include "RegionLocator/RegionLocatorMemPool.h"

#include <cstdlib>
#include <gtest/gtest.h>

#include "common/infra/MemShield.h"
#include "host/infra/MemShieldControl.h"
#include "tests/support/LimitedMemory.h"
#include "tests/support/LogCapture.h"
#include "tests/support/RegionLocatorTestAccess.h"
#include "tests/support/Tokens.h"
#include "tests/support/VoucherGuard.h"

namespace {

using Access = RegionLocatorTestAccess;

const std::string FILE_NAME = "../RegionLocatorMemPool.cpp";
constexpr u32 CHUNK = 64 * 1024;

MemoryPoolImpl* globalPool()
{
    return LimitedMemory::pool();
}

// What the process-wide pool's report says that a group uses, in bytes.
u64 usedByGroup(const std::string& name)
{
    LogCapture log;
    globalPool()->printMemoryUsage();
    const std::string prefix = "memory group " + name + ": used=";
    const std::vector<LogRecord> lines = log.beginningWith(prefix);
    return lines.empty() ? 0 : std::strtoull(&lines[0].m_text[prefix.size()], nullptr, 10);
}

// ---- life ----

TEST(MemPoolTest, TokensAre64BytesAndNoneIsHandedOutAtFirst)
{
    RegionLocatorMemPool pool(5, RL_MMI_View);
    EXPECT_EQ(pool.getTokenSize(), 64U);
    EXPECT_EQ(pool.getChunkSize(), 64U);
    EXPECT_EQ(pool.getActiveVoucher(), nullptr);
    EXPECT_EQ(Access::liveVouchers(pool), 0);
    EXPECT_EQ(Access::id(pool), 5U);
    const MemoryStats stats = pool.getMemoryStats();
    EXPECT_EQ(stats.totalBytes, 0U);
    EXPECT_EQ(stats.usedBytesGross, 0U);
}

TEST(MemPoolTest, EachKindIsOnItsAccount)
{
    RegionLocatorMemPool md5(1, RL_MMI_MD5);
    RegionLocatorMemPool view(2, RL_MMI_View);
    RegionLocatorMemPool backup(3, RL_MMI_Backup);
    RegionLocatorMemPool apply(4, RL_MMI_Apply);
    EXPECT_EQ(Access::mmi(md5), globalPool()->getMmi("Md5_RLs"));
    for (RegionLocatorMemPool* pool : {&view, &backup, &apply})
        EXPECT_EQ(Access::mmi(*pool), globalPool()->getMmi("View_RLs"));
    EXPECT_NE(Access::mmi(md5), Access::mmi(view));
}

TEST(MemPoolTest, BlocksAreChargedToTheKindsAccount)
{
    const u64 viewsBefore = usedByGroup("View_RLs");
    const u64 md5Before = usedByGroup("Md5_RLs");
    RegionLocatorMemPool backup(3, RL_MMI_Backup);
    {
        const VoucherGuard voucher(&backup, 1);
        EXPECT_EQ(usedByGroup("View_RLs"), viewsBefore + globalPool()->getChunkSize());
        EXPECT_EQ(usedByGroup("Md5_RLs"), md5Before);
    }
    // A block that is wholly free goes back.
    EXPECT_EQ(usedByGroup("View_RLs"), viewsBefore);
    RegionLocatorMemPool md5(1, RL_MMI_MD5);
    const VoucherGuard voucher(&md5, 1);
    EXPECT_EQ(usedByGroup("View_RLs"), viewsBefore);
    EXPECT_EQ(usedByGroup("Md5_RLs"), md5Before + globalPool()->getChunkSize());
}

TEST(MemPoolTest, VouchersAreOnAGroupOfThePoolsOwn)
{
    RegionLocatorMemPool first(1, RL_MMI_View);
    RegionLocatorMemPool second(2, RL_MMI_View);
    EXPECT_NE(Access::dummyMmi(first), nullptr);
    EXPECT_NE(Access::dummyMmi(first), Access::dummyMmi(second));
    EXPECT_NE(Access::dummyMmi(first), globalPool()->getMmi("dummy"));
    EXPECT_NE(Access::dummyMmi(first), first.getMmi("dummy"));
}

TEST(MemPoolTest, AnUnknownKindIsReportedAndHasAnAccountWithoutAName)
{
    LogCapture log;
    RegionLocatorMemPool pool(5, static_cast<RegionLocatorMmiType>(17));
    EXPECT_TRUE(isSoftCheck(log.only(),
                            "RegionLocatorMemPool::RegionLocatorMemPool(u64, RegionLocatorMmiType)",
                            "false", " mmiType=17 ", FILE_NAME));
    EXPECT_EQ(Access::mmi(pool), globalPool()->getMmi(""));
}

TEST(MemPoolTest, DestroyedWithVouchersLeftReportsHowMany)
{
    RegionLocatorVoucher* left[2];
    const LogCapture log;
    {
        RegionLocatorMemPool pool(5, RL_MMI_View);
        for (RegionLocatorVoucher*& voucher : left)
            voucher = pool.createVoucher();
    }
    EXPECT_TRUE(isSoftCheck(log.only(), "virtual RegionLocatorMemPool::~RegionLocatorMemPool()",
                            "m_activeVouchersCountForDebug == 0",
                            "RLMemPool<5> there are still 2 active vouchers", FILE_NAME));
    for (RegionLocatorVoucher* voucher : left)
        SHIELD_DELETE(voucher);
}

TEST(MemPoolTest, DestroyedWithoutVouchersIsSilentAndReturnsItsMemory)
{
    const u64 before = globalPool()->getMemoryStats().usedBytesGross;
    const u64 objects = MemShieldControl::liveObjects();
    const LogCapture log;
    {
        RegionLocatorMemPool pool(5, RL_MMI_View);
        const VoucherGuard voucher(&pool, 100);
        EXPECT_GT(globalPool()->getMemoryStats().usedBytesGross, before);
    }
    EXPECT_TRUE(log.records().empty());
    EXPECT_EQ(globalPool()->getMemoryStats().usedBytesGross, before);
    EXPECT_EQ(MemShieldControl::liveObjects(), objects);
}

// ---- blocks of the process-wide pool ----

TEST(MemPoolTest, TheLargestBlockIsWholeTokensOfAChunk)
{
    const std::vector<std::pair<u32, u32>> chunkAndLargest = {
        {1000, 960}, {64, 64}, {63, 0}, {127, 64}, {128, 128}, {4096, 4096}};
    for (const auto& [chunk, largest] : chunkAndLargest) {
        const LimitedMemory memory(chunk);
        RegionLocatorMemPool pool(5, RL_MMI_View);
        EXPECT_EQ(Access::maxAllocationSize(pool), largest) << chunk;
    }
}

TEST(MemPoolTest, TokensOfAChunkThatIsNoMultipleOf64AllWork)
{
    const LimitedMemory memory(1000);
    RegionLocatorMemPool pool(5, RL_MMI_View);
    const VoucherGuard voucher(&pool, 100);
    EXPECT_EQ(tokensIn(voucher), 100U);
}

TEST(MemPoolTest, AllocateWritesTheAddressOfOneBlock)
{
    const LimitedMemory memory(CHUNK);
    RegionLocatorMemPool pool(5, RL_MMI_View);
    const u64 used = usedByGroup("View_RLs");
    const u64 objects = MemShieldControl::liveObjects();
    u8* block = nullptr;
    {
        const FutureStatus future = Access::allocate(pool, CHUNK, &block);
        EXPECT_EQ(future.get(), RC_SUCCESS);
    }
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(usedByGroup("View_RLs"), used + CHUNK);
    EXPECT_EQ(MemShieldControl::liveObjects(), objects); // its helper is gone
    Access::freeAllocation(pool, block, CHUNK);
    EXPECT_EQ(usedByGroup("View_RLs"), used);
}

TEST(MemPoolTest, AnAllocationThatWaitsIsCancelledAndLeavesItsTargetAlone)
{
    const LimitedMemory memory(CHUNK, CHUNK);
    RegionLocatorMemPool pool(5, RL_MMI_View);
    u8* held = nullptr;
    ASSERT_EQ(Access::allocate(pool, CHUNK, &held).get(), RC_SUCCESS);
    const u64 objects = MemShieldControl::liveObjects();
    {
        u8 anywhere = 0;
        u8* block = &anywhere;
        const FutureStatus future = Access::allocate(pool, CHUNK, &block);
        EXPECT_FALSE(future.isSet());
        EXPECT_EQ(globalPool()->getMmiPendingRequests(globalPool()->getMmi("View_RLs")), 1U);
        EXPECT_TRUE(Access::cancelAllocation(pool));
        EXPECT_TRUE(future.isSet());
        EXPECT_EQ(future.get(), RC_ABORTED);
        EXPECT_EQ(block, &anywhere);
    }
    EXPECT_EQ(MemShieldControl::liveObjects(), objects);
    // Also with nothing to cancel, and without touching what others wait for.
    EXPECT_TRUE(Access::cancelAllocation(pool));
    RegionLocatorMemPool other(6, RL_MMI_View);
    u8* block = nullptr;
    const FutureStatus future = Access::allocate(other, CHUNK, &block);
    EXPECT_TRUE(Access::cancelAllocation(pool));
    EXPECT_FALSE(future.isSet());
    Access::freeAllocation(pool, held, CHUNK);
    EXPECT_EQ(future.get(), RC_SUCCESS);
    Access::freeAllocation(other, block, CHUNK);
}

TEST(MemPoolDeathTest, ABlockInTwoSegmentsIsReportedAndTheFirstOneUsed)
{
    // In a process of its own: the second segment's address is known to nobody.
    EXPECT_EXIT(
        {
            LogCapture log;
            RegionLocatorMemPool pool(5, RL_MMI_View);
            u8* block = nullptr;
            const RcStatus rc =
                Access::allocate(pool, 2 * globalPool()->getChunkSize(), &block).get();
            const bool good = rc == RC_SUCCESS && block != nullptr && log.records().size() == 1 &&
                              isSoftCheck(log.records()[0], "", "m_buf.getSegmentsCount() == 1",
                                          "segsCount=2", FILE_NAME);
            std::_Exit(good ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

// ---- reports ----

TEST(MemPoolTest, PrintsNothingWhileNoFillWaits)
{
    RegionLocatorMemPool pool(5, RL_MMI_View);
    const VoucherGuard voucher(&pool, 10);
    const LogCapture log;
    pool.printMemoryUsage();
    EXPECT_TRUE(log.records().empty());
}

TEST(MemPoolTest, PrintsHowManyFillsWait)
{
    const LimitedMemory memory(CHUNK, CHUNK);
    RegionLocatorMemPool holder(6, RL_MMI_MD5);
    RegionLocatorMemPool pool(5, RL_MMI_View);
    const VoucherGuard held(&holder, 1);
    RegionLocatorVoucher* first = pool.createVoucher();
    RegionLocatorVoucher* second = pool.createVoucher();
    pool.fillVoucher(first, 1, ~u64{0}, first);
    for (u32 waiting = 1; waiting <= 2; ++waiting) {
        if (waiting == 2)
            pool.fillVoucher(second, 1, ~u64{0}, second);
        const LogCapture log;
        pool.printMemoryUsage();
        EXPECT_TRUE(isRecord(log.only(), LogModuleXel, InfoLevel, 0,
                             "virtual void RegionLocatorMemPool::printMemoryUsage()",
                             "RLMemPool<5> pendingRequest=" + std::to_string(waiting)));
    }
    pool.cancelVoucherFill(first);
    pool.cancelVoucherFill(second);
    const LogCapture log;
    pool.printMemoryUsage();
    EXPECT_TRUE(log.records().empty());
    pool.destroyVoucher(first);
    pool.destroyVoucher(second);
}

// ---- the active voucher and its tokens ----

TEST(MemPoolTest, TokensComeFromTheActiveVoucherAndGoToIt)
{
    RegionLocatorMemPool pool(5, RL_MMI_View);
    const VoucherGuard voucher(&pool, 3);
    const VoucherGuard other(&pool, 0);
    pool.setActiveVoucher(voucher);
    void* first = pool.getToken();
    void* second = pool.getToken();
    EXPECT_NE(first, second);
    EXPECT_EQ(tokensIn(voucher), 1U);
    pool.freeToken(first);
    EXPECT_EQ(pool.getToken(), first); // the last one in is the first one out
    pool.freeToken(second);
    // A node may be freed into another voucher than it came from.
    pool.setActiveVoucher(nullptr);
    pool.setActiveVoucher(other);
    pool.freeToken(first);
    pool.setActiveVoucher(nullptr);
    EXPECT_EQ(tokensIn(voucher), 2U);
    EXPECT_EQ(tokensIn(other), 1U);
    EXPECT_EQ(pool.getMemoryStats().usedBytesGross, 3U * 64);
}

TEST(MemPoolTest, InstallingNullIsAlwaysSilent)
{
    RegionLocatorMemPool pool(5, RL_MMI_View);
    const VoucherGuard voucher(&pool, 0);
    const LogCapture log;
    pool.setActiveVoucher(nullptr);
    pool.setActiveVoucher(voucher);
    EXPECT_EQ(pool.getActiveVoucher(), voucher.get());
    pool.setActiveVoucher(nullptr);
    pool.setActiveVoucher(nullptr);
    EXPECT_EQ(pool.getActiveVoucher(), nullptr);
    EXPECT_TRUE(log.records().empty());
}

TEST(MemPoolTest, InstallingASecondVoucherIsReportedAndReplacesTheFirst)
{
    RegionLocatorMemPool pool(5, RL_MMI_View);
    const VoucherGuard first(&pool, 0);
    const VoucherGuard second(&pool, 0);
    pool.setActiveVoucher(first);
    const LogCapture log;
    pool.setActiveVoucher(second);
    EXPECT_TRUE(isSoftCheck(
        log.only(), "void RegionLocatorMemPool::setActiveVoucher(RegionLocatorVoucher*)",
        "voucher == __null", "RLMemPool<5> a voucher is already set", FILE_NAME));
    EXPECT_EQ(pool.getActiveVoucher(), second.get());
    pool.setActiveVoucher(nullptr);
}

TEST(MemPoolDeathTest, WithoutAnActiveVoucherThereIsNoFallback)
{
    RegionLocatorMemPool pool(5, RL_MMI_View);
    const std::string text = "m_activeVoucher != __null failed\\. RLMemPool<5> ";
    EXPECT_DEATH(pool.getToken(), text);
    alignas(64) u8 token[64];
    EXPECT_DEATH(pool.freeToken(token), text);
}

} // namespace
