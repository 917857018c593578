// Keeps the log records that are written while it lives, instead of letting them out.
//
//   LogCapture log;
//   locator.insert(...);
//   EXPECT_TRUE(isSoftCheck(log.only(), "bool RegionLocator::insert(...)", "!m_immutable", ""));
//
// Not around a death test: the process that is to die would keep its last words to itself.
#pragma once

#include <gtest/gtest.h>
#include <mutex>
#include <string>
#include <vector>

#include "common/infra/LogItem.h"

struct LogRecord
{
    LogModule m_module;
    LogLevel m_level;
    std::string m_origin;
    int m_option;
    std::string m_text;
};

std::ostream& operator<<(std::ostream& out, const LogRecord& record);

// Thread safety: records come from any thread; one LogCapture at a time, nested ones excepted.
class LogCapture
{
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    // All records so far, in the order of their writing.
    std::vector<LogRecord> records() const;
    std::vector<std::string> texts() const;

    // Those at AssertLevel: failed soft checks.
    std::vector<LogRecord> softChecks() const;

    // Those whose text begins like that.
    std::vector<LogRecord> beginningWith(const std::string& prefix) const;

    // The one record there is. Reports a failure, and returns an empty one, when there is another
    // number of them.
    LogRecord only() const;

    void clear();

private:
    mutable std::mutex m_mutex;
    std::vector<LogRecord> m_records;
    LogItem::Sink m_before;
};

// Whether the record is a failed soft check, its text compared whole but for the line number:
// " FILE LINE: CONDITION failed. EXTRAS". The signature is compared where g++ spelt it.
testing::AssertionResult isSoftCheck(const LogRecord& record, const std::string& signature,
                                     const std::string& condition, const std::string& extras = "",
                                     const std::string& file = "../RegionLocator.cpp");

// Whether the record has this module, level, option and whole text. The signature is compared
// where g++ spelt it; an empty one is not compared.
testing::AssertionResult isRecord(const LogRecord& record, LogModule module, LogLevel level,
                                  int option, const std::string& signature,
                                  const std::string& text);

// What a death test matches for a hard check: the condition, taken literally, and its file.
std::string hardCheckPattern(const std::string& condition,
                             const std::string& file = "../RegionLocator.cpp");
