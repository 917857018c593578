#include "host/volume/TargetVolume.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

#include "host/journal/FileStorage.h"
#include "host/volume/AsyncFileIo.h"

RcStatus TargetVolume::create(const std::string& path, u64 lengthBlocks)
{
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0)
        return errno == EEXIST ? RC_IN_USE : rcFromErrno(errno);
    PosixFile file(fd);
    RcStatus rc = file.truncate(lengthBlocks * BLOCK_BYTES);
    if (rc == RC_SUCCESS)
        rc = file.sync();
    if (rc != RC_SUCCESS)
        ::unlink(path.c_str());
    return rc;
}

RcStatus TargetVolume::open(const std::string& path, u64 lengthBlocks, bool readOnly,
                            std::shared_ptr<TargetVolume>* volume, AsyncFileIo* io)
{
    std::unique_ptr<StorageFile> file;
    const RcStatus rc =
        PosixFile::open(path, readOnly ? StorageAccess::ReadOnly : StorageAccess::ReadWrite, &file);
    if (rc == RC_SUCCESS)
        *volume = std::make_shared<TargetVolume>(std::move(file), lengthBlocks, io);
    return rc;
}

TargetVolume::TargetVolume(std::shared_ptr<StorageFile> file, u64 lengthBlocks, AsyncFileIo* io)
    : m_file(std::move(file)), m_lengthBlocks(lengthBlocks),
      m_io(io != nullptr ? *io : AsyncFileIo::instance())
{}

FutureStatus TargetVolume::read(const std::vector<IODescriptor>& ios, AioPriority)
{
    return start(ios, false);
}

FutureStatus TargetVolume::write(const std::vector<IODescriptor>& ios, AioPriority)
{
    return start(ios, true);
}

FutureStatus TargetVolume::start(const std::vector<IODescriptor>& ios, bool write)
{
    std::vector<FileOp> ops;
    ops.reserve(ios.size());
    for (const IODescriptor& io : ios) {
        if (io.m_bRead == write || io.m_offsetBlocks > m_lengthBlocks ||
            io.m_lengthBlocks > m_lengthBlocks - io.m_offsetBlocks ||
            io.m_data.getSize() != u64{io.m_lengthBlocks} * BLOCK_BYTES)
            return makeSetFuture(RC_BAD_ARGUMENT);
        FileOp op;
        op.m_file = m_file;
        op.m_offsetBytes = io.m_offsetBlocks * BLOCK_BYTES;
        op.m_data = io.m_data;
        op.m_write = write;
        ops.push_back(std::move(op));
    }
    FutureStatus future;
    m_io.submit(std::move(ops), [future](std::vector<FileOp>& done) {
        RcStatus rc = RC_SUCCESS;
        for (FileOp& op : done) {
            if (op.m_rc != RC_SUCCESS) {
                rc = op.m_rc;
                break;
            }
            if (op.m_doneBytes < op.m_data.getSize())
                rc = RC_DAMAGED;
        }
        future.set(rc);
    });
    return future;
}

RcStatus TargetVolume::readNow(std::span<FilePiece> pieces)
{
    const u64 volumeBytes = m_lengthBlocks * BLOCK_BYTES;
    for (FilePiece& piece : pieces) {
        piece.m_rc = RC_SUCCESS;
        if (piece.m_offsetBytes > volumeBytes || piece.m_bytes > volumeBytes - piece.m_offsetBytes)
            return piece.m_rc = RC_BAD_ARGUMENT;
    }
    const RcStatus rc = readPieces(*m_file, pieces);
    if (rc != RC_SUCCESS)
        return rc;
    for (FilePiece& piece : pieces) {
        if (piece.m_doneBytes < piece.m_bytes)
            return piece.m_rc = RC_DAMAGED;
    }
    return RC_SUCCESS;
}

RcStatus TargetVolume::writeZeroes(u64 offsetBlocks, u64 lengthBlocks)
{
    if (offsetBlocks > m_lengthBlocks || lengthBlocks > m_lengthBlocks - offsetBlocks)
        return RC_BAD_ARGUMENT;
    if (lengthBlocks == 0)
        return RC_SUCCESS;
    return m_file->zeroRange(offsetBlocks * BLOCK_BYTES, lengthBlocks * BLOCK_BYTES);
}

RcStatus TargetVolume::sync()
{
    return m_file->sync();
}

RcStatus TargetVolume::nextData(u64 offsetBlocks, u64* startBlocks, u64* endBlocks)
{
    *startBlocks = *endBlocks = m_lengthBlocks;
    if (offsetBlocks >= m_lengthBlocks)
        return RC_SUCCESS;
    u64 startBytes = 0;
    u64 endBytes = 0;
    const RcStatus rc = m_file->nextData(offsetBlocks * BLOCK_BYTES, &startBytes, &endBytes);
    if (rc != RC_SUCCESS)
        return rc;
    // No more data: the run lies where the file ends.
    if (startBytes >= endBytes)
        return startBytes < m_lengthBlocks * BLOCK_BYTES ? RC_DAMAGED : RC_SUCCESS;
    // A run may begin and end inside a block where the file's blocks are not the volume's.
    *startBlocks = std::min(std::max(startBytes / BLOCK_BYTES, offsetBlocks), m_lengthBlocks);
    *endBlocks = std::min((endBytes + BLOCK_BYTES - 1) / BLOCK_BYTES, m_lengthBlocks);
    return RC_SUCCESS;
}
