#include "appliance/TrimmedZeroes.h"

#include <new>

void TrimmedZeroes::note(u64 offsetBlocks, u64 lengthBlocks)
{
    if (!hasNoted()) {
        m_firstBlock = offsetBlocks;
        m_endBlock = offsetBlocks + lengthBlocks;
        return;
    }
    m_firstBlock = std::min(m_firstBlock, offsetBlocks);
    m_endBlock = std::max(m_endBlock, offsetBlocks + lengthBlocks);
}

void TrimmedZeroes::start()
{
    MutexGuard guard(m_mutex);
    m_ranges.clear();
    m_passEnd = m_endBlock;
    m_isActive = true;
}

bool TrimmedZeroes::add(u64 offsetBlocks, u64 lengthBlocks)
{
    const u64 endBlock = offsetBlocks + lengthBlocks;
    MutexGuard guard(m_mutex);
    // A writer may have used up the room meanwhile.
    if (endBlock > m_passEnd) {
        m_passEnd = std::min(m_passEnd, offsetBlocks);
        return false;
    }
    // Neighbours are one range: most zeroes are long runs of many items.
    if (!m_ranges.empty() && m_ranges.rbegin()->second == offsetBlocks) {
        m_ranges.rbegin()->second = endBlock;
        return true;
    }
    if (m_ranges.size() < m_maxRanges) {
        try {
            m_ranges.emplace_hint(m_ranges.end(), offsetBlocks, endBlock);
            return true;
        } catch (const std::bad_alloc&) {
            // As if there were as many as may be.
        }
    }
    m_passEnd = offsetBlocks;
    return false;
}

// Makes a second range of what lies from a block on. Whoever calls has journaled what it is about
// to insert, and cannot fail any more.
void TrimmedZeroes::split(Ranges::iterator range, u64 secondBlock)
{
    if (m_ranges.size() < 2 * m_maxRanges) {
        try {
            m_ranges.emplace(secondBlock, range->second);
            return;
        } catch (const std::bad_alloc&) {
            // As if there were as many as may be.
        }
    }
    const auto last = std::prev(m_ranges.end());
    if (range == last) {
        m_passEnd = secondBlock;
        return;
    }
    m_passEnd = last->first;
    Ranges::node_type node = m_ranges.extract(last);
    node.key() = secondBlock;
    node.mapped() = range->second;
    m_ranges.insert(std::move(node));
}

bool TrimmedZeroes::subtract(u64 offsetBlocks, u64 lengthBlocks)
{
    const u64 endBlock = offsetBlocks + lengthBlocks;
    MutexGuard guard(m_mutex);
    auto range = m_ranges.upper_bound(offsetBlocks);
    if (range != m_ranges.begin() && std::prev(range)->second > offsetBlocks)
        --range;
    while (range != m_ranges.end() && range->first < endBlock) {
        const u64 rangeEnd = range->second;
        if (range->first < offsetBlocks) {
            if (rangeEnd > endBlock)
                split(range, endBlock);
            range->second = offsetBlocks;
            ++range;
        } else if (rangeEnd > endBlock) {
            // Its first part goes.
            Ranges::node_type node = m_ranges.extract(range);
            node.key() = endBlock;
            m_ranges.insert(std::move(node));
            break;
        } else {
            range = m_ranges.erase(range);
        }
    }
    return !m_ranges.empty();
}

bool TrimmedZeroes::next(u64 block, u64* offsetBlocks, u64* endBlock)
{
    MutexGuard guard(m_mutex);
    auto range = m_ranges.upper_bound(block);
    if (range != m_ranges.begin() && std::prev(range)->second > block)
        --range;
    if (range == m_ranges.end())
        return false;
    *offsetBlocks = std::max(block, range->first);
    *endBlock = range->second;
    return true;
}

u64 TrimmedZeroes::visitFirst(u64 offsetBlocks, u64 endBlock,
                              const std::function<void(u64, u64)>& visitor)
{
    MutexGuard guard(m_mutex);
    auto range = m_ranges.upper_bound(offsetBlocks);
    if (range != m_ranges.begin() && std::prev(range)->second > offsetBlocks)
        --range;
    if (range == m_ranges.end() || range->first >= endBlock)
        return endBlock;
    const u64 partEnd = std::min(range->second, endBlock);
    visitor(std::max(range->first, offsetBlocks), partEnd);
    return partEnd;
}

u64 TrimmedZeroes::passEnd()
{
    MutexGuard guard(m_mutex);
    return m_passEnd;
}

void TrimmedZeroes::clear()
{
    m_isActive = false;
    MutexGuard guard(m_mutex);
    m_ranges.clear();
}
