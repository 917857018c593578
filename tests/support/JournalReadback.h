// A journal's content as a plain list, read back the slow way, and the list to compare it with.
#pragma once

#include <string>
#include <vector>

#include "host/journal/JournalStore.h"

// One request; no bytes for a run of zeroes.
struct JournalRequest
{
    u64 m_offsetBlocks = 0;
    u64 m_lengthBlocks = 0;
    std::vector<u8> m_bytes;

    bool operator==(const JournalRequest& other) const = default;
};

// Reads every request of a journal and joins the pieces of split ones. Failures are added to the
// running test; *failure, where it is given, takes the first one instead.
std::vector<JournalRequest> readBack(JournalStore& store, std::string* failure = nullptr);

// Blocks of a pattern that depends on the seed; `repetitive` ones compress.
std::vector<u8> patternBlocks(u64 seed, u32 blocks, bool repetitive = false);

// Opens, and adds a failure to the running test when that does not work.
std::unique_ptr<JournalStore> openJournal(Storage& storage, JournalMode mode,
                                          JournalOptions options = {});
