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

// The range in bytes; without a length it goes to the volume's end. WrongUsage when it does not
// lie inside the volume.
Result parseRange(const RangeArguments& arguments, u64 sizeBytes, u64* offsetBytes,
                  u64* lengthBytes);
