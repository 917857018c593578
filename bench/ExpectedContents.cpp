#include "bench/ExpectedContents.h"

#include <algorithm>
#include <utility>

namespace {

constexpr u32 COMPARED_BLOCKS = 32;
constexpr u64 COMPARED_RANGE_BLOCKS = u64{1} << 30;

// The address under which a region of this item stores the item's n-th block; for compressed ones
// that of the whole IO.
u64 addressOf(const SfsDiskMetaItem& item, u64 n)
{
    return item.getType() == SfsMetaType::UNCOMPRESSED_IO ? item.m_ioData.dataAddr + n
                                                          : item.m_ioData.dataAddr;
}

u64 endOf(const SfsDiskMetaItem& item)
{
    return item.m_ioData.offsetBlocks + item.getUncompressedLengthBlocks();
}

u64 mixed(u64 digest, u64 value)
{
    digest = (digest ^ value) * 0x9E3779B97F4A7C15ULL;
    return digest ^ (digest >> 29);
}

// Where the piece's data goes on behind its last block.
SubRegionDescriptor continuation(const SubRegionDescriptor& piece)
{
    SubRegionDescriptor next = piece;
    next.m_viewOffsetBlocks += piece.m_lengthBlocks;
    if (piece.isCompressed())
        next.m_regionOffsetLBsWithinIo =
            static_cast<u16>(piece.m_regionOffsetLBsWithinIo + piece.m_lengthBlocks);
    else if (!piece.isAllZeroes())
        next.m_fifoOffsetOfIoStartBlocks += piece.m_lengthBlocks;
    return next;
}

bool sameData(const SubRegionDescriptor& a, const SubRegionDescriptor& b)
{
    return a.m_viewOffsetBlocks == b.m_viewOffsetBlocks && a.m_flags == b.m_flags &&
           a.m_fifoOffsetOfIoStartBlocks == b.m_fifoOffsetOfIoStartBlocks &&
           (!a.isCompressed() || a.m_regionOffsetLBsWithinIo == b.m_regionOffsetLBsWithinIo);
}

} // namespace

ExpectedContents::ExpectedContents(const Workload& workload) : m_workload(workload)
{
    std::vector<Run> written;
    written.reserve(workload.m_fillItems);
    for (size_t i = 0; i < workload.m_fillItems; ++i)
        written.push_back({workload.m_items[i].m_ioData.offsetBlocks, endOf(workload.m_items[i])});
    std::sort(written.begin(), written.end(),
              [](const Run& a, const Run& b) { return a.m_startBlock < b.m_startBlock; });
    for (const Run& run : written) {
        if (m_runs.empty() || run.m_startBlock > m_runs.back().m_endBlock)
            m_runs.push_back(run);
        else
            m_runs.back().m_endBlock = std::max(m_runs.back().m_endBlock, run.m_endBlock);
    }
    for (const Run& run : m_runs)
        m_coveredBlocks += run.m_endBlock - run.m_startBlock;
}

std::string ExpectedContents::compare(Contender& contender) const
{
    if (contender.coveredBlocks() != m_coveredBlocks)
        return "covers " + std::to_string(contender.coveredBlocks()) + " blocks instead of " +
               std::to_string(m_coveredBlocks);
    if (std::string difference = compareRuns(contender); !difference.empty())
        return difference;
    for (u32 i = 0; i < COMPARED_BLOCKS; ++i) {
        const Run& run = m_runs[m_runs.size() * i / COMPARED_BLOCKS];
        const u64 block = run.m_startBlock + (run.m_endBlock - run.m_startBlock) / 2;
        if (std::string difference = compareBlock(contender, block); !difference.empty())
            return difference;
    }
    const SfsDiskMetaItem& last = m_workload.m_items[m_workload.m_fillItems - 1];
    Contender::Pieces pieces;
    contender.lookup(last.m_ioData.offsetBlocks, last.getUncompressedLengthBlocks(), &pieces);
    if (pieces.size() != 1 || pieces[0].m_fifoOffsetOfIoStartBlocks != addressOf(last, 0))
        return "does not hold the last item whole";
    return "";
}

std::string ExpectedContents::compareRuns(Contender& contender) const
{
    Contender::Pieces pieces;
    for (const Run& run : m_runs) {
        u64 found = 0;
        for (u64 at = run.m_startBlock; at < run.m_endBlock; at += COMPARED_RANGE_BLOCKS) {
            const u64 length = std::min(COMPARED_RANGE_BLOCKS, run.m_endBlock - at);
            contender.lookup(at, static_cast<u32>(length), &pieces);
            for (const SubRegionDescriptor& piece : pieces)
                found += piece.m_lengthBlocks;
        }
        if (found != run.m_endBlock - run.m_startBlock)
            return "finds " + std::to_string(found) + " of the " +
                   std::to_string(run.m_endBlock - run.m_startBlock) + " blocks from block " +
                   std::to_string(run.m_startBlock);
    }
    return "";
}

std::string ExpectedContents::compareBlock(Contender& contender, u64 block) const
{
    size_t i = m_workload.m_fillItems - 1;
    while (block < m_workload.m_items[i].m_ioData.offsetBlocks ||
           block >= endOf(m_workload.m_items[i]))
        --i;
    const SfsDiskMetaItem& newest = m_workload.m_items[i];
    const u64 address = addressOf(newest, block - newest.m_ioData.offsetBlocks);
    Contender::Pieces pieces;
    contender.lookup(block, 1, &pieces);
    if (pieces.size() == 1 && pieces[0].m_fifoOffsetOfIoStartBlocks == address)
        return "";
    return "does not hold block " + std::to_string(block) + " as it was written last";
}

// ---- digests ----

void ContentsDigest::add(const Contender::Pieces& pieces)
{
    for (const SubRegionDescriptor& piece : pieces) {
        // Only where the data does not go on: so it does not matter where it is cut.
        if (!sameData(piece, m_expected)) {
            m_digest =
                mixed(mixed(m_digest, m_expected.m_viewOffsetBlocks), piece.m_viewOffsetBlocks);
            m_digest = mixed(mixed(m_digest, piece.m_fifoOffsetOfIoStartBlocks), piece.m_flags);
            if (piece.isCompressed())
                m_digest = mixed(m_digest, piece.m_regionOffsetLBsWithinIo);
        }
        m_expected = continuation(piece);
    }
}

void ContentsDigest::add(Contender& contender, u64 viewBlocks)
{
    Contender::Pieces pieces;
    for (u64 at = 0; at < viewBlocks; at += COMPARED_RANGE_BLOCKS) {
        contender.lookup(at, COMPARED_RANGE_BLOCKS, &pieces);
        add(pieces);
    }
}

u64 ContentsDigest::value() const
{
    return mixed(m_digest, m_expected.m_viewOffsetBlocks);
}
