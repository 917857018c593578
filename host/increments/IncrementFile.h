// A stored increment: one file, replaced as a whole (docs/increments-format.md).
//
// A new one is written beside the old one, made durable, and takes its name in one step. So a
// reader finds the old or the new, whatever happens in between.
#pragma once

#include <optional>
#include <string>

#include "host/increments/GranuleMap.h"
#include "host/journal/Storage.h"

// What changed, from when, and up to where.
struct Increment
{
    GranuleMap m_changed;
    u64 m_startTimestampUs = 0; // of the checkpoint that it starts at
    CpId_t m_endCheckpoint = 0; // every write before this checkpoint is in it; 0 for unknown
};

// Thread safety: one call at a time.
class IncrementFile
{
public:
    struct Loaded
    {
        RcStatus m_rc = RC_SUCCESS;
        std::string m_message;                // for people, when m_rc is not RC_SUCCESS
        std::optional<Increment> m_increment; // when it is
    };

    // storage: not owned. folder: made when something is stored.
    IncrementFile(Storage& storage, std::string folder, u64 mirrorId)
        : m_storage(storage), m_folder(std::move(folder)), m_mirrorId(mirrorId)
    {}

    // RC_NOT_FOUND: none was stored. RC_BAD_CHECKSUM, RC_DAMAGED: it is not as it was written.
    // RC_BAD_ARGUMENT: it is whole, but of another mirror, another volume size, or a later version.
    Loaded load(u64 volumeBlocks);

    // Makes the bytes of encode() the stored increment, durably. After a failure it is the old or
    // the new one, and isUncertain() tells whether that is open.
    RcStatus store(const std::string& bytes);
    // Leaves none stored, durably; none there is a success. As with store(), after a failure.
    RcStatus remove();

    // Whether a failure has left open what a power cut would leave: until something succeeds.
    bool isUncertain() const { return m_uncertain; }

    std::string encode(Increment& increment) const;

private:
    RcStatus writeNew(const std::string& bytes);
    RcStatus syncNames();
    Loaded decode(const std::string& bytes, u64 volumeBlocks) const;
    std::string name() const { return m_folder + "/current"; }
    std::string newName() const { return m_folder + "/current.new"; }

    Storage& m_storage;
    const std::string m_folder;
    const u64 m_mirrorId;
    bool m_uncertain = false;
};
