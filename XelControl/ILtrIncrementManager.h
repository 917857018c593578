// The increment manager of a mirror's backups.
#pragma once

#include <vector>

#include "Sfs/SfsMetaDataContainer.h"
#include "common/infra/RcStatus.h"

// A run of changed blocks of the protected volume.
struct LtrChangedRange
{
    u64 m_offsetBlocks;
    u64 m_lengthBlocks;
};

// Keeps what changed since the last backup (the increment), and gathers what the next one is to
// start from (the candidate), which replaces it once the backup has been stored.
//
// Thread safety: any thread.
class ILtrIncrementManager
{
public:
    virtual ~ILtrIncrementManager() = default;

    // The committed increment's changed ranges, ascending, not overlapping.
    virtual RcStatus getIncrementCbt(std::vector<LtrChangedRange>* ranges) = 0;
    // A write that belongs to the committed increment; one that belongs to the candidate.
    virtual RcStatus reportIO(u64 offsetBlocks, u32 lengthBlocks) = 0;
    virtual RcStatus reportCandidateIO(u64 offsetBlocks, u32 lengthBlocks) = 0;
    // Starts an empty candidate.
    virtual RcStatus initNextIncrementCandidate() = 0;
    // The time of the checkpoint that the candidate starts at.
    virtual RcStatus setIncrementCandidateCpTimestamp(u64 timestamp) = 0;
    // Makes the candidate the increment, durably, or drops it. The names are the interface's (sic).
    virtual RcStatus commitNextIncrementCadidate() = 0;
    virtual RcStatus cancelNextIncrementCadidate() = 0;
    // Whether increments are kept for the mirror at all.
    virtual bool isEnabled() = 0;
    // Who is to be told of the items that an apply takes off the journal; not owned, may be null.
    virtual SfsMetaDataContainer* getApplyMdListener() = 0;
};
