// Reads and checks everything that a journal holds.
//
// Metadata was checked when the store was opened (open it with salvage to learn of all damage);
// this reads every stored IO: the checksum of each block, the checksum of the whole IO in its
// item, and for a compressed one that it decompresses to its length.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "host/journal/JournalStore.h"

struct VerifyDamage
{
    std::string m_where; // "data grain 3 block 17" or a place of the metadata
    u64 m_grain = 0;     // data grain; 0 for damaged metadata
    u64 m_journalAddress = 0;
    u64 m_offsetBlocks = 0; // of the IO on the volume; meaningless for damaged metadata
    u32 m_lengthBlocks = 0; // 0 for damaged metadata
    std::string m_reason;
};

struct VerifyResult
{
    // RC_ABORTED; RC_IO_ERROR, or RC_NO_MEMORY (no descriptor or memory to read with), when it
    // could not go on.
    RcStatus rc = RC_SUCCESS;
    std::string message;
    u64 items = 0; // logical
    u64 bytes = 0; // stored bytes read and checked, metadata too
    std::vector<VerifyDamage> damage;

    bool ok() const { return rc == RC_SUCCESS && damage.empty(); }
};

struct VerifyOptions
{
    std::function<void(u64 donePages, u64 allPages)> progress;
    std::function<bool()> cancelled; // asked now and then; empty: never
};

// Thread safety: any thread.
VerifyResult verifyJournal(JournalStore& store, const VerifyOptions& options = {});
