#include "host/journal/CheckedFile.h"

#include <cstring>

#include "host/journal/Crc32c.h"

namespace {

constexpr u64 MAX_FILE_BYTES = 1 << 20;

std::string pathOf(const std::string& folder, const std::string& name)
{
    return folder.empty() ? name : folder + "/" + name;
}

} // namespace

RcStatus storeCheckedFile(Storage& storage, const std::string& folder, const std::string& name,
                          const void* content, size_t bytes)
{
    std::vector<u8> stored(sizeof(u32) + bytes);
    const u32 check = crc32c(content, bytes);
    std::memcpy(stored.data(), &check, sizeof check);
    std::memcpy(stored.data() + sizeof check, content, bytes);
    const std::string path = pathOf(folder, name);
    const std::string temporary = path + ".new";
    std::unique_ptr<StorageFile> file;
    RcStatus rc = storage.open(temporary, StorageAccess::Create, &file);
    if (rc == RC_SUCCESS)
        rc = file->truncate(0);
    if (rc == RC_SUCCESS)
        rc = file->pwrite(stored.data(), stored.size(), 0);
    if (rc == RC_SUCCESS)
        rc = file->sync();
    file.reset();
    if (rc == RC_SUCCESS)
        rc = storage.rename(temporary, path);
    return rc == RC_SUCCESS ? storage.syncDir(folder) : rc;
}

RcStatus loadCheckedFile(Storage& storage, const std::string& folder, const std::string& name,
                         std::vector<u8>* content)
{
    content->clear();
    std::unique_ptr<StorageFile> file;
    RcStatus rc = storage.open(pathOf(folder, name), StorageAccess::ReadOnly, &file);
    u64 size = 0;
    if (rc == RC_SUCCESS)
        rc = file->size(&size);
    if (rc != RC_SUCCESS)
        return rc;
    if (size < sizeof(u32) || size > MAX_FILE_BYTES)
        return RC_DAMAGED;
    std::vector<u8> stored(size);
    u64 done = 0;
    rc = file->pread(stored.data(), size, 0, &done);
    if (rc != RC_SUCCESS)
        return rc;
    u32 check = 0;
    std::memcpy(&check, stored.data(), sizeof check);
    if (done != size || check != crc32c(stored.data() + sizeof check, size - sizeof check))
        return RC_DAMAGED;
    content->assign(stored.begin() + sizeof check, stored.end());
    return RC_SUCCESS;
}
