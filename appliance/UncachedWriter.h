// Writes a file that nobody is about to read, such as an image of gigabytes.
//
//   [head][------------ body ------------][tail]     one write; | every 4 KiB
//    page    around the page cache         page      where the body is long enough
//    cache                                 cache
//
// Around the page cache a large write costs no copy and no memory, and leaves nothing to the sync
// at the end. What is too short for that goes through the page cache and is handed to the disk at
// once. Each page of the file takes one of the two ways, as long as no byte is written twice.
//
// Thread safety: one thread at a time.
#pragma once

#include <memory>

#include "host/journal/FileStorage.h"

class UncachedWriter
{
public:
    // What the body's place in the file, and best the memory too, is aligned to.
    static constexpr u64 ALIGNMENT_BYTES = 4096;

    // file: a regular file, open for writing; outlives this. Where its file system knows no such
    // writes all of them go through the page cache.
    explicit UncachedWriter(PosixFile& file);

    // As StorageFile::pwrite(). Durable after a sync of the file, like any other write.
    RcStatus write(const u8* data, u64 bytes, u64 offsetBytes);

private:
    RcStatus writeCached(const u8* data, u64 bytes, u64 offsetBytes);

    PosixFile& m_file;
    std::unique_ptr<StorageFile> m_direct; // the same file; null where that cannot be had
};
