// The switch of the memory shield, and what it knows.
//
// RL_MEMSHIELD=1 in the environment switches the shield on before the first tracked object; a test
// does so here. Off, an allocation costs a counter.
//
// Thread safety: any thread.
#pragma once

#include <string>
#include <vector>

#include "common/infra/RcStatus.h"
#include "common/infra/Types.h"

struct MemShieldGroup
{
    std::string m_typeName;
    std::string m_file;
    int m_line;
    u64 m_count;
    u64 m_sizeBytes; // of all of them
};

class MemShieldControl
{
public:
    // Switches the shield. RC_IN_USE, with nothing changed, while any tracked object lives: what
    // was allocated under one setting could not be told from damage under the other.
    static RcStatus enable();
    static RcStatus disable();

    // Tracked objects that live now; those ever allocated. Both settings.
    static u64 liveObjects();
    static u64 allocations();

    // The live objects by where they were allocated, by type name, file and line. Active only.
    static std::vector<MemShieldGroup> liveGroups();

    // Writes one error record for each group of live objects, and returns how many objects there
    // were. An active shield does so by itself when the process exits.
    static u64 reportLeaks();
};
