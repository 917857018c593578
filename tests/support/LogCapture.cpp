#include "tests/support/LogCapture.h"

#include <cctype>
#include <utility>

namespace {

testing::AssertionResult hasSignature(const LogRecord& record, const std::string& signature)
{
#if !defined(__clang__)
    if (!signature.empty() && record.m_origin != signature)
        return testing::AssertionFailure()
               << "another signature, not \"" << signature << "\": " << record;
#else
    static_cast<void>(record);
    static_cast<void>(signature);
#endif
    return testing::AssertionSuccess();
}

} // namespace

std::ostream& operator<<(std::ostream& out, const LogRecord& record)
{
    return out << "module " << record.m_module << " level " << record.m_level << " option "
               << record.m_option << " from \"" << record.m_origin << "\": \"" << record.m_text
               << "\"";
}

LogCapture::LogCapture()
{
    m_before = LogItem::setSink([this](LogModule module, LogLevel level, const std::string& origin,
                                       int option, const std::string& text) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_records.push_back({module, level, origin, option, text});
    });
}

LogCapture::~LogCapture()
{
    LogItem::setSink(std::move(m_before));
}

std::vector<LogRecord> LogCapture::records() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_records;
}

std::vector<std::string> LogCapture::texts() const
{
    std::vector<std::string> texts;
    for (const LogRecord& record : records())
        texts.push_back(record.m_text);
    return texts;
}

std::vector<LogRecord> LogCapture::softChecks() const
{
    std::vector<LogRecord> found;
    for (const LogRecord& record : records())
        if (record.m_level == AssertLevel)
            found.push_back(record);
    return found;
}

std::vector<LogRecord> LogCapture::beginningWith(const std::string& prefix) const
{
    std::vector<LogRecord> found;
    for (const LogRecord& record : records())
        if (record.m_text.compare(0, prefix.size(), prefix) == 0)
            found.push_back(record);
    return found;
}

LogRecord LogCapture::only() const
{
    const std::vector<LogRecord> all = records();
    if (all.size() == 1)
        return all.front();
    ADD_FAILURE() << "one record was expected, there are " << all.size() << ": "
                  << testing::PrintToString(all);
    return {LogModuleInvalid, AssertLevel, "", -1, ""};
}

void LogCapture::clear()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_records.clear();
}

testing::AssertionResult isSoftCheck(const LogRecord& record, const std::string& signature,
                                     const std::string& condition, const std::string& extras,
                                     const std::string& file)
{
    if (record.m_module != LogModuleXel || record.m_level != AssertLevel || record.m_option != 3)
        return testing::AssertionFailure() << "not as soft checks are written: " << record;
    const std::string head = " " + file + " ";
    const std::string tail = ": " + condition + " failed. " + extras;
    const std::string& text = record.m_text;
    if (text.size() <= head.size() + tail.size() || text.compare(0, head.size(), head) != 0 ||
        text.compare(text.size() - tail.size(), tail.size(), tail) != 0)
        return testing::AssertionFailure()
               << "another text, not \"" << head << "LINE" << tail << "\": " << record;
    for (size_t i = head.size(); i < text.size() - tail.size(); ++i)
        if (std::isdigit(static_cast<unsigned char>(text[i])) == 0)
            return testing::AssertionFailure() << "no line number after the file: " << record;
    return hasSignature(record, signature);
}

testing::AssertionResult isRecord(const LogRecord& record, LogModule module, LogLevel level,
                                  int option, const std::string& signature, const std::string& text)
{
    if (record.m_module != module || record.m_level != level || record.m_option != option)
        return testing::AssertionFailure() << "another module, level or option: " << record;
    if (record.m_text != text)
        return testing::AssertionFailure() << "another text, not \"" << text << "\": " << record;
    return hasSignature(record, signature);
}

std::string hardCheckPattern(const std::string& condition, const std::string& file)
{
    // Death tests match POSIX extended expressions.
    const auto literal = [](const std::string& text) {
        std::string escaped;
        for (const char c : text) {
            if (std::string("\\^$.[]|()*+?{}").find(c) != std::string::npos)
                escaped += '\\';
            escaped += c;
        }
        return escaped;
    };
    return literal("Assertion (" + condition + ") failed " + file + " ") + "[0-9]+";
}
