#include "appliance/NewFile.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;

namespace {

std::string folderOf(const std::string& path)
{
    const std::string folder = fs::path(path).parent_path().string();
    return folder.empty() ? "." : folder;
}

// What the temporary names of a file begin with, without the folder.
std::string prefixOf(const std::string& path)
{
    return "." + fs::path(path).filename().string() + ".partial-";
}

bool isNumber(const std::string& text)
{
    return !text.empty() && text.find_first_not_of("0123456789-") == std::string::npos;
}

// Whether a file has no name any more.
bool isUnlinked(int fd)
{
    struct stat status = {};
    return fstat(fd, &status) == 0 && status.st_nlink == 0;
}

// Takes a file away if nobody is writing it.
void removeIfLeft(const std::string& path)
{
    // A pipe would keep the opening waiting, a link would lead elsewhere.
    const int fd = ::open(path.c_str(), O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return;
    PosixFile file(fd);
    struct stat status = {};
    // Somebody else may have removed it meanwhile, and made another one of its name.
    if (fstat(fd, &status) == 0 && S_ISREG(status.st_mode) && file.lock() == RC_SUCCESS &&
        !isUnlinked(fd))
        unlink(path.c_str());
}

// Some file systems, such as those of a network, tell only when a file is closed that its disk is
// full or a write has failed: whenever a descriptor of it is closed, and not just the last.
int closeError(int fd)
{
    const int other = fcntl(fd, F_DUPFD_CLOEXEC, 0);
    return other >= 0 && close(other) == 0 ? 0 : errno;
}

// What processes that are gone have left of a file.
void removeLeft(const std::string& path)
{
    const std::string prefix = prefixOf(path);
    std::vector<std::string> names;
    FileStorage folder(folderOf(path));
    if (folder.list("", &names) != RC_SUCCESS)
        return; // making the file tells why
    for (const std::string& name : names) {
        if (name.compare(0, prefix.size(), prefix) == 0 && isNumber(name.substr(prefix.size())))
            removeIfLeft((fs::path(folderOf(path)) / name).string());
    }
}

} // namespace

NewFile::NewFile(const std::string& path) : m_path(path) {}

NewFile::~NewFile()
{
    if (m_file != nullptr)
        unlink(m_temporary.c_str());
}

// A name may be another process's: of the same number, in another container or on another machine.
Result NewFile::make(std::unique_ptr<PosixFile>* file)
{
    constexpr u32 MAX_TRIES = 100;
    const std::string first =
        (fs::path(folderOf(m_path)) / (prefixOf(m_path) + std::to_string(getpid()))).string();
    for (u32 i = 0; i < MAX_TRIES; ++i) {
        m_temporary = i == 0 ? first : first + "-" + std::to_string(i);
        // Nobody else's file, nor one that a link leads to, is ever written to.
        const int fd =
            ::open(m_temporary.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666);
        if (fd < 0 && errno == EEXIST)
            continue;
        if (fd < 0)
            break;
        auto made = std::make_unique<PosixFile>(fd);
        // Somebody who clears up may have come between the two. Where files cannot be locked,
        // nobody clears up.
        if (made->lock() == RC_IN_USE || isUnlinked(fd))
            continue;
        *file = std::move(made);
        return Result();
    }
    // That its folder is not there says nothing of the mirror, which NotFound would be of.
    Result result = Result::fromErrno(errno, "cannot make " + m_temporary);
    return result.code() == ResultCode::NotFound ? Result::failed(result.message()) : result;
}

Result NewFile::open(u64 sizeBytes)
{
    removeLeft(m_path);
    if (Result result = make(&m_file); !result.ok())
        return result;
    return Result::fromStatus(m_file->truncate(sizeBytes), "cannot make " + m_temporary + " of " +
                                                               std::to_string(sizeBytes) +
                                                               " bytes");
}

Result NewFile::finish(Durability durability)
{
    const bool synced = durability == Durability::Synced;
    if (const RcStatus rc = synced ? m_file->sync() : RC_SUCCESS; rc != RC_SUCCESS)
        return Result::fromStatus(rc, "cannot sync " + m_path);
    if (const int error = synced ? 0 : closeError(m_file->fd()); error != 0)
        return Result::fromErrno(error, "cannot write " + m_path);
    if (rename(m_temporary.c_str(), m_path.c_str()) != 0)
        return Result::fromErrno(errno, "cannot make " + m_path);
    m_file.reset();
    return synced ? syncFolder(folderOf(m_path)) : Result();
}

Result syncFolder(const std::string& folder)
{
    const int fd = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const bool good = fd >= 0 && fsync(fd) == 0;
    const int error = errno;
    if (fd >= 0)
        close(fd);
    return good ? Result() : Result::fromErrno(error, "cannot sync " + folder);
}
