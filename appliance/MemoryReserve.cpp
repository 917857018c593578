#include "appliance/MemoryReserve.h"

MemoryReserve::MemoryReserve()
    : m_pool(Singleton<MemoryPoolImpl, MemoryPoolImpl>::instance()),
      m_bytes(CHUNKS * m_pool->getChunkSize())
{}

MemoryReserve::~MemoryReserve()
{
    MutexGuard guard(m_mutex);
    SOFT_CHECK(m_loans == 0);
    m_kept.deleteContent();
}

u64 MemoryReserve::leastLimitBytes()
{
    return u64{CHUNKS + 1} * Singleton<MemoryPoolImpl, MemoryPoolImpl>::instance()->getChunkSize();
}

bool MemoryReserve::take()
{
    m_isKept =
        m_pool->fillBufNoWait(&m_kept, m_bytes, m_pool->getMmi("Apply_reserve")) == RC_SUCCESS;
    return m_isKept;
}

bool MemoryReserve::isThere()
{
    MutexGuard guard(m_mutex);
    if (m_isKept)
        return true;
    const bool is = take();
    if (m_loans > 0) {
        m_kept.deleteContent();
        m_isKept = false;
    }
    return is;
}

void MemoryReserve::lend()
{
    MutexGuard guard(m_mutex);
    ++m_loans;
    m_kept.deleteContent();
    m_isKept = false;
}

// Where others have it by now, it is taken when somebody asks whether it is there.
void MemoryReserve::takeBack()
{
    MutexGuard guard(m_mutex);
    if (--m_loans == 0)
        take();
}
