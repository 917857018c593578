// Restore: an image of the volume, out of a full backup and its increments.
//
// Thread safety: a plain thread.
#pragma once

#include <string>
#include <vector>

#include "appliance/FlowControl.h"
#include "appliance/NewFile.h"
#include "appliance/Result.h"
#include "common/infra/Types.h"

struct RestoreStatistics
{
    std::string m_point; // the name of the point that the image shows
    u64 m_sizeBytes = 0;
    u64 m_dataBytes = 0; // written, by all files together
    double m_seconds = 0;
};

struct RestoreOptions
{
    bool m_force = false; // replaces a file of any size
    Durability m_durability = Durability::Synced;
};

// Applies the backups in their order and writes the image, sparse, under another name in the same
// folder; it takes its own name only when all of it is there and, unless unsynced, durable.
//
// WrongUsage: the path lies in a mirror's folder. Failed: a file of another size is there, unless
// forced: it may be a backup, and the image's name forgotten. Failed: the first is no full backup,
// one does not start where the one before ends, they are of different mirrors or sizes; told before
// anything is written. Damaged: a file that is not exactly one whole backup. Interrupted, NoSpace.
// On any failure nothing is left, and what was there stays.
Result restoreImage(const std::vector<std::string>& files, const std::string& path,
                    FlowControl& control, RestoreStatistics* statistics,
                    const RestoreOptions& options = {});
