// What a journal's metadata says when it is opened, and where it ends.
//
// The pages are walked in their order. The first page that is not intact ends the journal, unless
// pages behind it prove that it had been durable: every page knows where its flush group begins,
// and a group is only begun when the one before is durable. So an invalid page with a later group
// behind it is damage; one with nothing behind it, or only with pages of its own group, is the end
// of a flush that was never acknowledged.
#pragma once

#include <string>
#include <vector>

#include "host/journal/JournalBegin.h"
#include "host/journal/JournalStore.h"

struct RecoveredCheckpoint
{
    CpId_t m_id;
    u64 m_timestampUs;
    u64 m_itemsBefore;
    u32 m_tagMark;
    JournalPtr m_ptr;
};

// The journal up to some page.
struct JournalPosition
{
    u64 m_endPage = 0;      // the first page not counted
    u64 m_items = 0;        // logical items
    u64 m_dataGrain = 0;    // of the next data block; 0: no data yet
    u32 m_dataBlock = 0;    // may be the grain's length
    u64 m_storedBlocks = 0; // of all items
    size_t m_checkpoints = 0;
    CpId_t m_lastCheckpoint = 0;
    u64 m_lastTimestampUs = 0;
    bool m_endsMarked = true; // nothing, or a page that an orderly end wrote
};

struct RecoveryResult
{
    RcStatus m_rc = RC_SUCCESS;
    std::string m_message;
    JournalReport m_report;
    JournalPosition m_position;
    std::vector<RecoveredCheckpoint> m_checkpoints;
};

// Walks all pages from the beginning on; changes nothing.
RecoveryResult recoverJournal(GrainStore& grains, const JournalOptions& options,
                              const JournalBegin& begin);

// Removes for good what lies behind the position: pages and grains that no item refers to. Durable
// when it returns, for a page of the old end must not look like a part of a new group.
RcStatus cutJournal(GrainStore& grains, const JournalPosition& position);

// Removes the grains that lie before the beginning as a whole. Durable when it returns. *removed:
// how many went.
RcStatus removeBeforeBegin(GrainStore& grains, const JournalBegin& begin, u64* removed);

// Reads pages of one grain; *done is smaller where the grain ends, and 0 where it is not there.
RcStatus readPages(GrainStore& grains, u64 firstPage, u32 count, JournalPage* pages, u32* done);

// "metadata grain 1 page 7 (entries 105 to 119)"
std::string pagesText(u64 firstPage, u64 lastPage);

// Why the journal's files could not be read. Out of memory is what a pool's limit says of itself;
// here it is what the machine has none left of.
const char* readFailureText(RcStatus rc);
