#include "RegionLocator/RegionLocatorVoucher.h"

#include <bit>
#include <new>

#include "RegionLocator/RegionLocatorMemPool.h"

namespace {

// Tokens that any voucher has room for in its list.
constexpr size_t LEAST_ROOM_TOKENS = 128;

} // namespace

RegionLocatorVoucher::RegionLocatorVoucher() : m_objs("VoucherVec", 0, 0)
{
    m_objs.reserve(LEAST_ROOM_TOKENS);
}

RegionLocatorVoucher::~RegionLocatorVoucher()
{
    SOFT_CHECK(m_objs.empty());
}

void RegionLocatorVoucher::addMemorySegments(ScatteredBuf& buf)
{
    const u32 count = buf.getSegmentsCount();
    try {
        // An insert frees the regions that it covers, so the voucher of an operation may grow. Room
        // is made here, before the operation, and is kept when the voucher is cleared.
        m_objs.reserve(m_objs.size() + m_objs.m_chained + 2 * size_t{count});
        while (m_objs.m_chained > 0)
            m_objs.push_back(unchain());
    } catch (const std::bad_alloc&) {
        // Nobody could be told: the pool has handed the tokens out.
    }
    for (u32 i = 0; i < count; ++i)
        addObj(buf.getSegment(i).getPtr());
}

bool RegionLocatorVoucher::takeRuns(MemoryPoolImpl& pool, u32 count, ModuleMemoryInformation* mmi)
{
    if (!m_objs.empty() || !pool.takeRuns(&m_runs, count, mmi))
        return false;
    m_objs.m_inRuns = count;
    try {
        m_objs.reserve(count); // for what an operation frees
    } catch (const std::bad_alloc&) {
        // That is chained, then.
    }
    return true;
}

void RegionLocatorVoucher::clear(RegionLocatorMemPool* pool, ModuleMemoryInformation* mmi)
{
    pool->giveBackChunks(m_runs, m_objs.data(), static_cast<u32>(m_objs.size()), mmi);
    m_objs.clear();
    m_objs.m_inRuns = 0;
    m_runs.clear();
    while (m_objs.m_chained > 0) {
        while (m_objs.m_chained > 0 && m_objs.size() < m_objs.capacity())
            m_objs.push_back(unchain());
        pool->giveBackChunks(m_objs.data(), static_cast<u32>(m_objs.size()), mmi);
        m_objs.clear();
    }
}

u8* RegionLocatorVoucher::getDeeperObj()
{
    if (m_objs.m_chained != 0)
        return unchain();
    SOFT_CHECK_IN("u8* RegionLocatorVoucher::getObj()", !m_objs.empty());
    if (m_objs.empty())
        stopProcess(); // a node would be written nowhere
    return takeOfRun();
}

// The last one of the last run.
u8* RegionLocatorVoucher::takeOfRun()
{
    constexpr u32 LAST_BIT = 63;
    ChunkRun& run = m_runs.back();
    const u32 last = LAST_BIT - static_cast<u32>(std::countl_zero(run.m_chunks));
    u8* const token = run.m_first + size_t{last} * TOKEN_BYTES;
    run.m_chunks ^= u64{1} << last;
    if (run.m_chunks == 0)
        m_runs.pop_back();
    --m_objs.m_inRuns;
    return token;
}

void RegionLocatorVoucher::chain(u8* token)
{
    std::memcpy(token, &m_firstChained, sizeof(m_firstChained));
    m_firstChained = token;
    ++m_objs.m_chained;
}

u8* RegionLocatorVoucher::unchain()
{
    u8* token = m_firstChained;
    std::memcpy(&m_firstChained, token, sizeof(m_firstChained));
    --m_objs.m_chained;
    return token;
}
