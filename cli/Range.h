// A range of a view as it is given on the command line.
#pragma once

#include <string>

#include "cli/Context.h"

struct RangeArguments
{
    std::string m_mirror;
    std::string m_at = "latest";
    std::string m_offset = "0";
    std::string m_length;
};

// Adds MIRROR, --at, --offset and --length to a command.
void addRangeOptions(CLI::App* command, RangeArguments* arguments);

// Opens the mirror to read, and the range in bytes; without a length it goes to the volume's end.
// WrongUsage when it does not lie inside the volume. wholeBlocksOf: what has only ranges of whole
// blocks, for the message of the WrongUsage that others get; null: any range will do.
Result openRange(Context& context, const RangeArguments& arguments, const char* wholeBlocksOf,
                 std::unique_ptr<Mirror>* mirror, u64* offsetBytes, u64* lengthBytes);
