// Log records as lines: the two forms that an output can have.
#pragma once

#include <string>

#include "common/infra/LogItem.h"

// The words for a level and a module ("info", "xel"); never null.
const char* logLevelText(LogLevel level);
const char* logModuleText(LogModule module);

// One line without its line end, with the time of the process-wide clock.
std::string formatLogText(LogModule module, LogLevel level, const std::string& text);

// The same as a JSON object. `event` is the name of the function that logged, taken from the
// origin, so that records of one place can be selected. Bytes that are no UTF-8 are replaced.
std::string formatLogJson(LogModule module, LogLevel level, const std::string& origin,
                          const std::string& text);

// "Reader::read" of "RcStatus Reader::read(AsyncTask*, AsyncFrame*)".
std::string functionNameOf(const std::string& origin);

// 2026-01-31T12:00:00.123Z
std::string formatWallTime(u64 wallTimeUs);
