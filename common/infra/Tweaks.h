// Named settings that are read once, where the object that needs them is constructed.
#pragma once

#include <map>
#include <mutex>
#include <string>

#include "common/infra/Types.h"

// Thread safety: any thread.
class Tweaks
{
public:
    // The value set under that name, or `defaultValue` when none is set.
    static u64 uintVal(const std::string& name, u64 defaultValue)
    {
        std::lock_guard<std::mutex> lock(s_mutex);
        const auto found = s_values.find(name);
        return found == s_values.end() ? defaultValue : found->second;
    }

    static void set(const std::string& name, u64 value)
    {
        std::lock_guard<std::mutex> lock(s_mutex);
        s_values[name] = value;
    }

    // Back to every reader's own default.
    static void unset(const std::string& name)
    {
        std::lock_guard<std::mutex> lock(s_mutex);
        s_values.erase(name);
    }

private:
    static inline std::mutex s_mutex;
    static inline std::map<std::string, u64> s_values;
};
