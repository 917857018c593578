#include "bench/Report.h"

#include <algorithm>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace {

const std::string OURS = "ours";

double median(std::vector<double> samples)
{
    std::sort(samples.begin(), samples.end());
    const size_t middle = samples.size() / 2;
    return samples.size() % 2 == 1 ? samples[middle] : (samples[middle - 1] + samples[middle]) / 2;
}

// Null when that contender does not do that work.
const WorkSamples* find(const SubjectSamples& subject, const std::string& contender,
                        const std::string& work)
{
    const auto samples = subject.m_contenders.find(contender);
    if (samples == subject.m_contenders.end())
        return nullptr;
    const auto found = samples->second.find(work);
    return found == samples->second.end() ? nullptr : &found->second;
}

std::string cell(const WorkSamples* samples, const WorkSamples* ours)
{
    if (samples == nullptr)
        return "-";
    const double time = median(samples->m_nanoseconds);
    if (ours == nullptr || ours == samples)
        return fmt::format("{:.1f}", time);
    return fmt::format("{:.1f} ({:.2f})", time, time / median(ours->m_nanoseconds));
}

std::string table(const SubjectSamples& subject, const std::vector<std::string>& contenders)
{
    std::string text =
        fmt::format("\n{}, size {}{}\n{:12}", subject.m_subject.m_workload, subject.m_size,
                    subject.m_source.empty() ? "" : ", " + subject.m_source, "");
    for (const std::string& contender : contenders)
        text += fmt::format(" {:>17}", contender);
    text += "\n";
    for (const std::string& work : workNames()) {
        const WorkSamples* ours = find(subject, OURS, work);
        std::string line = fmt::format("{:12}", work);
        bool any = false;
        for (const std::string& contender : contenders) {
            const WorkSamples* samples = find(subject, contender, work);
            any = any || samples != nullptr;
            line += fmt::format(" {:>17}", cell(samples, ours));
        }
        if (any)
            text += line + "\n";
    }
    text += fmt::format("{:12}", "bytes/region");
    for (const std::string& contender : contenders) {
        const WorkSamples* samples = find(subject, contender, "lookup8");
        text += fmt::format(
            " {:>17}",
            samples == nullptr ? "-" : fmt::format("{:.1f}", median(samples->m_bytesPerRegion)));
    }
    return text + "\n";
}

// The time at each size over that at the smallest one, for one workload.
std::string growth(const std::vector<const SubjectSamples*>& sizes,
                   const std::vector<std::string>& contenders)
{
    std::string text = fmt::format("\n{}, times over those at size {}\n",
                                   sizes.front()->m_subject.m_workload, sizes.front()->m_size);
    for (const std::string& work : workNames()) {
        for (const std::string& contender : contenders) {
            const WorkSamples* smallest = find(*sizes.front(), contender, work);
            if (smallest == nullptr)
                continue;
            text += fmt::format("{:12} {:12}", work, contender);
            for (const SubjectSamples* size : sizes) {
                if (const WorkSamples* samples = find(*size, contender, work))
                    text += fmt::format("  {}: {:.2f}", size->m_size,
                                        median(samples->m_nanoseconds) /
                                            median(smallest->m_nanoseconds));
            }
            text += "\n";
        }
    }
    return text;
}

} // namespace

std::string reportAsJson(const std::vector<SubjectSamples>& subjects)
{
    nlohmann::ordered_json report = {{"schema", 1}, {"rows", nlohmann::ordered_json::array()}};
    for (const SubjectSamples& subject : subjects)
        for (const std::string& work : workNames())
            for (const auto& [contender, works] : subject.m_contenders) {
                const auto samples = works.find(work);
                if (samples == works.end())
                    continue;
                report["rows"].push_back(
                    {{"workload", subject.m_subject.m_workload},
                     {"size", subject.m_size},
                     {"work", work},
                     {"contender", contender},
                     {"ns", median(samples->second.m_nanoseconds)},
                     {"bytes_per_region", median(samples->second.m_bytesPerRegion)}});
            }
    return report.dump(1) + "\n";
}

std::string reportAsTables(const std::vector<SubjectSamples>& subjects,
                           const std::vector<std::string>& contenders)
{
    std::string text = "nanoseconds an operation, median of the rounds; in parentheses: over the "
                       "locator's\n";
    for (const SubjectSamples& subject : subjects)
        text += table(subject, contenders);
    for (const std::string& workload : workloadNames()) {
        if (hasOwnSize(workload))
            continue;
        std::vector<const SubjectSamples*> sizes;
        for (const SubjectSamples& subject : subjects)
            if (subject.m_subject.m_workload == workload)
                sizes.push_back(&subject);
        if (sizes.size() > 1)
            text += growth(sizes, contenders);
    }
    return text;
}
