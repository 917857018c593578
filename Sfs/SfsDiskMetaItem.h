// One item of the journal's metadata, as it lies on disk: 32 bytes, little-endian.
#pragma once

#include <bit>
#include <ostream>

#include "common/infra/Types.h"

static_assert(std::endian::native == std::endian::little, "items are used as they lie on disk");

using CpId_t = u64;

enum class SfsMetaType : u32
{
    UNCOMPRESSED_IO = 0,
    CHECKPOINT = 1,
    MD_ONLY = 2,
    ZEROS = 3,
    COMPRESSED_IO = 4,
    CSCAN_CHECKSUM = 5,
    NUM_TYPES = 6,
};

inline std::ostream& operator<<(std::ostream& out, SfsMetaType type)
{
    switch (type) {
    case SfsMetaType::UNCOMPRESSED_IO: return out << "UNCOMPRESSED_IO";
    case SfsMetaType::CHECKPOINT: return out << "CHECKPOINT";
    case SfsMetaType::MD_ONLY: return out << "MD_ONLY";
    case SfsMetaType::ZEROS: return out << "ZEROS";
    case SfsMetaType::COMPRESSED_IO: return out << "COMPRESSED_IO";
    case SfsMetaType::CSCAN_CHECKSUM: return out << "CSCAN_CHECKSUM";
    case SfsMetaType::NUM_TYPES: break;
    }
    return out << "type " << static_cast<u32>(type);
}

class SfsDiskMetaItem
{
public:
    struct ioData
    {
        u64 dataAddr;     // journal address of the IO's data, in blocks
        u64 offsetBlocks; // the IO's offset on the protected volume, in blocks
    };
    struct cpData
    {
        u64 timestamp; // microseconds since 1970 in UTC
        CpId_t checkpoint;
    };

    static constexpr u64 lowerHalfMask = 0xFFFFFFFFULL;
    static constexpr u64 higherHalfMask = 0xFFFFFFFF00000000ULL;

    SfsDiskMetaItem() : m_ioData{0, 0} {}

    // Length of the IO in blocks, uncompressed.
    u32 getUncompressedLengthBlocks() const { return m_uncompressedLengthBlocks; }
    void setUncompressedLengthBlocks(u32 blocks) { m_uncompressedLengthBlocks = blocks; }

    // Bytes that a compressed IO takes as stored; the higher half.
    u32 getCompressedLengthBytes() const
    {
        return static_cast<u32>((m_userDataAndCompressedLengthBytes & higherHalfMask) >> 32);
    }
    void setCompressedLengthBytes(u32 bytes)
    {
        m_userDataAndCompressedLengthBytes =
            (m_userDataAndCompressedLengthBytes & lowerHalfMask) | (u64{bytes} << 32);
    }

    SfsMetaType getType() const { return m_type; }
    void setType(SfsMetaType type) { m_type = type; }

    // 32 bits that belong to the journal store (the checksum of the IO's bytes as stored); the
    // lower half.
    u32 getUserData() const
    {
        return static_cast<u32>(m_userDataAndCompressedLengthBytes & lowerHalfMask);
    }
    void setUserData(u32 value)
    {
        m_userDataAndCompressedLengthBytes =
            (m_userDataAndCompressedLengthBytes & higherHalfMask) | value;
    }

    // Whether the item covers blocks of the volume, and whether it has data in the journal.
    bool is_io_type() const
    {
        return is_io_type_with_ud() || m_type == SfsMetaType::ZEROS ||
               m_type == SfsMetaType::MD_ONLY;
    }
    bool is_io_type_with_ud() const
    {
        return m_type == SfsMetaType::UNCOMPRESSED_IO || m_type == SfsMetaType::COMPRESSED_IO;
    }

    union
    {
        ioData m_ioData;
        cpData m_cpData;
    };
    u32 m_uncompressedLengthBlocks = 0;
    SfsMetaType m_type = SfsMetaType::UNCOMPRESSED_IO;
    u64 m_userDataAndCompressedLengthBytes = 0;
};

static_assert(sizeof(SfsDiskMetaItem) == 32);

inline std::ostream& operator<<(std::ostream& out, const SfsDiskMetaItem& item)
{
    out << "[" << item.getType();
    if (item.getType() == SfsMetaType::CHECKPOINT)
        return out << " id=" << item.m_cpData.checkpoint << " timestamp=" << item.m_cpData.timestamp
                   << "]";
    return out << " offset=" << item.m_ioData.offsetBlocks
               << " length=" << item.getUncompressedLengthBlocks()
               << " address=" << item.m_ioData.dataAddr
               << " compressedBytes=" << item.getCompressedLengthBytes() << "]";
}
