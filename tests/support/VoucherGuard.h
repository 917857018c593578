// A voucher with tokens for the length of a scope, and the calls that need one.
#pragma once

#include "RegionLocator/RegionLocator.h"
#include "tests/support/Regions.h"

// Reports a failure when the pool has not the memory.
class VoucherGuard
{
public:
    VoucherGuard(RegionLocatorMemPool* pool, int tokens);
    VoucherGuard(RegionLocator& locator, RegionLocatorMemPool::ActionType action, int regions);
    ~VoucherGuard();
    VoucherGuard(const VoucherGuard&) = delete;
    VoucherGuard& operator=(const VoucherGuard&) = delete;

    RegionLocatorVoucher* get() const { return m_voucher; }
    operator RegionLocatorVoucher*() const { return m_voucher; }

private:
    RegionLocatorMemPool* m_pool;
    RegionLocatorVoucher* m_voucher;
};

// The same, installed as the pool's active voucher: for changing a map without the locator.
class ActiveVoucher
{
public:
    ActiveVoucher(RegionLocatorMemPool* pool, int tokens) : m_pool(pool), m_voucher(pool, tokens)
    {
        m_pool->setActiveVoucher(m_voucher);
    }
    ~ActiveVoucher() { m_pool->setActiveVoucher(nullptr); }
    ActiveVoucher(const ActiveVoucher&) = delete;
    ActiveVoucher& operator=(const ActiveVoucher&) = delete;

private:
    RegionLocatorMemPool* m_pool;
    VoucherGuard m_voucher;
};

// Each with a voucher of its own, sized as the callers of the locator size it.
bool insertRegion(RegionLocator& locator, const SubRegionDescriptor& region);
void removeRange(RegionLocator& locator, u64 viewOffsetBlocks, u32 lengthBlocks);
Regions lookupRange(RegionLocator& locator, u64 viewOffsetBlocks, u32 lengthBlocks);
// Reports a failure unless the pieces are locked at once.
Regions lockRange(RegionLocator& locator, u64 viewOffsetBlocks, u32 lengthBlocks);
void unlockAndRestoreRegions(RegionLocator& locator, Regions regions);
void unlockAndRemoveRegions(RegionLocator& locator, Regions regions);
