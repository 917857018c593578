// rlctl read

#include <cerrno>
#include <unistd.h>

#include "appliance/ReadAhead.h"
#include "cli/Commands.h"
#include "cli/Range.h"

namespace {

constexpr u32 SLOTS = 4;
constexpr u32 SLOT_BLOCKS = 4096;

Result writeOut(const u8* data, u64 bytes)
{
    while (bytes > 0) {
        const ssize_t wrote = write(STDOUT_FILENO, data, bytes);
        if (wrote < 0 && errno == EINTR)
            continue;
        if (wrote <= 0)
            return Result::fromErrno(wrote == 0 ? EIO : errno, "cannot write standard output");
        data += wrote;
        bytes -= static_cast<u64>(wrote);
    }
    return Result();
}

// Reads whole blocks and hands out just the bytes of the range.
Result readRange(Context& context, View& view, u64 offset, u64 length, ProgressReporter& reporter)
{
    ViewReader reader(view);
    ReadAhead ahead(reader, context.engine(), SLOTS, SLOT_BLOCKS);
    const u64 end = offset + length;
    const auto use = [&](u64 firstBlock, u32 blocks, const u8* data) {
        const u64 first = firstBlock * BLOCK_BYTES;
        const u64 from = std::max(first, offset);
        const u64 to = std::min(first + u64{blocks} * BLOCK_BYTES, end);
        reporter.progress(to - offset, length);
        return writeOut(data + (from - first), to - from);
    };
    u64 block = offset / BLOCK_BYTES;
    const u64 endBlock = (end + BLOCK_BYTES - 1) / BLOCK_BYTES;
    while (block < endBlock || !ahead.empty()) {
        if (reporter.stopRequested())
            return Result(ResultCode::Interrupted, "interrupted; read again");
        if (ahead.full() || block >= endBlock) {
            if (Result result = ahead.finish(use); !result.ok())
                return result;
            continue;
        }
        const u32 now = static_cast<u32>(std::min<u64>(SLOT_BLOCKS, endBlock - block));
        if (Result result = ahead.start(block, now); !result.ok())
            return result;
        block += now;
    }
    return Result();
}

Result runRead(Context& context, const RangeArguments& arguments)
{
    std::unique_ptr<Mirror> mirror;
    u64 offset = 0;
    u64 length = 0;
    if (Result result = openRange(context, arguments, nullptr, &mirror, &offset, &length);
        !result.ok())
        return result;
    std::unique_ptr<View> view;
    const auto reporter = context.progress("reading");
    reporter->setPart(0, 10);
    if (Result result = context.openView(*mirror, arguments.m_at, *reporter, &view); !result.ok())
        return result;
    reporter->setPart(10, 100);
    if (length == 0)
        return Result();
    if (Result result = readRange(context, *view, offset, length, *reporter); !result.ok())
        return result;
    reporter->finish();
    return Result();
}

} // namespace

void addRead(CLI::App& app, Context& context)
{
    CLI::App* command =
        addCommand(app, context, "read", "Write the bytes of a range to standard output",
                   "rlctl read backup.mirror --at cp:3 --offset 0 --length 512 | xxd",
                   "rlctl read backup.mirror --at tag:nightly --offset 1M --length 4M > part.img");
    auto arguments = std::make_shared<RangeArguments>();
    addRangeOptions(command, arguments.get());
    command->callback([&context, arguments] {
        context.setAction([&, arguments] { return runRead(context, *arguments); });
    });
}
