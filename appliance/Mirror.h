// A mirror: one protected volume, kept as a journal of its writes and a target volume below it.
//
// A mirror is a folder: mirror.json (what it is), journal/ (grains), target (a raw file, unless
// mirror.json names another volume), increments/, applied (how far the target was brought), holds/
// and uses/ (what must not be passed). Every point from the one that the target was brought to, to
// the last journaled item, can be read (View.h).
//
// Thread safety: any thread, writes in the order in which they take the journal's lock; one apply
// or trim at a time; opening and close() with nobody else there.
// Invariants: 1. a folder has one writer at a time; readers need no lock and see the journal as it
//                was when they opened it;
//             2. what a flush or a checkpoint acknowledged stays, whatever happens after, until it
//                is applied to the target and trimmed;
//             3. a point that is used or held stays readable until it is let go.
#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "appliance/ApplyState.h"
#include "appliance/GracePeriod.h"
#include "appliance/IndexTurns.h"
#include "appliance/JournalIndex.h"
#include "appliance/MirrorSettings.h"
#include "appliance/Pins.h"
#include "appliance/PointInTime.h"
#include "appliance/TrimmedZeroes.h"
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

    // InUse: a process has it open for writing. For who is to open it later and wants to tell
    // sooner; opening is what decides.
    static Result checkUnused(const std::string& folder);

    // NotFound: no mirror there, or its target is gone; InUse: another process writes; Damaged: see
    // the message.
    static Result open(const std::string& folder, MirrorAccess access, JournalRecovery recovery,
                       std::unique_ptr<Mirror>* mirror);

    // The same over any storage that holds a mirror. folder: for messages.
    static Result openIn(std::unique_ptr<Storage> storage, const std::string& folder,
                         MirrorAccess access, JournalRecovery recovery,
                         std::unique_ptr<Mirror>* mirror);

    const std::string& folder() const { return m_folder; }
    // As they were when the mirror was opened: what never changes is read here.
    const MirrorSettings& settings() const { return m_settings; }
    // As they are now, changed or not.
    MirrorSettings currentSettings() const;

    // What opening the journal found; its text is empty when all was whole.
    const JournalReport& report() const { return m_journal->report(); }

    // What can be served, as far as this process knows: another one may have applied more since.
    RecoverableWindow window() const;

    // All that lies in the journal, also points that cannot be served any more: for trim.
    RecoverableWindow journalWindow() const;

    // How far the target was brought, as far as this process knows.
    ApplyState applyState() const;
    // Remembers it durably. Writers only.
    Result setApplyState(const ApplyState& state);

    // Registers that a point is read, so that apply and trim leave it alone until the use is
    // destroyed; the mirror outlives it. NotFound: the point has been passed meanwhile; InUse: the
    // journal was trimmed since this mirror was opened, and beyond what it knew then. items:
    // NO_ITEMS for who reads the journal alone. A reader that may not write there gets a use that
    // is not registered: it protects nothing, and what is read of the target counts only after
    // PointUse::confirmTarget().
    Result usePoint(u64 items, const std::string& what, std::unique_ptr<PointUse>* use);

    // Holds a point until it is released, and makes it durable first. name: a free one is chosen
    // where it is empty. NotFound: the point has been passed meanwhile; else as flush() and
    // addHold().
    Result hold(Hold* hold, std::string (*freeName)(const std::vector<Hold>&));
    Result release(const std::string& name);

    // What is held, and what is read, now. Uses: of all processes.
    Result pins(std::vector<Hold>* holds, std::vector<UseInfo>* uses);

    // The indexes of this mirror's journal that this process has built. One adds itself when it is
    // built and removes itself before it goes; withIndexes() keeps it from that while it runs.
    void addIndex(JournalIndex* index);
    void removeIndex(JournalIndex* index);
    template <class Function> void withIndexes(Function function)
    {
        MutexGuard guard(m_indexesMutex);
        function(m_indexes);
    }

    // Who copies one index into another, and who takes items that are trimmed out of all of them.
    IndexTurns& indexTurns() { return m_indexTurns; }

    // Who reads the journal by an index without locks in it does so as a reader of this period.
    GracePeriod& gracePeriod() { return m_gracePeriod; }

    // Changes what retention and limit are, durably and at once; what is not given stays as it is.
    // Writers only.
    Result changeSettings(std::optional<u64> keepCheckpoints, std::optional<u64> keepForSeconds,
                          std::optional<u64> journalLimitBytes);

    // From which page on the journal's items may still be in indexes though they were trimmed: the
    // grains from there on have to stay. All ones: nothing is left. Apply's and trim's turn.
    u64 untakenPage() const { return m_untakenPage; }
    void setUntakenPage(u64 page) { m_untakenPage = page; }

    // Zeroes that are to go from the live index. Who inserts into it tells of it there first.
    TrimmedZeroes& trimmedZeroes() { return m_trimmedZeroes; }

    // Journal one request; it is one item, however the journal splits it.
    Result write(u64 offsetBlocks, const u8* data, u32 lengthBlocks);
    Result writeZeroes(u64 offsetBlocks, u64 lengthBlocks);

    // Tells, once, that the journal has become nearly full, or the disk full. For who appends to
    // the journal directly.
    void tellNearlyFull();

    // Sets a checkpoint behind all items journaled so far. Durable, with all of them, when done.
    // WrongUsage: no tag as it may be; nothing changed.
    Result checkpoint(const std::string& tag, CpId_t* id);
    Result flush();

    // Sees to it that a scan finds the first so many items: makes them durable where this process
    // has journaled them and they are not yet. As flush(); a reader has nothing to do.
    Result flushUpTo(u64 items);

    // Flushes and closes the journal, and says how that went; the mirror is of no more use.
    Result close();

    JournalStore& journal() { return *m_journal; }
    TargetVolume& target() { return *m_target; }
    // The target, to be written to: apply's alone.
    Result openTargetForWriting(std::shared_ptr<TargetVolume>* target);

    // Knows the target by the mirror's id.
    VolumeDriver& driver() { return m_driver; }
    Storage& storage() { return *m_storage; }

private:
    Mirror(std::string folder, std::unique_ptr<Storage> storage);

    // minimumItems: what the target holds of it.
    Result openJournal(MirrorAccess access, JournalRecovery recovery, u64 minimumItems);
    Result reserveRoom();
    Result checkPoint(u64 items);
    Result openTargetAs(bool readOnly, std::shared_ptr<TargetVolume>* target);
    Result journaled(RcStatus rc, const std::string& what) const;
    Result accepted(RcStatus rc, const char* what, u64 offsetBlocks);

    std::string m_folder;
    std::unique_ptr<Storage> m_storage;
    MirrorAccess m_access = MirrorAccess::Reader;
    MirrorSettings m_settings; // unchanged once the mirror is open
    mutable Mutex m_settingsMutex;
    MirrorSettings m_currentSettings RL_GUARDED_BY(m_settingsMutex);
    std::unique_ptr<JournalStore> m_journal;
    std::shared_ptr<TargetVolume> m_target;
    VolumeDriver m_driver;
    std::atomic<bool> m_toldNearlyFull{false};
    std::atomic<bool> m_toldDiskFull{false};
    std::atomic<u64> m_untakenPage{~u64{0}};
    mutable Mutex m_applyMutex;
    ApplyState m_applyState RL_GUARDED_BY(m_applyMutex);
    Mutex m_indexesMutex;
    std::vector<JournalIndex*> m_indexes RL_GUARDED_BY(m_indexesMutex);
    IndexTurns m_indexTurns;
    GracePeriod m_gracePeriod;
    TrimmedZeroes m_trimmedZeroes;
};
