// rlctl trim

#include <fmt/format.h>

#include "appliance/Sizes.h"
#include "cli/Commands.h"
#include "cli/PointCommand.h"

namespace {

std::string lossOf(const Json& point)
{
    return "The journal before " + point["to"].get<std::string>() + " will be removed.";
}

constexpr PointCommand COMMAND = {"trim", "trimming", lossOf};

Result runTrim(Context& context, const PointArguments& arguments)
{
    Json done;
    if (Result result = runToPoint(context, arguments, COMMAND, &done); !result.ok())
        return result;
    if (context.json())
        context.result(done);
    else
        context.result(
            fmt::format("{} {} items: {} of journal, {} data and {} metadata grains\n",
                        arguments.m_dryRun ? "would trim" : "trimmed", done["items"].get<u64>(),
                        formatSize(done["journal_bytes"].get<u64>()),
                        done["data_grains"].get<u64>(), done["metadata_grains"].get<u64>()));
    return Result();
}

} // namespace

void addTrim(CLI::App& app, Context& context)
{
    CLI::App* command = addCommand(
        app, context, "trim", "Give back the journal that the target volume holds by now",
        "rlctl trim backup.mirror --to cp:3 --dry-run", "rlctl trim backup.mirror --to cp:3 --yes");
    auto arguments = std::make_shared<PointArguments>();
    addPointOptions(command, arguments.get(),
                    {"The point in time; the target has to hold it", "All that the target holds",
                     "Only tell what would go"});
    command->callback([&context, arguments] {
        context.setAction([&, arguments] { return runTrim(context, *arguments); });
    });
}
