#include "common/infra/MemorySegment.h"

#include "host/infra/PoolCore.h"

void MemorySegment::deleteContent()
{
    if (m_owner != nullptr && m_ptr != nullptr)
        m_owner->getPool().giveBack(m_ptr, m_sizeBytes, m_owner);
    m_ptr = nullptr;
    m_owner = nullptr;
    m_sizeBytes = 0;
}
