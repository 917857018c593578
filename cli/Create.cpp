// rlctl create

#include <filesystem>

#include "appliance/Retention.h"
#include "appliance/Sizes.h"
#include "cli/Commands.h"

namespace {

struct CreateArguments
{
    std::string m_mirror;
    std::string m_size;
    std::string m_target;
    std::string m_compression = "none";
    std::string m_journalLimit;
    u64 m_keepCheckpoints = 0;
    std::string m_keepFor;
};

Result run(Context& context, const CreateArguments& arguments)
{
    MirrorSettings settings;
    if (Result result = parseBlockSize(arguments.m_size, "--size", &settings.m_sizeBytes);
        !result.ok())
        return result;
    if (settings.m_sizeBytes == 0)
        return Result::usage("--size has to be above 0");
    if (settings.m_sizeBytes > u64{1} << 49)
        return Result::usage("--size has to be at most 512T");
    if (!arguments.m_journalLimit.empty()) {
        if (Result result = parseSize(arguments.m_journalLimit, &settings.m_journalLimitBytes);
            !result.ok())
            return result;
    }
    settings.m_keepCheckpoints = arguments.m_keepCheckpoints;
    if (!arguments.m_keepFor.empty()) {
        if (Result result = parseDuration(arguments.m_keepFor, &settings.m_keepForSeconds);
            !result.ok())
            return result;
    }
    compressionFromName(arguments.m_compression, &settings.m_compression);
    settings.m_target = arguments.m_target;
    if (Result result = Mirror::create(arguments.m_mirror, settings); !result.ok())
        return result;
    if (context.json())
        context.result(Json{{"mirror", arguments.m_mirror},
                            {"size_bytes", settings.m_sizeBytes},
                            {"target", settings.m_target},
                            {"compression", arguments.m_compression},
                            {"journal_limit_bytes", settings.m_journalLimitBytes}});
    else
        context.say("made " + arguments.m_mirror + ", a mirror of " +
                    formatSize(settings.m_sizeBytes));
    return Result();
}

} // namespace

void addCreate(CLI::App& app, Context& context)
{
    CLI::App* command =
        addCommand(app, context, "create", "Make a mirror", "rlctl create backup.mirror --size 40G",
                   "rlctl create db.mirror --size 1T --compress zstd "
                   "--journal-limit 200G");
    auto arguments = std::make_shared<CreateArguments>();
    command->add_option("MIRROR", arguments->m_mirror, "The folder to make")->required();
    command->add_option("--size", arguments->m_size, "The volume's size")
        ->required()
        ->envname("RL_SIZE");
    command
        ->add_option("--target", arguments->m_target,
                     "A file or block device as the target volume, instead of one of its own")
        ->envname("RL_TARGET");
    command->add_option("--compress", arguments->m_compression, "none, lz4 or zstd")
        ->check(CLI::IsMember({"none", "lz4", "zstd"}))
        ->envname("RL_COMPRESS");
    command->add_option("--journal-limit", arguments->m_journalLimit, "Most the journal may take")
        ->envname("RL_JOURNAL_LIMIT");
    command
        ->add_option("--keep-checkpoints", arguments->m_keepCheckpoints,
                     "Retention keeps so many of the newest checkpoints")
        ->envname("RL_KEEP_CHECKPOINTS");
    command
        ->add_option("--keep-for", arguments->m_keepFor,
                     "And those younger than this: 45s, 30m, 12h, 7d, 2w")
        ->envname("RL_KEEP_FOR");
    command->callback([&context, arguments] {
        context.setAction([&, arguments] { return run(context, *arguments); });
    });
}
