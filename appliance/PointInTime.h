// Points in time as people name them: "latest", "cp:7" (or just "7"), "tag:before-upgrade",
// "time:2026-03-01T12:00:00Z" (the last checkpoint at or before it), "item:100" (after the first
// 100 journaled items); and spans "A..B".
//
// Thread safety: pure functions and plain values.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "Sfs/SfsDiskMetaItem.h"
#include "appliance/Result.h"

// A point as it was named, not yet looked for in any mirror.
struct PointName
{
    enum class Kind
    {
        Latest,
        Checkpoint,
        Tag,
        Time,
        Item,
    };

    Kind m_kind = Kind::Latest;
    u64 m_number = 0; // checkpoint id, microseconds since 1970, or number of items
    std::string m_tag;

    // Whether it always names the same point, also when more is journaled. A tag may be given
    // again, and a checkpoint may still come at or before a time.
    bool isFixed() const { return m_kind == Kind::Checkpoint || m_kind == Kind::Item; }
};

// A checkpoint of a mirror.
struct CheckpointInfo
{
    CpId_t m_id = 0;
    u64 m_timeMicros = 0;
    std::string m_tag;
    u64 m_items = 0; // journaled items before it
};

// What a mirror can serve.
struct RecoverableWindow
{
    u64 m_firstItems = 0;                      // what the target holds for good
    u64 m_items = 0;                           // all that is journaled
    std::vector<CheckpointInfo> m_checkpoints; // ascending by id
};

// A point that a mirror can serve.
struct ChosenPoint
{
    bool m_isCheckpoint = false; // a checkpoint, or else a number of items
    CheckpointInfo m_checkpoint; // meaningful for a checkpoint
    u64 m_items = 0;             // items that the point holds

    // "cp:7", "item:100": a name that chooses the same point again.
    std::string name() const;
    // The same for people, with time and tag.
    std::string description() const;
};

// Wrong usage when the text names no point.
Result parsePoint(const std::string& text, PointName* point);
// A..B; as tags may have dots in them, all that can be read in one way alone is taken.
Result parseSpan(const std::string& text, std::pair<PointName, PointName>* span);

// The point that a name chooses, from the first one that the target allows on; the newest
// checkpoint where several fit a tag or a time. NotFound when nothing fits: the message then states
// the recoverable window.
Result choosePoint(const PointName& name, const RecoverableWindow& window, ChosenPoint* point);

// The window in words.
std::string describeWindow(const RecoverableWindow& window);
