#include "appliance/Retention.h"

#include <algorithm>
#include <charconv>
#include <utility>

#include "appliance/Sizes.h"
#include "host/journal/JournalTrim.h"

namespace {

constexpr u64 MICROS = 1000000;

constexpr std::pair<char, u64> UNITS[] = {
    {'w', 7 * 24 * 3600}, {'d', 24 * 3600}, {'h', 3600}, {'m', 60}, {'s', 1}};

// The index of the oldest checkpoint that is kept; that of the newest where none need be.
size_t oldestKept(const MirrorSettings& settings, const std::vector<CheckpointInfo>& checkpoints,
                  u64 nowUs)
{
    const size_t count = checkpoints.size();
    size_t oldest = count - 1;
    if (settings.m_keepCheckpoints != 0)
        oldest = count - static_cast<size_t>(std::min<u64>(count, settings.m_keepCheckpoints));
    if (settings.m_keepForSeconds != 0) {
        const u64 keepFor = std::min(settings.m_keepForSeconds, MOST_KEEP_FOR_SECONDS);
        const u64 since = nowUs - std::min(nowUs, keepFor * MICROS);
        const auto young = std::find_if(
            checkpoints.begin(), checkpoints.end(),
            [&](const CheckpointInfo& checkpoint) { return checkpoint.m_timeMicros >= since; });
        oldest = std::min(oldest, static_cast<size_t>(young - checkpoints.begin()));
    }
    return oldest;
}

// What the journal would take if it were trimmed up to the checkpoint.
Result bytesAfter(Mirror& mirror, const CheckpointInfo& checkpoint, u64* bytes)
{
    JournalStore& journal = mirror.journal();
    u64 lastPage = ~u64{0};
    for (const JournalCheckpoint& one : journal.checkpoints()) {
        if (one.m_itemsBefore >= checkpoint.m_items)
            lastPage = std::min(lastPage, pageOfJournalPtr(one.m_ptr));
    }
    JournalTrimPlan plan;
    JournalBegin begin;
    // A trim may take pages away that are being read; it has given the journal its new beginning
    // before, and what is read from there is not damaged.
    do {
        begin = journal.begin();
        plan = planJournalTrim(journal, checkpoint.m_items, lastPage);
    } while (plan.m_rc != RC_SUCCESS && journal.begin().m_page != begin.m_page);
    if (plan.m_rc != RC_SUCCESS)
        return Result::fromStatus(plan.m_rc, "cannot read the journal");
    const u64 freed = plan.m_freedBlocks * (BLOCK_BYTES + sizeof(u32)) +
                      (plan.m_begin.m_page - begin.m_page) * BLOCK_BYTES;
    *bytes = journal.bytesUsed() - std::min(journal.bytesUsed(), freed);
    return Result();
}

} // namespace

bool isNearlyFull(u64 usedBytes, u64 limitBytes)
{
    return limitBytes != 0 &&
           static_cast<double>(usedBytes) >= NEARLY_FULL_RATIO * static_cast<double>(limitBytes);
}

Result findRetentionPoint(Mirror& mirror, u64 nowUs, RetentionPoint* point)
{
    *point = RetentionPoint();
    const MirrorSettings settings = mirror.currentSettings();
    const std::vector<CheckpointInfo> checkpoints = mirror.window().m_checkpoints;
    const bool rules = settings.m_keepCheckpoints != 0 || settings.m_keepForSeconds != 0;
    const u64 limit = settings.m_journalLimitBytes;
    u64 bytes = mirror.journal().bytesUsed();
    const bool pressed = isNearlyFull(bytes, limit);
    if (checkpoints.empty() || (!rules && !pressed))
        return Result();
    size_t chosen = rules ? oldestKept(settings, checkpoints, nowUs) : 0;
    point->m_why = "older checkpoints need not be kept";
    if (pressed) {
        // The first that makes enough room; what each frees grows from one to the next.
        size_t low = chosen;
        size_t high = checkpoints.size() - 1;
        while (low < high) {
            const size_t middle = low + (high - low) / 2;
            if (Result result = bytesAfter(mirror, checkpoints[middle], &bytes); !result.ok())
                return result;
            if (isNearlyFull(bytes, limit))
                low = middle + 1;
            else
                high = middle;
        }
        if (low != chosen || !rules)
            point->m_why = "the journal is near its limit of " + formatSize(limit);
        chosen = low;
    }
    if (checkpoints[chosen].m_items <= mirror.applyState().m_items)
        return Result();
    point->m_any = true;
    point->m_point.m_isCheckpoint = true;
    point->m_point.m_checkpoint = checkpoints[chosen];
    point->m_point.m_items = checkpoints[chosen].m_items;
    return Result();
}

Result parseDuration(const std::string& text, u64* seconds)
{
    u64 number = 0;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    for (const auto& [letter, unit] : UNITS) {
        if (error == std::errc() && stop + 1 == end && *stop == letter &&
            number <= MOST_KEEP_FOR_SECONDS / unit) {
            *seconds = number * unit;
            return Result();
        }
    }
    return Result::usage("'" + text + "' is no length of time; try 45s, 30m, 12h, 7d or 2w");
}

std::string formatDuration(u64 seconds)
{
    for (const auto& [letter, unit] : UNITS) {
        // Nobody says a week where seven days were said.
        if (letter != 'w' && seconds >= unit && seconds % unit == 0)
            return std::to_string(seconds / unit) + letter;
    }
    return "0s";
}
