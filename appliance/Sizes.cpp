#include "appliance/Sizes.h"

#include <array>
#include <cctype>
#include <charconv>
#include <fmt/format.h>

namespace {

// The factor that a unit stands for; 0 for none that is known.
u64 unitBytes(const std::string& unit)
{
    if (unit.empty() || unit == "B" || unit == "b")
        return 1;
    if (unit == "s")
        return BLOCK_BYTES;
    const std::string rest = unit.substr(1);
    if (!rest.empty() && rest != "iB" && rest != "ib" && rest != "B")
        return 0;
    static const std::string letters = "KMGTPE";
    const size_t power =
        letters.find(static_cast<char>(std::toupper(static_cast<unsigned char>(unit.front()))));
    return power == std::string::npos ? 0 : u64{1} << (10 * (power + 1));
}

} // namespace

Result parseSize(const std::string& text, u64* bytes)
{
    u64 number = 0;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    if (error == std::errc::result_out_of_range)
        return Result::usage("size '" + text + "' is too large");
    if (error != std::errc())
        return Result::usage("'" + text + "' is no size; try 512, 64K, 1MiB or 2s");
    const u64 factor = unitBytes(std::string(stop, end));
    if (factor == 0)
        return Result::usage("size '" + text + "' has an unknown unit; try 512, 64K, 1MiB or 2s");
    if (number > ~u64{0} / factor)
        return Result::usage("size '" + text + "' is too large");
    *bytes = number * factor;
    return Result();
}

Result parseBlockSize(const std::string& text, const std::string& what, u64* bytes)
{
    u64 value = 0;
    if (Result result = parseSize(text, &value); !result.ok())
        return result;
    if (value % BLOCK_BYTES != 0)
        return Result::usage(what + " '" + text + "' is not a multiple of 512 bytes");
    *bytes = value;
    return Result();
}

std::string formatSize(u64 bytes)
{
    static constexpr std::array<const char*, 7> units = {"B",   "KiB", "MiB", "GiB",
                                                         "TiB", "PiB", "EiB"};
    size_t unit = 0;
    double value = static_cast<double>(bytes);
    // 1023.95 and above would print as 1024.0 of the smaller unit.
    while (value >= 1023.95 && unit + 1 < units.size()) {
        value /= 1024;
        ++unit;
    }
    if (value == static_cast<double>(static_cast<u64>(value)))
        return fmt::format("{} {}", static_cast<u64>(value), units[unit]);
    return fmt::format("{:.1f} {}", value, units[unit]);
}
