#include "appliance/CommandArguments.h"

#include <nlohmann/json.hpp>

CommandArguments::CommandArguments(const JsonValue& json) : m_json(json)
{
    if (!json.is_object() && !json.is_null())
        m_fault = Result::usage("the arguments are no JSON object");
}

const JsonValue* CommandArguments::find(const char* name) const
{
    if (!m_json.is_object())
        return nullptr;
    const auto found = m_json.find(name);
    return found == m_json.end() ? nullptr : &*found;
}

void CommandArguments::blame(const char* name, const char* wanted)
{
    if (m_fault.ok())
        m_fault = Result::usage(std::string("the argument '") + name + "' takes " + wanted);
}

std::string CommandArguments::text(const char* name, const std::string& otherwise)
{
    const JsonValue* value = find(name);
    if (value == nullptr)
        return otherwise;
    if (value->is_string())
        return value->get<std::string>();
    blame(name, "a text");
    return otherwise;
}

bool CommandArguments::flag(const char* name)
{
    const JsonValue* value = find(name);
    if (value == nullptr)
        return false;
    if (value->is_boolean())
        return value->get<bool>();
    blame(name, "true or false");
    return false;
}

std::optional<u64> CommandArguments::number(const char* name)
{
    const JsonValue* value = find(name);
    if (value == nullptr)
        return std::nullopt;
    if (value->is_number_unsigned())
        return value->get<u64>();
    blame(name, "a number from 0 upwards");
    return std::nullopt;
}
