// Numbers that look random and are the same everywhere: the standard library's generators are
// fixed, but how its distributions use them is not.
#pragma once

#include "common/infra/Types.h"

// The splitmix64 sequence of a seed. Thread safety: one thread at a time.
class Random
{
public:
    explicit Random(u64 seed) : m_state(seed) {}

    u64 next()
    {
        m_state += 0x9E3779B97F4A7C15ULL;
        u64 z = m_state;
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
        return z ^ (z >> 31);
    }

    // Below `limit`, which is above 0.
    u64 below(u64 limit) { return next() % limit; }

    bool percent(u32 chance) { return below(100) < chance; }

    // In [0, 1).
    double fraction() { return static_cast<double>(next() >> 11) * 0x1p-53; }

private:
    u64 m_state;
};
