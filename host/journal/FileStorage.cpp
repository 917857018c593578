#include "host/journal/FileStorage.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <dirent.h>
#include <fcntl.h>
#include <linux/falloc.h>
#include <linux/fs.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

RcStatus rcFromErrno(int error)
{
    switch (error) {
    case 0: return RC_SUCCESS;
    case ENOENT:
    case ENOTDIR: return RC_NOT_FOUND;
    case ENOSPC:
    case EDQUOT:
    case EFBIG: return RC_NO_SPACE;
    case EWOULDBLOCK: return RC_IN_USE;
    default: return RC_IO_ERROR;
    }
}

namespace {

// Of a call that opens something. That there is no descriptor or memory for it is over as soon as
// others close theirs; only here, where nothing has been changed or lost yet, does it say so.
RcStatus rcFromOpen(int error)
{
    return error == EMFILE || error == ENFILE || error == ENOMEM ? RC_NO_MEMORY
                                                                 : rcFromErrno(error);
}

// A call that is to be made again where a signal came in between: 0, or what errno says then.
template <class Call> int withoutInterruption(Call call)
{
    int error;
    do
        error = call() == 0 ? 0 : errno;
    while (error == EINTR);
    return error;
}

// Relative to a folder's descriptor.
RcStatus openFile(int folder, const std::string& path, StorageAccess access,
                  std::unique_ptr<StorageFile>* file)
{
    int flags = O_CLOEXEC | (access == StorageAccess::ReadOnly ? O_RDONLY : O_RDWR);
    if (access == StorageAccess::Create)
        flags |= O_CREAT;
    int fd;
    do
        fd = ::openat(folder, path.c_str(), flags, 0644);
    while (fd < 0 && errno == EINTR);
    if (fd < 0)
        return rcFromOpen(errno);
    *file = std::make_unique<PosixFile>(fd);
    return RC_SUCCESS;
}

} // namespace

PosixFile::~PosixFile()
{
    ::close(m_fd);
}

RcStatus PosixFile::open(const std::string& path, StorageAccess access,
                         std::unique_ptr<StorageFile>* file)
{
    return openFile(AT_FDCWD, path, access, file);
}

RcStatus PosixFile::pread(void* data, u64 bytes, u64 offsetBytes, u64* doneBytes)
{
    u8* next = static_cast<u8*>(data);
    *doneBytes = 0;
    while (*doneBytes < bytes) {
        const ssize_t n = ::pread(m_fd, next + *doneBytes, bytes - *doneBytes,
                                  static_cast<off_t>(offsetBytes + *doneBytes));
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return rcFromErrno(errno);
        if (n == 0)
            break;
        *doneBytes += static_cast<u64>(n);
    }
    return RC_SUCCESS;
}

RcStatus PosixFile::preadv(const iovec* places, int count, u64 offsetBytes, u64* doneBytes)
{
    ssize_t n;
    do
        n = ::preadv(m_fd, places, count, static_cast<off_t>(offsetBytes));
    while (n < 0 && errno == EINTR);
    *doneBytes = n < 0 ? 0 : static_cast<u64>(n);
    return n < 0 ? rcFromErrno(errno) : RC_SUCCESS;
}

RcStatus PosixFile::pwrite(const void* data, u64 bytes, u64 offsetBytes)
{
    const u8* next = static_cast<const u8*>(data);
    while (bytes > 0) {
        const ssize_t n = ::pwrite(m_fd, next, bytes, static_cast<off_t>(offsetBytes));
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return rcFromErrno(errno);
        if (n == 0)
            return RC_IO_ERROR;
        next += n;
        offsetBytes += static_cast<u64>(n);
        bytes -= static_cast<u64>(n);
    }
    return RC_SUCCESS;
}

void PosixFile::startSync(u64 offsetBytes, u64 bytes)
{
    static_cast<void>(::sync_file_range(m_fd, static_cast<off_t>(offsetBytes),
                                        static_cast<off_t>(bytes), SYNC_FILE_RANGE_WRITE));
}

RcStatus PosixFile::sync()
{
    return rcFromErrno(withoutInterruption([&] { return ::fdatasync(m_fd); }));
}

RcStatus PosixFile::size(u64* bytes)
{
    struct stat status;
    if (::fstat(m_fd, &status) != 0)
        return rcFromErrno(errno);
    *bytes = static_cast<u64>(status.st_size);
    if (S_ISBLK(status.st_mode) && ::ioctl(m_fd, BLKGETSIZE64, bytes) != 0)
        return rcFromErrno(errno);
    return RC_SUCCESS;
}

RcStatus PosixFile::truncate(u64 bytes)
{
    return rcFromErrno(
        withoutInterruption([&] { return ::ftruncate(m_fd, static_cast<off_t>(bytes)); }));
}

RcStatus PosixFile::reserve(u64 offsetBytes, u64 bytes)
{
    const int error = withoutInterruption([&] {
        return ::fallocate(m_fd, FALLOC_FL_KEEP_SIZE, static_cast<off_t>(offsetBytes),
                           static_cast<off_t>(bytes));
    });
    // Some file systems cannot; then a write finds out.
    return error == EOPNOTSUPP || error == ENOSYS || error == ENODEV ? RC_SUCCESS
                                                                     : rcFromErrno(error);
}

