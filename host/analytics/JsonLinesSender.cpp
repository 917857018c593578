#include "host/analytics/JsonLinesSender.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>

#include "common/infra/Mutex.h"
#include "host/infra/LogFormat.h"

namespace {

class ParcelFile
{
public:
    explicit ParcelFile(const std::string& path) : m_file(path, std::ios::app) {}

    bool isGood() const { return m_file.good(); }

    RcStatus send(const AnalyticsParcel& parcel)
    {
        const std::string line = JsonLinesSender::format(parcel) + "\n";
        MutexGuard lock(m_mutex);
        m_file.clear();
        m_file << line << std::flush;
        return m_file.good() ? RC_SUCCESS : RC_IO_ERROR;
    }

private:
    Mutex m_mutex;
    std::ofstream m_file;
};

const char* accountText(AnalyticsParcel::AccountType account)
{
    return account == AnalyticsParcel::XEL ? "xel" : "tav";
}

const char* priorityText(AnalyticsParcel::Priority priority)
{
    switch (priority) {
    case AnalyticsParcel::Normal: return "normal";
    case AnalyticsParcel::High: return "high";
    case AnalyticsParcel::Critical: return "critical";
    }
    return "unknown";
}

template <class Entries> void addEntries(nlohmann::ordered_json& line, const Entries& entries)
{
    for (const auto& [key, value] : entries)
        line["entries"][key] = value;
}

Mutex s_mutex;
bool s_isOpen RL_GUARDED_BY(s_mutex) = false;
AnalyticsParcelSender::Sender s_senderBefore RL_GUARDED_BY(s_mutex);

} // namespace

std::string JsonLinesSender::format(const AnalyticsParcel& parcel)
{
    nlohmann::ordered_json line;
    line["schema"] = 1;
    line["time"] = formatWallTime(parcel.m_xelTime * 1000);
    line["event"] = parcel.m_eventName;
    line["category"] = parcel.m_category;
    line["account"] = accountText(parcel.m_account);
    line["priority"] = priorityText(parcel.m_eventPriority);
    line["entries"] = nlohmann::ordered_json::object();
    addEntries(line, parcel.m_strEntries);
    addEntries(line, parcel.m_u32Entries);
    addEntries(line, parcel.m_u64Entries);
    addEntries(line, parcel.m_longEntries);
    addEntries(line, parcel.m_doubleEntries);
    addEntries(line, parcel.m_intEntries);
    return line.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

Outcome JsonLinesSender::open(const std::string& path)
{
    MutexGuard lock(s_mutex);
    if (s_isOpen)
        return {RC_IN_USE, "an analytics file is open already"};
    auto file = std::make_shared<ParcelFile>(path);
    if (!file->isGood())
        return {RC_IO_ERROR, "cannot write analytics to " + path + ": " + strerror(errno)};
    s_senderBefore = AnalyticsParcelSender::setSender([file](AnalyticsParcel* parcel) {
        const RcStatus rc = file->send(*parcel);
        SHIELD_DELETE(parcel);
        return rc;
    });
    s_isOpen = true;
    return {};
}

void JsonLinesSender::close()
{
    MutexGuard lock(s_mutex);
    if (!s_isOpen)
        return;
    AnalyticsParcelSender::setSender(std::move(s_senderBefore));
    s_senderBefore = nullptr;
    s_isOpen = false;
}
