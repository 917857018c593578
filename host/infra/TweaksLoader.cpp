#include "host/infra/TweaksLoader.h"

#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>
#include <nlohmann/json.hpp>
#include <unistd.h>
#include <utility>
#include <vector>

#include "common/infra/DynamicTweaks.h"
#include "common/infra/Tweaks.h"

namespace {

struct Setting
{
    std::string m_name;
    u64 m_value;
};

std::atomic<bool>* switchOf(const std::string& name)
{
    DynamicTweaks* tweaks = DynamicTweaks::instance();
    if (name == "t_RlVerboseLogs")
        return &tweaks->t_RlVerboseLogs;
    if (name == "t_BinVerboseLogs")
        return &tweaks->t_BinVerboseLogs;
    if (name == "t_IOVerboseLogs")
        return &tweaks->t_IOVerboseLogs;
    return nullptr;
}

void apply(const Setting& setting)
{
    if (std::atomic<bool>* theSwitch = switchOf(setting.m_name))
        theSwitch->store(setting.m_value != 0);
    else
        Tweaks::set(setting.m_name, setting.m_value);
}

Outcome parse(const std::string& name, const std::string& value, Setting* setting)
{
    setting->m_name = name;
    if (value == "true" || value == "false") {
        setting->m_value = value == "true" ? 1 : 0;
        return {};
    }
    const bool isHex = value.size() > 2 && value[0] == '0' && (value[1] == 'x' || value[1] == 'X');
    const char* first = value.data() + (isHex ? 2 : 0);
    const char* last = value.data() + value.size();
    const auto [end, error] = std::from_chars(first, last, setting->m_value, isHex ? 16 : 10);
    if (error != std::errc() || end != last)
        return {RC_BAD_ARGUMENT, "tweak " + name + ": '" + value + "' is not a number"};
    if (switchOf(name) != nullptr && setting->m_value > 1)
        return {RC_BAD_ARGUMENT, "tweak " + name + ": '" + value + "' is neither true nor false"};
    return {};
}

} // namespace

Outcome setTweak(const std::string& name, const std::string& value)
{
    Setting setting;
    Outcome outcome = parse(name, value, &setting);
    if (outcome.ok())
        apply(setting);
    return outcome;
}

Outcome setTweak(const std::string& assignment)
{
    const size_t equals = assignment.find('=');
    if (equals == std::string::npos || equals == 0)
        return {RC_BAD_ARGUMENT, "a setting is NAME=VALUE, not '" + assignment + "'"};
    return setTweak(assignment.substr(0, equals), assignment.substr(equals + 1));
}

Outcome loadTweaksFile(const std::string& path)
{
    std::ifstream file(path);
    if (!file) {
        const int error = errno;
        return {error == ENOENT ? RC_NOT_FOUND : RC_IO_ERROR,
                "cannot read the tweaks in " + path + ": " + std::strerror(error)};
    }
    const nlohmann::json document = nlohmann::json::parse(file, nullptr, false);
    if (!document.is_object())
        return {RC_BAD_ARGUMENT, path + " does not hold one JSON object"};
    std::vector<Setting> settings;
    for (const auto& [name, value] : document.items()) {
        const std::string text = value.is_string() ? value.get<std::string>() : value.dump();
        Setting setting;
        Outcome outcome = parse(name, text, &setting);
        if (!outcome.ok())
            return {outcome.m_rc, path + ": " + outcome.m_message};
        settings.push_back(std::move(setting));
    }
    for (const Setting& setting : settings)
        apply(setting);
    return {};
}

Outcome loadTweaksFromEnvironment()
{
    const std::string prefix = "RL_TWEAK_";
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
        const std::string text = *entry;
        const size_t equals = text.find('=');
        if (text.compare(0, prefix.size(), prefix) != 0 || equals == std::string::npos)
            continue;
        const std::string name = text.substr(prefix.size(), equals - prefix.size());
        Outcome outcome = setTweak(name, text.substr(equals + 1));
        if (!outcome.ok())
            return {outcome.m_rc, "in the environment, " + outcome.m_message};
    }
    return {};
}
