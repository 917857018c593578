#include "host/journal/JournalTags.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>

#include "host/journal/Crc32c.h"
#include "host/journal/JournalFormat.h"

namespace {

constexpr size_t CRC_DIGITS = 8;
constexpr size_t MAX_TAG_BYTES = 255;

std::string tagsFile(const std::string& folder)
{
    return folder + "/tags";
}

std::string crcText(const std::string& text)
{
    char digits[CRC_DIGITS + 1];
    std::snprintf(digits, sizeof(digits), "%08x", crc32c(text.data(), text.size()));
    return digits;
}

// Takes "crc id tag" apart; false for a line that was never written like that.
bool parseLine(const std::string& line, CpId_t* id, std::string* tag)
{
    if (line.size() < CRC_DIGITS + 2 || line[CRC_DIGITS] != ' ')
        return false;
    const std::string rest = line.substr(CRC_DIGITS + 1);
    const size_t blank = rest.find(' ');
    if (blank == std::string::npos || line.compare(0, CRC_DIGITS, crcText(rest)) != 0)
        return false;
    *id = std::strtoull(rest.c_str(), nullptr, 10);
    *tag = rest.substr(blank + 1);
    return true;
}

// As whoever writes it into JSON judges.
bool isUtf8(const std::string& text)
{
    try {
        return !nlohmann::json(text).dump().empty();
    } catch (const nlohmann::json::type_error&) {
        return false;
    }
}

} // namespace

bool JournalTags::isValid(const std::string& tag)
{
    return tag.size() <= MAX_TAG_BYTES &&
           std::all_of(
               tag.begin(), tag.end(),
               [](char c) { return static_cast<unsigned char>(c) >= ' ' && c != '\x7f'; }) &&
           isUtf8(tag);
}

RcStatus JournalTags::load(Storage& storage, const std::string& folder)
{
    m_tags.clear();
    m_endBytes = 0;
    std::unique_ptr<StorageFile> file;
    RcStatus rc = storage.open(tagsFile(folder), StorageAccess::ReadOnly, &file);
    if (rc == RC_NOT_FOUND)
        return RC_SUCCESS;
    u64 bytes = 0;
    if (rc == RC_SUCCESS)
        rc = file->size(&bytes);
    if (rc != RC_SUCCESS)
        return rc;
    std::string text(bytes, '\0');
    u64 done = 0;
    rc = file->pread(text.data(), bytes, 0, &done);
    if (rc != RC_SUCCESS)
        return rc;
    text.resize(done);
    size_t begin = 0;
    for (size_t end = text.find('\n'); end != std::string::npos; end = text.find('\n', begin)) {
        CpId_t id = 0;
        std::string tag;
        if (parseLine(text.substr(begin, end - begin), &id, &tag))
            m_tags.emplace(id, std::move(tag));
        begin = end + 1;
    }
    m_endBytes = begin;
    return RC_SUCCESS;
}

RcStatus JournalTags::openForWriting(Storage& storage, const std::string& folder)
{
    RcStatus rc = storage.open(tagsFile(folder), StorageAccess::Create, &m_file);
    if (rc == RC_SUCCESS)
        rc = m_file->truncate(m_endBytes);
    if (rc == RC_SUCCESS)
        rc = m_file->sync();
    return rc;
}

RcStatus JournalTags::add(CpId_t id, const std::string& tag)
{
    const std::string rest = std::to_string(id) + " " + tag;
    const std::string line = crcText(rest) + " " + rest + "\n";
    RcStatus rc = m_file->pwrite(line.data(), line.size(), m_endBytes);
    if (rc == RC_SUCCESS)
        rc = m_file->sync();
    if (rc != RC_SUCCESS)
        return rc;
    m_endBytes += line.size();
    m_tags.emplace(id, tag);
    return RC_SUCCESS;
}

const std::string* JournalTags::find(CpId_t id, u32 mark) const
{
    const auto [first, last] = m_tags.equal_range(id);
    for (auto it = first; it != last; ++it)
        if (tagMark(it->second) == mark)
            return &it->second;
    return nullptr;
}
