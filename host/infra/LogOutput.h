// Where log records go, and in which form.
//
// Without any call the host writes text to standard error. installLogOutput() replaces that.
#pragma once

#include <string>

#include "common/infra/LogItem.h"
#include "host/infra/Outcome.h"

enum class LogFormat
{
    Text, // for people: 2026-01-31T12:00:00.123Z info common: text
    Json, // one object a line: time, level, module, event, msg
};

struct LogOutputOptions
{
    LogFormat m_format = LogFormat::Text;
    std::string m_file;           // empty: standard error
    LogLevel m_level = InfoLevel; // the most talkative level that is written
};

// Makes the output the process's log sink; records are written when the call that logs returns.
// RC_IO_ERROR when the file cannot be opened; the sink before stays. Any thread.
Outcome installLogOutput(const LogOutputOptions& options);

// Closes the file, and lets the host's default write again.
void removeLogOutput();

// The level of that name (error, warn, info, debug; what --log-level takes); false for none.
bool parseLogLevel(const std::string& name, LogLevel* level);

// Whether a level passes a filter. Control and long-term records rank with information: their
// numbers say what kind of information they are, not how much detail.
bool logLevelPasses(LogLevel level, LogLevel filter);
