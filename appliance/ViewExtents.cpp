#include "appliance/ViewExtents.h"

#include <algorithm>

void ViewExtents::loadWindow(u64 block)
{
    m_windowStart = block;
    m_windowEnd = std::min(m_view.sizeBlocks(), block + WINDOW_BLOCKS);
    m_pieces = m_view.pieces(block, static_cast<u32>(m_windowEnd - block));
    m_nextPiece = 0;
}

Result ViewExtents::nextTargetData(u64 block)
{
    if (block >= m_targetFrom && block < m_targetEnd)
        return Result();
    m_targetFrom = block;
    RcStatus rc = m_view.mirror().target().nextData(block, &m_targetStart, &m_targetEnd);
    if (rc == RC_SUCCESS)
        rc = m_view.confirmTarget();
    return Result::fromStatus(rc, "cannot find the target volume's data");
}

Result ViewExtents::runAt(u64 block, u64* endBlock, bool* isData)
{
    if (block < m_windowStart || block >= m_windowEnd)
        loadWindow(block);
    const auto endOf = [](const SubRegionDescriptor& piece) {
        return piece.m_viewOffsetBlocks + piece.m_lengthBlocks;
    };
    while (m_nextPiece < m_pieces.size() && endOf(m_pieces[m_nextPiece]) <= block)
        ++m_nextPiece;
    u64 gapEnd = m_windowEnd;
    if (m_nextPiece < m_pieces.size()) {
        const SubRegionDescriptor& piece = m_pieces[m_nextPiece];
        if (piece.m_viewOffsetBlocks <= block) {
            *endBlock = endOf(piece);
            *isData = !piece.isAllZeroes();
            return Result();
        }
        gapEnd = piece.m_viewOffsetBlocks;
    }
    if (Result result = nextTargetData(block); !result.ok())
        return result;
    *isData = m_targetStart <= block && block < m_targetEnd;
    *endBlock = std::min(gapEnd, *isData ? m_targetEnd : m_targetStart);
    // Past the target's last data the hole goes on to the end.
    if (*endBlock <= block)
        *endBlock = gapEnd;
    return Result();
}

Result ViewExtents::next(u64 fromBlocks, u64 maxBlocks, u64* startBlocks, u64* endBlocks)
{
    const u64 size = m_view.sizeBlocks();
    *startBlocks = size;
    *endBlocks = size;
    u64 block = fromBlocks;
    bool inData = false;
    while (block < size) {
        u64 end = 0;
        bool isData = false;
        if (Result result = runAt(block, &end, &isData); !result.ok())
            return result;
        if (inData && !isData)
            break;
        if (isData && !inData) {
            *startBlocks = block;
            inData = true;
        }
        block = end;
        if (inData && block - *startBlocks >= maxBlocks) {
            block = *startBlocks + maxBlocks;
            break;
        }
    }
    if (inData)
        *endBlocks = block;
    return Result();
}
