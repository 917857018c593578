#include "appliance/RecordState.h"

#include <cstring>
#include <type_traits>
#include <xxhash.h>

namespace {

constexpr const char* FILE_NAME = "recording";

struct StoredState
{
    u64 m_digest;
    u64 m_lines;
    u64 m_itemsAtStart;
    u64 m_check; // of the fields before

    u64 computeCheck() const { return XXH3_64bits(this, sizeof *this - sizeof m_check); }
};
static_assert(std::is_trivially_copyable_v<StoredState> && sizeof(StoredState) == 32);

} // namespace

Result storeRecordState(Storage& storage, const RecordState& state)
{
    StoredState stored{state.m_digest, state.m_lines, state.m_itemsAtStart, 0};
    stored.m_check = stored.computeCheck();
    std::unique_ptr<StorageFile> file;
    RcStatus rc = storage.open(FILE_NAME, StorageAccess::Create, &file);
    if (rc == RC_SUCCESS)
        rc = file->pwrite(&stored, sizeof stored, 0);
    if (rc == RC_SUCCESS)
        rc = file->sync();
    if (rc == RC_SUCCESS)
        rc = storage.syncDir("");
    return Result::fromStatus(rc, "cannot note the recording");
}

Result loadRecordState(Storage& storage, RecordState* state)
{
    std::unique_ptr<StorageFile> file;
    RcStatus rc = storage.open(FILE_NAME, StorageAccess::ReadOnly, &file);
    StoredState stored{};
    u64 done = 0;
    if (rc == RC_SUCCESS)
        rc = file->pread(&stored, sizeof stored, 0, &done);
    if (rc != RC_SUCCESS)
        return Result::fromStatus(rc, "no recording to go on with");
    // Torn by a crash: then nothing of the trace was recorded yet.
    if (done < sizeof stored || stored.m_check != stored.computeCheck())
        return Result(ResultCode::NotFound, "no recording to go on with");
    *state = {stored.m_digest, stored.m_lines, stored.m_itemsAtStart};
    return Result();
}

Result removeRecordState(Storage& storage)
{
    RcStatus rc = storage.remove(FILE_NAME);
    if (rc == RC_SUCCESS)
        rc = storage.syncDir("");
    return rc == RC_NOT_FOUND ? Result() : Result::fromStatus(rc, "cannot drop the recording note");
}
