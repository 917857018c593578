// The increment manager: what changed since the last backup, kept over power cuts.
//
//   call                                | increment      | candidate       | file
//   ------------------------------------+----------------+-----------------+---------------------
//   initNextIncrementCandidate()        |                | empty, open     |
//   setIncrementCandidateCpTimestamp()  |                | its start       |
//   reportCandidateIO()                 |                | marked          |
//   reportIO()                          | marked, if any | marked, if open |
//   commitNextIncrementCadidate()       | the candidate  | none            | the candidate
//   cancelNextIncrementCadidate()       |                | none            |
//   save()                              |                |                 | the increment
//
// A write that is reported while a candidate is open is later than the checkpoint that this one
// starts at; so it belongs to both. Opened before a backup chooses its newest checkpoint, the
// candidate then misses nothing: the journal scan reports what is older, reportIO() what is newer.
//
// The file says up to which checkpoint it is complete. What came later has to be reported again,
// out of the journal, after a restart that no save() preceded.
//
// A map that could not take a write, as the limit was reached, is incomplete for good: it answers
// RC_NO_MEMORY instead of ranges, and is not committed.
#pragma once

#include <memory>
#include <optional>

#include "common/infra/Mutex.h"
#include "host/increments/IncrementFile.h"

struct IncrementOptions
{
    bool m_enabled = true;
    u64 m_mirrorId = 0;
    u64 m_volumeBlocks = 0;
    u32 m_granuleBlocks = 8; // of new candidates; a stored increment keeps its own
    // Of both maps together; storing one, and asking for its ranges, take as much again for a
    // moment.
    u64 m_maxMemoryBytes = u64{64} << 20;
    std::string m_folder = "increments"; // in the storage
};

struct IncrementInfo
{
    u64 m_startTimestampUs;
    CpId_t m_endCheckpoint; // as stored; 0 for unknown
    u64 m_granules;
    u32 m_granuleBlocks;
    bool m_complete;
};

// Thread safety: any thread. Reports wait for no file.
// Invariants: 1. the file is a whole increment: the last one committed or saved, or the one whose
//                committing or saving was cut short;
//             2. an increment in memory holds all that the one in the file holds.
//
// Not enabled, it notes nothing and leaves the file alone: reports are a RC_SUCCESS without effect,
// everything else answers RC_NOT_FOUND.
class IncrementManager : public ILtrIncrementManager
{
public:
    struct Opened
    {
        RcStatus m_rc = RC_SUCCESS;
        std::string m_message;                       // for people, when m_rc is not RC_SUCCESS
        std::unique_ptr<IncrementManager> m_manager; // when it is
    };

    // Takes up the stored increment, if there is one. RC_BAD_ARGUMENT: more than 2^32 granules, or
    // none; otherwise as IncrementFile::load(). storage: not owned; it outlives the manager, and
    // nobody else changes its folder.
    static Opened open(Storage& storage, const IncrementOptions& options);

    // Drops a stored increment, damaged as it may be: the next backup has to be a full one.
    static RcStatus discard(Storage& storage, const IncrementOptions& options);

    // RC_NOT_FOUND: nothing was committed yet. Otherwise the status that made it incomplete.
    RcStatus getIncrementCbt(std::vector<LtrChangedRange>* ranges) override;

    // RC_BAD_ARGUMENT: an empty range, or not within the volume. RC_NO_MEMORY: a map that the write
    // belongs to has reached the limit; the other one has it. Without any map it is no failure.
    RcStatus reportIO(u64 offsetBlocks, u32 lengthBlocks) override;

    // Statuses as for reportIO(); RC_NOT_FOUND without a candidate, RC_IN_USE while it is
    // committed.
    RcStatus reportCandidateIO(u64 offsetBlocks, u32 lengthBlocks) override;

    // An open candidate is cancelled first; a failure to do so leaves none open.
    RcStatus initNextIncrementCandidate() override;

    // RC_NOT_FOUND without a candidate, RC_IN_USE while it is committed; for each of these.
    RcStatus setIncrementCandidateCpTimestamp(u64 timestamp) override;
    // The candidate will hold every write before this checkpoint once it is committed.
    RcStatus setCandidateEndCheckpoint(CpId_t checkpoint);

    // RC_BAD_ARGUMENT without a start; the candidate's own status when it is incomplete;
    // RC_NO_SPACE and RC_IO_ERROR. After a failure increment and candidate are as before, and a
    // power cut leaves either of them in the file until committing or cancelling succeeds.
    RcStatus commitNextIncrementCadidate() override;

    // The candidate is gone in any case. A failure is that of taking back what a failed commit may
    // have stored; then a later init, save or commit does it.
    RcStatus cancelNextIncrementCadidate() override;

    bool isEnabled() override { return m_options.m_enabled; }
    SfsMetaDataContainer* getApplyMdListener() override { return nullptr; }

    // Stores the increment with all that was reported. endCheckpoint: every write before it has
    // been. RC_NOT_FOUND: none; the increment's own status when it is incomplete; RC_NO_SPACE,
    // RC_IO_ERROR.
    RcStatus save(CpId_t endCheckpoint);

    std::optional<IncrementInfo> increment();
    std::optional<IncrementInfo> candidate();

private:
    struct Gathered
    {
        Increment m_increment;
        bool m_hasStart = false;
        RcStatus m_rc = RC_SUCCESS; // what made it incomplete
    };

    IncrementManager(Storage& storage, const IncrementOptions& options);
    GranuleGeometry geometry() const
    {
        return {m_options.m_volumeBlocks, m_options.m_granuleBlocks};
    }
    RcStatus mark(std::optional<Gathered>& into, const std::optional<Gathered>& other,
                  u64 offsetBlocks, u32 lengthBlocks) RL_REQUIRES(m_mutex);
    RcStatus dropCandidate() RL_REQUIRES(m_fileMutex);
    static std::optional<IncrementInfo> infoOf(const std::optional<Gathered>& gathered);

    const IncrementOptions m_options;
    Mutex m_fileMutex; // taken before m_mutex, and held while the file is written
    IncrementFile m_file RL_GUARDED_BY(m_fileMutex);
    Mutex m_mutex;
    std::optional<Gathered> m_increment RL_GUARDED_BY(m_mutex);
    std::optional<Gathered> m_candidate RL_GUARDED_BY(m_mutex);
    bool m_committing RL_GUARDED_BY(m_mutex) = false;
};
