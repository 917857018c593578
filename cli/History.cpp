// rlctl history

#include "appliance/History.h"

#include <fmt/format.h>

#include "appliance/Rfc3339.h"
#include "appliance/Sizes.h"
#include "cli/Commands.h"
#include "cli/Points.h"
#include "cli/Range.h"

namespace {

Json toJson(const std::optional<CheckpointInfo>& checkpoint)
{
    if (!checkpoint)
        return nullptr;
    return Json{{"checkpoint", checkpoint->m_id},
                {"time", formatRfc3339(checkpoint->m_timeMicros)}};
}

Json toJson(const HistoryEntry& entry)
{
    return Json{{"item", entry.m_item},
                {"after", toJson(entry.m_after)},
                {"before", toJson(entry.m_before)},
                {"offset", entry.m_offsetBlocks * BLOCK_BYTES},
                {"length", entry.m_lengthBlocks * BLOCK_BYTES},
                {"type", entry.typeName()},
                {"live_bytes", entry.m_liveBlocks * BLOCK_BYTES}};
}

std::string windowText(const HistoryEntry& entry)
{
    const auto side = [](const std::optional<CheckpointInfo>& checkpoint, const char* none) {
        return checkpoint ? fmt::format("cp:{} {}", checkpoint->m_id,
                                        formatRfc3339(checkpoint->m_timeMicros))
                          : std::string(none);
    };
    return side(entry.m_after, "the beginning") + " to " + side(entry.m_before, "now");
}

std::string toText(const HistoryEntry& entry)
{
    return fmt::format("{:>12} {:>16} {:>12}  {:<10}  {}  {}\n",
                       fmt::format("item:{}", entry.m_item), entry.m_offsetBlocks * BLOCK_BYTES,
                       entry.m_lengthBlocks * BLOCK_BYTES, entry.typeName(), windowText(entry),
                       entry.m_liveBlocks > 0
                           ? "live: " + formatSize(entry.m_liveBlocks * BLOCK_BYTES)
                           : std::string("not live"));
}

void print(Context& context, const History& history, const ChosenPoint& at, u64 offset, u64 length)
{
    if (context.json()) {
        Json list = Json::array();
        for (const HistoryEntry& entry : history.m_entries)
            list.push_back(toJson(entry));
        context.result(Json{{"at", at.name()},
                            {"offset", offset},
                            {"length", length},
                            {"target_bytes", history.m_targetBlocks * BLOCK_BYTES},
                            {"writes", list}});
        return;
    }
    std::string text;
    for (const HistoryEntry& entry : history.m_entries)
        text += toText(entry);
    context.result(text);
    context.say(fmt::format("{} writes; {} from the target volume", history.m_entries.size(),
                            formatSize(history.m_targetBlocks * BLOCK_BYTES)));
}

Result runHistory(Context& context, const RangeArguments& arguments)
{
    std::unique_ptr<Mirror> mirror;
    u64 offset = 0;
    u64 length = 0;
    if (Result result = openRange(context, arguments, "a history", &mirror, &offset, &length);
        !result.ok())
        return result;
    ChosenPoint at;
    if (Result result = pickPoint(context, *mirror, arguments.m_at, "at", &at); !result.ok())
        return result;
    History history;
    const auto reporter = context.progress("scanning");
    if (Result result =
            historyOf(*mirror, offset / BLOCK_BYTES, length / BLOCK_BYTES, at, *reporter, &history);
        !result.ok())
        return result;
    reporter->finish();
    print(context, history, at, offset, length);
    return Result();
}

} // namespace

void addHistory(CLI::App& app, Context& context)
{
    CLI::App* command =
        addCommand(app, context, "history", "List every journaled write that touched a range",
                   "rlctl history backup.mirror --offset 1M --length 4K",
                   "rlctl history backup.mirror --at cp:3 --offset 0 --length 2s --json");
    auto arguments = std::make_shared<RangeArguments>();
    addRangeOptions(command, arguments.get());
    command->callback([&context, arguments] {
        context.setAction([&, arguments] { return runHistory(context, *arguments); });
    });
}
