// One log record, written like a stream.
//
//   LogItem(LogModuleXel, InfoLevel, __PRETTY_FUNCTION__, 3) << "regions=" << n << std::endl;
//
// The record is complete at std::endl; that last line end is not part of its text. Line ends
// within the text stay. What has been written when the item is destroyed is emitted as well.
#pragma once

#include <functional>
#include <ostream>
#include <sstream>
#include <string>

#include "common/infra/Types.h"

enum LogModule : u32
{
    LogModuleInvalid = 0,
    LogModuleXel = 1, // the region locator
    LogModuleTav = 2,
    LogModuleCommon = 3, // the host, and checks that stop the process
};

enum LogLevel : u32
{
    AssertLevel = 0,
    FatalLevel = 1,
    ErrorLevel = 2,
    WarnLevel = 3,
    InfoLevel = 4,
    DebugLevel = 5,
    CtrLevel = 6,
    LongTermInfoLevel = 7,
};

class LogItem : public std::ostream
{
public:
    // Receives every record; called on the logging thread. It may log nothing itself.
    using Sink = std::function<void(LogModule module, LogLevel level, const std::string& origin,
                                    int option, const std::string& text)>;

    // origin: where the record comes from, usually the full signature of the function.
    // option: 3 for checks and ordinary records, 0 for verbose traces.
    LogItem(LogModule module, LogLevel level, const char* origin, int option);
    ~LogItem() override;
    LogItem(const LogItem&) = delete;
    LogItem& operator=(const LogItem&) = delete;

    // Replaces the process-wide sink and returns the one before; an empty sink restores the host's
    // default. Any thread; a record being written at that moment may still reach the old sink.
    static Sink setSink(Sink sink);

private:
    // Collects the text; a flush that follows a line end completes the record.
    class Buffer : public std::stringbuf
    {
    public:
        explicit Buffer(LogItem& item) : std::stringbuf(std::ios_base::out), m_item(item) {}
        int sync() override;

    private:
        LogItem& m_item;
    };

    // Hands the text to the sink. Implemented by the host.
    void emit(const std::string& text);

    LogModule m_module;
    LogLevel m_level;
    const char* m_origin;
    int m_option;
    Buffer m_buffer;
};
