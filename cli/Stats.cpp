// rlctl stats

#include <fmt/format.h>

#include "appliance/Sizes.h"
#include "cli/Commands.h"
#include "cli/Session.h"

namespace {

struct StatsArguments
{
    std::string m_mirror;
    std::string m_at = "latest";
};

Result run(Context& context, const StatsArguments& arguments)
{
    Json s;
    const auto reporter = context.progress("indexing");
    if (Result result = runCommand(context, arguments.m_mirror, MirrorAccess::Reader, "stats",
                                   Json{{"at", arguments.m_at}}, reporter.get(), &s);
        !result.ok())
        return result;
    reporter->finish();
    if (context.json()) {
        context.result(s);
        return Result();
    }
    const auto number = [&](const char* name) { return s[name].get<u64>(); };
    const double seconds = s["index_seconds"].get<double>();
    const double rate = seconds > 0 ? s["items_scanned"].get<double>() / seconds : 0;
    context.result(fmt::format("{} IOs inserted, {}; {} unique in {} regions; {} merges\n"
                               "{:.1f} bytes of memory per region\n"
                               "{} items scanned in {:.3f} s ({:.0f} a second)\n",
                               number("ios_inserted"), formatSize(number("bytes_inserted")),
                               formatSize(number("unique_bytes")), number("regions"),
                               number("merges"), s["bytes_per_region"].get<double>(),
                               number("items_scanned"), seconds, rate));
    return Result();
}

} // namespace

void addStats(CLI::App& app, Context& context)
{
    CLI::App* command =
        addCommand(app, context, "stats", "Build a view's index and print its statistics",
                   "rlctl stats backup.mirror", "rlctl stats backup.mirror --at cp:3 --json");
    auto arguments = std::make_shared<StatsArguments>();
    command->add_option("MIRROR", arguments->m_mirror, "The mirror")->required();
    command->add_option("--at", arguments->m_at, "The point in time (default: latest)");
    command->callback([&context, arguments] {
        context.setAction([&, arguments] { return run(context, *arguments); });
    });
}
