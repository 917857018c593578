// Retention: how much of the past a mirror keeps, and the point that its target may be brought to.
//
// A checkpoint is kept while it is one of the newest so many, or younger than so long; and a
// journal that comes near its limit gives up the oldest of these, as no space for new writes is
// worse.
//
// Thread safety: any thread.
#pragma once

#include "appliance/Mirror.h"

// From this share of its limit on a journal is nearly full.
constexpr double NEARLY_FULL_RATIO = 0.9;

bool isNearlyFull(u64 usedBytes, u64 limitBytes);

struct RetentionPoint
{
    bool m_any = false; // whether there is a point that the target is to be brought to
    ChosenPoint m_point;
    std::string m_why; // "the newest 10 checkpoints are kept"
};

// Where the mirror's settings want the target to be; none when it is there, or when they keep
// everything. nowUs: the time now, since 1970 in UTC. Damaged: the journal cannot be read.
Result findRetentionPoint(Mirror& mirror, u64 nowUs, RetentionPoint* point);

// "45s", "30m", "12h", "7d", "2w", in seconds. WrongUsage: no such length of time.
Result parseDuration(const std::string& text, u64* seconds);
// The same way round: "7d", "90m".
std::string formatDuration(u64 seconds);
