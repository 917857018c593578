// What a locator should hold, block by block.
//
// An array with one entry a view block, and none of the component's arithmetic: every operation is
// a loop over blocks. It knows, for each block, which write it comes from, which block of that
// write it is, whether it is locked, and whether a region starts there, so that it predicts not
// only the contents but the very regions, merges included.
#pragma once

#include <string>
#include <vector>

#include "RegionLocator/SubRegionDescriptor.h"

class BlockOracle
{
public:
    enum Kind : u8
    {
        None,
        Plain,
        Compressed,
        Zeroes,
    };

    // One write of the test, whole.
    struct Write
    {
        u64 viewOffset;
        u32 length;
        Kind kind;
        u64 address;     // of its first block, or of the compressed IO
        u32 storedBytes; // compressed only
    };

    explicit BlockOracle(u32 blocks) : m_blocks(blocks) {}

    // False: a block of the range is locked, and nothing changed.
    bool insert(const Write& write);
    void remove(u64 offset, u64 length);

    // Whether blocks of this very write are still there, locked or not locked; and their removal.
    bool anyLeftOf(const Write& write, bool locked) const;
    void removeWrite(const Write& write);

    bool anyLocked() const;
    bool anyLockedIn(u64 offset, u64 length) const;
    bool anyStoredIn(u64 offset, u64 length) const;

    // Locks what is stored in the range, cut to it.
    void lock(u64 offset, u64 length);
    // Ends the lock of one handed-out piece, or of a part of it. Of several pieces given back in
    // one call, each is put back before the next.
    void unlockRestore(u64 offset, u64 length);
    void unlockRemove(u64 offset, u64 length);

    // What a lookup of the range should return; lockedToo: also pieces that are locked.
    std::vector<SubRegionDescriptor> pieces(u64 offset, u64 length, bool lockedToo) const;

    // All regions of one of the two maps.
    std::vector<SubRegionDescriptor> regions(bool locked) const;

    u64 inserts() const { return m_inserts; }
    u64 insertedBlocks() const { return m_insertedBlocks; }
    u64 merges() const { return m_merges; }

    // Whether restored neighbours become one region.
    void setCombine(bool combine) { m_combine = combine; }

private:
    struct Block
    {
        Kind kind = None;
        bool locked = false;
        bool startsRegion = false;
        u64 address = 0; // of the write's first block
        u32 offsetInWrite = 0;
        u32 storedBytes = 0;
    };

    bool belongsTo(u64 block, const Write& write) const;
    bool sameWrite(u64 left, u64 right) const;
    void cutAt(u64 block);
    void forget(u64 block);
    SubRegionDescriptor describe(u64 first, u64 end) const;
    std::vector<SubRegionDescriptor> collect(u64 offset, u64 end, bool wantLocked,
                                             bool wantUnlocked) const;

    std::vector<Block> m_blocks;
    u64 m_inserts = 0;
    u64 m_insertedBlocks = 0;
    u64 m_merges = 0;
    bool m_combine = true;
};

// Empty when both lists hold the same regions field by field; else says where they differ first.
std::string describeDifference(const std::vector<SubRegionDescriptor>& expected,
                               const std::vector<SubRegionDescriptor>& actual);
