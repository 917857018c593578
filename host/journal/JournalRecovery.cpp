#include "host/journal/JournalRecovery.h"

#include <algorithm>
#include <sstream>

namespace {

constexpr u32 CHUNK_PAGES = 2048;
constexpr u32 FIRST_CHUNK_PAGES = 64; // most journals that are opened often are short

class Walk
{
public:
    Walk(GrainStore& grains, const JournalOptions& options, const JournalBegin& begin)
        : m_grains(grains), m_options(options)
    {
        m_position.m_endPage = begin.m_page;
        m_position.m_items = begin.m_items;
        m_position.m_dataGrain = begin.m_lastGrain;
        m_position.m_dataBlock = begin.m_lastBlock;
        m_position.m_storedBlocks = begin.m_deadBlocks;
        m_position.m_lastCheckpoint = begin.m_lastCheckpoint;
        m_position.m_lastTimestampUs = begin.m_lastTimestampUs;
    }

    RecoveryResult run()
    {
        std::vector<u64> ignored;
        m_result.m_rc = listGrains(&ignored);
        m_pages.resize(FIRST_CHUNK_PAGES);
        bool more = m_result.m_rc == RC_SUCCESS;
        while (more)
            more = walkChunk();
        if (m_result.m_rc == RC_SUCCESS)
            finish();
        m_result.m_position = m_position;
        return std::move(m_result);
    }

private:
    RcStatus listGrains(std::vector<u64>* found)
    {
        const RcStatus rc = m_grains.list(GrainKind::Meta, found);
        m_lastGrain = found->empty() ? 0 : found->back();
        return rc;
    }

    // Takes pages in order; returns whether the walk goes on.
    bool walkChunk()
    {
        const u64 first = m_position.m_endPage;
        const u32 wanted = std::min(static_cast<u32>(m_pages.size()),
                                    JOURNAL_PAGES_PER_GRAIN - pageInGrain(first));
        u32 done = 0;
        m_result.m_rc = readPages(m_grains, first, wanted, m_pages.data(), &done);
        if (m_result.m_rc != RC_SUCCESS)
            return false;
        for (u32 i = 0; i < done; ++i) {
            if (!isPageIntact(m_pages[i], first + i))
                return invalidPage(first + i);
            const std::string fault = faultOf(m_pages[i]);
            if (!fault.empty())
                return damagedPage(first + i, fault);
            take(m_pages[i]);
        }
        if (done < wanted)
            return invalidPage(first + done);
        m_pages.resize(CHUNK_PAGES);
        return true;
    }

    // What is wrong with a page that is whole: no crash leaves that behind.
    std::string faultOf(const JournalPage& page) const
    {
        if (page.m_itemsBefore != m_position.m_items && !m_resync)
            return "its number of items before does not fit the pages before";
        for (u32 slot = 0; slot < page.m_count; ++slot) {
            const char* fault = itemFault(page.m_items[slot], m_options.volumeBlocks);
            if (fault != nullptr)
                return "entry " + std::to_string(journalPtr(page.m_number, slot).entryNum) + ": " +
                       fault;
        }
        return "";
    }

    void take(const JournalPage& page)
    {
        // A request that fills pages begins with a page of its own, so that it is cut whole.
        if ((page.m_continuation & JournalPage::GOES_ON) != 0 && !page.continues(0))
            m_beforeRequest = m_position;
        m_goesOn = (page.m_continuation & JournalPage::GOES_ON) != 0;
        m_resync = false;
        m_position.m_items = page.m_itemsBefore;
        for (u32 slot = 0; slot < page.m_count; ++slot)
            takeItem(page.m_items[slot], page.continues(slot), journalPtr(page.m_number, slot));
        m_position.m_endPage = page.m_number + 1;
        m_position.m_endsMarked = page.m_count == 0;
    }

    void takeItem(const SfsDiskMetaItem& item, bool continues, const JournalPtr& ptr)
    {
        if (item.getType() == SfsMetaType::CHECKPOINT) {
            m_result.m_checkpoints.push_back({item.m_cpData.checkpoint, item.m_cpData.timestamp,
                                              m_position.m_items, item.getUserData(), ptr});
            ++m_position.m_checkpoints;
            m_position.m_lastCheckpoint =
                std::max(m_position.m_lastCheckpoint, item.m_cpData.checkpoint);
            m_position.m_lastTimestampUs =
                std::max(m_position.m_lastTimestampUs, item.m_cpData.timestamp);
        }
        if (!item.is_io_type())
            return;
        m_position.m_items += continues ? 0 : 1;
        if (!item.is_io_type_with_ud())
            return;
        const u32 stored = storedBlocks(item);
        m_position.m_storedBlocks += stored;
        m_position.m_dataGrain = item.m_ioData.dataAddr / SFS_GRAIN_BLOCKS;
        m_position.m_dataBlock =
            static_cast<u32>(item.m_ioData.dataAddr % SFS_GRAIN_BLOCKS) + stored;
    }

