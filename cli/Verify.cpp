// rlctl verify

#include <fmt/format.h>

#include "appliance/Sizes.h"
#include "cli/Commands.h"
#include "host/journal/JournalVerifier.h"

namespace {

Json toJson(const VerifyDamage& damage)
{
    return Json{{"offset", damage.m_offsetBlocks * BLOCK_BYTES},
                {"length", u64{damage.m_lengthBlocks} * BLOCK_BYTES},
                {"reason", damage.m_where + ": " + damage.m_reason}};
}

std::string toText(const VerifyDamage& damage)
{
    std::string text = damage.m_where + ": " + damage.m_reason;
    if (damage.m_lengthBlocks > 0)
        text += fmt::format(" (volume bytes {} to {})", damage.m_offsetBlocks * BLOCK_BYTES,
                            (damage.m_offsetBlocks + damage.m_lengthBlocks) * BLOCK_BYTES - 1);
    return text + "\n";
}

Result runVerify(Context& context, const std::string& folder)
{
    // Salvage goes on behind damage, so that all of it is found; it is not what a view would show.
    std::unique_ptr<Mirror> mirror;
    if (Result result =
            Mirror::open(folder, MirrorAccess::Reader, JournalRecovery::Salvage, &mirror);
        !result.ok())
        return result;
    // Nothing is trimmed away under it.
    std::unique_ptr<PointUse> use;
    if (Result result = mirror->usePoint(NO_ITEMS, "a verification", &use); !result.ok())
        return result;
    const auto reporter = context.progress("verifying");
    VerifyOptions options;
    options.progress = [&](u64 done, u64 all) { reporter->progress(done, all); };
    options.cancelled = [&] { return reporter->stopRequested(); };
    const VerifyResult verified = verifyJournal(mirror->journal(), options);
    if (verified.rc == RC_ABORTED)
        return Result(ResultCode::Interrupted, "interrupted; verify again");
    if (verified.rc != RC_SUCCESS)
        return Result(Result::fromStatus(verified.rc, "").code(),
                      "cannot verify " + folder + ": " + verified.message);
    reporter->finish();
    if (context.json()) {
        Json damage = Json::array();
        for (const VerifyDamage& one : verified.damage)
            damage.push_back(toJson(one));
        context.result(Json{{"ok", verified.ok()},
                            {"items", verified.items},
                            {"bytes", verified.bytes},
                            {"damage", damage}});
    } else {
        std::string text;
        for (const VerifyDamage& one : verified.damage)
            text += toText(one);
        text += fmt::format(
            "{} items, {} checked: {}\n", verified.items, formatSize(verified.bytes),
            verified.ok() ? "all is well" : std::to_string(verified.damage.size()) + " damaged");
        context.result(text);
    }
    if (!mirror->report().m_text.empty())
        context.say(mirror->report().m_text);
    if (!verified.ok())
        return Result(ResultCode::Differences, folder + " has " +
                                                   std::to_string(verified.damage.size()) +
                                                   " damaged places");
    return Result();
}

} // namespace

void addVerify(CLI::App& app, Context& context)
{
    CLI::App* command =
        addCommand(app, context, "verify", "Read and check everything, and tell what is damaged",
                   "rlctl verify backup.mirror", "rlctl verify backup.mirror --json");
    auto mirror = std::make_shared<std::string>();
    command->add_option("MIRROR", *mirror, "The mirror")->required();
    command->callback([&context, mirror] {
        context.setAction([&, mirror] { return runVerify(context, *mirror); });
    });
}
