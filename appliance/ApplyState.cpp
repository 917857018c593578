#include "appliance/ApplyState.h"

#include <cstring>
#include <vector>

#include "host/journal/CheckedFile.h"

namespace {

constexpr const char* FILE_NAME = "applied";

struct StoredState
{
    u32 m_magic;
    u32 m_nextEntry;
    u64 m_nextGrain;
    u64 m_items;
    u64 m_towardItems;
    u64 m_doneBlocks;

    static constexpr u32 MAGIC = 0x31414C52; // "RLA1"
};
static_assert(sizeof(StoredState) == 40);

} // namespace

Result storeApplyState(Storage& storage, const ApplyState& state)
{
    const StoredState stored{StoredState::MAGIC, state.m_next.entryNum, state.m_next.grain,
                             state.m_items,      state.m_towardItems,   state.m_doneBlocks};
    return Result::fromStatus(storeCheckedFile(storage, "", FILE_NAME, &stored, sizeof stored),
                              "cannot note what is applied");
}

Result reserveApplyState(Storage& storage)
{
    // The note and its replacement change their names, for which there has to be a first one.
    std::unique_ptr<StorageFile> file;
    if (storage.open(FILE_NAME, StorageAccess::ReadOnly, &file) == RC_NOT_FOUND) {
        Result result = storeApplyState(storage, ApplyState());
        if (!result.ok())
            return result.code() == ResultCode::NoSpace ? Result() : result;
    }
    return Result::fromStatus(reserveCheckedFile(storage, "", FILE_NAME, sizeof(StoredState)),
                              "cannot prepare the note of what is applied");
}

Result loadApplyState(Storage& storage, ApplyState* state)
{
    std::vector<u8> content;
    const RcStatus rc = loadCheckedFile(storage, "", FILE_NAME, &content);
    *state = ApplyState();
    if (rc == RC_NOT_FOUND)
        return Result();
    StoredState stored{};
    if (rc == RC_SUCCESS && content.size() == sizeof stored)
        std::memcpy(&stored, content.data(), sizeof stored);
    if (rc != RC_SUCCESS && rc != RC_DAMAGED)
        return Result::fromStatus(rc, "cannot read what is applied");
    if (stored.m_magic != StoredState::MAGIC || stored.m_towardItems < stored.m_items)
        return Result(ResultCode::Damaged, "the note of what is applied to the target is damaged");
    *state = {stored.m_items,
              stored.m_towardItems,
              stored.m_doneBlocks,
              {stored.m_nextGrain, stored.m_nextEntry}};
    return Result();
}
