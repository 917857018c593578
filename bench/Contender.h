// An index under test: what the benchmarks ask of it.
//
// The benchmarks know nothing else of an index, so that another one can be put beside the locator
// and does the same work on the same items. A call costs every contender the same virtual dispatch.
//
// Thread safety: one thread at a time.
#pragma once

#include <vector>

#include "RegionLocator/SubRegionDescriptor.h"
#include "Sfs/SfsDiskMetaItem.h"

class Contender
{
public:
    using Pieces = std::vector<SubRegionDescriptor>;

    Contender() = default;
    virtual ~Contender() = default;
    Contender(const Contender&) = delete;
    Contender& operator=(const Contender&) = delete;

    // Takes `count` IO items in journal order, their memory reserved before and the rest given back
    // after, as a journal scan does it batch by batch.
    virtual void feed(const SfsDiskMetaItem* items, u32 count) = 0;
    // The fill is over. For an index that is built once and only read from then on.
    virtual void settle() {}

    // Reserves the memory of `writes` calls of insert(), each of which may make two regions more;
    // 0 gives back what is left. An index that allocates as it goes does nothing.
    virtual void reserveInserts(u32 writes) = 0;
    // Takes one IO item.
    virtual void insert(const SfsDiskMetaItem& item) = 0;

    // Replaces *pieces with what is stored within the range, clipped to it, ascending.
    virtual void lookup(u64 offsetBlocks, u32 lengthBlocks, Pieces* pieces) = 0;

    // Reserves the memory of one lock() and its unlock() at a time, or of one lockFirst() and its
    // unlockAndRemove(), of at most `pieces` pieces; serves all until the next reservation.
    virtual void reserveLocks(u32 pieces) = 0;
    // A lookup that keeps the pieces from being overridden. REQUIRES: nothing is locked.
    virtual void lock(u64 offsetBlocks, u32 lengthBlocks, Pieces* pieces) = 0;
    // Puts the pieces of the last lock() back.
    virtual void unlock(Pieces& pieces) = 0;

    // The same for calls of remove() as reserveInserts().
    virtual void reserveRemoves(u32 removes) = 0;
    // Takes out what is left of one IO that has journal data. REQUIRES: nothing is locked.
    virtual void remove(const SubRegionDescriptor& io) = 0;

    // Replaces *pieces with the first whole regions of the view, no more blocks than `maxBlocks`,
    // which the first one does not exceed, and locks them.
    virtual void lockFirst(u32 maxBlocks, Pieces* pieces) = 0;
    // Drops the pieces of the last lockFirst().
    virtual void unlockAndRemove(Pieces& pieces) = 0;

    virtual u64 regions() = 0;
    // Each view block counted once.
    virtual u64 coveredBlocks() = 0;
    // What the index takes from the system, reservations and free lists included.
    virtual u64 memoryBytes() = 0;
};
