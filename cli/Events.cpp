// rlctl events

#include <fmt/format.h>

#include "appliance/Rfc3339.h"
#include "cli/Commands.h"
#include "host/infra/BinaryEventLog.h"

namespace {

// What the records of regions mean; other codes are shown as numbers.
const char* codeName(u32 code)
{
    switch (code) {
    case 21: return "region_cut";
    case 22: return "remainder_stored";
    case 23: return "region_stored";
    default: return "";
    }
}

Json toJson(const BinaryEvent& event)
{
    return Json{{"number", event.m_number},
                {"time", formatRfc3339(event.m_wallTimeUs)},
                {"monotonic_us", event.m_monotonicUs},
                {"code", event.m_code},
                {"event", codeName(event.m_code)},
                {"kind", event.m_kind},
                {"view_offset_blocks", event.m_viewOffsetBlocks},
                {"length_blocks", event.m_lengthBlocks},
                {"journal_address_blocks", event.m_journalAddressBlocks}};
}

std::string toText(const BinaryEvent& event)
{
    return fmt::format("{:>8} {} {:>3} {:<16} kind {} view {} length {} journal {}\n",
                       event.m_number, formatRfc3339(event.m_wallTimeUs), event.m_code,
                       codeName(event.m_code), event.m_kind, event.m_viewOffsetBlocks,
                       event.m_lengthBlocks, event.m_journalAddressBlocks);
}

Result runEvents(Context& context, const std::string& path)
{
    BinaryEventFile file;
    const Outcome outcome = readBinaryEvents(path, &file);
    if (!outcome.ok())
        return Result::failed(outcome.m_message);
    if (context.json()) {
        Json events = Json::array();
        for (const BinaryEvent& event : file.m_events)
            events.push_back(toJson(event));
        context.result(Json{{"events", events},
                            {"damaged_at_bytes", file.m_damagedAtBytes},
                            {"cut_bytes", file.m_cutBytes}});
    } else {
        std::string text;
        for (const BinaryEvent& event : file.m_events)
            text += toText(event);
        context.result(text);
    }
    if (file.m_damagedAtBytes.empty() && file.m_cutBytes == 0)
        return Result();
    return Result(ResultCode::DoneInPart,
                  fmt::format("{}: {} damaged records, {} bytes of an incomplete one at the end",
                              path, file.m_damagedAtBytes.size(), file.m_cutBytes));
}

} // namespace

void addEvents(CLI::App& app, Context& context)
{
    CLI::App* command =
        addCommand(app, context, "events", "Decode a binary event log",
                   "rlctl events regions.events", "rlctl events regions.events --json");
    auto path = std::make_shared<std::string>();
    command->add_option("FILE", *path, "The log that --events wrote")->required();
    command->callback(
        [&context, path] { context.setAction([&, path] { return runEvents(context, *path); }); });
}
