// rlctl record

#include "appliance/Record.h"

#include <fmt/format.h>

#include "appliance/Sizes.h"
#include "cli/Commands.h"

namespace {

struct RecordArguments
{
    std::string m_mirror;
    RecordOptions m_options;
};

Result run(Context& context, const RecordArguments& arguments)
{
    std::unique_ptr<Mirror> mirror;
    if (Result result = context.openMirror(arguments.m_mirror, MirrorAccess::Writer, &mirror);
        !result.ok())
        return result;
    RecordStatistics statistics;
    const auto reporter = context.progress("recording");
    Result recorded = recordTrace(*mirror, arguments.m_options, *reporter, &statistics);
    const u64 items = mirror->window().m_items;
    Result closed = mirror->close();
    if (!recorded.ok())
        return recorded;
    if (!closed.ok())
        return closed;
    reporter->finish();
    if (context.json())
        context.result(Json{{"lines", statistics.m_lines},
                            {"skipped_lines", statistics.m_skippedLines},
                            {"resumed_after_line", statistics.m_resumedAfter},
                            {"bytes", statistics.m_bytes},
                            {"checkpoints", statistics.m_checkpoints},
                            {"items", items},
                            {"seconds", statistics.m_seconds}});
    else
        context.result(
            fmt::format("recorded {} lines ({}), skipped {}, set {} checkpoints, in {:.2f} s\n",
                        statistics.m_lines, formatSize(statistics.m_bytes),
                        statistics.m_skippedLines, statistics.m_checkpoints, statistics.m_seconds));
    return Result();
}

} // namespace

void addRecord(CLI::App& app, Context& context)
{
    CLI::App* command =
        addCommand(app, context, "record", "Play the writes of a block trace into the journal",
                   "rlctl record backup.mirror --trace day.csv.zst --checkpoint-every 10000",
                   "rlctl record backup.mirror --trace day.csv.zst --resume");
    auto arguments = std::make_shared<RecordArguments>();
    command->add_option("MIRROR", arguments->m_mirror, "The mirror")->required();
    command
        ->add_option("--trace", arguments->m_options.m_trace,
                     "A CSV trace, plain or zstd; - for standard input")
        ->required();
    command
        ->add_option("--checkpoint-every", arguments->m_options.m_checkpointEvery,
                     "A checkpoint after so many recorded lines, and one at the end")
        ->check(CLI::PositiveNumber);
    command->add_flag("--resume", arguments->m_options.m_resume,
                      "Go on with this trace where its recording was interrupted");
    command->callback([&context, arguments] {
        context.setAction([&, arguments] { return run(context, *arguments); });
    });
}
