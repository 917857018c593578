#include "common/infra/LogItem.h"

#include <memory>
#include <mutex>
#include <unistd.h>
#include <utility>

#include "host/infra/LogFormat.h"
#include "host/infra/LogOutput.h"

namespace {

// Never destroyed, for code that logs while the process ends. The sink is held by a shared pointer
// so that it is called without the mutex and yet outlives its replacement.
struct SinkHolder
{
    std::mutex m_mutex;
    std::shared_ptr<const LogItem::Sink> m_sink;
};

SinkHolder& sinkHolder()
{
    static SinkHolder* holder = new SinkHolder;
    return *holder;
}

void writeToStandardError(LogModule module, LogLevel level, const std::string& text)
{
    if (!logLevelPasses(level, InfoLevel))
        return;
    // One call for the whole line, so that lines of several threads do not mix.
    const std::string line = formatLogText(module, level, text) + "\n";
    size_t written = 0;
    while (written < line.size()) {
        const ssize_t count = ::write(STDERR_FILENO, line.data() + written, line.size() - written);
        if (count <= 0)
            return; // there is nowhere left to say so
        written += static_cast<size_t>(count);
    }
}

} // namespace

LogItem::LogItem(LogModule module, LogLevel level, const char* origin, int option)
    : std::ostream(nullptr), m_module(module), m_level(level), m_origin(origin), m_option(option),
      m_buffer(*this)
{
    // The stream is constructed before its buffer, so the buffer is handed over afterwards.
    rdbuf(&m_buffer);
}

LogItem::~LogItem()
{
    try {
        const std::string rest = m_buffer.str();
        if (!rest.empty())
            emit(rest);
    } catch (...) {
        // A record that cannot be written is lost; the process goes on.
    }
    rdbuf(nullptr);
}

LogItem::Sink LogItem::setSink(Sink sink)
{
    std::shared_ptr<const Sink> next;
    if (sink)
        next = std::make_shared<const Sink>(std::move(sink));
    SinkHolder& holder = sinkHolder();
    {
        std::lock_guard<std::mutex> lock(holder.m_mutex);
        std::swap(holder.m_sink, next);
    }
    return next ? *next : Sink();
}

int LogItem::Buffer::sync()
{
    std::string text = str();
    if (text.empty() || text.back() != '\n')
        return 0;
    text.pop_back();
    str(std::string());
    m_item.emit(text);
    return 0;
}

void LogItem::emit(const std::string& text)
{
    std::shared_ptr<const Sink> sink;
    {
        SinkHolder& holder = sinkHolder();
        std::lock_guard<std::mutex> lock(holder.m_mutex);
        sink = holder.m_sink;
    }
    if (sink)
        (*sink)(m_module, m_level, m_origin, m_option, text);
    else
        writeToStandardError(m_module, m_level, text);
}
