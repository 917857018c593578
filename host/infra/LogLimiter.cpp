#include "host/infra/LogLimiter.h"

std::string LogLimiter::admit(const std::string& kind, const std::string& line, u64 nowMs)
{
    MutexGuard guard(m_mutex);
    const auto [found, isNew] = m_kinds.try_emplace(kind);
    Kind& known = found->second;
    if (isNew || nowMs - known.m_startMs >= m_intervalMs) {
        known.m_startMs = nowMs;
        known.m_told = 0;
    }
    if (known.m_told >= m_mostAtOnce) {
        ++known.m_leftOut;
        known.m_last = line;
        return "";
    }
    ++known.m_told;
    if (known.m_leftOut == 0)
        return line;
    std::string told =
        line + " (" + std::to_string(known.m_leftOut) + " more like it before this one)";
    known.m_leftOut = 0;
    return told;
}

std::vector<std::string> LogLimiter::takeRest()
{
    MutexGuard guard(m_mutex);
    std::vector<std::string> lines;
    for (auto& [kind, known] : m_kinds) {
        if (known.m_leftOut == 1)
            lines.push_back(known.m_last);
        else if (known.m_leftOut > 1)
            lines.push_back(known.m_last + " (and " + std::to_string(known.m_leftOut - 1) +
                            " more like it before this one)");
        known.m_leftOut = 0;
    }
    return lines;
}
