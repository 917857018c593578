// The block map of a range of a view: where each of its bytes comes from.
//
// Thread safety: any thread.
#pragma once

#include <vector>

#include "appliance/View.h"

struct ViewPiece
{
    enum class Type
    {
        Data,
        Compressed,
        Zeroes,
        Target,
    };

    u64 m_offsetBytes = 0;
    u64 m_lengthBytes = 0;
    Type m_type = Type::Target;
    // Of what lies in the journal, as the index has them:
    u64 m_journalAddress = 0; // blocks; none for zeroes
    u32 m_offsetInIoBlocks = 0;

    const char* typeName() const; // "data", "compressed", "zeroes", "target"
};

// Pieces and gaps of the range, ascending, covering it exactly. Everything in blocks but the
// result. REQUIRES: the range lies inside the view.
std::vector<ViewPiece> viewPieces(View& view, u64 offsetBlocks, u64 lengthBlocks);
