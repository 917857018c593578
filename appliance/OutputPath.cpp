#include "appliance/OutputPath.h"

#include <filesystem>

#include "appliance/MirrorSettings.h"

namespace fs = std::filesystem;

namespace {

bool isMirror(const fs::path& folder)
{
    std::error_code ignored;
    return fs::exists(folder / MirrorSettings::FILE_NAME, ignored) &&
           fs::is_directory(folder / "journal", ignored);
}

} // namespace

Result checkOutputPath(const std::string& path, const std::string& target)
{
    if (path == "-")
        return Result();
    std::error_code error;
    if (!target.empty() && fs::equivalent(path, target, error) && !error)
        return Result::usage(path + " is the target volume of the mirror");
    // A link that is the last part is replaced, those before it lead somewhere.
    fs::path folder = fs::weakly_canonical(fs::absolute(path, error).parent_path(), error);
    if (error)
        return Result();
    for (; folder.has_relative_path(); folder = folder.parent_path()) {
        if (isMirror(folder))
            return Result::usage(path + " would lie in the mirror " + folder.string() +
                                 ", whose files are its own");
    }
    return Result();
}

Result checkReplaceableImage(const std::string& path, u64 sizeBytes)
{
    std::error_code error;
    if (!fs::is_regular_file(path, error))
        return Result();
    const u64 size = fs::file_size(path, error);
    if (error || size == 0 || size == sizeBytes)
        return Result();
    return Result::failed(path + " is there and is no image of this volume: it has " +
                          std::to_string(size) + " bytes, the volume has " +
                          std::to_string(sizeBytes) + "; --force replaces it");
}
