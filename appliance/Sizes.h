// Sizes as people write and read them.
//
// Thread safety: pure functions.
#pragma once

#include <string>

#include "appliance/Result.h"
#include "common/infra/Types.h"

// Reads a number of bytes: "512", "64K", "64KiB", "1M", "2s". K is 1024, M is 1024 K, and so on up
// to E; letters in either case; "s" counts sectors of 512 bytes. Wrong usage for anything else, and
// for what does not fit 64 bits; *bytes is then unchanged.
Result parseSize(const std::string& text, u64* bytes);

// parseSize() for what has to be a whole number of blocks; `what` names it in the message.
Result parseBlockSize(const std::string& text, const std::string& what, u64* bytes);

// "0 B", "512 B", "1.5 GiB": binary units, at most one decimal.
std::string formatSize(u64 bytes);
