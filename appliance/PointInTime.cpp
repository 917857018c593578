#include "appliance/PointInTime.h"

#include <algorithm>
#include <charconv>

#include "appliance/Rfc3339.h"

namespace {

bool parseNumber(const std::string& text, u64* value)
{
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, *value);
    return error == std::errc() && stop == end && !text.empty();
}

Result noPoint(const std::string& text)
{
    return Result::usage("'" + text +
                         "' is no point in time; try latest, cp:ID, tag:NAME, time:RFC3339 or "
                         "item:N");
}

std::string nameText(const PointName& name)
{
    switch (name.m_kind) {
    case PointName::Kind::Latest: return "latest";
    case PointName::Kind::Checkpoint: return "cp:" + std::to_string(name.m_number);
    case PointName::Kind::Tag: return "tag:" + name.m_tag;
    case PointName::Kind::Time: return "time:" + formatRfc3339(name.m_number);
    case PointName::Kind::Item: return "item:" + std::to_string(name.m_number);
    }
    return "";
}

bool fits(const PointName& name, const CheckpointInfo& checkpoint)
{
    switch (name.m_kind) {
    case PointName::Kind::Checkpoint: return checkpoint.m_id == name.m_number;
    case PointName::Kind::Tag: return checkpoint.m_tag == name.m_tag;
    case PointName::Kind::Time: return checkpoint.m_timeMicros <= name.m_number;
    default: return false;
    }
}

} // namespace

std::string ChosenPoint::name() const
{
    return m_isCheckpoint ? "cp:" + std::to_string(m_checkpoint.m_id)
                          : "item:" + std::to_string(m_items);
}

std::string ChosenPoint::description() const
{
    if (!m_isCheckpoint)
        return "item:" + std::to_string(m_items);
    std::string text = name() + " of " + formatRfc3339(m_checkpoint.m_timeMicros);
    if (!m_checkpoint.m_tag.empty())
        text += " (" + m_checkpoint.m_tag + ")";
    return text;
}

Result parsePoint(const std::string& text, PointName* point)
{
    PointName result;
    const size_t colon = text.find(':');
    const std::string kind = colon == std::string::npos ? "" : text.substr(0, colon);
    const std::string value = colon == std::string::npos ? text : text.substr(colon + 1);
    bool good = false;
    if (text == "latest") {
        good = true;
    } else if (kind.empty() || kind == "cp") {
        result.m_kind = PointName::Kind::Checkpoint;
        good = parseNumber(value, &result.m_number);
    } else if (kind == "tag") {
        result.m_kind = PointName::Kind::Tag;
        result.m_tag = value;
        good = !value.empty();
    } else if (kind == "time") {
        result.m_kind = PointName::Kind::Time;
        good = parseRfc3339(value, &result.m_number);
    } else if (kind == "item") {
        result.m_kind = PointName::Kind::Item;
        good = parseNumber(value, &result.m_number);
    }
    if (!good)
        return noPoint(text);
    *point = result;
    return Result();
}

Result parseSpan(const std::string& text, std::pair<PointName, PointName>* span)
{
    std::pair<PointName, PointName> result;
    u32 ways = 0;
    Result refused = Result::usage("'" + text + "' is no span; write A..B with two points in time");
    for (size_t dots = text.find(".."); dots != std::string::npos;
         dots = text.find("..", dots + 1)) {
        std::pair<PointName, PointName> points;
        Result first = parsePoint(text.substr(0, dots), &points.first);
        Result second = parsePoint(text.substr(dots + 2), &points.second);
        if (first.ok() && second.ok()) {
            result = points;
            ++ways;
        } else {
            refused = first.ok() ? second : first;
        }
    }
    if (ways > 1)
        return Result::usage("'" + text +
                             "' can be read in several ways; name the points as cp:N or item:N");
    if (ways == 0)
        return refused;
    *span = result;
    return Result();
}

Result choosePoint(const PointName& name, const RecoverableWindow& window, ChosenPoint* point)
{
    ChosenPoint chosen;
    if (name.m_kind == PointName::Kind::Latest || name.m_kind == PointName::Kind::Item) {
        const u64 items = name.m_kind == PointName::Kind::Latest ? window.m_items : name.m_number;
        if (items >= window.m_firstItems && items <= window.m_items) {
            chosen.m_items = items;
            *point = chosen;
            return Result();
        }
    } else {
        // The newest that fits: the same tag may have been given twice.
        const auto found = std::find_if(window.m_checkpoints.rbegin(), window.m_checkpoints.rend(),
                                        [&](const CheckpointInfo& cp) { return fits(name, cp); });
        if (found != window.m_checkpoints.rend()) {
            chosen.m_isCheckpoint = true;
            chosen.m_checkpoint = *found;
            chosen.m_items = found->m_items;
            *point = chosen;
            return Result();
        }
    }
    return Result(ResultCode::NotFound,
                  "no point " + nameText(name) + "; " + describeWindow(window));
}

std::string describeWindow(const RecoverableWindow& window)
{
    if (window.m_firstItems > window.m_items)
        return "all that was journaled when the mirror was opened here has been applied to the "
               "target since; open it anew to see what there is now";
    std::string text = "the mirror can serve item:" + std::to_string(window.m_firstItems) +
                       " to item:" + std::to_string(window.m_items);
    if (window.m_checkpoints.empty())
        return text + " and has no checkpoints";
    const CheckpointInfo& first = window.m_checkpoints.front();
    const CheckpointInfo& last = window.m_checkpoints.back();
    text +=
        ", checkpoints cp:" + std::to_string(first.m_id) + " to cp:" + std::to_string(last.m_id);
    return text + ", times " + formatRfc3339(first.m_timeMicros) + " to " +
           formatRfc3339(last.m_timeMicros);
}
