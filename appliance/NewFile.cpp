#include "appliance/NewFile.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

std::string folderOf(const std::string& path)
{
    const std::string folder = fs::path(path).parent_path().string();
    return folder.empty() ? "." : folder;
}

} // namespace

NewFile::NewFile(const std::string& path)
    : m_path(path),
      m_temporary((fs::path(folderOf(path)) / ("." + fs::path(path).filename().string() +
                                               ".partial-" + std::to_string(getpid())))
                      .string())
{}

NewFile::~NewFile()
{
    if (m_file != nullptr)
        unlink(m_temporary.c_str());
}

Result NewFile::open(u64 sizeBytes)
{
    unlink(m_temporary.c_str());
    // Nobody else's file, nor one that a link leads to, is ever written to.
    const int fd =
        ::open(m_temporary.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666);
    if (fd < 0)
        return Result::fromErrno(errno, "cannot make " + m_temporary);
    m_file = std::make_unique<PosixFile>(fd);
    return Result::fromStatus(m_file->truncate(sizeBytes), "cannot make " + m_temporary + " of " +
                                                               std::to_string(sizeBytes) +
                                                               " bytes");
}

Result NewFile::finish()
{
    if (const RcStatus rc = m_file->sync(); rc != RC_SUCCESS)
        return Result::fromStatus(rc, "cannot sync " + m_path);
    if (rename(m_temporary.c_str(), m_path.c_str()) != 0)
        return Result::fromErrno(errno, "cannot make " + m_path);
    m_file.reset();
    return syncFolder(folderOf(m_path));
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