    // A page that is not intact, or not there.
    bool invalidPage(u64 page)
    {
        m_result.m_rc = countFoundPages();
        if (m_result.m_rc == RC_SUCCESS && page >= m_provenPages && page + 1 < m_foundPages)
            m_result.m_rc = findProvenPages(page);
        if (m_result.m_rc != RC_SUCCESS)
            return false;
        // A writer may have written it since it was read here, and then those behind it.
        if (m_foundPages > page && page != m_readAgain) {
            m_readAgain = page;
            return true;
        }
        if (page < m_provenPages)
            return damagedPage(page, "not intact, while later pages prove that it was");
        m_cutFrom = page;
        return false;
    }

    bool damagedPage(u64 page, const std::string& reason)
    {
        std::vector<JournalDamage>& damage = m_result.m_report.m_damage;
        if (m_options.recovery == JournalRecovery::Salvage) {
            const bool grows = !damage.empty() && m_damagedTo + 1 == page &&
                               damage.back().m_reason == reason &&
                               pageGrain(page) == pageGrain(m_damagedTo);
            if (!grows) {
                m_damagedFrom = page;
                damage.push_back({});
            }
            m_damagedTo = page;
            damage.back() = {pagesText(m_damagedFrom, page), reason};
            ++m_result.m_report.m_skippedPages;
            m_position.m_endPage = page + 1;
            m_resync = true;
            m_goesOn = false;
            return true;
        }
        damage.push_back({pagesText(page, page), reason});
        if (m_options.recovery == JournalRecovery::PointInTime) {
            m_cutFrom = page;
            m_result.m_rc = countFoundPages();
            return false;
        }
        m_result.m_rc = RC_DAMAGED;
        m_result.m_message =
            "the journal is damaged: " + damage.back().m_where + ": " + damage.back().m_reason;
        return false;
    }

    // Reads all that lies behind an invalid page.
    RcStatus findProvenPages(u64 invalid)
    {
        std::vector<JournalPage> pages(CHUNK_PAGES);
        for (u64 next = invalid + 1; pageGrain(next) <= m_lastGrain;) {
            const u32 wanted = std::min(CHUNK_PAGES, JOURNAL_PAGES_PER_GRAIN - pageInGrain(next));
            u32 done = 0;
            const RcStatus rc = readPages(m_grains, next, wanted, pages.data(), &done);
            if (rc != RC_SUCCESS)
                return rc;
            for (u32 i = 0; i < done; ++i)
                if (isPageIntact(pages[i], next + i) && pages[i].m_groupDistance <= next + i)
                    m_provenPages = std::max(m_provenPages, next + i - pages[i].m_groupDistance);
            next += done < wanted ? JOURNAL_PAGES_PER_GRAIN - pageInGrain(next) : done;
        }
        return RC_SUCCESS;
    }

    void finish()
    {
        u64 cut = m_foundPages > m_cutFrom ? m_foundPages - m_cutFrom : 0;
        if (m_goesOn) {
            cut += m_position.m_endPage - m_beforeRequest.m_endPage;
            m_position = m_beforeRequest;
        }
        m_result.m_checkpoints.resize(m_position.m_checkpoints);
        JournalReport& report = m_result.m_report;
        report.m_cutPages = cut;
        std::ostringstream text;
        if (cut > 0)
            text << (report.m_damage.empty() || report.m_skippedPages > 0
                         ? "the journal's end was incomplete: "
                         : "the journal is damaged: ")
                 << cut << (cut == 1 ? " metadata page" : " metadata pages") << " from "
                 << pagesText(m_position.m_endPage, m_position.m_endPage)
                 << " on left out; it ends after " << m_position.m_items << " items";
        if (report.m_skippedPages > 0)
            text << (cut > 0 ? "; " : "") << report.m_skippedPages
                 << " damaged metadata pages left out";
        report.m_text = text.str();
        if (cut > 0 && m_options.recovery == JournalRecovery::Strict) {
            m_result.m_rc = RC_DAMAGED;
            m_result.m_message = report.m_text;
        }
    }

    // Up to which page there is something. The last grains may be empty: they are made before the
    // pages that go into them are written.
    RcStatus countFoundPages()
    {
        std::vector<u64> found;
        RcStatus rc = listGrains(&found);
        u32 blocks = 0;
        m_foundPages = 0;
        for (size_t i = found.size(); i > 0 && rc == RC_SUCCESS && blocks == 0; --i) {
            rc = m_grains.metaBlocks(found[i - 1], &blocks);
            if (rc == RC_SUCCESS)
                rc = leaveOutEmptyPages(found[i - 1], &blocks);
            if (blocks > 0)
                m_foundPages = (found[i - 1] - 1) * JOURNAL_PAGES_PER_GRAIN + blocks;
        }
        return rc;
    }

