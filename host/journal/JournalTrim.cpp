#include "host/journal/JournalTrim.h"

#include <algorithm>
#include <vector>

#include "host/journal/JournalRecovery.h"

namespace {

constexpr u32 CHUNK_PAGES = 256;

// Visits pages in order until one answers false. stopped: asked before each read.
RcStatus walkPages(JournalStore& store, u64 firstPage, u64 endPage, std::string* message,
                   const std::function<bool()>& stopped,
                   const std::function<bool(const JournalPage&)>& visit)
{
    std::vector<JournalPage> pages(CHUNK_PAGES);
    for (u64 page = firstPage; page < endPage;) {
        if (stopped && stopped())
            return RC_ABORTED;
        const u32 wanted = static_cast<u32>(std::min<u64>(
            {CHUNK_PAGES, endPage - page, JOURNAL_PAGES_PER_GRAIN - pageInGrain(page)}));
        u32 done = 0;
        RcStatus rc = readPages(store.grains(), page, wanted, pages.data(), &done);
        for (u32 i = 0; i < wanted && rc == RC_SUCCESS; ++i) {
            if (i >= done || !isPageIntact(pages[i], page + i)) {
                *message = "the journal is damaged: " + pagesText(page + i, page + i);
                rc = RC_DAMAGED;
            } else if (!visit(pages[i])) {
                return RC_SUCCESS;
            }
        }
        if (rc != RC_SUCCESS)
            return rc;
        page += wanted;
    }
    return RC_SUCCESS;
}

class Planner
{
public:
    Planner(JournalStore& store, u64 items, u64 lastPage, const std::function<bool()>& stopped)
        : m_store(store), m_items(items), m_lastPage(lastPage), m_stopped(stopped),
          m_old(store.begin()), m_walked(m_old)
    {}

    JournalTrimPlan plan()
    {
        m_plan.m_begin = m_old;
        const u64 end = m_store.endPage();
        bool isPast = false;
        m_plan.m_rc = walkPages(m_store, m_old.m_page, end, &m_plan.m_message, m_stopped,
                                [&](const JournalPage& page) {
                                    isPast = !take(page);
                                    return !isPast;
                                });
        // All of the journal may go, up to where the next page will be.
        if (m_plan.m_rc == RC_SUCCESS && !isPast && end <= m_lastPage &&
            m_walked.m_items <= m_items)
            propose(end);
        if (m_plan.m_rc == RC_SUCCESS && m_plan.m_begin.m_page > m_old.m_page)
            m_plan.m_rc = findFirstGrain(end);
        if (m_plan.m_rc == RC_SUCCESS)
            count();
        return std::move(m_plan);
    }

private:
    // Returns whether a later page may be the beginning too.
    bool take(const JournalPage& page)
    {
        if (page.m_itemsBefore > m_items || page.m_number > m_lastPage)
            return false;
        if (!page.continues(0))
            propose(page.m_number);
        m_walked.m_items = page.m_itemsBefore + page.logicalItems();
        for (u32 slot = 0; slot < page.m_count; ++slot)
            takeItem(page.m_items[slot]);
        return true;
    }

    void takeItem(const SfsDiskMetaItem& item)
    {
        if (item.getType() == SfsMetaType::CHECKPOINT) {
            m_walked.m_lastCheckpoint =
                std::max(m_walked.m_lastCheckpoint, item.m_cpData.checkpoint);
            m_walked.m_lastTimestampUs =
                std::max(m_walked.m_lastTimestampUs, item.m_cpData.timestamp);
        }
        if (!item.is_io_type_with_ud())
            return;
        const u64 grain = item.m_ioData.dataAddr / SFS_GRAIN_BLOCKS;
        const u32 stored = storedBlocks(item);
        m_walkedBlocks += stored;
        m_blocksInLastGrain = grain == m_walked.m_lastGrain ? m_blocksInLastGrain + stored : stored;
        m_walked.m_lastGrain = grain;
        m_walked.m_lastBlock = static_cast<u32>(item.m_ioData.dataAddr % SFS_GRAIN_BLOCKS) + stored;
    }

