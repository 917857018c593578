// Checksums of the data blocks that were appended last, on their way into their grain's table.
//
// A group of small writes is many calls that bring few checksums each, and all of them go to one
// place of the table, one behind the other. So they are kept here, and written in one call: when
// the grain is synced, when one of them is to be read, when others than the next ones come, or
// when it is full.
//
// Thread safety: any thread. Who reads the table first calls write(); what was appended before
// that is then in the file, whoever wrote it.
// Invariants: 1. what is kept is one run of blocks of one grain;
//             2. a run that could not be written is kept.
#pragma once

#include <array>
#include <memory>

#include "common/infra/Mutex.h"
#include "common/infra/RcStatus.h"
#include "common/infra/Types.h"
#include "host/journal/Storage.h"

class UnwrittenChecksums
{
public:
    static constexpr u32 MOST_BLOCKS = 4096; // 2 MiB of data

    // tableOffsetBytes: where in a grain's file its table begins.
    explicit UnwrittenChecksums(u64 tableOffsetBytes) : m_tableOffsetBytes(tableOffsetBytes) {}

    // Takes those of blocks that were appended to a grain whose file this is, in place of those
    // that it has of the same blocks and of what is behind them. After a failure, which is that of
    // a write, it has not taken them.
    RcStatus add(u64 grain, const std::shared_ptr<StorageFile>& file, u32 firstBlock,
                 const u32* checksums, u32 blocks);

    // Writes what it has of these blocks of a grain, and all beside that. Statuses as pwrite(): it
    // is kept after a failure, and may be written again.
    RcStatus write(u64 grain, u32 firstBlock, u32 blocks);

    // Forgets what it has of a grain, which is emptied or removed.
    void forget(u64 grain);

private:
    RcStatus writeLocked() RL_REQUIRES(m_mutex);
    RcStatus pwriteLocked(StorageFile& file, u32 firstBlock, const u32* checksums, u32 blocks) const
        RL_REQUIRES(m_mutex);

    const u64 m_tableOffsetBytes;
    // Held while they are written: nobody may find them gone from here and not in the file yet.
    Mutex m_mutex;
    u64 m_grain RL_GUARDED_BY(m_mutex) = 0;
    std::shared_ptr<StorageFile> m_file RL_GUARDED_BY(m_mutex); // null while nothing is kept
    u32 m_firstBlock RL_GUARDED_BY(m_mutex) = 0;
    u32 m_blocks RL_GUARDED_BY(m_mutex) = 0;
    std::array<u32, MOST_BLOCKS> m_checksums RL_GUARDED_BY(m_mutex){};
};
