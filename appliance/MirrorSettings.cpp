#include "appliance/MirrorSettings.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "appliance/Sizes.h"
#include "host/journal/CheckedFile.h"

namespace {

using Json = nlohmann::ordered_json;

constexpr u64 MAX_FILE_BYTES = 1 << 20;
constexpr size_t RESERVED_BYTES = 4096; // more than settings take, but for a very long path

std::string settingsText(const MirrorSettings& settings)
{
    Json json = {{"format_version", settings.m_formatVersion},
                 {"id", settings.m_id},
                 {"size_bytes", settings.m_sizeBytes},
                 {"target", settings.m_target},
                 {"compression", compressionName(settings.m_compression)},
                 {"journal_limit_bytes", settings.m_journalLimitBytes},
                 {"keep_checkpoints", settings.m_keepCheckpoints},
                 {"keep_for_seconds", settings.m_keepForSeconds}};
    return json.dump(2) + "\n";
}

// "" or why the text is no mirror's.
std::string parseSettings(const std::string& text, MirrorSettings* settings)
{
    const Json json = Json::parse(text, nullptr, false);
    if (!json.is_object())
        return "it is no JSON object";
    const auto number = [&](const char* name, u64* value) {
        const auto found = json.find(name);
        if (found == json.end() || !found->is_number_unsigned())
            return false;
        *value = found->get<u64>();
        return true;
    };
    const auto word = [&](const char* name, std::string* value) {
        const auto found = json.find(name);
        if (found == json.end() || !found->is_string())
            return false;
        *value = found->get<std::string>();
        return true;
    };
    u64 version = 0;
    if (!number("format_version", &version))
        return "it names no format version";
    if (version == 0 || version > MirrorSettings::FORMAT_VERSION)
        return "its format version is " + std::to_string(version) + ", this program knows 1 to " +
               std::to_string(MirrorSettings::FORMAT_VERSION);
    settings->m_formatVersion = static_cast<u32>(version);
    std::string compression;
    if (!number("id", &settings->m_id) || !number("size_bytes", &settings->m_sizeBytes) ||
        !word("target", &settings->m_target) || !word("compression", &compression) ||
        !number("journal_limit_bytes", &settings->m_journalLimitBytes))
        return "a field is missing or of the wrong type";
    // Mirrors that were made before there was retention do not have these.
    for (const auto& [name, value] : {std::pair{"keep_checkpoints", &settings->m_keepCheckpoints},
                                      std::pair{"keep_for_seconds", &settings->m_keepForSeconds}}) {
        if (json.contains(name) && !number(name, value))
            return std::string("the field ") + name + " is of the wrong type";
    }
    // There may be mirrors that were given more; either keeps everything.
    settings->m_keepForSeconds = std::min(settings->m_keepForSeconds, MOST_KEEP_FOR_SECONDS);
    if (settings->m_sizeBytes == 0 || settings->m_sizeBytes % BLOCK_BYTES != 0)
        return "its size is no number of blocks";
    if (!compressionFromName(compression, &settings->m_compression))
        return "its compression '" + compression + "' is unknown";
    return "";
}

} // namespace

Result checkJournalLimit(u64 limitBytes)
{
    if (limitBytes == 0 || limitBytes >= LEAST_JOURNAL_LIMIT_BYTES)
        return Result();
    return Result::usage("a journal limit of " + formatSize(limitBytes) +
                         " is too small: space is given back in grains of 16 MiB, so it has to be "
                         "at least 17M, or 0 for none");
}

Result checkKeepFor(u64 seconds)
{
    if (seconds <= MOST_KEEP_FOR_SECONDS)
        return Result();
    return Result::usage("checkpoints can be kept for at most " +
                         std::to_string(MOST_KEEP_FOR_SECONDS) + " s, not " +
                         std::to_string(seconds) + " s");
}

Result storeSettings(Storage& storage, const MirrorSettings& settings)
{
    const std::string text = settingsText(settings);
    const std::string name = MirrorSettings::FILE_NAME;
    return Result::fromStatus(replaceFile(storage, "", name, text.data(), text.size()),
                              "cannot write " + name);
}

Result reserveSettings(Storage& storage)
{
    return Result::fromStatus(
        reserveReplacement(storage, "", MirrorSettings::FILE_NAME, RESERVED_BYTES),
        std::string("cannot prepare ") + MirrorSettings::FILE_NAME);
}

Result loadSettings(Storage& storage, const std::string& folder, MirrorSettings* settings)
{
    const std::string path = folder + "/" + MirrorSettings::FILE_NAME;
    std::unique_ptr<StorageFile> file;
    RcStatus rc = storage.open(MirrorSettings::FILE_NAME, StorageAccess::ReadOnly, &file);
    if (rc == RC_NOT_FOUND)
        return Result(ResultCode::NotFound, folder + " is no mirror: it has no mirror.json");
    u64 size = 0;
    if (rc == RC_SUCCESS)
        rc = file->size(&size);
    if (rc == RC_SUCCESS && size > MAX_FILE_BYTES)
        return Result(ResultCode::Damaged, path + " is damaged: it is too large");
    std::string text(size, '\0');
    u64 done = 0;
    if (rc == RC_SUCCESS)
        rc = file->pread(text.data(), size, 0, &done);
    if (rc != RC_SUCCESS)
        return Result::fromStatus(rc, "cannot read " + path);
    text.resize(done);
    MirrorSettings loaded;
    const std::string fault = parseSettings(text, &loaded);
    if (!fault.empty())
        return Result(ResultCode::Damaged, path + " is damaged: " + fault);
    *settings = loaded;
    return Result();
}
