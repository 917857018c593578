// Which write does a block of the volume come from? The library in twenty lines, over the host that
// ships with it.
#include <iostream>

#include "RegionLocator/RegionLocator.h"

int main()
{
    RegionLocator locator(1, RL_MMI_View);
    RegionLocatorMemPool* pool = locator.getMemPool();
    RegionLocatorVoucher* voucher = pool->createVoucher();
    const int tokens = RegionLocatorMemPool::getVoucherRequirement(RegionLocatorMemPool::INSERT, 1);

    const auto write = [&](u64 offset, u32 length, u64 journalAddress) {
        pool->fillVoucher(voucher, tokens, 0, voucher).get(); // so that inserting never waits
        locator.insert(SfsItemDescriptor::genUncompressed(offset, length, journalAddress, 0, false),
                       voucher);
        pool->clearVoucher(voucher);
    };
    write(100, 16, 0); // blocks 100 to 115 of the volume lie at journal blocks 0 to 15
    write(104, 4, 32); // four of them are written again

    std::vector<SubRegionDescriptor> pieces;
    locator.lookup(nullptr, 96, 32, &pieces, false, nullptr);
    std::cout << pieces; // three pieces; what no piece covers is on the target volume
    pool->destroyVoucher(voucher);
}
