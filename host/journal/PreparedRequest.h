// A request that is ready to be appended: cut into items, compressed and checksummed, which takes
// no lock. What is left, the places in the journal and the order, is the append's.
//
// Thread safety: one thread at a time.
#pragma once

#include <vector>

#include "host/journal/JournalPack.h"

class PreparedRequest
{
public:
    // Most items that it can become, as the end of a grain may split a piece in two.
    u64 maxItems() const { return 2 * m_pieces.size(); }

    // After the append: how it ended, and its items as they lie in the journal.
    RcStatus rc() const { return m_rc; }
    const std::vector<SfsDiskMetaItem>& items() const { return m_items; }

private:
    friend class JournalStore;

    RcStatus m_rc = RC_BAD_ARGUMENT; // until it is appended
    std::vector<JournalPiece> m_pieces;
    std::vector<SfsDiskMetaItem> m_items;
};
