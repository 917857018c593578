// Export: a whole view as a raw image.
#pragma once

#include <string>

#include "appliance/FlowControl.h"
#include "appliance/NewFile.h"
#include "appliance/View.h"
#include "host/tasks/TaskEngine.h"

struct ExportStatistics
{
    u64 m_dataBytes = 0; // read and written
    double m_seconds = 0;
};

// Writes the view to `path`: a regular file is made sparse under another name in the same folder,
// synced, and takes the place of what was there only when it is whole; a block device is written in
// place, what is zero cleared; "-" is standard output, with every zero. The cost is that of the
// data, except for standard output.
// Unsynced, a file or device is left to the page cache: faster, and for images that can be made
// anew, as one that the machine fails soon after may be cut or hold zeroes under its own name.
// WrongUsage: the path is the mirror's target, or lies in a mirror's folder.
// Interrupted: a regular file is as it was before. Damaged: the message names the blocks.
// Thread safety: a plain thread.
Result exportView(View& view, TaskEngine& engine, const std::string& path, FlowControl& control,
                  ExportStatistics* statistics, Durability durability = Durability::Synced);
