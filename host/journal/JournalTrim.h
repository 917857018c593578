// What a trim takes off the journal's beginning.
//
// The journal begins at a page, since pages are what is numbered and checked; data grains go as
// soon as no item from there on refers to them, metadata grains when all their pages lie before it.
// The one that is written goes only where nothing is left in it and nothing was appended meanwhile.
#pragma once

#include <functional>
#include <string>

#include "host/journal/JournalStore.h"

struct JournalTrimPlan
{
    RcStatus m_rc = RC_SUCCESS;
    std::string m_message;
    JournalBegin m_begin;   // the present one when there is nothing to take away
    u64 m_freedBlocks = 0;  // of stored data, in the grains that go
    u64 m_dataGrains = 0;   // that go
    u64 m_noDataBefore = 0; // see JournalStore::setBegin(); 0: an item that is left has data
    u64 m_metaGrains = 0;
};

// The latest beginning with no more than `items` logical items before it that does not lie behind
// the page `lastPage`. Reads the metadata up to there, and that of the first item behind it that
// has data; changes nothing. stopped: asked now and then, true ends it with RC_ABORTED; empty:
// never. RC_DAMAGED, RC_IO_ERROR. Thread safety: any thread; one trim at a time.
JournalTrimPlan planJournalTrim(JournalStore& store, u64 items, u64 lastPage,
                                const std::function<bool()>& stopped = {});

// Visits the items of the pages from `firstPage` on before `endPage`, in their order, while `visit`
// answers RC_SUCCESS; returns its failure, or RC_DAMAGED, RC_IO_ERROR.
RcStatus visitJournalItems(JournalStore& store, u64 firstPage, u64 endPage,
                           const std::function<RcStatus(const SfsDiskMetaItem&)>& visit);
