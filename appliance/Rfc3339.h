// Points of time as RFC 3339 text; in the program they are microseconds since 1970 in UTC.
//
// Thread safety: pure functions.
#pragma once

#include <string>

#include "common/infra/Types.h"

// Reads "2026-03-01T12:00:00Z", with fractions of a second ("12:00:00.25Z"; digits beyond the
// sixth are dropped) and offsets ("+01:00"). Returns false for anything else, and for times before
// 1970; *timeMicros is then unchanged.
bool parseRfc3339(const std::string& text, u64* timeMicros);

// "2026-03-01T12:00:00.000000Z".
std::string formatRfc3339(u64 timeMicros);
