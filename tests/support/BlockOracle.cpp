#include "tests/support/BlockOracle.h"

#include <sstream>

bool BlockOracle::insert(const Write& write)
{
    if (anyLockedIn(write.viewOffset, write.length))
        return false;
    cutAt(write.viewOffset);
    cutAt(write.viewOffset + write.length);
    for (u32 i = 0; i < write.length; ++i) {
        Block& block = m_blocks[write.viewOffset + i];
        block = Block();
        block.kind = write.kind;
        block.address = write.address;
        block.offsetInWrite = i;
        block.storedBytes = write.storedBytes;
        block.startsRegion = i == 0;
    }
    ++m_inserts;
    m_insertedBlocks += write.length;
    return true;
}

void BlockOracle::remove(u64 offset, u64 length)
{
    cutAt(offset);
    cutAt(offset + length);
    for (u64 b = offset; b < offset + length; ++b)
        forget(b);
}

bool BlockOracle::belongsTo(u64 block, const Write& write) const
{
    return m_blocks[block].kind == write.kind && m_blocks[block].address == write.address;
}

bool BlockOracle::anyLeftOf(const Write& write, bool locked) const
{
    for (u64 b = write.viewOffset; b < write.viewOffset + write.length; ++b)
        if (belongsTo(b, write) && m_blocks[b].locked == locked)
            return true;
    return false;
}

void BlockOracle::removeWrite(const Write& write)
{
    for (u64 b = write.viewOffset; b < write.viewOffset + write.length; ++b)
        if (belongsTo(b, write) && !m_blocks[b].locked)
            forget(b);
}

bool BlockOracle::anyLocked() const
{
    return anyLockedIn(0, m_blocks.size());
}

bool BlockOracle::anyLockedIn(u64 offset, u64 length) const
{
    for (u64 b = offset; b < offset + length; ++b)
        if (m_blocks[b].locked)
            return true;
    return false;
}

bool BlockOracle::anyStoredIn(u64 offset, u64 length) const
{
    for (u64 b = offset; b < offset + length; ++b)
        if (m_blocks[b].kind != None)
            return true;
    return false;
}

void BlockOracle::lock(u64 offset, u64 length)
{
    cutAt(offset);
    cutAt(offset + length);
    for (u64 b = offset; b < offset + length; ++b)
        if (m_blocks[b].kind != None)
            m_blocks[b].locked = true;
}

void BlockOracle::unlockRestore(u64 offset, u64 length)
{
    const u64 end = offset + length;
    cutAt(offset);
    cutAt(end);
    for (u64 b = offset; b < end; ++b)
        m_blocks[b].locked = false;
    if (!m_combine)
        return;
    if (offset > 0 && sameWrite(offset - 1, offset)) {
        m_blocks[offset].startsRegion = false;
        ++m_merges;
    }
    if (end < m_blocks.size() && sameWrite(end - 1, end)) {
        m_blocks[end].startsRegion = false;
        ++m_merges;
    }
}

void BlockOracle::unlockRemove(u64 offset, u64 length)
{
    cutAt(offset + length);
    for (u64 b = offset; b < offset + length; ++b)
        forget(b);
}

std::vector<SubRegionDescriptor> BlockOracle::pieces(u64 offset, u64 length, bool lockedToo) const
{
    return collect(offset, offset + length, lockedToo, true);
}

std::vector<SubRegionDescriptor> BlockOracle::regions(bool locked) const
{
    return collect(0, m_blocks.size(), locked, !locked);
}

bool BlockOracle::sameWrite(u64 left, u64 right) const
{
    const Block& a = m_blocks[left];
    const Block& b = m_blocks[right];
    if (a.kind == None || a.kind != b.kind || a.locked || b.locked)
        return false;
    return a.kind == Zeroes || a.address == b.address;
}

void BlockOracle::cutAt(u64 block)
{
    if (block < m_blocks.size() && m_blocks[block].kind != None)
        m_blocks[block].startsRegion = true;
}

void BlockOracle::forget(u64 block)
{
    m_blocks[block] = Block();
}

SubRegionDescriptor BlockOracle::describe(u64 first, u64 end) const
{
    const Block& block = m_blocks[first];
    SubRegionDescriptor region(first);
    const u16 length = static_cast<u16>(end - first);
    switch (block.kind) {
    case Compressed:
        region.init(first, length, block.address, static_cast<u16>(block.offsetInWrite),
                    block.storedBytes, true, false, false);
        break;
    case Zeroes:
        region.init(first, length, ~u64{0}, 0, u32{length} * 512, false, true, false);
        break;
    default:
        region.init(first, length, block.address + block.offsetInWrite,
                    static_cast<u16>(block.offsetInWrite), u32{length} * 512, false, false, false);
        break;
    }
    return region;
}

std::vector<SubRegionDescriptor> BlockOracle::collect(u64 offset, u64 end, bool wantLocked,
                                                      bool wantUnlocked) const
{
    std::vector<SubRegionDescriptor> result;
    const auto wanted = [&](u64 b) {
        const Block& block = m_blocks[b];
        return block.kind != None && (block.locked ? wantLocked : wantUnlocked);
    };
    for (u64 b = offset; b < end;) {
        if (!wanted(b)) {
            ++b;
            continue;
        }
        const u64 first = b++;
        while (b < end && wanted(b) && !m_blocks[b].startsRegion)
            ++b;
        result.push_back(describe(first, b));
    }
    return result;
}

std::string describeDifference(const std::vector<SubRegionDescriptor>& expected,
                               const std::vector<SubRegionDescriptor>& actual)
{
    std::ostringstream out;
    for (size_t i = 0; i < expected.size() || i < actual.size(); ++i) {
        if (i >= expected.size()) {
            out << "region " << i << " is one too many: " << actual[i];
            return out.str();
        }
        if (i >= actual.size()) {
            out << "region " << i << " is missing: " << expected[i];
            return out.str();
        }
        const SubRegionDescriptor& e = expected[i];
        const SubRegionDescriptor& a = actual[i];
        if (e.m_viewOffsetBlocks != a.m_viewOffsetBlocks || e.m_lengthBlocks != a.m_lengthBlocks ||
            e.m_fifoOffsetOfIoStartBlocks != a.m_fifoOffsetOfIoStartBlocks ||
            e.m_ioTotalLengthBytes != a.m_ioTotalLengthBytes ||
            e.m_regionOffsetLBsWithinIo != a.m_regionOffsetLBsWithinIo || e.m_flags != a.m_flags) {
            out << "region " << i << " should be " << e << " and is " << a;
            return out.str();
        }
    }
    return "";
}
