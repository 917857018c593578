#include "RegionLocator/RegionLocatorVoucher.h"

#include "RegionLocator/RegionLocatorMemPool.h"

RegionLocatorVoucher::RegionLocatorVoucher() : m_objs("VoucherVec", 0, 0) {}

RegionLocatorVoucher::~RegionLocatorVoucher()
{
    SOFT_CHECK(m_objs.empty());
}

void RegionLocatorVoucher::addMemorySegments(ScatteredBuf& buf)
{
    const u32 count = buf.getSegmentsCount();
    // An insert frees the regions that it covers, so the voucher of an operation may grow. Room is
    // made here, before the operation, and is kept when the voucher is cleared.
    m_objs.reserve(m_objs.size() + 2 * size_t{count});
    for (u32 i = 0; i < count; ++i)
        m_objs.push_back(buf.getSegment(i).getPtr());
}

void RegionLocatorVoucher::clear(RegionLocatorMemPool* pool, ModuleMemoryInformation* mmi)
{
    const u32 tokenSize = pool->getTokenSize();
    for (u8* token : m_objs)
        MemorySegment(tokenSize, token, mmi).deleteContent();
    m_objs.clear();
}

u8* RegionLocatorVoucher::getObj()
{
    SOFT_CHECK(!m_objs.empty());
    u8* token = m_objs.back();
    m_objs.pop_back();
    return token;
}

void RegionLocatorVoucher::addObj(u8* token)
{
    m_objs.push_back(token);
}

bool RegionLocatorVoucher::empty()
{
    return m_objs.empty();
}
