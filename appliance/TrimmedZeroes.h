// Which zeroes of the live index no item of the journal covers any more.
//
// Zeroes have no journal address, so those of an item that was trimmed look like those of one that
// stays. What tells them apart is that of the items that stay none covers their blocks: an item
// that does is newer, whatever it is, so the index shows it and not the trimmed one. Hence
//
//   a trim notes where a zeroes item that goes may have left some
//   -> gather(): the index's zeroes thereabouts are the candidates
//   -> those who were writing meanwhile finish; what a scan of the journal's rest finds covered,
//      and what is written from then on, is no candidate any more
//   -> what is left goes from the index.
//
// A writer says what it writes before it inserts it, and a candidate is removed under the mutex
// that this takes: it is gone either before the insertion, or not at all.
//
// Where there is no room for one candidate more, the last ones give way, and are seen to by a later
// pass: the passes go through the volume from its beginning to its end.
//
// Thread safety: written() from any thread; all else in apply's and trim's turn.
// Invariants: 1. between gather() and clear(), a candidate that a writer who came after gather()
//                covers is none any more before the writer inserts;
//             2. candidates take memory for at most twice MAX_RANGES ranges;
//             3. no candidate lies at or behind passEnd(), and before it none was left out.
#pragma once

#include <algorithm>
#include <atomic>
#include <functional>
#include <map>

#include "common/infra/Mutex.h"
#include "common/infra/Types.h"

class TrimmedZeroes
{
public:
    static constexpr size_t MAX_RANGES = 1 << 17; // about 8 MiB

    TrimmedZeroes() = default;
    TrimmedZeroes(const TrimmedZeroes&) = delete;
    TrimmedZeroes& operator=(const TrimmedZeroes&) = delete;

    // Gathers no more than so many from the next pass on, at least one.
    void setMaxRanges(size_t maxRanges) { m_maxRanges = maxRanges; }

    // ---- where to look: blocks [firstBlock, endBlock), across passes and trims ----

    void note(u64 offsetBlocks, u64 lengthBlocks);
    bool hasNoted() const { return m_firstBlock < m_endBlock; }
    u64 firstBlock() const { return m_firstBlock; }
    u64 endBlock() const { return m_endBlock; }
    // All before the block has been seen to.
    void doneBefore(u64 block) { m_firstBlock = std::max(m_firstBlock, block); }

    // ---- the candidates of one pass ----

    // Without any, up to endBlock(). From here on writers are heard.
    void start() RL_EXCLUDES(m_mutex);
    // Adds a candidate; ascending. False: there are as many as may be, or there is no memory for
    // more, and the pass ends before it.
    bool add(u64 offsetBlocks, u64 lengthBlocks) RL_EXCLUDES(m_mutex);
    // These blocks are some other item's. Returns whether any candidate is left. Never fails.
    bool subtract(u64 offsetBlocks, u64 lengthBlocks) RL_EXCLUDES(m_mutex);
    // The first candidate that ends behind the block, from there on; false: there is none.
    bool next(u64 block, u64* offsetBlocks, u64* endBlock) RL_EXCLUDES(m_mutex);
    // Hands over the first part of a range that still is candidate, with writers kept out; returns
    // where it ends, or the range's end where there is none.
    u64 visitFirst(u64 offsetBlocks, u64 endBlock, const std::function<void(u64, u64)>& visitor)
        RL_EXCLUDES(m_mutex);
    // Where the next pass has to go on.
    u64 passEnd() RL_EXCLUDES(m_mutex);
    // Ends the pass: writers are not heard any more.
    void clear() RL_EXCLUDES(m_mutex);

    // By a writer, between journaling and inserting. One load where no trim is at work.
    void written(u64 offsetBlocks, u64 lengthBlocks)
    {
        if (m_isActive.load())
            subtract(offsetBlocks, lengthBlocks);
    }

private:
    using Ranges = std::map<u64, u64>; // by first block: end

    void split(Ranges::iterator range, u64 secondBlock) RL_REQUIRES(m_mutex);

    size_t m_maxRanges = MAX_RANGES;
    u64 m_firstBlock = ~u64{0};
    u64 m_endBlock = 0;
    std::atomic<bool> m_isActive{false};
    Mutex m_mutex;
    Ranges m_ranges RL_GUARDED_BY(m_mutex);
    u64 m_passEnd RL_GUARDED_BY(m_mutex) = 0;
};
