// rlctl backup, rlctl restore

#include "appliance/Backup.h"

#include <fmt/format.h>

#include "appliance/Restore.h"
#include "appliance/Sizes.h"
#include "cli/Commands.h"
#include "cli/Points.h"

namespace {

struct BackupArguments
{
    std::string m_mirror;
    std::string m_at = "latest";
    std::string m_since;
    std::string m_file;
    bool m_compare = false;
};

// The increment manager of a mirror, held by one backup at a time.
class Increments
{
public:
    // Why there is none, or nothing.
    std::string open(Mirror& mirror)
    {
        RcStatus rc = mirror.storage().open("increments/lock", StorageAccess::Create, &m_lock);
        if (rc == RC_SUCCESS)
            rc = m_lock->lock();
        if (rc == RC_IN_USE)
            return "another backup of the mirror is running";
        if (rc != RC_SUCCESS)
            return rcStatusText(rc);
        IncrementOptions options;
        options.m_mirrorId = mirror.settings().m_id;
        options.m_volumeBlocks = mirror.settings().sizeBlocks();
        IncrementManager::Opened opened = IncrementManager::open(mirror.storage(), options);
        m_manager = std::move(opened.m_manager);
        return opened.m_rc == RC_SUCCESS ? "" : opened.m_message;
    }

    IncrementManager* manager() { return m_manager.get(); }

private:
    std::unique_ptr<StorageFile> m_lock; // outlives the manager
    std::unique_ptr<IncrementManager> m_manager;
};

void print(Context& context, const BackupArguments& arguments, const BackupOptions& options,
           const BackupStatistics& s)
{
    if (context.json()) {
        context.result(
            Json{{"kind", options.m_since ? "incremental" : "full"},
                 {"at", options.m_at.name()},
                 {"since", options.m_since ? Json(options.m_since->name()) : Json(nullptr)},
                 {"from", s.m_from},
                 {"to", s.m_to},
                 {"file", arguments.m_file},
                 {"data_bytes", s.m_dataBytes},
                 {"zero_bytes", s.m_zeroBytes},
                 {"file_bytes", s.m_fileBytes},
                 {"items", s.m_itemsIndexed},
                 {"candidate_kept", s.m_candidateKept},
                 {"candidate_problem", s.m_candidateText},
                 {"seconds", s.m_seconds}});
        return;
    }
    context.say(fmt::format("{} backup to {}: {} of data and {} of zeroes, {} in the file, in "
                            "{:.2f} s",
                            options.m_since ? "incremental" : "full", options.m_at.name(),
                            formatSize(s.m_dataBytes), formatSize(s.m_zeroBytes),
                            formatSize(s.m_fileBytes), s.m_seconds));
    if (!s.m_candidateText.empty())
        context.say("later changes were not gathered: " + s.m_candidateText);
}

Result runBackup(Context& context, const BackupArguments& arguments)
{
    if (arguments.m_file == "-" && context.json())
        return Result::usage("--json and a backup on standard output exclude each other");
    std::unique_ptr<Mirror> mirror;
    if (Result result = context.openMirror(arguments.m_mirror, MirrorAccess::Reader, &mirror);
        !result.ok())
        return result;
    BackupOptions options;
    options.m_compare = arguments.m_compare;
    if (Result result = pickPoint(context, *mirror, arguments.m_at, "at", &options.m_at);
        !result.ok())
        return result;
    if (!arguments.m_since.empty()) {
        options.m_since.emplace();
        if (Result result =
                pickPoint(context, *mirror, arguments.m_since, "since", &*options.m_since);
            !result.ok())
            return result;
    }
    Increments increments;
    const std::string problem = options.m_at.m_isCheckpoint ? increments.open(*mirror) : "";
    options.m_increments = increments.manager();
    BackupStatistics statistics;
    const auto reporter = context.progress("backing up");
    if (Result result = backupMirror(*mirror, context.engine(), arguments.m_file, options,
                                     *reporter, &statistics);
        !result.ok())
        return result;
    reporter->finish();
    if (statistics.m_candidateText.empty())
        statistics.m_candidateText = problem;
    print(context, arguments, options, statistics);
    return Result();
}

Result runRestore(Context& context, const std::vector<std::string>& names,
                  const RestoreOptions& options)
{
    if (names.size() < 2)
        return Result::usage("restore needs a full backup, its increments, and an image's name");
    const std::vector<std::string> files(names.begin(), names.end() - 1);
    RestoreStatistics statistics;
    const auto reporter = context.progress("restoring");
    if (Result result = restoreImage(files, names.back(), *reporter, &statistics, options);
        !result.ok())
        return result;
    reporter->finish();
    if (context.json())
        context.result(Json{{"point", statistics.m_point},
                            {"image", names.back()},
                            {"files", files.size()},
                            {"size_bytes", statistics.m_sizeBytes},
                            {"data_bytes", statistics.m_dataBytes},
                            {"seconds", statistics.m_seconds}});
    else
        context.say(fmt::format("restored {}: {} of {} written, in {:.2f} s", statistics.m_point,
                                formatSize(statistics.m_dataBytes),
                                formatSize(statistics.m_sizeBytes), statistics.m_seconds));
    return Result();
}

} // namespace

void addBackup(CLI::App& app, Context& context)
{
    CLI::App* command =
        addCommand(app, context, "backup", "Write a full or an incremental backup",
                   "rlctl backup backup.mirror --at cp:3 full.rbd.zst",
                   "rlctl backup backup.mirror --at cp:4 --since cp:3 monday.rbd.zst");
    auto arguments = std::make_shared<BackupArguments>();
    command->add_option("MIRROR", arguments->m_mirror, "The mirror")->required();
    command->add_option("FILE", arguments->m_file, "The backup: a file, or -")->required();
    command->add_option("--at", arguments->m_at, "The point in time (default: latest)");
    command->add_option("--since", arguments->m_since,
                        "Only what changed since this point (default: everything)");
    command->add_flag("--compare", arguments->m_compare,
                      "Read both points, and leave out what came out equal");
    command->callback([&context, arguments] {
        context.setAction([&, arguments] { return runBackup(context, *arguments); });
    });
}

void addRestore(CLI::App& app, Context& context)
{
    CLI::App* command = addCommand(app, context, "restore", "Make an image out of backups",
                                   "rlctl restore full.rbd.zst disk.img",
                                   "rlctl restore full.rbd.zst monday.rbd.zst disk.img --json");
    auto names = std::make_shared<std::vector<std::string>>();
    command
        ->add_option("FILES", *names,
                     "A full backup, its increments in their order, and the image to write")
        ->required();
    auto options = std::make_shared<RestoreOptions>();
    command->add_flag("--force", options->m_force,
                      "Replace a file that is no image of the volume, too");
    command->add_flag_callback(
        "--no-sync", [options] { options->m_durability = Durability::Unsynced; },
        "Do not wait for the disk: a machine that crashes soon after can lose the image");
    command->callback([&context, names, options] {
        context.setAction([&, names, options] { return runRestore(context, *names, *options); });
    });
}
