// rlctl diff

#include "appliance/Diff.h"

#include <fmt/format.h>

#include "appliance/Sizes.h"
#include "cli/Commands.h"
#include "cli/Points.h"

namespace {

struct DiffArguments
{
    std::string m_mirror;
    std::string m_span;
    bool m_compare = false;
};

const char* typeName(const DiffExtent& extent)
{
    return extent.m_isZero ? "zero" : "data";
}

void print(Context& context, const std::vector<DiffExtent>& extents, const ChosenPoint& from,
           const ChosenPoint& to)
{
    u64 dataBytes = 0;
    u64 zeroBytes = 0;
    for (const DiffExtent& extent : extents)
        (extent.m_isZero ? zeroBytes : dataBytes) += extent.m_lengthBlocks * BLOCK_BYTES;
    if (context.json()) {
        Json list = Json::array();
        for (const DiffExtent& extent : extents)
            list.push_back(Json{{"offset", extent.m_offsetBlocks * BLOCK_BYTES},
                                {"length", extent.m_lengthBlocks * BLOCK_BYTES},
                                {"type", typeName(extent)}});
        context.result(Json{{"from", from.name()},
                            {"to", to.name()},
                            {"data_bytes", dataBytes},
                            {"zero_bytes", zeroBytes},
                            {"extents", list}});
        return;
    }
    std::string text;
    for (const DiffExtent& extent : extents)
        text += fmt::format("{:>16} {:>12}  {}\n", extent.m_offsetBlocks * BLOCK_BYTES,
                            extent.m_lengthBlocks * BLOCK_BYTES, typeName(extent));
    context.result(text);
    context.say(fmt::format("{} extents: {} of data, {} of zeroes", extents.size(),
                            formatSize(dataBytes), formatSize(zeroBytes)));
}

Result run(Context& context, const DiffArguments& arguments)
{
    std::unique_ptr<Mirror> mirror;
    if (Result result = context.openMirror(arguments.m_mirror, MirrorAccess::Reader, &mirror);
        !result.ok())
        return result;
    ChosenPoint from;
    ChosenPoint to;
    if (Result result = pickSpan(context, *mirror, arguments.m_span, &from, &to); !result.ok())
        return result;
    std::vector<DiffExtent> extents;
    const auto reporter = context.progress(arguments.m_compare ? "comparing" : "scanning");
    if (arguments.m_compare)
        reporter->setPart(0, 30);
    if (Result result = diffPoints(*mirror, from, to, *reporter, &extents); !result.ok())
        return result;
    if (arguments.m_compare) {
        reporter->setPart(30, 100);
        if (Result result =
                compareExtents(*mirror, context.engine(), from, to, *reporter, &extents);
            !result.ok())
            return result;
    }
    reporter->finish();
    print(context, extents, from, to);
    return Result();
}

} // namespace

void addDiff(CLI::App& app, Context& context)
{
    CLI::App* command =
        addCommand(app, context, "diff", "List the ranges that changed between two points in time",
                   "rlctl diff backup.mirror cp:3..latest",
                   "rlctl diff backup.mirror tag:monday..tag:friday --compare --json");
    auto arguments = std::make_shared<DiffArguments>();
    command->add_option("MIRROR", arguments->m_mirror, "The mirror")->required();
    command->add_option("A..B", arguments->m_span, "Two points in time, the earlier one first")
        ->required();
    command->add_flag("--compare", arguments->m_compare,
                      "Read both sides, and leave out what came out equal");
    command->callback([&context, arguments] {
        context.setAction([&, arguments] { return run(context, *arguments); });
    });
}
