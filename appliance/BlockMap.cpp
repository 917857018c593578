#include "appliance/BlockMap.h"

namespace {

// The index is asked for more at a time while there is little, and for less where there is much.
constexpr u64 FIRST_WINDOW_BLOCKS = u64{1} << 13;
constexpr u64 MAX_WINDOW_BLOCKS = u64{1} << 31;
constexpr size_t FEW_PIECES = 256;

class RunFinder
{
public:
    RunFinder(Mirror& mirror, RegionLocator& locator, size_t maxRuns, std::vector<BlockRun>* runs)
        : m_mirror(mirror), m_locator(locator), m_maxRuns(maxRuns), m_runs(*runs)
    {}

    Result find(u64 block, u64 end)
    {
        m_runs.clear();
        u64 windowBlocks = FIRST_WINDOW_BLOCKS;
        while (block < end && !m_isFull) {
            windowBlocks = pieceWindow(windowBlocks, m_locator.getItemCount());
            const u64 windowEnd = std::min(end, block + windowBlocks);
            // What an apply writes to a hole of the target may be out of the index by the next
            // lookup, so a hole that was found before one says nothing after it.
            m_targetFrom = m_targetStart = m_targetEnd = 0;
            m_locator.lookup(nullptr, block, static_cast<u32>(windowEnd - block), &m_pieces, false,
                             nullptr);
            for (size_t i = 0; i < m_pieces.size() && !m_isFull; ++i) {
                const SubRegionDescriptor& piece = m_pieces[i];
                if (Result result = addGap(block, piece.m_viewOffsetBlocks); !result.ok())
                    return result;
                block = piece.m_viewOffsetBlocks + piece.m_lengthBlocks;
                add(piece.m_viewOffsetBlocks, block, !piece.isAllZeroes());
            }
            if (Result result = addGap(block, windowEnd); !result.ok())
                return result;
            block = windowEnd;
            windowBlocks = m_pieces.size() < FEW_PIECES
                               ? std::min(windowBlocks * 4, MAX_WINDOW_BLOCKS)
                               : std::max(windowBlocks / 4, FIRST_WINDOW_BLOCKS);
        }
        return Result();
    }

private:
    void add(u64 from, u64 to, bool isData)
    {
        if (m_isFull || from == to)
            return;
        if (!m_runs.empty() && m_runs.back().m_isData == isData)
            m_runs.back().m_lengthBlocks += to - from;
        else if (m_runs.size() == m_maxRuns)
            m_isFull = true;
        else
            m_runs.push_back({from, to - from, isData});
    }

    Result addGap(u64 block, u64 end)
    {
        while (block < end && !m_isFull) {
            if (block < m_targetFrom || block >= m_targetEnd) {
                m_targetFrom = block;
                const RcStatus rc = m_mirror.target().nextData(block, &m_targetStart, &m_targetEnd);
                if (rc != RC_SUCCESS)
                    return Result::fromStatus(rc, "cannot find the target volume's data");
                // Nothing up to the volume's end.
                if (m_targetStart >= m_targetEnd)
                    m_targetStart = m_targetEnd = ~u64{0};
            }
            const bool isData = block >= m_targetStart;
            const u64 to = std::min(end, isData ? m_targetEnd : m_targetStart);
            add(block, to, isData);
            block = to;
        }
        return Result();
    }

    Mirror& m_mirror;
    RegionLocator& m_locator;
    const size_t m_maxRuns;
    std::vector<BlockRun>& m_runs;
    bool m_isFull = false; // the next run begins
    std::vector<SubRegionDescriptor> m_pieces;
    u64 m_targetFrom = 0; // of the target, [m_targetFrom, m_targetStart) is a hole,
    u64 m_targetStart = 0;
    u64 m_targetEnd = 0; // [m_targetStart, m_targetEnd) data
};

} // namespace

Result findBlockRuns(Mirror& mirror, RegionLocator& locator, u64 offsetBlocks, u64 lengthBlocks,
                     size_t maxRuns, std::vector<BlockRun>* runs)
{
    return RunFinder(mirror, locator, maxRuns, runs)
        .find(offsetBlocks, offsetBlocks + lengthBlocks);
}
