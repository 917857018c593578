#include <algorithm>
#include <new>

#include "host/journal/JournalStoreImpl.h"

namespace {

// How many pages are written ahead at once, at most.
constexpr u64 AHEAD_PAGES = 128;
constexpr u8 EMPTY_PAGES[AHEAD_PAGES * BLOCK_BYTES] = {};

// Whatever a failed sync dropped of the data is gone, also when it was for want of space. One that
// could not even open the grain has dropped nothing.
RcStatus ofDataSync(RcStatus rc)
{
    return rc == RC_NO_MEMORY ? rc : RC_IO_ERROR;
}

// Of pages nothing is lost: the group is kept, and all of it is written again.
RcStatus ofMetaSync(RcStatus rc)
{
    return rc == RC_NO_MEMORY || rc == RC_NO_SPACE ? rc : RC_IO_ERROR;
}

} // namespace

RcStatus JournalStore::Impl::flush()
{
    MutexGuard guard(m_mutex);
    const RcStatus rc = checkWritableLocked();
    return rc == RC_SUCCESS ? flushLocked() : rc;
}

// Makes all that is accepted by now durable. The first caller writes for all; those that come
// meanwhile wait, and one of them writes what came with them.
RcStatus JournalStore::Impl::flushLocked()
{
    const u64 target = m_accepted;
    while (m_flushedAccepted < target) {
        if (m_failed != RC_SUCCESS)
            return m_failed;
        if (m_lockFile == nullptr) // closed meanwhile, and somebody else may write
            return RC_BAD_ARGUMENT;
        if (m_flushing) {
            m_flushed.wait(m_mutex);
            continue;
        }
        try {
            if (m_group.m_pages.empty())
                beginGroupLocked();
        } catch (const std::bad_alloc&) {
            return RC_NO_MEMORY; // all is still pending
        }
        m_flushing = true;
        std::set<u64> dirtyGrains;
        dirtyGrains.swap(m_dirtyGrains);
        const u64 roomPage = m_roomPage;
        m_mutex.unlock();
        RcStatus rc = RC_IO_ERROR;
        try {
            rc = writeGroup(dirtyGrains, roomPage);
        } catch (const std::bad_alloc&) {
            // How far it came is not known: nothing more is accepted.
        }
        m_mutex.lock();
        m_flushing = false;
        if (rc == RC_SUCCESS)
            endGroupLocked();
        else
            m_dirtyGrains.merge(dirtyGrains); // takes no memory
        m_flushed.notify_all();
        if (rc != RC_SUCCESS)
            return failLocked(rc, "a flush");
    }
    return RC_SUCCESS;
}

void JournalStore::Impl::beginGroupLocked()
{
    m_group = packGroup(m_pending, m_endPage, m_durableItems);
    m_groupAccepted = m_accepted;
    m_pending.clear();
    m_lastGroupBlocks = m_groupBlocks;
    m_groupBlocks = 0;
}

void JournalStore::Impl::endGroupLocked()
{
    m_endPage += m_group.m_pages.size();
    m_endsMarked = false;
    m_durableItems = m_group.m_items;
    m_flushedAccepted = m_groupAccepted;
    for (const JournalPtr& ptr : m_group.m_checkpoints)
        m_checkpoints[m_placedCheckpoints++].m_ptr = ptr;
    m_group = JournalGroup();
}