    void propose(u64 page)
    {
        m_plan.m_begin = m_walked;
        m_plan.m_begin.m_page = page;
        m_proposedBlocks = m_walkedBlocks;
        m_proposedInLastGrain = m_blocksInLastGrain;
    }

    // Data grains are filled in the items' order, so that of the first item left is the first one
    // that is needed; and without any, the one in which the next write goes on.
    RcStatus findFirstGrain(u64 end)
    {
        JournalBegin& begin = m_plan.m_begin;
        begin.m_firstGrain = std::max(begin.m_lastGrain, m_old.m_firstGrain);
        bool found = false;
        const RcStatus rc = walkPages(
            m_store, begin.m_page, end, &m_plan.m_message, m_stopped, [&](const JournalPage& page) {
                for (u32 slot = 0; slot < page.m_count && !found; ++slot) {
                    if (!page.m_items[slot].is_io_type_with_ud())
                        continue;
                    begin.m_firstGrain = page.m_items[slot].m_ioData.dataAddr / SFS_GRAIN_BLOCKS;
                    found = true;
                }
                return !found;
            });
        if (!found)
            m_plan.m_noDataBefore = end;
        // Of the grains kept only the first can hold data of items that go.
        begin.m_deadBlocks = begin.m_firstGrain == begin.m_lastGrain ? m_proposedInLastGrain : 0;
        if (begin.m_firstGrain == begin.m_lastGrain && begin.m_firstGrain == m_old.m_firstGrain)
            begin.m_deadBlocks += m_old.m_deadBlocks;
        m_plan.m_freedBlocks = m_old.m_deadBlocks + m_proposedBlocks - begin.m_deadBlocks;
        return rc;
    }

    void count()
    {
        const JournalBegin& begin = m_plan.m_begin;
        std::vector<u64> grains;
        for (const GrainKind kind : {GrainKind::Data, GrainKind::Meta}) {
            const u64 first =
                kind == GrainKind::Data ? begin.m_firstGrain : pageGrain(begin.m_page);
            if (m_plan.m_rc == RC_SUCCESS)
                m_plan.m_rc = m_store.grains().list(kind, &grains);
            const u64 going = static_cast<u64>(
                std::lower_bound(grains.begin(), grains.end(), first) - grains.begin());
            (kind == GrainKind::Data ? m_plan.m_dataGrains : m_plan.m_metaGrains) = going;
        }
    }

    JournalStore& m_store;
    const u64 m_items;
    const u64 m_lastPage;
    const std::function<bool()>& m_stopped;
    const JournalBegin m_old;
    JournalBegin m_walked; // a beginning behind the page walked last, but for its page and grain
    u64 m_walkedBlocks = 0;
    u64 m_blocksInLastGrain = 0;
    u64 m_proposedBlocks = 0;
    u64 m_proposedInLastGrain = 0;
    JournalTrimPlan m_plan;
};

} // namespace

JournalTrimPlan planJournalTrim(JournalStore& store, u64 items, u64 lastPage,
                                const std::function<bool()>& stopped)
{
    return Planner(store, items, lastPage, stopped).plan();
}

RcStatus visitJournalItems(JournalStore& store, u64 firstPage, u64 endPage,
                           const std::function<RcStatus(const SfsDiskMetaItem&)>& visit)
{
    std::string ignored;
    RcStatus visited = RC_SUCCESS;
    const RcStatus rc =
        walkPages(store, firstPage, endPage, &ignored, {}, [&](const JournalPage& page) {
            for (u32 slot = 0; slot < page.m_count && visited == RC_SUCCESS; ++slot)
                visited = visit(page.m_items[slot]);
            return visited == RC_SUCCESS;
        });
    return rc == RC_SUCCESS ? visited : rc;
}
