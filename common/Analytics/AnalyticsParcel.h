// One event on the analytics channel: a header and entries by key.
#pragma once

#include <map>
#include <string>

#include "common/infra/Types.h"

// A plain record. Entries of one value kind are kept in the order of their keys.
class AnalyticsParcel
{
public:
    enum AccountType : u32
    {
        TAV = 0,
        XEL = 1,
    };
    enum Priority : u32
    {
        Normal = 0,
        High = 1,
        Critical = 2,
    };

    // Stamps the parcel with the current time: milliseconds since 1970 in UTC.
    AnalyticsParcel();
    virtual ~AnalyticsParcel() = default;

    void setEventName(const std::string& name) { m_eventName = name; }
    void setCategory(const std::string& category) { m_category = category; }
    void setAccount(AccountType account) { m_account = account; }
    void setEventPriority(Priority priority) { m_eventPriority = priority; }

    // Adds an entry; one of the same key and value kind is replaced.
    void addEntry(const std::string& key, const std::string& value) { m_strEntries[key] = value; }
    void addEntry(const std::string& key, u32 value) { m_u32Entries[key] = value; }
    void addEntry(const std::string& key, u64 value) { m_u64Entries[key] = value; }
    void addEntry(const std::string& key, s64 value) { m_longEntries[key] = value; }
    void addEntry(const std::string& key, s32 value) { m_intEntries[key] = value; }
    void addEntry(const std::string& key, double value)
    {
        m_doubleEntries[key] = std::to_string(value);
    }

    std::string m_eventName;
    std::string m_category;
    AccountType m_account = TAV;
    Priority m_eventPriority = Normal;
    std::string m_concatKeyValueText;
    u32 m_value = 0;
    std::string m_txt;
    std::string m_details;
    u64 m_xelTime = 0;
    std::map<std::string, std::string> m_strEntries;
    std::map<std::string, u32> m_u32Entries;
    std::map<std::string, u64> m_u64Entries;
    std::map<std::string, s64> m_longEntries;
    std::map<std::string, std::string> m_doubleEntries;
    std::map<std::string, s32> m_intEntries;
};
