// rlctl apply

#include <fmt/format.h>

#include "appliance/Sizes.h"
#include "cli/Commands.h"
#include "cli/PointCommand.h"

namespace {

std::string lossOf(const Json& point)
{
    if (!point["changes"].get<bool>())
        return "";
    return "After this, points before " + point["to"].get<std::string>() +
           " cannot be had any more.";
}

constexpr PointCommand COMMAND = {"apply", "applying", lossOf};

Result runApply(Context& context, const PointArguments& arguments)
{
    Json done;
    if (Result result = runToPoint(context, arguments, COMMAND, &done); !result.ok())
        return result;
    if (context.json())
        context.result(done);
    else
        context.result(
            fmt::format("{} {} items: {} of data, {} of zeroes, in {:.2f} s\n",
                        arguments.m_dryRun ? "would apply" : "applied", done["items"].get<u64>(),
                        formatSize(done["data_bytes"].get<u64>()),
                        formatSize(done["zero_bytes"].get<u64>()), done["seconds"].get<double>()));
    return Result();
}

} // namespace

void addApply(CLI::App& app, Context& context)
{
    CLI::App* command =
        addCommand(app, context, "apply", "Bring the target volume forward to a point",
                   "rlctl apply backup.mirror --to cp:3 --dry-run",
                   "rlctl apply backup.mirror --to time:2026-03-01T00:00:00Z --yes");
    auto arguments = std::make_shared<PointArguments>();
    addPointOptions(command, arguments.get(),
                    {"The point in time",
                     "To where the mirror's settings keep everything from; see rlctl set",
                     "Only tell what there is to do"});
    command->callback([&context, arguments] {
        context.setAction([&, arguments] { return runApply(context, *arguments); });
    });
}
