// The bytes of the binary event log. Everything is little-endian, in blocks of 64 bytes.
//
// header: 0 magic "RLEVENTS" | 8 version u32 | 12 record bytes u32 | 16 wall time u64 | 24 zeroes |
//         60 crc32c of bytes 0 to 59
// record: 0 number u64 | 8 monotonic us u64 | 16 wall us u64 | 24 view offset u64 | 32 length u64 |
//         40 journal address u64 | 48 code u32 | 52 kind u8 | 53 zeroes | 60 crc32c of 0 to 59
#pragma once

#include <array>

#include "common/infra/Types.h"
#include "host/infra/BinaryEventLog.h"

namespace BinaryEventFormat {

constexpr u32 BLOCK = 64; // bytes of the header and of each record
constexpr u32 VERSION = 1;

using Bytes = std::array<u8, BLOCK>;

Bytes encodeHeader(u64 wallTimeUs);
Bytes encodeRecord(const BinaryEvent& event);

// RC_SUCCESS, RC_DAMAGED (magic or checksum), RC_BAD_ARGUMENT (another version).
RcStatus checkHeader(const Bytes& bytes);

// False when the checksum is wrong; *event is then untouched.
bool decodeRecord(const Bytes& bytes, BinaryEvent* event);

} // namespace BinaryEventFormat