RcStatus JournalStore::Impl::writeGroup(const std::set<u64>& dirtyGrains, u64 roomPage)
{
    // Data first: a page that refers to data must not be durable before it.
    RcStatus rc = RC_SUCCESS;
    for (const u64 grain : dirtyGrains) {
        rc = m_grains.complete(grain);
        if (rc != RC_SUCCESS)
            return rc;
        rc = m_grains.sync(GrainKind::Data, grain);
        if (rc != RC_SUCCESS)
            return ofDataSync(rc);
    }
    const u64 end = m_group.m_firstPage + m_group.m_pages.size();
    for (u64 page = m_group.m_firstPage; page < end;) {
        const u32 count = static_cast<u32>(
            std::min<u64>(end - page, JOURNAL_PAGES_PER_GRAIN - pageInGrain(page)));
        // The grain was made when room was taken for the page.
        rc = m_grains.append(GrainKind::Meta, pageGrain(page), pageInGrain(page),
                             &m_group.m_pages[page - m_group.m_firstPage], count, nullptr);
        if (rc != RC_SUCCESS)
            return rc;
        page += count;
    }
    rc = writeAhead(end, roomPage);
    if (rc != RC_SUCCESS)
        return rc;
    for (u64 grain = pageGrain(m_group.m_firstPage); grain <= pageGrain(end - 1); ++grain) {
        rc = m_grains.sync(GrainKind::Meta, grain);
        if (rc != RC_SUCCESS)
            return ofMetaSync(rc);
    }
    return RC_SUCCESS;
}

// Syncing a file that got new blocks or a new size makes the file system write its own metadata
// as well, and wait for that. So once in many groups the file grows by pages that mean nothing yet,
// and the groups that follow only write over them.
RcStatus JournalStore::Impl::writeAhead(u64 endPage, u64 roomPage)
{
    if (endPage <= m_aheadPage || pageInGrain(endPage) == 0)
        return RC_SUCCESS;
    const u64 grainEnd = pageGrain(endPage) * JOURNAL_PAGES_PER_GRAIN;
    const u64 ahead = std::min({roomPage, grainEnd, endPage + AHEAD_PAGES});
    if (ahead <= endPage)
        return RC_SUCCESS;
    const RcStatus rc = m_grains.append(GrainKind::Meta, pageGrain(endPage), pageInGrain(endPage),
                                        EMPTY_PAGES, static_cast<u32>(ahead - endPage), nullptr);
    if (rc == RC_SUCCESS)
        m_aheadPage = ahead;
    // What there is no room for is not needed.
    return rc == RC_NO_SPACE ? RC_SUCCESS : rc;
}

RcStatus JournalStore::Impl::close()
{
    MutexGuard guard(m_mutex);
    if (m_closed || m_options.mode != JournalMode::Writer)
        return RC_SUCCESS;
    m_closed = true; // first, so that nothing is accepted behind what is flushed here
    RcStatus rc = m_failed != RC_SUCCESS ? m_failed : flushLocked();
    while (m_flushing) // for others who wait for what is durable now, or for metadata
        m_flushed.wait(m_mutex);
    if (rc == RC_SUCCESS)
        rc = m_failed;
    if (rc == RC_SUCCESS && !m_endsMarked)
        rc = markEndLocked();
    m_lockFile.reset();
    return rc;
}

RcStatus JournalStore::Impl::markEndLocked()
{
    RcStatus rc = RC_SUCCESS;
    try {
        // Where there is no room for the mark the journal ends as it does after a crash, whole.
        rc = reservePagesLocked(m_endPage + 1);
        if (rc != RC_SUCCESS)
            return rc == RC_NO_SPACE ? RC_SUCCESS : rc;
        // A group of one empty page: it proves that all before it had been durable.
        m_group.m_firstPage = m_endPage;
        m_group.m_items = m_durableItems;
        m_group.m_pages.resize(1);
        JournalPage& page = m_group.m_pages.front();
        page.m_number = m_endPage;
        page.m_itemsBefore = m_durableItems;
        page.m_count = page.m_continuation = 0;
        page.m_groupDistance = 0;
        sealPage(page);
        rc = writeGroup({}, m_group.m_firstPage + 1);
    } catch (const std::bad_alloc&) {
        rc = RC_NO_MEMORY;
    }
    if (rc == RC_SUCCESS)
        endGroupLocked();
    m_endsMarked = rc == RC_SUCCESS;
    // What was written ahead goes, so that a journal that was ended in order is its pages alone.
    if (rc == RC_SUCCESS && m_aheadPage > m_endPage)
        rc = m_grains.cutMeta(pageGrain(m_endPage), pageInGrain(m_endPage));
    return rc;
}
