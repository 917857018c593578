#include "appliance/DirectReader.h"

#include <cstring>

#include "common/infra/LogItem.h"
#include "host/journal/Compression.h"

namespace {

// The index is asked for so much of a request at a time, which bounds the list of pieces.
constexpr u32 WINDOW_BLOCKS = 1 << 14;

u64 endOf(const SubRegionDescriptor& piece)
{
    return piece.m_viewOffsetBlocks + piece.m_lengthBlocks;
}

void count(std::atomic<u64>& counter, u64 blocks)
{
    counter.fetch_add(blocks * BLOCK_BYTES, std::memory_order_relaxed);
}

// Whether `next` goes on where `piece` ends, both on the volume and in a grain of the journal.
bool goesOn(const SubRegionDescriptor& piece, const SubRegionDescriptor& next)
{
    return !next.isAllZeroes() && !next.isCompressed() && endOf(piece) == next.m_viewOffsetBlocks &&
           piece.m_fifoOffsetOfIoStartBlocks + piece.m_lengthBlocks ==
               next.m_fifoOffsetOfIoStartBlocks &&
           SFS_GRAIN_OF(piece.m_fifoOffsetOfIoStartBlocks) ==
               SFS_GRAIN_OF(next.m_fifoOffsetOfIoStartBlocks);
}

} // namespace

RcStatus DirectReader::read(u64 offsetBlocks, u32 lengthBlocks, u8* data)
{
    const u64 size = m_mirror.settings().sizeBlocks();
    if (offsetBlocks > size || lengthBlocks > size - offsetBlocks)
        return RC_BAD_ARGUMENT;
    while (lengthBlocks > 0) {
        const u32 now = std::min(lengthBlocks, WINDOW_BLOCKS);
        const RcStatus rc = readPieces(offsetBlocks, now, data);
        if (rc != RC_SUCCESS)
            return rc;
        offsetBlocks += now;
        lengthBlocks -= now;
        data += u64{now} * BLOCK_BYTES;
    }
    return RC_SUCCESS;
}

RcStatus DirectReader::readPieces(u64 offsetBlocks, u32 lengthBlocks, u8* data)
{
    const GracePeriod::Reader reading(m_mirror.gracePeriod());
    // Kept by the thread, so that a request takes no memory once its thread is warm.
    thread_local std::vector<SubRegionDescriptor> pieces;
    m_locator.lookup(nullptr, offsetBlocks, lengthBlocks, &pieces, false, nullptr);
    const auto at = [&](u64 block) { return data + (block - offsetBlocks) * BLOCK_BYTES; };
    u64 block = offsetBlocks;
    RcStatus rc = RC_SUCCESS;
    for (size_t i = 0; i < pieces.size() && rc == RC_SUCCESS;) {
        const SubRegionDescriptor& piece = pieces[i];
        if (block < piece.m_viewOffsetBlocks)
            rc = readTarget(block, piece.m_viewOffsetBlocks - block, at(block));
        if (rc != RC_SUCCESS)
            return rc;
        size_t last = i;
        if (piece.isAllZeroes()) {
            std::memset(at(piece.m_viewOffsetBlocks), 0, u64{piece.m_lengthBlocks} * BLOCK_BYTES);
            count(m_sources.m_zeroBytes, piece.m_lengthBlocks);
        } else if (piece.isCompressed()) {
            // Pieces of one IO are decompressed once where they follow each other.
            while (last + 1 < pieces.size() && pieces[last + 1].isCompressed() &&
                   pieces[last + 1].m_fifoOffsetOfIoStartBlocks ==
                       piece.m_fifoOffsetOfIoStartBlocks &&
                   pieces[last + 1].m_viewOffsetBlocks == endOf(pieces[last]))
                ++last;
            rc = readCompressed(&piece, &pieces[last] + 1, offsetBlocks, data);
        } else {
            while (last + 1 < pieces.size() && goesOn(pieces[last], pieces[last + 1]))
                ++last;
            rc = readPlain(piece, static_cast<u32>(endOf(pieces[last]) - piece.m_viewOffsetBlocks),
                           at(piece.m_viewOffsetBlocks));
        }
        block = endOf(pieces[last]);
        i = last + 1;
    }
    const u64 end = offsetBlocks + lengthBlocks;
    return rc == RC_SUCCESS && block < end ? readTarget(block, end - block, at(block)) : rc;
}

