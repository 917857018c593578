// A file in the making: there as a whole or not at all.
//
// It is written under a temporary name beside its own, and takes its own when it is finished. The
// leading dot and the suffix keep it out of any pattern by which finished files are found.
//
// Thread safety: one thread at a time.
#pragma once

#include <memory>
#include <string>

#include "appliance/Result.h"
#include "host/journal/FileStorage.h"

class NewFile
{
public:
    explicit NewFile(const std::string& path);
    // Removes what was not finished.
    ~NewFile();
    NewFile(const NewFile&) = delete;
    NewFile& operator=(const NewFile&) = delete;

    // Makes it, of that size, reading as zeroes. What a process of the same number has left under
    // the temporary name goes.
    Result open(u64 sizeBytes);

    // REQUIRES: open.
    PosixFile& file() { return *m_file; }
    const std::string& path() const { return m_path; }

    // Makes the content durable, gives the file its name, and makes that durable too: who acts on
    // its being there, such as a later increment, must not find it gone after a power cut. It
    // replaces a file of that name.
    Result finish();

private:
    const std::string m_path;
    const std::string m_temporary;
    std::unique_ptr<PosixFile> m_file; // while it is in the making
};

// Makes the names in a folder durable.
Result syncFolder(const std::string& folder);
