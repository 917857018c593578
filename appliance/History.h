// History: every journaled write that touched a range of the volume, and what of it a point in time
// still shows.
//
// Thread safety: a plain thread.
#pragma once

#include <optional>
#include <vector>

#include "appliance/SpanScan.h"

// A run of blocks that one item wrote in one form.
struct HistoryEntry
{
    enum class Type
    {
        Data,
        Compressed,
        Zeroes,
    };

    u64 m_item = 0; // "item:N" is the first point that holds it
    u64 m_offsetBlocks = 0;
    u64 m_lengthBlocks = 0; // of the whole run, also where it sticks out of the range
    Type m_type = Type::Data;
    u64 m_liveBlocks = 0; // of the range, that the point shows from this write
    // The checkpoints around it; none before the first and after the last.
    std::optional<CheckpointInfo> m_after;
    std::optional<CheckpointInfo> m_before;

    const char* typeName() const; // "data", "compressed", "zeroes"
};

struct History
{
    std::vector<HistoryEntry> m_entries; // ascending by item, then by offset
    u64 m_targetBlocks = 0;              // of the range, that no item up to the point has written
};

// REQUIRES: the range lies inside the volume. Reads the metadata of the whole journal, and takes
// memory by what is found. Interrupted, Damaged, Failed.
Result historyOf(Mirror& mirror, u64 offsetBlocks, u64 lengthBlocks, const ChosenPoint& at,
                 FlowControl& control, History* history);