RcStatus PosixFile::zeroRange(u64 offsetBytes, u64 bytes)
{
    const off_t offset = static_cast<off_t>(offsetBytes);
    const off_t length = static_cast<off_t>(bytes);
    for (const int how : {FALLOC_FL_PUNCH_HOLE, FALLOC_FL_ZERO_RANGE}) {
        if (withoutInterruption(
                [&] { return ::fallocate(m_fd, how | FALLOC_FL_KEEP_SIZE, offset, length); }) == 0)
            return RC_SUCCESS;
    }
    static constexpr u64 STEP_BYTES = 1 << 20;
    const std::vector<u8> zeroes(std::min(bytes, STEP_BYTES));
    for (u64 done = 0; done < bytes; done += STEP_BYTES) {
        const RcStatus rc =
            pwrite(zeroes.data(), std::min(bytes - done, STEP_BYTES), offsetBytes + done);
        if (rc != RC_SUCCESS)
            return rc;
    }
    return RC_SUCCESS;
}

RcStatus PosixFile::nextData(u64 offsetBytes, u64* startBytes, u64* endBytes)
{
    u64 fileBytes = 0;
    const RcStatus rc = size(&fileBytes);
    if (rc != RC_SUCCESS)
        return rc;
    *startBytes = *endBytes = fileBytes;
    if (offsetBytes >= fileBytes)
        return RC_SUCCESS;
    const off_t data = ::lseek(m_fd, static_cast<off_t>(offsetBytes), SEEK_DATA);
    if (data < 0) {
        // ENXIO: a hole to the end. Any other refusal: holes are not known here.
        if (errno != ENXIO)
            *startBytes = offsetBytes;
        return RC_SUCCESS;
    }
    *startBytes = static_cast<u64>(data);
    const off_t hole = ::lseek(m_fd, data, SEEK_HOLE);
    if (hole > data)
        *endBytes = static_cast<u64>(hole);
    return RC_SUCCESS;
}

RcStatus PosixFile::lock()
{
    return rcFromErrno(withoutInterruption([&] { return ::flock(m_fd, LOCK_EX | LOCK_NB); }));
}

FileStorage::FileStorage(const std::string& root)
    : m_root(::open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)),
      m_opened(m_root < 0 ? rcFromOpen(errno) : RC_SUCCESS)
{}

FileStorage::~FileStorage()
{
    if (m_root >= 0)
        ::close(m_root);
}

RcStatus FileStorage::open(const std::string& name, StorageAccess access,
                           std::unique_ptr<StorageFile>* file)
{
    return m_opened != RC_SUCCESS ? m_opened : openFile(m_root, name, access, file);
}

RcStatus FileStorage::openFolder(const std::string& folder, int* fd) const
{
    if (m_opened != RC_SUCCESS)
        return m_opened;
    *fd =
        ::openat(m_root, folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    return *fd < 0 ? rcFromOpen(errno) : RC_SUCCESS;
}

RcStatus FileStorage::list(const std::string& folder, std::vector<std::string>* names)
{
    names->clear();
    int fd = -1;
    if (const RcStatus rc = openFolder(folder, &fd); rc != RC_SUCCESS)
        return rc;
    DIR* dir = ::fdopendir(fd); // which owns it from here on
    if (dir == nullptr) {
        const RcStatus rc = rcFromOpen(errno);
        ::close(fd);
        return rc;
    }
    errno = 0;
    while (const dirent* entry = ::readdir(dir)) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..")
            names->push_back(name);
        errno = 0;
    }
    const RcStatus rc = rcFromErrno(errno);
    ::closedir(dir);
    std::sort(names->begin(), names->end());
    return rc;
}

RcStatus FileStorage::makeDir(const std::string& folder)
{
    if (m_opened != RC_SUCCESS)
        return m_opened;
    if (::mkdirat(m_root, folder.c_str(), 0755) == 0 || errno == EEXIST)
        return RC_SUCCESS;
    return rcFromErrno(errno);
}

RcStatus FileStorage::remove(const std::string& name)
{
    if (m_opened != RC_SUCCESS)
        return m_opened;
    return ::unlinkat(m_root, name.c_str(), 0) == 0 ? RC_SUCCESS : rcFromErrno(errno);
}

RcStatus FileStorage::rename(const std::string& from, const std::string& to)
{
    if (m_opened != RC_SUCCESS)
        return m_opened;
    return ::renameat(m_root, from.c_str(), m_root, to.c_str()) == 0 ? RC_SUCCESS
                                                                     : rcFromErrno(errno);
}

RcStatus FileStorage::exchange(const std::string& one, const std::string& other)
{
    if (m_opened != RC_SUCCESS)
        return m_opened;
    if (::renameat2(m_root, one.c_str(), m_root, other.c_str(), RENAME_EXCHANGE) == 0)
        return RC_SUCCESS;
    return errno == EINVAL || errno == ENOSYS ? RC_BAD_ARGUMENT : rcFromErrno(errno);
}

RcStatus FileStorage::syncDir(const std::string& folder)
{
    int fd = -1;
    if (const RcStatus rc = openFolder(folder, &fd); rc != RC_SUCCESS)
        return rc;
    // Whatever it failed for, and be it want of space: what became of the names is not known.
    const int error = withoutInterruption([&] { return ::fsync(fd); });
    const RcStatus rc = error == 0 ? RC_SUCCESS : RC_IO_ERROR;
    ::close(fd);
    return rc;
}
