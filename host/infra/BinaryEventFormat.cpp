#include "host/infra/BinaryEventFormat.h"

#include <cstring>
#include <isa-l/crc.h>

namespace BinaryEventFormat {
namespace {

constexpr char MAGIC[9] = "RLEVENTS";
constexpr u32 CHECKSUM_AT = BLOCK - 4;

template <class T> void put(Bytes& bytes, u32 at, T value)
{
    for (u32 i = 0; i < sizeof(T); ++i)
        bytes[at + i] = static_cast<u8>(u64{value} >> (8 * i));
}

template <class T> T get(const Bytes& bytes, u32 at)
{
    u64 value = 0;
    for (u32 i = 0; i < sizeof(T); ++i)
        value |= u64{bytes[at + i]} << (8 * i);
    return static_cast<T>(value);
}

u32 checksumOf(const Bytes& bytes)
{
    Bytes copy = bytes; // the library takes no constant pointer
    return crc32_iscsi(copy.data(), CHECKSUM_AT, ~0u) ^ ~0u;
}

} // namespace

Bytes encodeHeader(u64 wallTimeUs)
{
    Bytes bytes{};
    std::memcpy(bytes.data(), MAGIC, 8);
    put<u32>(bytes, 8, VERSION);
    put<u32>(bytes, 12, BLOCK);
    put<u64>(bytes, 16, wallTimeUs);
    put<u32>(bytes, CHECKSUM_AT, checksumOf(bytes));
    return bytes;
}

Bytes encodeRecord(const BinaryEvent& event)
{
    Bytes bytes{};
    put<u64>(bytes, 0, event.m_number);
    put<u64>(bytes, 8, event.m_monotonicUs);
    put<u64>(bytes, 16, event.m_wallTimeUs);
    put<u64>(bytes, 24, event.m_viewOffsetBlocks);
    put<u64>(bytes, 32, event.m_lengthBlocks);
    put<u64>(bytes, 40, event.m_journalAddressBlocks);
    put<u32>(bytes, 48, event.m_code);
    put<u8>(bytes, 52, event.m_kind);
    put<u32>(bytes, CHECKSUM_AT, checksumOf(bytes));
    return bytes;
}

RcStatus checkHeader(const Bytes& bytes)
{
    if (std::memcmp(bytes.data(), MAGIC, 8) != 0 ||
        get<u32>(bytes, CHECKSUM_AT) != checksumOf(bytes))
        return RC_DAMAGED;
    return get<u32>(bytes, 8) == VERSION ? RC_SUCCESS : RC_BAD_ARGUMENT;
}

bool decodeRecord(const Bytes& bytes, BinaryEvent* event)
{
    if (get<u32>(bytes, CHECKSUM_AT) != checksumOf(bytes))
        return false;
    event->m_number = get<u64>(bytes, 0);
    event->m_monotonicUs = get<u64>(bytes, 8);
    event->m_wallTimeUs = get<u64>(bytes, 16);
    event->m_viewOffsetBlocks = get<u64>(bytes, 24);
    event->m_lengthBlocks = get<u64>(bytes, 32);
    event->m_journalAddressBlocks = get<u64>(bytes, 40);
    event->m_code = get<u32>(bytes, 48);
    event->m_kind = get<u8>(bytes, 52);
    return true;
}

} // namespace BinaryEventFormat
