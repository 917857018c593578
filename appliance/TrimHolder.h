// What keeps the journal from being trimmed any further.
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

TrimHolder findTrimHolder(const ApplyState& applied, const RecoverableWindow& window,
                          const std::vector<Hold>& holds, const std::vector<UseInfo>& uses);
