#include "appliance/TokenReserve.h"

namespace {

// What is reserved at a time when there is enough: 64 KiB.
constexpr u64 BATCH_TOKENS = 1024;
const u64 TOKENS_PER_INSERT =
    static_cast<u64>(RegionLocatorMemPool::getVoucherRequirement(RegionLocatorMemPool::INSERT, 1));

} // namespace

TokenReserve::TokenReserve(RegionLocator& locator)
    : m_locator(locator), m_voucher(locator.getMemPool()->createVoucher())
{}

TokenReserve::~TokenReserve()
{
    m_locator.getMemPool()->destroyVoucher(m_voucher);
}

RcStatus TokenReserve::fill(u64 tokens)
{
    const RcStatus rc =
        m_locator.getMemPool()->fillVoucher(m_voucher, static_cast<int>(tokens), 0, this).get();
    if (rc != RC_SUCCESS)
        return RC_NO_MEMORY;
    m_left = tokens;
    return RC_SUCCESS;
}

bool TokenReserve::has(u64 insertions) const
{
    return insertions * TOKENS_PER_INSERT <= m_left;
}

RcStatus TokenReserve::prepare(u64 insertions)
{
    const u64 tokens = insertions * TOKENS_PER_INSERT;
    if (has(insertions))
        return RC_SUCCESS;
    // First of all, so that these tokens can be among the new ones.
    release();
    if (tokens < BATCH_TOKENS && fill(BATCH_TOKENS) == RC_SUCCESS)
        return RC_SUCCESS;
    return fill(tokens);
}

void TokenReserve::insert(const SubRegionDescriptor& region)
{
    SOFT_CHECK(m_left >= TOKENS_PER_INSERT);
    m_left -= TOKENS_PER_INSERT;
    const bool inserted = m_locator.insert(region, m_voucher);
    SOFT_CHECK(inserted);
}

void TokenReserve::release()
{
    m_locator.getMemPool()->clearVoucher(m_voucher);
    m_left = 0;
}
