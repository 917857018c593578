// What the journal stands on: a folder of files, as narrow as the journal needs it.
//
// The real one is a folder of a file system (FileStorage). Tests bring one that loses what was not
// synced, tears sectors and reorders writes between barriers; so everything that decides what
// survives a crash goes through here and nothing goes around it.
//
// Names are relative to the storage's root; folders within it are separated by '/'.
//
// Durability: what pwrite() and truncate() did is durable after sync() of that file; that a name
// exists, is gone or was renamed is durable after syncDir() of its folder. Until then a crash may
// keep any part of it.
#pragma once

#include <memory>
#include <string>
#include <sys/uio.h>
#include <vector>

#include "common/infra/RcStatus.h"
#include "common/infra/Types.h"

// One open file. Thread safety: any thread; calls on disjoint ranges may run at the same time.
//
// Statuses of all calls: RC_SUCCESS, RC_NO_SPACE (the disk or a quota is full), RC_IO_ERROR. After
// a failed pwrite() any part of the range may have been written.
class StorageFile
{
public:
    virtual ~StorageFile() = default;

    // Reads up to `bytes`; *doneBytes is smaller only where the file ends.
    virtual RcStatus pread(void* data, u64 bytes, u64 offsetBytes, u64* doneBytes) = 0;

    // Reads bytes that follow each other into several places, at most IOV_MAX of them, in one call
    // of the file's own. Here *doneBytes may be smaller wherever the file likes, down to nothing
    // for one that cannot: who needs the rest asks pread().
    virtual RcStatus preadv(const iovec* places, int count, u64 offsetBytes, u64* doneBytes)
    {
        static_cast<void>(places);
        static_cast<void>(count);
        static_cast<void>(offsetBytes);
        *doneBytes = 0;
        return RC_SUCCESS;
    }

    // Writes all of it, growing the file where it ends before the range.
    virtual RcStatus pwrite(const void* data, u64 bytes, u64 offsetBytes) = 0;

    // A word that this range will be synced soon, so that what pwrite() brought of it may be on its
    // way to the disk meanwhile. Waits for nothing, and what fails of it sync() says.
    virtual void startSync(u64 offsetBytes, u64 bytes)
    {
        static_cast<void>(offsetBytes);
        static_cast<void>(bytes);
    }

    virtual RcStatus sync() = 0;
    virtual RcStatus size(u64* bytes) = 0;
    virtual RcStatus truncate(u64 bytes) = 0;

    // Takes the room that a later pwrite() of the range needs, as far as the file system can: what
    // it finds no room for then it says now (RC_NO_SPACE; a part may have been taken). Neither
    // content nor size changes. RC_SUCCESS also where nothing can be taken beforehand.
    virtual RcStatus reserve(u64 offsetBytes, u64 bytes) = 0;

    // Makes a range read as zeroes and gives its space back where the file system can.
    virtual RcStatus zeroRange(u64 offsetBytes, u64 bytes) = 0;

    // The next run that may hold data, at or after the offset: [*startBytes, *endBytes), empty at
    // the end of the file. What lies between the offset and the run reads as zeroes. Where holes
    // are not known the rest of the file is one run.
    virtual RcStatus nextData(u64 offsetBytes, u64* startBytes, u64* endBytes) = 0;

    // Takes the file's exclusive lock, held until the object is destroyed; RC_IN_USE when another
    // open file has it.
    virtual RcStatus lock() = 0;

    // The descriptor for reads in the background, or -1: then only pread() reaches the file.
    virtual int fd() const { return -1; }
};

enum class StorageAccess
{
    ReadOnly,
    ReadWrite, // of a file that exists
    Create,    // read and write; made empty when it does not exist
};

// Thread safety: any thread.
class Storage
{
public:
    virtual ~Storage() = default;

    // RC_NOT_FOUND: no such file; RC_NO_MEMORY: no descriptor or no memory for one more open file,
    // which may be tried again (list() and syncDir() can answer it too, and have done nothing
    // then); RC_NO_SPACE, RC_IO_ERROR.
    virtual RcStatus open(const std::string& name, StorageAccess access,
                          std::unique_ptr<StorageFile>* file) = 0;

    // The names in a folder, without the folder's own, in ascending order. RC_NOT_FOUND: no such
    // folder.
    virtual RcStatus list(const std::string& folder, std::vector<std::string>* names) = 0;

    virtual RcStatus makeDir(const std::string& folder) = 0; // one that exists is a success
    virtual RcStatus remove(const std::string& name) = 0;    // RC_NOT_FOUND: no such file

    // Replaces `to` as one step.
    virtual RcStatus rename(const std::string& from, const std::string& to) = 0;

    // Swaps two files of a folder as one step, which takes no room and gives none back.
    // RC_NOT_FOUND: one of them is not there; RC_BAD_ARGUMENT: this storage cannot.
    virtual RcStatus exchange(const std::string& one, const std::string& other) = 0;

    virtual RcStatus syncDir(const std::string& folder) = 0; // "" is the root
};
