#include "cli/Range.h"

#include "appliance/Sizes.h"

namespace {

Result parseRange(const RangeArguments& arguments, u64 sizeBytes, u64* offsetBytes,
                  u64* lengthBytes)
{
    if (Result result = parseSize(arguments.m_offset, offsetBytes); !result.ok())
        return result;
    if (*offsetBytes > sizeBytes)
        return Result::usage("offset " + arguments.m_offset + " is beyond the volume's " +
                             std::to_string(sizeBytes) + " bytes");
    *lengthBytes = sizeBytes - *offsetBytes;
    if (arguments.m_length.empty())
        return Result();
    u64 length = 0;
    if (Result result = parseSize(arguments.m_length, &length); !result.ok())
        return result;
    if (length > *lengthBytes)
        return Result::usage("the range ends beyond the volume's " + std::to_string(sizeBytes) +
                             " bytes");
    *lengthBytes = length;
    return Result();
}

} // namespace

void addRangeOptions(CLI::App* command, RangeArguments* arguments)
{
    command->add_option("MIRROR", arguments->m_mirror, "The mirror")->required();
    command->add_option("--at", arguments->m_at, "The point in time (default: latest)");
    command->add_option("--offset", arguments->m_offset, "Where the range starts (default: 0)");
    command->add_option("--length", arguments->m_length,
                        "How long it is (default: to the volume's end)");
}

Result openRange(Context& context, const RangeArguments& arguments, const char* wholeBlocksOf,
                 std::unique_ptr<Mirror>* mirror, u64* offsetBytes, u64* lengthBytes)
{
    if (Result result = context.openMirror(arguments.m_mirror, MirrorAccess::Reader, mirror);
        !result.ok())
        return result;
    if (Result result =
            parseRange(arguments, (*mirror)->settings().m_sizeBytes, offsetBytes, lengthBytes);
        !result.ok())
        return result;
    if (wholeBlocksOf != nullptr &&
        (*offsetBytes % BLOCK_BYTES != 0 || *lengthBytes % BLOCK_BYTES != 0))
        return Result::usage(std::string("offset and length of ") + wholeBlocksOf +
                             " are multiples of 512 bytes");
    return Result();
}
