// Backup: the volume at a point in time, whole or what changed since an earlier point, as a stream
// that restore and other tools read (DeltaStream.h).
//
// A full backup holds the data of the view, that of the target volume included; holes and zeroes
// take nothing. An increment holds exactly the blocks that were written or zeroed after the earlier
// point and up to the later one.
//
// Thread safety: a plain thread.
#pragma once

#include <optional>
#include <string>

#include "appliance/FlowControl.h"
#include "appliance/Mirror.h"
#include "host/increments/IncrementManager.h"
#include "host/tasks/TaskEngine.h"

struct BackupOptions
{
    ChosenPoint m_at;
    std::optional<ChosenPoint> m_since; // none: a full backup
    bool m_compare = false;             // leave out what came out equal at both points
    // Gathers, in the same scan, what changed after the point, where that is a checkpoint; null for
    // not. Not owned.
    IncrementManager* m_increments = nullptr;
};

struct BackupStatistics
{
    std::string m_from; // names of the points in the stream; empty for a full backup
    std::string m_to;
    u64 m_dataBytes = 0;
    u64 m_zeroBytes = 0;
    u64 m_fileBytes = 0;
    u64 m_itemsIndexed = 0;
    double m_seconds = 0;
    // Whether the changes after the point have been kept for the next increment; if not, why.
    bool m_candidateKept = false;
    std::string m_candidateText;
};

// Writes the backup to a file, or to standard output for "-". The file appears under its name only
// when it is whole and durable. WrongUsage: `since` comes after `at` or is the same point, or a
// full backup is to be compared; Interrupted: nothing has been left; Damaged, NoSpace, Failed.
Result backupMirror(Mirror& mirror, TaskEngine& engine, const std::string& path,
                    const BackupOptions& options, FlowControl& control,
                    BackupStatistics* statistics);
