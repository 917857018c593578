// Where a trimmed journal begins: the file "begin" beside its grains.
//
// Nothing of the journal before the beginning is read any more, though it may still be there: the
// beginning is durable before the first grain before it goes, and a writer that opens the journal
// removes what a crash has left. Numbers of items, checkpoints, pages and grains go on as if
// nothing had been taken away.
#pragma once

#include "host/journal/Storage.h"

// As stored, little-endian. The default is the beginning of a journal that was never trimmed.
struct JournalBegin
{
    u32 m_magic = MAGIC;
    u32 m_lastBlock = 0;       // the block behind the last item's data before the beginning,
    u64 m_lastGrain = 0;       // and its data grain; 0: no data before the beginning
    u64 m_page = 0;            // the first page; no request begins before it and goes on in it
    u64 m_items = 0;           // logical items before it
    u64 m_firstGrain = 0;      // the data grains before this one hold nothing any more
    u64 m_deadBlocks = 0;      // stored blocks of items before the beginning in the grains kept
    u64 m_lastCheckpoint = 0;  // greatest id of a checkpoint before it
    u64 m_lastTimestampUs = 0; // latest time of one

    static constexpr u32 MAGIC = 0x31424C52; // "RLB1"
};
static_assert(sizeof(JournalBegin) == 64);

// RC_SUCCESS with the default where the journal was never trimmed; RC_DAMAGED; RC_IO_ERROR.
RcStatus loadJournalBegin(Storage& storage, const std::string& folder, JournalBegin* begin);

// Durable when it returns; before that a crash leaves the old or the new beginning.
RcStatus storeJournalBegin(Storage& storage, const std::string& folder, const JournalBegin& begin);

// Takes the room for the next ones beforehand, where there is any, for which there has to be a
// first one; see CheckedFile.h.
RcStatus reserveJournalBegin(Storage& storage, const std::string& folder);
