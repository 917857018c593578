// rlctl lookup

#include <fmt/format.h>

#include "appliance/ViewPieces.h"
#include "cli/Commands.h"
#include "cli/Range.h"

namespace {

Json toJson(const ViewPiece& piece)
{
    Json json = {{"offset", piece.m_offsetBytes},
                 {"length", piece.m_lengthBytes},
                 {"type", piece.typeName()}};
    if (piece.m_type == ViewPiece::Type::Target)
        return json;
    // Zeroes have no place in the journal.
    if (piece.m_type == ViewPiece::Type::Zeroes)
        json["journal_address"] = nullptr;
    else
        json["journal_address"] = piece.m_journalAddress;
    json["offset_in_io_blocks"] = piece.m_offsetInIoBlocks;
    return json;
}

std::string toText(const ViewPiece& piece)
{
    std::string line = fmt::format("{:>16} {:>12}  {:<10}", piece.m_offsetBytes,
                                   piece.m_lengthBytes, piece.typeName());
    if (piece.m_type == ViewPiece::Type::Data || piece.m_type == ViewPiece::Type::Compressed)
        line += fmt::format("  journal block {}, block {} of its IO", piece.m_journalAddress,
                            piece.m_offsetInIoBlocks);
    return line + "\n";
}

Result runLookup(Context& context, const RangeArguments& arguments)
{
    std::unique_ptr<Mirror> mirror;
    u64 offset = 0;
    u64 length = 0;
    if (Result result = openRange(context, arguments, "a lookup", &mirror, &offset, &length);
        !result.ok())
        return result;
    std::unique_ptr<View> view;
    const auto reporter = context.progress("indexing");
    if (Result result = context.openView(*mirror, arguments.m_at, *reporter, &view); !result.ok())
        return result;
    reporter->finish();
    const std::vector<ViewPiece> pieces =
        viewPieces(*view, offset / BLOCK_BYTES, length / BLOCK_BYTES);
    if (context.json()) {
        Json list = Json::array();
        for (const ViewPiece& piece : pieces)
            list.push_back(toJson(piece));
        context.result(Json{{"at", view->point().name()},
                            {"offset", offset},
                            {"length", length},
                            {"pieces", list}});
        return Result();
    }
    std::string text;
    for (const ViewPiece& piece : pieces)
        text += toText(piece);
    context.result(text);
    return Result();
}

} // namespace

void addLookup(CLI::App& app, Context& context)
{
    CLI::App* command =
        addCommand(app, context, "lookup", "Show where each part of a range comes from",
                   "rlctl lookup backup.mirror --at cp:3 --offset 1M --length 64K",
                   "rlctl lookup backup.mirror --at latest --offset 0 --length 2s --json");
    auto arguments = std::make_shared<RangeArguments>();
    addRangeOptions(command, arguments.get());
    command->callback([&context, arguments] {
        context.setAction([&, arguments] { return runLookup(context, *arguments); });
    });
}
