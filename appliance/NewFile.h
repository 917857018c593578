// A file in the making: there as a whole or not at all.
//
// It is written under a temporary name beside its own, .NAME.partial-PROCESS, and takes its own
// when it is finished. The leading dot and the suffix keep it out of any pattern by which finished
// files are found. Whoever writes one holds a lock on it; so those that a process has left which
// was killed are known, and go when the next file of that name is made.
//
// Thread safety: one thread at a time.
#pragma once

#include <memory>
#include <string>

#include "appliance/Result.h"
#include "host/journal/FileStorage.h"

// Whether a finished file is on the disk, or may be on its way there and lost if the machine fails.
enum class Durability
{
    Synced,
    Unsynced,
};

class NewFile
{
public:
    explicit NewFile(const std::string& path);
    // Removes what was not finished.
    ~NewFile();
    NewFile(const NewFile&) = delete;
    NewFile& operator=(const NewFile&) = delete;

    // Makes it, of that size, reading as zeroes. What processes that are gone have left of a file
    // of that name goes.
    Result open(u64 sizeBytes);

    // REQUIRES: open.
    PosixFile& file() { return *m_file; }
    const std::string& path() const { return m_path; }

    // Makes the content durable, gives the file its name, and makes that durable too: who acts on
    // its being there, such as a later increment, must not find it gone after a power cut. It
    // replaces a file of that name. Unsynced it waits for nothing: if the machine fails soon after,
    // the name may lead to a file that is cut, has zeroes in it, or is the one it replaced.
    Result finish(Durability durability = Durability::Synced);

private:
    Result make(std::unique_ptr<PosixFile>* file);

    const std::string m_path;
    std::string m_temporary;
    std::unique_ptr<PosixFile> m_file; // while it is in the making
};

// Makes the names in a folder durable.
Result syncFolder(const std::string& folder);
