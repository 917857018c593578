// Memory for insertions, reserved in advance for many at a time, so that an insertion neither waits
// for any nor takes any from the heap.
//
// Thread safety: one thread at a time.
// Invariants: the voucher has at least as many tokens as are counted as left.
#pragma once

#include "RegionLocator/RegionLocator.h"

class TokenReserve
{
public:
    static constexpr u64 BYTES_PER_INSERT = 128; // two tokens

    // locator: outlives it.
    explicit TokenReserve(RegionLocator& locator);
    ~TokenReserve();
    TokenReserve(const TokenReserve&) = delete;
    TokenReserve& operator=(const TokenReserve&) = delete;

    // Makes sure of memory for so many insertions, at once or not at all. RC_NO_MEMORY: there is
    // not that much; what was reserved before is given back.
    RcStatus prepare(u64 insertions);

    // Whether that many are prepared for.
    bool has(u64 insertions) const;

    // Inserts one region. REQUIRES: prepared for, and nothing of the locator is locked.
    void insert(const SubRegionDescriptor& region);

    // Gives back what is reserved, until it is asked for again.
    void release();

private:
    RcStatus fill(u64 tokens);

    RegionLocator& m_locator;
    RegionLocatorVoucher* m_voucher;
    u64 m_left = 0; // tokens
};
