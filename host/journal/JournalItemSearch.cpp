#include "host/journal/JournalItemSearch.h"

#include "host/journal/JournalRecovery.h"

namespace {

class ItemSearch
{
public:
    ItemSearch(JournalStore& store, std::string* message) : m_store(store), m_message(*message) {}

    RcStatus find(u64 items, JournalPtr* end)
    {
        u64 page = m_store.begin().m_page;
        RcStatus rc = findPage(items, &page);
        if (rc == RC_SUCCESS)
            rc = walkFrom(page, items, end);
        if (rc == RC_BAD_ARGUMENT)
            m_message = "the journal has fewer than " + std::to_string(items) + " items";
        return rc;
    }

private:
    // The last page that has fewer than `items` requests before it, or the first one: the last of
    // these requests begins in it.
    RcStatus findPage(u64 items, u64* found)
    {
        // Pages before `low` are not it; those from `high` on have `items` or more before them.
        u64 low = m_store.begin().m_page;
        u64 high = m_store.endPage();
        *found = low;
        while (low < high) {
            const u64 middle = low + (high - low) / 2;
            u64 next = middle;
            bool there = false;
            if (const RcStatus rc = readIntact(high, &next, &there); rc != RC_SUCCESS)
                return rc;
            if (there && m_page.m_itemsBefore < items) {
                *found = next;
                low = next + 1;
            } else {
                high = middle;
            }
        }
        return RC_SUCCESS;
    }

    // The first intact page at or after *number and before `end`.
    RcStatus readIntact(u64 end, u64* number, bool* there)
    {
        *there = false;
        for (; *number < end; ++*number) {
            u32 done = 0;
            const RcStatus rc = readPages(m_store.grains(), *number, 1, &m_page, &done);
            *there = rc == RC_SUCCESS && done == 1 && isPageIntact(m_page, *number);
            if (*there)
                return RC_SUCCESS;
            if (rc != RC_SUCCESS || !m_store.skipsDamage()) {
                m_message = "cannot read " + pagesText(*number, *number) + ": " +
                            (rc == RC_SUCCESS ? "not intact" : readFailureText(rc));
                return rc == RC_SUCCESS ? RC_DAMAGED : rc;
            }
        }
        return RC_SUCCESS;
    }

    RcStatus walkFrom(u64 page, u64 items, JournalPtr* end)
    {
        u64 seen = m_store.begin().m_items;
        while (page < m_store.endPage()) {
            bool there = false;
            if (const RcStatus rc = readIntact(m_store.endPage(), &page, &there); rc != RC_SUCCESS)
                return rc;
            if (!there)
                break;
            seen = m_page.m_itemsBefore;
            for (u32 slot = 0; slot < m_page.m_count; ++slot) {
                if (seen >= items && !m_page.continues(slot)) {
                    *end = journalPtr(page, slot);
                    return RC_SUCCESS;
                }
                if (m_page.m_items[slot].is_io_type() && !m_page.continues(slot))
                    ++seen;
            }
            ++page;
        }
        *end = journalPtr(m_store.endPage(), 0);
        return seen >= items ? RC_SUCCESS : RC_BAD_ARGUMENT;
    }

    JournalStore& m_store;
    std::string& m_message;
    JournalPage m_page{};
};

} // namespace

RcStatus findEndOfItems(JournalStore& store, u64 items, JournalPtr* end, std::string* message)
{
    return ItemSearch(store, message).find(items, end);
}
