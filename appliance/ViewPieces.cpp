#include "appliance/ViewPieces.h"

#include <algorithm>

namespace {

// The index is asked for so much at a time.
constexpr u64 WINDOW_BLOCKS = u64{1} << 22;

ViewPiece fromRegion(const SubRegionDescriptor& region)
{
    ViewPiece piece;
    piece.m_offsetBytes = region.m_viewOffsetBlocks * BLOCK_BYTES;
    piece.m_lengthBytes = u64{region.m_lengthBlocks} * BLOCK_BYTES;
    piece.m_type = region.isAllZeroes()    ? ViewPiece::Type::Zeroes
                   : region.isCompressed() ? ViewPiece::Type::Compressed
                                           : ViewPiece::Type::Data;
    piece.m_journalAddress = region.m_fifoOffsetOfIoStartBlocks;
    piece.m_offsetInIoBlocks = region.m_regionOffsetLBsWithinIo;
    return piece;
}

// Whether `next`, which begins where a window does, is the rest of a region that the window cut.
bool goesOn(const ViewPiece& piece, const ViewPiece& next)
{
    if (piece.m_type != next.m_type)
        return false;
    const u64 blocks = piece.m_lengthBytes / BLOCK_BYTES;
    const bool offsetsFit = next.m_offsetInIoBlocks == piece.m_offsetInIoBlocks + blocks;
    switch (piece.m_type) {
    case ViewPiece::Type::Target: return true;
    case ViewPiece::Type::Data:
        return offsetsFit && next.m_journalAddress == piece.m_journalAddress + blocks;
    default: return offsetsFit && next.m_journalAddress == piece.m_journalAddress;
    }
}

} // namespace

const char* ViewPiece::typeName() const
{
    switch (m_type) {
    case Type::Data: return "data";
    case Type::Compressed: return "compressed";
    case Type::Zeroes: return "zeroes";
    case Type::Target: return "target";
    }
    return "";
}

std::vector<ViewPiece> viewPieces(View& view, u64 offsetBlocks, u64 lengthBlocks)
{
    std::vector<ViewPiece> result;
    const u64 end = offsetBlocks + lengthBlocks;
    u64 windowStart = offsetBlocks;
    const auto add = [&](const ViewPiece& piece) {
        if (!result.empty() && piece.m_offsetBytes == windowStart * BLOCK_BYTES &&
            goesOn(result.back(), piece))
            result.back().m_lengthBytes += piece.m_lengthBytes;
        else
            result.push_back(piece);
    };
    const auto addGap = [&](u64 from, u64 to) {
        if (from < to)
            add({from * BLOCK_BYTES, (to - from) * BLOCK_BYTES, ViewPiece::Type::Target, 0, 0});
    };
    while (windowStart < end) {
        const u64 windowEnd = std::min(end, windowStart + WINDOW_BLOCKS);
        u64 block = windowStart;
        for (const SubRegionDescriptor& region :
             view.pieces(windowStart, static_cast<u32>(windowEnd - windowStart))) {
            addGap(block, region.m_viewOffsetBlocks);
            add(fromRegion(region));
            block = region.m_viewOffsetBlocks + region.m_lengthBlocks;
        }
        addGap(block, windowEnd);
        windowStart = windowEnd;
    }
    return result;
}
