// Writes metrics to a file every some seconds: under another name first, then renamed, so that
// whoever reads it sees one whole text or the next.
//
// Thread safety: start() and stop() from the owner's thread; `text` is called from another one.
#pragma once

#include <functional>
#include <string>
#include <thread>

#include "appliance/Result.h"
#include "appliance/StopSignal.h"

class MetricsFile
{
public:
    MetricsFile(std::string path, u64 everyMs, std::function<std::string()> text)
        : m_path(std::move(path)), m_everyMs(everyMs), m_text(std::move(text))
    {}
    ~MetricsFile() { stop(); }
    MetricsFile(const MetricsFile&) = delete;
    MetricsFile& operator=(const MetricsFile&) = delete;

    // Writes the first one. A failure of that is told, and nothing is started; later ones are
    // logged once and tried again.
    Result start();
    // Writes the last one.
    void stop();

private:
    Result write();

    const std::string m_path;
    const u64 m_everyMs;
    const std::function<std::string()> m_text;
    StopSignal m_stop;
    std::thread m_thread;
};
