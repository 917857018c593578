#include "host/journal/JournalBegin.h"

#include <cstring>

#include "host/journal/CheckedFile.h"

namespace {

constexpr const char* FILE_NAME = "begin";

} // namespace

RcStatus loadJournalBegin(Storage& storage, const std::string& folder, JournalBegin* begin)
{
    *begin = JournalBegin();
    std::vector<u8> content;
    const RcStatus rc = loadCheckedFile(storage, folder, FILE_NAME, &content);
    if (rc != RC_SUCCESS)
        return rc == RC_NOT_FOUND ? RC_SUCCESS : rc;
    if (content.size() != sizeof *begin)
        return RC_DAMAGED;
    std::memcpy(begin, content.data(), sizeof *begin);
    return begin->m_magic == JournalBegin::MAGIC ? RC_SUCCESS : RC_DAMAGED;
}

RcStatus storeJournalBegin(Storage& storage, const std::string& folder, const JournalBegin& begin)
{
    return storeCheckedFile(storage, folder, FILE_NAME, &begin, sizeof begin);
}

RcStatus reserveJournalBegin(Storage& storage, const std::string& folder)
{
    std::unique_ptr<StorageFile> file;
    if (storage.open(folder + "/" + FILE_NAME, StorageAccess::ReadOnly, &file) == RC_NOT_FOUND) {
        const RcStatus rc = storeJournalBegin(storage, folder, JournalBegin());
        if (rc != RC_SUCCESS)
            return rc == RC_NO_SPACE ? RC_SUCCESS : rc;
    }
    return reserveCheckedFile(storage, folder, FILE_NAME, sizeof(JournalBegin));
}
