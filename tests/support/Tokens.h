// Where the tokens of a locator's pool are.
#pragma once

#include <vector>

#include "RegionLocator/RegionLocator.h"

// Tokens that the voucher holds. It is emptied and filled again, in the same order.
inline size_t tokensIn(RegionLocatorVoucher* voucher)
{
    std::vector<u8*> tokens;
    while (!voucher->empty())
        tokens.push_back(voucher->getObj());
    for (auto token = tokens.rbegin(); token != tokens.rend(); ++token)
        voucher->addObj(*token);
    return tokens.size();
}

// Tokens that the pool has handed out: those in vouchers and those that are nodes of a map.
inline u64 tokensOut(RegionLocator& locator)
{
    return locator.getMemPool()->getMemoryStats().usedBytesGross / 64;
}
