// A reservation of map-node memory for one operation.
#pragma once

#include <vector>

#include "common/infra/MemWatchedContainer.h"
#include "common/infra/ScatteredBuf.h"

class RegionLocatorMemPool;

// A stack of tokens (64-byte chunks of a locator's pool), each the memory of one map node. An
// operation takes the nodes that it makes from the voucher and puts the nodes that it frees into
// it, so a voucher may end with more tokens than it began with.
//
// Created, filled, cleared and destroyed through its pool (RegionLocatorMemPool.h).
// Thread safety: none; while it is the pool's active voucher the locator's mutex guards it.
class RegionLocatorVoucher
{
public:
    RegionLocatorVoucher();
    // Soft check: no token is held; those that are would be lost to the pool.
    ~RegionLocatorVoucher();
    RegionLocatorVoucher(const RegionLocatorVoucher&) = delete;
    RegionLocatorVoucher& operator=(const RegionLocatorVoucher&) = delete;

    // Takes every segment of the buffer as one token, in segment order.
    void addMemorySegments(ScatteredBuf& buf);

    // Gives every token back to the pool that it came from, charged to `mmi`.
    void clear(RegionLocatorMemPool* pool, ModuleMemoryInformation* mmi);

    // Takes the last token. Soft check: there is one; who sized the voucher sees to that.
    u8* getObj();
    void addObj(u8* token);

    bool empty();

private:
    StlMemShiledContainer<std::vector<u8*>> m_objs;
};
