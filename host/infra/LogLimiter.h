// Keeps the log readable where clients make the same thing happen over and over: of each kind of
// line the first few are told, then none until an interval is over; the next one that is told comes
// with the number of those that were not.
//
// Thread safety: any thread.
// Invariants: every line is either told or counted in a number that is.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "common/infra/Mutex.h"
#include "common/infra/Types.h"

class LogLimiter
{
public:
    LogLimiter(u64 intervalMs, u64 mostAtOnce) : m_intervalMs(intervalMs), m_mostAtOnce(mostAtOnce)
    {}
    LogLimiter(const LogLimiter&) = delete;
    LogLimiter& operator=(const LogLimiter&) = delete;

    // What to tell in place of a line: the line, with the number of those of its kind that were
    // left out before it; empty: it is left out. Kinds: few, as each is remembered.
    std::string admit(const std::string& kind, const std::string& line, u64 nowMs);

    // For the end: what tells of the lines that were left out and not told of yet.
    std::vector<std::string> takeRest();

private:
    struct Kind
    {
        u64 m_startMs = 0; // of the interval
        u64 m_told = 0;    // in it
        u64 m_leftOut = 0;
        std::string m_last; // of those left out
    };

    const u64 m_intervalMs;
    const u64 m_mostAtOnce;
    Mutex m_mutex;
    std::map<std::string, Kind> m_kinds RL_GUARDED_BY(m_mutex);
};
