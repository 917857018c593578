// The volume that the journal's writes are finally applied to: a raw sparse file or a block device.
#pragma once

#include <memory>
#include <span>
#include <string>
#include <vector>

#include "Sfs/IODescriptor.h"
#include "common/infra/Future.h"
#include "host/journal/FilePieces.h"
#include "host/journal/Storage.h"

class AsyncFileIo;

// Thread safety: any thread; overlapping writes and reads at the same time give either content.
class TargetVolume
{
public:
    // Makes a sparse file of that size. RC_IN_USE: the path exists; else as Storage::open().
    static RcStatus create(const std::string& path, u64 lengthBlocks);

    // Opens a file or block device. lengthBlocks: the size of the volume. The file has that or
    // more; what was cut off from it is RC_DAMAGED to read or search. RC_NOT_FOUND, RC_IO_ERROR.
    static RcStatus open(const std::string& path, u64 lengthBlocks, bool readOnly,
                         std::shared_ptr<TargetVolume>* volume, AsyncFileIo* io = nullptr);

    // Over a file that is open already; io: not owned, null for the process-wide one.
    TargetVolume(std::shared_ptr<StorageFile> file, u64 lengthBlocks, AsyncFileIo* io = nullptr);

    u64 lengthBlocks() const { return m_lengthBlocks; }

    // Starts the reads, in flight together. The future is set when the last one is done: to
    // RC_SUCCESS, or to the first failure; RC_BAD_ARGUMENT: beyond the volume, or a buffer of
    // another size; RC_DAMAGED: beyond the file, which was made shorter. The descriptors are
    // copied; the buffers' memory lives until the future is set.
    FutureStatus read(const std::vector<IODescriptor>& ios, AioPriority priority);

    // The same here and now, on the caller's thread, in the order of the pieces, which is best that
    // of their offsets. Ends with the first failure, which its piece has too; as for read().
    RcStatus readNow(std::span<FilePiece> pieces);

    // Starts the writes of descriptors with m_bRead false, likewise.
    FutureStatus write(const std::vector<IODescriptor>& ios, AioPriority priority);

    // Makes a range read as zeroes, without data where the file system can. Not asynchronous.
    RcStatus writeZeroes(u64 offsetBlocks, u64 lengthBlocks);
    RcStatus sync();

    // The next run of blocks that may hold data, at or after the offset; empty (both the volume's
    // length) when there is none. All blocks between the offset and the run read as zeroes.
    RcStatus nextData(u64 offsetBlocks, u64* startBlocks, u64* endBlocks);

private:
    FutureStatus start(const std::vector<IODescriptor>& ios, bool write);

    std::shared_ptr<StorageFile> m_file;
    u64 m_lengthBlocks;
    AsyncFileIo& m_io;
};
