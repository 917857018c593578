#include "tests/support/VoucherGuard.h"

#include <gtest/gtest.h>

VoucherGuard::VoucherGuard(RegionLocatorMemPool* pool, int tokens)
    : m_pool(pool), m_voucher(pool->createVoucher())
{
    const FutureStatus filled = m_pool->fillVoucher(m_voucher, tokens, 0, nullptr);
    EXPECT_EQ(filled.get(), RC_SUCCESS) << tokens << " tokens";
}

VoucherGuard::VoucherGuard(RegionLocator& locator, RegionLocatorMemPool::ActionType action,
                           int regions)
    : VoucherGuard(locator.getMemPool(),
                   RegionLocatorMemPool::getVoucherRequirement(action, regions))
{}

VoucherGuard::~VoucherGuard()
{
    m_pool->destroyVoucher(m_voucher);
}

bool insertRegion(RegionLocator& locator, const SubRegionDescriptor& region)
{
    const VoucherGuard voucher(locator, RegionLocatorMemPool::INSERT, 1);
    return locator.insert(region, voucher);
}

void removeRange(RegionLocator& locator, u64 viewOffsetBlocks, u32 lengthBlocks)
{
    const VoucherGuard voucher(locator, RegionLocatorMemPool::REMOVE, 1);
    locator.remove(viewOffsetBlocks, lengthBlocks, voucher);
}

Regions lookupRange(RegionLocator& locator, u64 viewOffsetBlocks, u32 lengthBlocks)
{
    Regions pieces;
    EXPECT_EQ(locator.lookup(nullptr, viewOffsetBlocks, lengthBlocks, &pieces, false, nullptr),
              RC_SUCCESS);
    return pieces;
}

Regions lockRange(RegionLocator& locator, u64 viewOffsetBlocks, u32 lengthBlocks)
{
    const size_t count = lookupRange(locator, viewOffsetBlocks, lengthBlocks).size();
    const VoucherGuard voucher(locator, RegionLocatorMemPool::LOOKUP_LOCKED,
                               static_cast<int>(count));
    Regions pieces;
    EXPECT_EQ(locator.lookup(nullptr, viewOffsetBlocks, lengthBlocks, &pieces, true, voucher),
              RC_SUCCESS);
    return pieces;
}

void unlockAndRestoreRegions(RegionLocator& locator, Regions regions)
{
    const VoucherGuard voucher(locator, RegionLocatorMemPool::LOOKUP_LOCKED,
                               static_cast<int>(regions.size()));
    locator.unlockAndRestore(regions, voucher);
}

void unlockAndRemoveRegions(RegionLocator& locator, Regions regions)
{
    const VoucherGuard voucher(locator, RegionLocatorMemPool::LOOKUP_LOCKED,
                               static_cast<int>(regions.size()));
    locator.unlockAndRemove(regions, voucher);
}
