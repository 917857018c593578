#include "common/Analytics/AnalyticsParcel.h"

#include "host/infra/Clock.h"

AnalyticsParcel::AnalyticsParcel() : m_xelTime(Clock::instance()->wallTimeUs() / 1000) {}
