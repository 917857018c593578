// Reporting: log records to standard error, and parcels that are never sent.
#include <chrono>
#include <cstdio>
#include <mutex>
#include <utility>

#include "common/Analytics/AnalyticsParcel.h"
#include "common/infra/LogItem.h"

namespace {

std::mutex g_sinkMutex;
LogItem::Sink g_sink;

} // namespace

LogItem::LogItem(LogModule module, LogLevel level, const char* origin, int option)
    : std::ostream(nullptr), m_module(module), m_level(level), m_origin(origin), m_option(option),
      m_buffer(*this)
{
    // Only now: the base is constructed before the buffer is.
    rdbuf(&m_buffer);
}

LogItem::~LogItem()
{
    const std::string rest = m_buffer.str();
    if (!rest.empty())
        emit(rest);
}

int LogItem::Buffer::sync()
{
    std::string text = str();
    if (text.empty() || text.back() != '\n')
        return 0;
    text.pop_back();
    str("");
    m_item.emit(text);
    return 0;
}

void LogItem::emit(const std::string& text)
{
    std::lock_guard<std::mutex> lock(g_sinkMutex);
    if (g_sink)
        g_sink(m_module, m_level, m_origin, m_option, text);
    else if (m_level <= WarnLevel)
        std::fprintf(stderr, "%u %s\n", static_cast<unsigned>(m_level), text.c_str());
}

LogItem::Sink LogItem::setSink(Sink sink)
{
    std::lock_guard<std::mutex> lock(g_sinkMutex);
    std::swap(g_sink, sink);
    return sink;
}

AnalyticsParcel::AnalyticsParcel()
{
    using namespace std::chrono;
    m_xelTime = static_cast<u64>(
        duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count());
}
