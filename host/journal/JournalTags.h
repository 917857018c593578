// The names of checkpoints: an append-only file beside the grains.
//
// One line for each named checkpoint: the checksum of the rest in eight hex digits, the id, the
// tag. A line is written, and durable, before its checkpoint's item is; so a line without a
// checkpoint is what a crash left over and means nothing. The item says what its tag must be
// (tagMark()), so a tag that was lost is noticed.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "Sfs/SfsDiskMetaItem.h"
#include "host/journal/Storage.h"

// Thread safety: one thread at a time.
class JournalTags
{
public:
    // Reads the file; no file means no tags. Lines that are damaged are left out. RC_IO_ERROR.
    RcStatus load(Storage& storage, const std::string& folder);

    // Opens the file for adding, and drops a part of a line at its end.
    RcStatus openForWriting(Storage& storage, const std::string& folder);

    // Adds a tag, durably. After a failure a later call writes over what is left of this one.
    RcStatus add(CpId_t id, const std::string& tag);

    // The tag of a checkpoint whose item has that mark; null when it is not there.
    const std::string* find(CpId_t id, u32 mark) const;

    // UTF-8 of at most 255 bytes, none below the blank: a name goes through JSON and to NBD
    // clients, and what is no text would come out of that as another name. Only what is added is
    // judged.
    static bool isValid(const std::string& tag);

private:
    std::multimap<CpId_t, std::string> m_tags;
    std::unique_ptr<StorageFile> m_file;
    u64 m_endBytes = 0; // of the last whole line
};
