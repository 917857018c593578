// What keeps the journal from being trimmed any further.
//
//   another process reads the journal from its beginning on   nothing goes before it is done
//   a point is held, or read by this process                  the target is not brought beyond it;
//                                                             the lowest one counts
//   the target is behind                                      it has to be brought forward first
//
// What this process itself reads does not keep the journal: a trim takes what goes out of its
// indexes. It keeps the target where it is, and so does not count before the target is there.
//
// Thread safety: pure functions and plain values.
#pragma once

#include "appliance/Mirror.h"

struct TrimHolder
{
    enum class Kind
    {
        Nothing,
        Use,    // somebody reads a point
        Hold,   // somebody holds one
        Target, // it has not been brought further
    };

    Kind m_kind = Kind::Nothing;
    std::string m_text; // for people; empty for nothing
};

struct TrimLimits
{
    u64 m_beginPage = 0;    // of the journal
    u64 m_appliedItems = 0; // that the target holds
    u64 m_items = 0;        // of the journal
    u64 m_process = 0;      // that would trim
    std::vector<Hold> m_holds;
    std::vector<UseInfo> m_uses; // of all processes
};

TrimHolder findTrimHolder(const TrimLimits& limits);

// The same of a mirror, by this process, as it is now; what was looked at comes with it. As
// Mirror::pins().
Result findTrimHolder(Mirror& mirror, TrimLimits* limits, TrimHolder* holder);
