// A storage over another one that refuses whatever would change it, as a folder does that is
// mounted read-only, or belongs to somebody else.
//
// Files of it have no descriptor, so that no read reaches one around it.
//
// Thread safety: as the storage below; the hook is called by whoever reads.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "host/journal/Storage.h"

class UnwritableStorage : public Storage
{
public:
    explicit UnwritableStorage(std::unique_ptr<Storage> below) : m_below(std::move(below)) {}

    // Called with a file's name before each read of it.
    std::function<void(const std::string& name)> m_beforeRead;

    RcStatus open(const std::string& name, StorageAccess access,
                  std::unique_ptr<StorageFile>* file) override
    {
        if (access != StorageAccess::ReadOnly)
            return RC_IO_ERROR;
        std::unique_ptr<StorageFile> opened;
        const RcStatus rc = m_below->open(name, access, &opened);
        if (rc == RC_SUCCESS)
            *file = std::make_unique<File>(*this, name, std::move(opened));
        return rc;
    }
    RcStatus list(const std::string& folder, std::vector<std::string>* names) override
    {
        return m_below->list(folder, names);
    }
    RcStatus makeDir(const std::string& folder) override
    {
        std::vector<std::string> names;
        return m_below->list(folder, &names) == RC_SUCCESS ? RC_SUCCESS : RC_IO_ERROR;
    }
    RcStatus remove(const std::string&) override { return RC_IO_ERROR; }
    RcStatus rename(const std::string&, const std::string&) override { return RC_IO_ERROR; }
    RcStatus exchange(const std::string&, const std::string&) override { return RC_IO_ERROR; }
    RcStatus syncDir(const std::string&) override { return RC_IO_ERROR; }

private:
    class File : public StorageFile
    {
    public:
        File(UnwritableStorage& storage, std::string name, std::unique_ptr<StorageFile> below)
            : m_storage(storage), m_name(std::move(name)), m_file(std::move(below))
        {}

        RcStatus pread(void* data, u64 bytes, u64 offsetBytes, u64* doneBytes) override
        {
            if (m_storage.m_beforeRead)
                m_storage.m_beforeRead(m_name);
            return m_file->pread(data, bytes, offsetBytes, doneBytes);
        }
        RcStatus pwrite(const void*, u64, u64) override { return RC_IO_ERROR; }
        RcStatus sync() override { return RC_IO_ERROR; }
        RcStatus size(u64* bytes) override { return m_file->size(bytes); }
        RcStatus truncate(u64) override { return RC_IO_ERROR; }
        RcStatus reserve(u64, u64) override { return RC_IO_ERROR; }
        RcStatus zeroRange(u64, u64) override { return RC_IO_ERROR; }
        RcStatus nextData(u64 offsetBytes, u64* startBytes, u64* endBytes) override
        {
            return m_file->nextData(offsetBytes, startBytes, endBytes);
        }
        RcStatus lock() override { return m_file->lock(); }

    private:
        UnwritableStorage& m_storage;
        const std::string m_name;
        const std::unique_ptr<StorageFile> m_file;
    };

    const std::unique_ptr<Storage> m_below;
};
