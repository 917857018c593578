// A mirror: one protected volume, kept as a journal of its writes and a target volume below it.
//
// A mirror is a folder: mirror.json (what it is), journal/ (grains), target (a raw file, unless
// mirror.json names another volume), increments/. Every point between the first and the last
// journaled item can be read (View.h).
//
// Thread safety: write(), writeZeroes(), checkpoint() and flush() from any thread, in the order in
// which they take the journal's lock; the rest from the thread that opened it.
// Invariants: 1. a folder has one writer at a time; readers need no lock and see the journal as it
//                was when they opened it;
//             2. what a flush or a checkpoint acknowledged stays, whatever happens after.
#pragma once

#include <memory>
#include <string>

#include "appliance/MirrorSettings.h"
#include "appliance/PointInTime.h"
#include "host/journal/JournalStore.h"
#include "host/volume/TargetVolume.h"
#include "host/volume/VolumeDriver.h"

enum class MirrorAccess
{
    Reader,
    Writer,
};

class Mirror
{
public:
    ~Mirror();
    Mirror(const Mirror&) = delete;
    Mirror& operator=(const Mirror&) = delete;

    // Makes a mirror with an empty journal and a target that reads as zeroes, or the one that the
    // settings name, which has to be there and large enough. Failed for a folder that is a mirror
    // already or has anything else in it; nothing half made is left behind.
    static Result create(const std::string& folder, MirrorSettings settings);

    // NotFound: no mirror there, or its target is gone; InUse: another process writes; Damaged: see
    // the message.
    static Result open(const std::string& folder, MirrorAccess access, JournalRecovery recovery,
                       std::unique_ptr<Mirror>* mirror);

    const std::string& folder() const { return m_folder; }
    const MirrorSettings& settings() const { return m_settings; }

    // What opening the journal found; its text is empty when all was whole.
    const JournalReport& report() const { return m_journal->report(); }

    // What can be served.
    RecoverableWindow window() const;

    // Journal one request; it is one item, however the journal splits it.
    Result write(u64 offsetBlocks, const u8* data, u32 lengthBlocks);
    Result writeZeroes(u64 offsetBlocks, u64 lengthBlocks);

    // Sets a checkpoint behind all items journaled so far. Durable, with all of them, when done.
    Result checkpoint(const std::string& tag, CpId_t* id);
    Result flush();

    // Flushes and closes the journal, and says how that went; the mirror is of no more use.
    Result close();

    JournalStore& journal() { return *m_journal; }
    TargetVolume& target() { return *m_target; }
    // Knows the target by the mirror's id.
    VolumeDriver& driver() { return m_driver; }
    Storage& storage() { return *m_storage; }

private:
    Mirror(std::string folder, std::unique_ptr<Storage> storage);

    Result openJournal(MirrorAccess access, JournalRecovery recovery);
    Result openTarget();
    Result journaled(RcStatus rc, const std::string& what) const;

    std::string m_folder;
    std::unique_ptr<Storage> m_storage;
    MirrorSettings m_settings;
    std::unique_ptr<JournalStore> m_journal;
    std::shared_ptr<TargetVolume> m_target;
    VolumeDriver m_driver;
};