RcStatus DirectReader::readPlain(const SubRegionDescriptor& first, u32 lengthBlocks, u8* data)
{
    const u64 address = first.m_fifoOffsetOfIoStartBlocks;
    u64 badAddress = address;
    const RcStatus rc = m_mirror.journal().readStoredNow(address, lengthBlocks, data, &badAddress);
    if (rc != RC_SUCCESS)
        return refuse(rc, first.m_viewOffsetBlocks + (badAddress - address), badAddress);
    count(m_sources.m_plainBytes, lengthBlocks);
    return RC_SUCCESS;
}

RcStatus DirectReader::readCompressed(const SubRegionDescriptor* first,
                                      const SubRegionDescriptor* end, u64 offsetBlocks, u8* data)
{
    const u32 storedBytes = first->getIoTotalLengthBytes();
    const u32 storedBlocks = first->getIoTotalLengthLBs();
    u32 wantedBlocks = 0;
    for (const SubRegionDescriptor* piece = first; piece != end; ++piece)
        wantedBlocks =
            std::max(wantedBlocks, u32{piece->m_regionOffsetLBsWithinIo} + piece->m_lengthBlocks);
    PooledCompressionContext context;
    u8* stored = context->gatherBuffer(storedBlocks * BLOCK_BYTES);
    u64 badAddress = first->m_fifoOffsetOfIoStartBlocks;
    RcStatus rc = m_mirror.journal().readStoredNow(first->m_fifoOffsetOfIoStartBlocks, storedBlocks,
                                                   stored, &badAddress);
    const u8* plain = nullptr;
    if (rc == RC_SUCCESS)
        rc = context->decompress(stored, storedBytes, wantedBlocks, &plain);
    if (rc != RC_SUCCESS)
        return refuse(rc, first->m_viewOffsetBlocks, badAddress);
    for (const SubRegionDescriptor* piece = first; piece != end; ++piece) {
        std::memcpy(data + (piece->m_viewOffsetBlocks - offsetBlocks) * BLOCK_BYTES,
                    plain + u64{piece->m_regionOffsetLBsWithinIo} * BLOCK_BYTES,
                    u64{piece->m_lengthBlocks} * BLOCK_BYTES);
        count(m_sources.m_compressedBytes, piece->m_lengthBlocks);
    }
    return RC_SUCCESS;
}

RcStatus DirectReader::readTarget(u64 offsetBlocks, u64 lengthBlocks, u8* data)
{
    const RcStatus rc = m_mirror.target().readNow(offsetBlocks, lengthBlocks, data);
    if (rc != RC_SUCCESS)
        LogItem(LogModuleCommon, ErrorLevel, __PRETTY_FUNCTION__, 3)
            << m_name << " of " << m_mirror.folder() << ": cannot read blocks " << offsetBlocks
            << " to " << offsetBlocks + lengthBlocks - 1
            << " of the target volume: " << rcStatusText(rc) << std::endl;
    else
        count(m_sources.m_targetBytes, lengthBlocks);
    return rc;
}

RcStatus DirectReader::refuse(RcStatus rc, u64 viewBlock, u64 address) const
{
    m_sources.m_badBlocks.fetch_add(1, std::memory_order_relaxed);
    LogItem(LogModuleCommon, ErrorLevel, __PRETTY_FUNCTION__, 3)
        << m_name << " of " << m_mirror.folder() << ": block " << viewBlock
        << " is not served: data grain " << SFS_GRAIN_OF(address) << " block "
        << address % SFS_GRAIN_BLOCKS << ": " << rcStatusText(rc) << std::endl;
    return rc;
}
