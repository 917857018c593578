#include "appliance/MetricFamilies.h"

using prometheus::MetricType;

MetricFamilies& MetricFamilies::gauge(const std::string& name, const std::string& help)
{
    m_families.push_back({name, help, MetricType::Gauge, {}});
    return *this;
}

MetricFamilies& MetricFamilies::counter(const std::string& name, const std::string& help)
{
    m_families.push_back({name, help, MetricType::Counter, {}});
    return *this;
}

prometheus::ClientMetric& MetricFamilies::sample(double value)
{
    prometheus::MetricFamily& family = m_families.back();
    prometheus::ClientMetric& metric = family.metric.emplace_back();
    metric.label.push_back({"volume", m_volume});
    if (family.type == MetricType::Counter)
        metric.counter.value = value;
    else
        metric.gauge.value = value;
    return metric;
}

MetricFamilies& MetricFamilies::add(double value)
{
    sample(value);
    return *this;
}

MetricFamilies& MetricFamilies::add(const std::string& label, const std::string& labelValue,
                                    double value)
{
    sample(value).label.push_back({label, labelValue});
    return *this;
}
