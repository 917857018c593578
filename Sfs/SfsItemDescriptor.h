// A run of view blocks, and where its data lies within one journaled IO.
#pragma once

#include <ostream>

#include "Sfs/SfsDiskMetaItem.h"
#include "common/infra/Types.h"

// A journal address in blocks, of which the low 48 bits count. The journal is cut into grains of
// 1 << 15 blocks, and no IO spans two of them.
using SfsDevAddr = u64;

// The address of what has no data in the journal: a run of zeroes.
constexpr SfsDevAddr SFS_DEV_ADDR_INVALID = ~SfsDevAddr{0};

constexpr u32 SFS_GRAIN_BLOCKS = 1 << 15;

// The grain that an address lies in. A macro, so that a check that compares grains prints as the
// arithmetic that it does.
// clang-format off
#define SFS_GRAIN_OF(x) (((x)&0xffffffffffffLL)/(1 << 15))
// clang-format on

// Three kinds: compressed (the address is that of the whole stored IO, and never moves), all-zeroes
// (no address), and plain (the address is that of the region's own first block).
class SfsItemDescriptor
{
public:
    void init(u64 viewOffsetBlocks, u32 lengthBlocks, u64 fifoOffsetBlocks,
              u16 regionOffsetWithinIo, u32 ioTotalLengthBytes, bool compressed, bool allZeroes,
              bool cscan)
    {
        m_viewOffsetBlocks = viewOffsetBlocks;
        m_fifoOffsetOfIoStartBlocks = fifoOffsetBlocks;
        m_ioTotalLengthBytes = ioTotalLengthBytes;
        m_lengthBlocks = static_cast<u16>(lengthBlocks);
        m_regionOffsetLBsWithinIo = regionOffsetWithinIo;
        m_flags = static_cast<u8>((compressed ? FLAG_COMPRESSED : 0) |
                                  (allZeroes ? FLAG_ALL_ZEROES : 0) | (cscan ? FLAG_CSCAN : 0));
    }

    // The byte length is that of the region itself, so that a piece that is rebuilt whole equals
    // the stored one.
    static SfsItemDescriptor genUncompressed(u64 viewOffsetBlocks, u32 lengthBlocks,
                                             u64 fifoOffsetBlocks, u16 regionOffsetWithinIo,
                                             bool allZeroes)
    {
        SfsItemDescriptor item;
        item.init(viewOffsetBlocks, lengthBlocks, fifoOffsetBlocks, regionOffsetWithinIo,
                  lengthBlocks << BLOCK_SHIFT, false, allZeroes, false);
        return item;
    }

    static SfsItemDescriptor genCompressed(u64 viewOffsetBlocks, u32 lengthBlocks,
                                           u64 fifoOffsetBlocks, u16 regionOffsetWithinIo,
                                           u32 ioTotalLengthBytes, bool cscan)
    {
        SfsItemDescriptor item;
        item.init(viewOffsetBlocks, lengthBlocks, fifoOffsetBlocks, regionOffsetWithinIo,
                  ioTotalLengthBytes, true, false, cscan);
        return item;
    }

    // The whole IO of a journal item. REQUIRES: an IO item of 1 to 65535 blocks.
    static SfsItemDescriptor genFromSfsDiskMetaItem(const SfsDiskMetaItem& meta)
    {
        const u32 length = meta.getUncompressedLengthBlocks();
        const u64 offset = meta.m_ioData.offsetBlocks;
        switch (meta.getType()) {
        case SfsMetaType::COMPRESSED_IO:
            return genCompressed(offset, length, meta.m_ioData.dataAddr, 0,
                                 meta.getCompressedLengthBytes(), false);
        case SfsMetaType::ZEROS:
            return genUncompressed(offset, length, SFS_DEV_ADDR_INVALID, 0, true);
        default: return genUncompressed(offset, length, meta.m_ioData.dataAddr, 0, false);
        }
    }

    bool isCompressed() const { return (m_flags & FLAG_COMPRESSED) != 0; }
    bool isAllZeroes() const { return (m_flags & FLAG_ALL_ZEROES) != 0; }
    bool isCscan() const { return (m_flags & FLAG_CSCAN) != 0; }

    // Length of the whole IO as stored, in bytes, and rounded up to blocks.
    u32 getIoTotalLengthBytes() const { return m_ioTotalLengthBytes; }
    u16 getIoTotalLengthLBs() const
    {
        return static_cast<u16>((u64{m_ioTotalLengthBytes} + BLOCK_BYTES - 1) >> BLOCK_SHIFT);
    }

    // Journal address of the whole IO's first block.
    u64 getOrigIoFifoOffsetLbs() const
    {
        return isCompressed() || isAllZeroes()
                   ? m_fifoOffsetOfIoStartBlocks
                   : m_fifoOffsetOfIoStartBlocks - m_regionOffsetLBsWithinIo;
    }

    // One line with all six fields.
    void toStream(std::ostream& out) const
    {
        out << "[view=" << m_viewOffsetBlocks << " length=" << m_lengthBlocks << " fifo=";
        if (m_fifoOffsetOfIoStartBlocks == SFS_DEV_ADDR_INVALID)
            out << "none";
        else
            out << m_fifoOffsetOfIoStartBlocks;
        out << " offsetInIo=" << m_regionOffsetLBsWithinIo << " ioBytes=" << m_ioTotalLengthBytes
            << " flags=" << static_cast<u32>(m_flags) << "]";
    }

    u64 m_viewOffsetBlocks;
    SfsDevAddr m_fifoOffsetOfIoStartBlocks;
    u32 m_ioTotalLengthBytes;
    u16 m_lengthBlocks;
    u16 m_regionOffsetLBsWithinIo;
    u8 m_flags;

private:
    static constexpr u8 FLAG_COMPRESSED = 1;
    static constexpr u8 FLAG_ALL_ZEROES = 2;
    static constexpr u8 FLAG_CSCAN = 4;
};