    // Pages of zeroes at a grain's end were written ahead of those that were to come, and mean
    // nothing. *blocks: the grain's length, with and then without them.
    RcStatus leaveOutEmptyPages(u64 grain, u32* blocks)
    {
        std::vector<JournalPage> pages(FIRST_CHUNK_PAGES);
        while (*blocks > 0) {
            const u32 count = std::min(*blocks, FIRST_CHUNK_PAGES);
            u32 done = 0;
            const RcStatus rc =
                m_grains.readMeta(grain, *blocks - count, count, pages.data(), &done);
            if (rc != RC_SUCCESS)
                return rc;
            // The last one may be there in part only, and is none of those.
            if (done < count)
                return RC_SUCCESS;
            for (; done > 0; --done, --*blocks)
                if (!isPageEmpty(pages[done - 1]))
                    return RC_SUCCESS;
        }
        return RC_SUCCESS;
    }

    GrainStore& m_grains;
    const JournalOptions& m_options;
    RecoveryResult m_result;
    JournalPosition m_position;
    JournalPosition m_beforeRequest; // before the request that goes on in the next page
    bool m_goesOn = false;
    bool m_resync = false; // pages were left out, so the next one says how many items were before
    u64 m_lastGrain = 0;
    u64 m_foundPages = 0;  // up to the last one that is there, whole or not
    u64 m_provenPages = 0; // pages before this one had been durable
    u64 m_readAgain = ~u64{0};
    u64 m_damagedFrom = 0; // the run of pages that the last damage tells
    u64 m_damagedTo = 0;
    u64 m_cutFrom = 0;
    std::vector<JournalPage> m_pages;
};

} // namespace

RecoveryResult recoverJournal(GrainStore& grains, const JournalOptions& options,
                              const JournalBegin& begin)
{
    return Walk(grains, options, begin).run();
}

RcStatus cutJournal(GrainStore& grains, const JournalPosition& position)
{
    const u64 lastGrain = pageGrain(position.m_endPage);
    std::vector<u64> found;
    RcStatus rc = grains.list(GrainKind::Meta, &found);
    for (size_t i = 0; i < found.size() && rc == RC_SUCCESS; ++i) {
        u32 blocks = 0;
        if (found[i] > lastGrain)
            rc = grains.remove(GrainKind::Meta, found[i]);
        else if (found[i] == lastGrain) {
            rc = grains.metaBlocks(found[i], &blocks);
            if (rc == RC_SUCCESS && blocks > pageInGrain(position.m_endPage))
                rc = grains.cutMeta(found[i], pageInGrain(position.m_endPage));
        }
    }
    if (rc == RC_SUCCESS)
        rc = grains.list(GrainKind::Data, &found);
    for (size_t i = 0; i < found.size() && rc == RC_SUCCESS; ++i)
        if (found[i] > position.m_dataGrain)
            rc = grains.remove(GrainKind::Data, found[i]);
    return rc == RC_SUCCESS ? grains.syncRemovals() : rc;
}

RcStatus removeBeforeBegin(GrainStore& grains, const JournalBegin& begin, u64* removed)
{
    *removed = 0;
    RcStatus rc = RC_SUCCESS;
    for (const GrainKind kind : {GrainKind::Data, GrainKind::Meta}) {
        const u64 first = kind == GrainKind::Data ? begin.m_firstGrain : pageGrain(begin.m_page);
        std::vector<u64> found;
        if (rc == RC_SUCCESS)
            rc = grains.list(kind, &found);
        for (size_t i = 0; i < found.size() && rc == RC_SUCCESS; ++i) {
            if (found[i] >= first)
                break;
            rc = grains.remove(kind, found[i]);
            ++*removed;
        }
    }
    return rc == RC_SUCCESS && *removed > 0 ? grains.syncRemovals() : rc;
}

RcStatus readPages(GrainStore& grains, u64 firstPage, u32 count, JournalPage* pages, u32* done)
{
    const RcStatus rc =
        grains.readMeta(pageGrain(firstPage), pageInGrain(firstPage), count, pages, done);
    return rc == RC_NOT_FOUND ? RC_SUCCESS : rc;
}

const char* readFailureText(RcStatus rc)
{
    return rc == RC_NO_MEMORY ? "no file descriptor is left for it, or no memory"
                              : rcStatusText(rc);
}

std::string pagesText(u64 firstPage, u64 lastPage)
{
    std::ostringstream out;
    out << "metadata grain " << pageGrain(firstPage) << " page";
    if (lastPage != firstPage)
        out << "s " << pageInGrain(firstPage) << " to";
    out << " " << pageInGrain(lastPage) << " (entries " << journalPtr(firstPage, 0).entryNum
        << " to " << journalPtr(lastPage, JOURNAL_PAGE_ITEMS - 1).entryNum << ")";
    return out.str();
}
