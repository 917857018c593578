#include "appliance/Rfc3339.h"

#include <charconv>
#include <chrono>
#include <fmt/format.h>

namespace {

constexpr s64 MICROS_PER_SECOND = 1000000;

// Takes exactly `digits` digits off the front of *text.
bool takeNumber(std::string_view* text, size_t digits, unsigned* value)
{
    if (text->size() < digits)
        return false;
    const char* end = text->data() + digits;
    const auto [stop, error] = std::from_chars(text->data(), end, *value);
    if (error != std::errc() || stop != end)
        return false;
    text->remove_prefix(digits);
    return true;
}

bool takeChar(std::string_view* text, char wanted)
{
    if (text->empty() || (text->front() | 0x20) != (wanted | 0x20))
        return false;
    text->remove_prefix(1);
    return true;
}

// A fraction of a second, if there is one, in microseconds.
bool takeFraction(std::string_view* text, s64* micros)
{
    *micros = 0;
    if (text->empty() || text->front() != '.')
        return true;
    text->remove_prefix(1);
    s64 weight = MICROS_PER_SECOND;
    size_t digits = 0;
    for (; digits < text->size() && (*text)[digits] >= '0' && (*text)[digits] <= '9'; ++digits) {
        weight /= 10;
        *micros += weight * ((*text)[digits] - '0');
    }
    text->remove_prefix(digits);
    return digits > 0;
}

// "Z" or "+hh:mm", in seconds east of UTC; the text must end there.
bool takeOffset(std::string_view* text, s64* seconds)
{
    *seconds = 0;
    if (takeChar(text, 'Z'))
        return text->empty();
    if (text->empty() || (text->front() != '+' && text->front() != '-'))
        return false;
    const bool west = text->front() == '-';
    text->remove_prefix(1);
    unsigned hours = 0;
    unsigned minutes = 0;
    if (!takeNumber(text, 2, &hours) || !takeChar(text, ':') || !takeNumber(text, 2, &minutes))
        return false;
    *seconds = static_cast<s64>(hours * 3600 + minutes * 60) * (west ? -1 : 1);
    return text->empty() && hours < 24 && minutes < 60;
}

} // namespace

bool parseRfc3339(const std::string& text, u64* timeMicros)
{
    using namespace std::chrono;
    std::string_view rest = text;
    unsigned year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
    if (!takeNumber(&rest, 4, &year) || !takeChar(&rest, '-') || !takeNumber(&rest, 2, &month) ||
        !takeChar(&rest, '-') || !takeNumber(&rest, 2, &day))
        return false;
    if (!takeChar(&rest, 'T') && !takeChar(&rest, ' '))
        return false;
    if (!takeNumber(&rest, 2, &hour) || !takeChar(&rest, ':') || !takeNumber(&rest, 2, &minute) ||
        !takeChar(&rest, ':') || !takeNumber(&rest, 2, &second))
        return false;
    s64 micros = 0;
    s64 offset = 0;
    if (!takeFraction(&rest, &micros) || !takeOffset(&rest, &offset))
        return false;
    const year_month_day date{std::chrono::year(static_cast<int>(year)), std::chrono::month(month),
                              std::chrono::day(day)};
    // A leap second is 60.
    if (!date.ok() || hour > 23 || minute > 59 || second > 60)
        return false;
    const s64 days = sys_days(date).time_since_epoch().count();
    const s64 seconds =
        days * 86400 + static_cast<s64>(hour * 3600 + minute * 60 + second) - offset;
    if (seconds < 0)
        return false;
    *timeMicros = static_cast<u64>(seconds * MICROS_PER_SECOND + micros);
    return true;
}

std::string formatRfc3339(u64 timeMicros)
{
    using namespace std::chrono;
    const sys_time<microseconds> time{microseconds(static_cast<s64>(timeMicros))};
    const auto day = floor<days>(time);
    const year_month_day date(day);
    const hh_mm_ss clock(time - day);
    return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:06}Z", static_cast<int>(date.year()),
                       static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                       clock.hours().count(), clock.minutes().count(), clock.seconds().count(),
                       clock.subseconds().count());
}
