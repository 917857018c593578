// rlctl capture

#include "appliance/Capture.h"

#include <fmt/format.h>

#include "appliance/Sizes.h"
#include "cli/Commands.h"

namespace {

struct CaptureArguments
{
    std::string m_mirror;
    std::string m_image;
    std::string m_tag;
};

Result run(Context& context, const CaptureArguments& arguments)
{
    std::unique_ptr<Mirror> mirror;
    if (Result result = context.openMirror(arguments.m_mirror, MirrorAccess::Writer, &mirror);
        !result.ok())
        return result;
    CaptureStatistics statistics;
    const auto reporter = context.progress("capturing");
    if (Result result = captureImage(*mirror, context.engine(), arguments.m_image, arguments.m_tag,
                                     *reporter, &statistics);
        !result.ok())
        return result;
    if (Result result = mirror->close(); !result.ok())
        return result;
    reporter->finish();
    if (context.json())
        context.result(Json{{"checkpoint", statistics.m_checkpoint},
                            {"tag", arguments.m_tag},
                            {"items", statistics.m_items},
                            {"changed_bytes", statistics.m_changedBytes},
                            {"zeroed_bytes", statistics.m_zeroedBytes},
                            {"compared_bytes", statistics.m_comparedBytes},
                            {"seconds", statistics.m_seconds}});
    else
        context.result(fmt::format("cp:{}: {} changed, {} zeroed, in {} items and {:.2f} s\n",
                                   statistics.m_checkpoint, formatSize(statistics.m_changedBytes),
                                   formatSize(statistics.m_zeroedBytes), statistics.m_items,
                                   statistics.m_seconds));
    return Result();
}

} // namespace

void addCapture(CLI::App& app, Context& context)
{
    CLI::App* command = addCommand(app, context, "capture",
                                   "Journal what changed in an image, and set a checkpoint",
                                   "rlctl capture backup.mirror disk.img",
                                   "rlctl capture backup.mirror /dev/sdb --tag nightly");
    auto arguments = std::make_shared<CaptureArguments>();
    command->add_option("MIRROR", arguments->m_mirror, "The mirror")->required();
    command->add_option("IMAGE", arguments->m_image, "A raw image or block device")->required();
    command->add_option("--tag", arguments->m_tag, "The checkpoint's tag");
    command->callback([&context, arguments] {
        context.setAction([&, arguments] { return run(context, *arguments); });
    });
}
