// Builds metric families one after the other, in the order in which they are shown.
//
// Thread safety: one thread.
#pragma once

#include <prometheus/metric_family.h>
#include <string>
#include <vector>

#include "common/infra/Types.h"

class MetricFamilies
{
public:
    // volume: of every sample, in its first label, so that those of several mirrors can lie side by
    // side.
    explicit MetricFamilies(std::string volume) : m_volume(std::move(volume)) {}

    // Begins a family; its samples follow. A counter's name ends in _total.
    MetricFamilies& gauge(const std::string& name, const std::string& help);
    MetricFamilies& counter(const std::string& name, const std::string& help);

    // One sample of the family, with at most one label beside the volume's.
    MetricFamilies& add(double value);
    MetricFamilies& add(u64 value) { return add(static_cast<double>(value)); }
    MetricFamilies& add(const std::string& label, const std::string& labelValue, double value);
    MetricFamilies& add(const std::string& label, const std::string& labelValue, u64 value)
    {
        return add(label, labelValue, static_cast<double>(value));
    }

    std::vector<prometheus::MetricFamily> take() { return std::move(m_families); }

private:
    prometheus::ClientMetric& sample(double value);

    const std::string m_volume;
    std::vector<prometheus::MetricFamily> m_families;
};
