#include "host/journal/CheckedFile.h"

#include <cstring>

#include "host/journal/Crc32c.h"

namespace {

constexpr u64 MAX_FILE_BYTES = 1 << 20;
constexpr u32 MOST_TRIES = 5;

std::string pathOf(const std::string& folder, const std::string& name)
{
    return folder.empty() ? name : folder + "/" + name;
}

std::string replacementOf(const std::string& folder, const std::string& name)
{
    return pathOf(folder, name) + ".new";
}

// exchanges: the old file stays, as the next one's replacement.
RcStatus replace(Storage& storage, const std::string& folder, const std::string& name,
                 const void* content, size_t bytes, bool exchanges)
{
    const std::string path = pathOf(folder, name);
    const std::string replacement = replacementOf(folder, name);
    std::unique_ptr<StorageFile> file;
    RcStatus rc = storage.open(replacement, StorageAccess::Create, &file);
    u64 size = 0;
    if (rc == RC_SUCCESS)
        rc = file->size(&size);
    // After an exchange that was never made durable a crash would give the file its old name back.
    if (rc == RC_SUCCESS && size > 0)
        rc = storage.syncDir(folder);
    // Over what is there, which has its blocks: not after cutting it to nothing.
    if (rc == RC_SUCCESS)
        rc = file->pwrite(content, bytes, 0);
    if (rc == RC_SUCCESS && size > bytes)
        rc = file->truncate(bytes);
    if (rc == RC_SUCCESS)
        rc = file->sync();
    file.reset();
    if (rc == RC_SUCCESS && exchanges) {
        rc = storage.exchange(replacement, path);
        exchanges = rc != RC_NOT_FOUND && rc != RC_BAD_ARGUMENT;
    }
    if (!exchanges && (rc == RC_SUCCESS || rc == RC_NOT_FOUND || rc == RC_BAD_ARGUMENT))
        rc = storage.rename(replacement, path);
    return rc == RC_SUCCESS ? storage.syncDir(folder) : rc;
}

RcStatus loadOnce(Storage& storage, const std::string& path, std::vector<u8>* content)
{
    content->clear();
    std::unique_ptr<StorageFile> file;
    RcStatus rc = storage.open(path, StorageAccess::ReadOnly, &file);
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

} // namespace

RcStatus replaceFile(Storage& storage, const std::string& folder, const std::string& name,
                     const void* content, size_t bytes)
{
    return replace(storage, folder, name, content, bytes, false);
}

RcStatus reserveReplacement(Storage& storage, const std::string& folder, const std::string& name,
                            size_t bytes)
{
    std::unique_ptr<StorageFile> file;
    RcStatus rc = storage.open(replacementOf(folder, name), StorageAccess::Create, &file);
    u64 size = 0;
    if (rc == RC_SUCCESS)
        rc = file->size(&size);
    if (rc == RC_SUCCESS && size < bytes) {
        // Written, as then any file system that writes in place needs nothing more.
        const std::vector<u8> zeroes(bytes);
        rc = file->pwrite(zeroes.data(), bytes, 0);
        if (rc == RC_SUCCESS)
            rc = file->sync();
    }
    return rc == RC_NO_SPACE ? RC_SUCCESS : rc;
}

RcStatus storeCheckedFile(Storage& storage, const std::string& folder, const std::string& name,
                          const void* content, size_t bytes)
{
    std::vector<u8> stored(sizeof(u32) + bytes);
    const u32 check = crc32c(content, bytes);
    std::memcpy(stored.data(), &check, sizeof check);
    std::memcpy(stored.data() + sizeof check, content, bytes);
    return replace(storage, folder, name, stored.data(), stored.size(), true);
}

RcStatus reserveCheckedFile(Storage& storage, const std::string& folder, const std::string& name,
                            size_t bytes)
{
    return reserveReplacement(storage, folder, name, sizeof(u32) + bytes);
}

RcStatus loadCheckedFile(Storage& storage, const std::string& folder, const std::string& name,
                         std::vector<u8>* content)
{
    // What was opened may be written over, once it has given its name away: then the name has
    // moved.
    RcStatus rc = RC_DAMAGED;
    for (u32 tries = 0; tries < MOST_TRIES && rc == RC_DAMAGED; ++tries)
        rc = loadOnce(storage, pathOf(folder, name), content);
    return rc;
}
