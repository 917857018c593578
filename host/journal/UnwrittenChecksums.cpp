#include "host/journal/UnwrittenChecksums.h"

#include <algorithm>

RcStatus UnwrittenChecksums::add(u64 grain, const std::shared_ptr<StorageFile>& file,
                                 u32 firstBlock, const u32* checksums, u32 blocks)
{
    MutexGuard guard(m_mutex);
    const bool goesOn = m_blocks > 0 && m_grain == grain && firstBlock >= m_firstBlock &&
                        firstBlock <= m_firstBlock + m_blocks;
    // A request that is undone leaves some behind, and the next one takes their place.
    if (goesOn)
        m_blocks = firstBlock - m_firstBlock;
    if (!goesOn || m_blocks + blocks > MOST_BLOCKS) {
        const RcStatus rc = writeLocked();
        if (rc != RC_SUCCESS)
            return rc;
        m_firstBlock = firstBlock;
    }
    if (blocks > MOST_BLOCKS)
        return pwriteLocked(*file, firstBlock, checksums, blocks);
    m_grain = grain;
    m_file = file;
    std::copy_n(checksums, blocks, &m_checksums[m_blocks]);
    m_blocks += blocks;
    return RC_SUCCESS;
}

RcStatus UnwrittenChecksums::write(u64 grain, u32 firstBlock, u32 blocks)
{
    MutexGuard guard(m_mutex);
    const bool concerned = m_grain == grain && firstBlock < m_firstBlock + m_blocks &&
                           m_firstBlock < firstBlock + blocks;
    return concerned ? writeLocked() : RC_SUCCESS;
}

void UnwrittenChecksums::forget(u64 grain)
{
    MutexGuard guard(m_mutex);
    if (m_grain == grain) {
        m_blocks = 0;
        m_file.reset();
    }
}

RcStatus UnwrittenChecksums::writeLocked()
{
    if (m_blocks == 0)
        return RC_SUCCESS;
    const RcStatus rc = pwriteLocked(*m_file, m_firstBlock, m_checksums.data(), m_blocks);
    if (rc == RC_SUCCESS) {
        m_blocks = 0;
        m_file.reset(); // which may be closed meanwhile
    }
    return rc;
}

RcStatus UnwrittenChecksums::pwriteLocked(StorageFile& file, u32 firstBlock, const u32* checksums,
                                          u32 blocks) const
{
    return file.pwrite(checksums, u64{blocks} * sizeof(u32),
                       m_tableOffsetBytes + u64{firstBlock} * sizeof(u32));
}
