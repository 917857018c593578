// A folder of a file system as a Storage.
#pragma once

#include "host/journal/Storage.h"

// A file or block device by its descriptor, which it owns.
class PosixFile : public StorageFile
{
public:
    explicit PosixFile(int fd) : m_fd(fd) {}
    ~PosixFile() override;
    PosixFile(const PosixFile&) = delete;
    PosixFile& operator=(const PosixFile&) = delete;

    // Opens a file by its path, outside of any storage. Statuses as Storage::open().
    static RcStatus open(const std::string& path, StorageAccess access,
                         std::unique_ptr<StorageFile>* file);

    RcStatus pread(void* data, u64 bytes, u64 offsetBytes, u64* doneBytes) override;
    RcStatus preadv(const iovec* places, int count, u64 offsetBytes, u64* doneBytes) override;
    RcStatus pwrite(const void* data, u64 bytes, u64 offsetBytes) override;
    void startSync(u64 offsetBytes, u64 bytes) override;
    RcStatus sync() override;
    RcStatus size(u64* bytes) override; // of a block device too
    RcStatus truncate(u64 bytes) override;
    RcStatus reserve(u64 offsetBytes, u64 bytes) override;
    RcStatus zeroRange(u64 offsetBytes, u64 bytes) override;
    RcStatus nextData(u64 offsetBytes, u64* startBytes, u64* endBytes) override;
    RcStatus lock() override;
    int fd() const override { return m_fd; }

private:
    int m_fd;
};

// The folder is found by its path once and by its descriptor from then on: where it is renamed, the
// storage goes on in it, and has nothing to do with what takes its name.
class FileStorage : public Storage
{
public:
    // root: a folder that exists; every call says what became of opening it.
    explicit FileStorage(const std::string& root);
    ~FileStorage() override;
    FileStorage(const FileStorage&) = delete;
    FileStorage& operator=(const FileStorage&) = delete;

    RcStatus open(const std::string& name, StorageAccess access,
                  std::unique_ptr<StorageFile>* file) override;
    RcStatus list(const std::string& folder, std::vector<std::string>* names) override;
    RcStatus makeDir(const std::string& folder) override;
    RcStatus remove(const std::string& name) override;
    RcStatus rename(const std::string& from, const std::string& to) override;
    RcStatus exchange(const std::string& one, const std::string& other) override;
    RcStatus syncDir(const std::string& folder) override;

private:
    RcStatus openFolder(const std::string& folder, int* fd) const;

    int m_root = -1;
    RcStatus m_opened = RC_SUCCESS;
};

// The status of a failed system call.
RcStatus rcFromErrno(int error);
