#include <algorithm>
#include <new>

#include "host/journal/JournalStoreImpl.h"

namespace {

// So much is taken ahead, as each time costs a call to the file system; little at first, so that a
// journal that gets little takes little.
constexpr u32 FIRST_STEP_BLOCKS = 128;
constexpr u32 LARGEST_STEP_BLOCKS = 4096;
constexpr u32 STEP_PAGES = 128;

// The most pages that a group of so many items can take. A page is followed by another one only
// when the next request does not fit into its rest; so two that follow each other have more items
// than one has room for.
u64 mostPagesFor(u64 items)
{
    return items == 0 ? 0 : 2 * items / (JOURNAL_PAGE_ITEMS + 1) + 1;
}

} // namespace

RcStatus JournalStore::Impl::reserveDataLocked(u32 blocks)
{
    if (m_roomGrain != m_dataGrain) {
        m_roomGrain = m_dataGrain;
        m_roomBlock = m_dataBlock;
    }
    const u32 end = m_dataBlock + blocks;
    if (end <= m_roomBlock)
        return RC_SUCCESS;
    u32 step = std::clamp(2 * m_roomStepBlocks, FIRST_STEP_BLOCKS, LARGEST_STEP_BLOCKS);
    u32 roomEnd = std::max(end, std::min(m_roomBlock + step, SFS_GRAIN_BLOCKS));
    RcStatus rc =
        m_grains.reserve(GrainKind::Data, m_dataGrain, m_roomBlock, roomEnd - m_roomBlock);
    if (rc == RC_NO_SPACE && roomEnd > end) {
        roomEnd = end;
        step = 0;
        rc = m_grains.reserve(GrainKind::Data, m_dataGrain, m_roomBlock, roomEnd - m_roomBlock);
    }
    if (rc == RC_SUCCESS) {
        m_roomStepBlocks = step;
        m_roomBlock = roomEnd;
    }
    return rc;
}

RcStatus JournalStore::Impl::reserveItemsLocked(u64 items)
{
    try {
        return reservePagesLocked(m_endPage + m_group.m_pages.size() +
                                  mostPagesFor(m_pending.size() + items) + 1);
    } catch (const std::bad_alloc&) {
        return RC_NO_MEMORY;
    }
}

RcStatus JournalStore::Impl::reservePagesLocked(u64 endPage)
{
    while (m_roomPage < endPage) {
        const u64 grain = pageGrain(m_roomPage);
        const u32 first = pageInGrain(m_roomPage);
        const u32 rest = JOURNAL_PAGES_PER_GRAIN - first;
        const u32 needed = static_cast<u32>(std::min<u64>(endPage - m_roomPage, rest));
        u32 pages = std::min(std::max(needed, STEP_PAGES), rest);
        // No page of it was ever accepted, or there would be room for its first one.
        RcStatus rc = first == 0 ? m_grains.create(GrainKind::Meta, grain) : RC_SUCCESS;
        if (rc != RC_SUCCESS)
            return rc;
        rc = m_grains.reserve(GrainKind::Meta, grain, first, pages);
        if (rc == RC_NO_SPACE && pages > needed) {
            pages = needed;
            rc = m_grains.reserve(GrainKind::Meta, grain, first, pages);
        }
        if (rc != RC_SUCCESS)
            return rc;
        m_roomPage += pages;
    }
    return RC_SUCCESS;
}
