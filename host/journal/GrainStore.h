// Grains: the journal's unit of storage, SFS_GRAIN_BLOCKS blocks each, that only grow at their end
// and are removed whole.
//
// The seam below the journal: its first form is files, and a grain can be an object of a
// distributed store as well. Nothing above knows which, nor how a grain keeps the checksums of its
// blocks.
#pragma once

#include <span>
#include <vector>

#include "Sfs/IODescriptor.h"
#include "common/infra/Future.h"
#include "common/infra/RcStatus.h"
#include "common/infra/Types.h"

enum class GrainKind
{
    Data, // stored IOs; every block has a checksum, which is checked at each read
    Meta, // metadata pages, one a block, which carry their own checksums
};

// A read of data blocks within one grain.
struct GrainRead
{
    u64 m_grain = 0;
    u32 m_firstBlock = 0;
    u32 m_blocks = 0;
    ScatteredBuf m_data; // refers to the destination
};

// A read of data blocks into one place, by their journal address; it never crosses a grain's end.
struct StoredPiece
{
    u64 m_address;
    u32 m_blocks;
    u8* m_data;
};

// Thread safety: any thread, except that one thread at a time changes (create, append, cut, remove)
// a grain, or removes grains of a kind. Reads of what is appended already may run beside that.
//
// Statuses of all calls: RC_SUCCESS, RC_NOT_FOUND (no such grain), RC_NO_SPACE, RC_NO_MEMORY (it
// could not be opened just now, and nothing was done), RC_IO_ERROR, and those named below.
class GrainStore
{
public:
    virtual ~GrainStore() = default;

    // Makes an empty grain; one of that number that exists is emptied. Durable after sync().
    virtual RcStatus create(GrainKind kind, u64 grain) = 0;

    // Takes the room for blocks that are to be appended, so that append() and sync() meet no full
    // disk. Nothing is to be seen of it. May run beside changes to other blocks and grains.
    virtual RcStatus reserve(GrainKind kind, u64 grain, u32 firstBlock, u32 blocks) = 0;

    // Writes blocks at the grain's end, firstBlock. After a failure, or after a crash that lost
    // what came later, the same place may be written again; so may metadata blocks of zeroes.
    // checksums: for data, the crc32c of each block; null for metadata.
    virtual RcStatus append(GrainKind kind, u64 grain, u32 firstBlock, const void* data, u32 blocks,
                            const u32* checksums) = 0;

    // Hands on what append() has kept back of a data grain, its blocks' checksums, so that sync()
    // has no part of them to find room for. After a failure it is kept, and may be tried again.
    virtual RcStatus complete(u64 grain) = 0;

    // A word that data blocks that were appended will be synced soon; waits for nothing.
    virtual void startSync(u64 grain, u32 firstBlock, u32 blocks) = 0;

    // Makes the grain's existence and all that was appended before the call durable.
    virtual RcStatus sync(GrainKind kind, u64 grain) = 0;

    // Reads metadata blocks; *doneBlocks is smaller where the grain ends.
    virtual RcStatus readMeta(u64 grain, u32 firstBlock, u32 blocks, void* data,
                              u32* doneBlocks) = 0;

    // Starts reads of data blocks, in flight together, and returns; the future is set when the last
    // one is done: RC_SUCCESS, or the first failure. RC_BAD_CHECKSUM: stored bytes are not what was
    // appended; RC_DAMAGED: the grain ends before the blocks, or is not there. The vector may go at
    // once; the memory that the buffers refer to lives until the future is set.
    virtual FutureStatus readData(std::vector<GrainRead> reads, AioPriority priority) = 0;

    // Reads data blocks here and now, on the caller's thread, in the order of the pieces, which is
    // best that of their addresses. Statuses as readData(). *badAddress: after a failure, where;
    // with RC_BAD_CHECKSUM the first block that is not what was appended, else the begin of what
    // was being read.
    virtual RcStatus readDataNow(std::span<const StoredPiece> pieces, u64* badAddress) = 0;

    // The numbers of the grains of a kind, ascending.
    virtual RcStatus list(GrainKind kind, std::vector<u64>* grains) = 0;

    // How many blocks a metadata grain has; a part of a block at the end counts as one.
    virtual RcStatus metaBlocks(u64 grain, u32* blocks) = 0;

    // Drops the blocks from firstBlock on of a metadata grain, durably.
    virtual RcStatus cutMeta(u64 grain, u32 firstBlock) = 0;

    // Drops a grain. Durable after syncRemovals(), which after a failure other than RC_NO_MEMORY
    // fails for good, as sync() does then: what the disk holds is not known any more.
    virtual RcStatus remove(GrainKind kind, u64 grain) = 0;
    virtual RcStatus syncRemovals() = 0;
};
